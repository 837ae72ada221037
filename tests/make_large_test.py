#!/usr/bin/env python3
"""What scripts/make-large makes of the sample corpus."""

import collections
import json
import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent
SAMPLE = ROOT / "data" / "sample"
TEXTS, QUERIES = 200, 10
SHORTEST, LONGEST = 40, 80


def run(output, *options, hash_seed="1", script=ROOT / "scripts" / "make-large"):
    command = [script, "--output", output, "--texts", TEXTS, "--queries", QUERIES, *options]
    return subprocess.run([str(part) for part in command], capture_output=True, text=True,
                          env={**os.environ, "PYTHONHASHSEED": hash_seed}, check=False)


def content(output):
    return {path.name: path.read_text(encoding="utf-8") for path in sorted(output.iterdir())}


def records(output):
    return [json.loads(line) for text in reversed(content(output).values())  # the texts come first
            for line in text.splitlines()]


def sample_places():
    """Where each word stands: {(class, word): [(file, place), ...]}."""
    places = collections.defaultdict(list)
    for path in SAMPLE.glob("*/*/*"):
        for place, word in enumerate(path.read_text(encoding="utf-8").split()):
            places[path.parent.name, word].append((path, place))
    return places


def words_in_place(record, places):
    """How many words stand as they do in the source text that fits best."""
    votes = collections.Counter((path, place - at)
                                for at, word in enumerate(record["text"].split(" "))
                                for path, place in places[record["label"], word])
    return votes.most_common(1)[0][1]


def is_near_copy(record, original):
    words, others = record["text"].split(" "), original["text"].split(" ")
    changed = sum(word != other for word, other in zip(words, others))
    return (record["label"] == original["label"] and len(words) == len(others)
            and 1 <= changed <= 3)


class MakeLarge(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.directory = pathlib.Path(directory.name)

    def make(self, name, *options, **settings):
        output = self.directory / name
        done = run(output, "--source", SAMPLE, *options, **settings)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        return output

    def test_same_seed_gives_same_bytes_and_another_seed_others(self):
        first = content(self.make("a"))
        self.assertEqual(list(first), ["queries.jsonl", "texts.jsonl"])
        self.assertEqual(first, content(self.make("b", hash_seed="2")))
        self.assertNotEqual(first, content(self.make("c", "--seed", 2)))

    def test_texts_are_pieces_with_the_wanted_share_of_words_exchanged(self):
        places = sample_places()
        for exchanged, least, most in (0, 0, 0), (0.3, 0.25, 0.35):
            made = records(self.make(f"{exchanged}", "--exchanged", exchanged, "--copies", 0))
            self.assertEqual([record["id"] for record in made],
                             [f"t{n}" for n in range(1, TEXTS + 1)] +
                             [f"q{n}" for n in range(1, QUERIES + 1)])
            lengths = [len(record["text"].split(" ")) for record in made]
            self.assertTrue(SHORTEST <= min(lengths) < max(lengths) <= LONGEST, lengths)
            kept = sum(words_in_place(record, places) for record in made)
            self.assertTrue(least <= 1 - kept / sum(lengths) <= most, (exchanged, kept))

    def test_the_wanted_share_are_near_copies_of_earlier_texts(self):
        made = records(self.make("copies", "--exchanged", 0, "--copies", 0.5))
        places = sample_places()
        copies = 0
        for number, record in enumerate(made):
            if words_in_place(record, places) == len(record["text"].split(" ")):
                continue
            copies += 1
            self.assertTrue(any(is_near_copy(record, earlier) for earlier in made[:number]), record)
        self.assertTrue(0.4 <= copies / len(made) <= 0.6, copies)

    def test_queries_come_from_their_own_source(self):
        output = self.make("own", "--query-source", SAMPLE / "queries" / "polk", "--copies", 0)
        made = records(output)
        self.assertEqual({"label" in record for record in made[:TEXTS]}, {True})
        self.assertEqual({"label" in record for record in made[TEXTS:]}, {False})  # no class there

    def test_nothing_is_overwritten_unasked_and_a_missing_corpus_is_named(self):
        output = self.make("kept")
        before = content(output)
        done = run(output, "--source", SAMPLE, "--seed", 2)
        self.assertEqual(done.returncode, 1)
        self.assertIn("texts.jsonl is there already", done.stderr)
        self.assertEqual(content(output), before)
        self.assertNotEqual(content(self.make("kept", "--seed", 2, "--force")), before)

        scripts = self.directory / "elsewhere" / "scripts"  # where nothing was fetched
        shutil.copytree(ROOT / "scripts", scripts)
        done = run(self.directory / "new", script=scripts / "make-large")
        self.assertEqual(done.returncode, 1)
        self.assertIn("scripts/fetch-data brown", done.stderr)
        self.assertFalse((self.directory / "new").exists())


if __name__ == "__main__":
    unittest.main()
