"""What the package talvik adds to the time of the search that it calls, on the large collection.

In one process: the time of `kneighbors` beside the seconds that the search itself took.  And whole
runs in turn: a program in Python that opens the saved collection and asks, beside `talvik search`.
"""

import json
import pathlib
import re
import subprocess
import sys
import tempfile
import time

import numpy as np

ROOT = pathlib.Path(__file__).resolve().parent.parent
LARGE = ROOT / "data/large"
VECTORS = ROOT / "data/glove-100d.bin"
THREADS = 2
NEIGHBOURS = 10
ROUNDS = 5
MOST_ADDED = 0.05  # of the search's own time


def queries_of(path):
    with open(path, encoding="utf-8") as lines:
        return [json.loads(line)["text"] for line in lines]


def ask(saved, texts_path, rounds):
    """Prints the seconds of opening, and per round those of kneighbors and of its search."""
    from talvik import WordMoverNeighbors

    texts = queries_of(texts_path)
    began = time.perf_counter()
    nn = WordMoverNeighbors.load(saved, n_neighbors=NEIGHBOURS, n_jobs=THREADS)
    print(time.perf_counter() - began)
    for _ in range(rounds):
        began = time.perf_counter()
        nn.kneighbors(texts)
        print(time.perf_counter() - began, nn.stats_["seconds"])


def output_of(command, environment):
    return subprocess.run([str(part) for part in command], env=environment, stdout=subprocess.PIPE,
                          text=True, check=True).stdout


def whole_run(command, environment):
    began = time.perf_counter()
    return output_of(command, environment), time.perf_counter() - began


def seconds_of(report, stage):
    return float(re.search(rf"seconds of {stage} +([0-9.]+)", report)[1])


def compare(program, environment, checks, say):
    saved, texts, queries = LARGE / "bench.talvik", LARGE / "texts.jsonl", LARGE / "queries.jsonl"
    if not saved.is_file():
        say("making the saved collection")
        output_of([program, "index", "--vectors", VECTORS, "--texts", texts, "--output", saved],
                  environment)
    python = [sys.executable, __file__, saved, queries]
    say("kneighbors and its search, in one process")
    _, *calls = output_of([*python, ROUNDS], environment).splitlines()
    calls = np.array([line.split() for line in calls], dtype=float)
    with tempfile.TemporaryDirectory() as folder:
        search = [program, "search", "--collection", saved, "--texts", queries, "--k", NEIGHBOURS,
                  "--threads", THREADS, "--stats", "--out", pathlib.Path(folder, "lists.tsv")]
        runs = []
        for number in range(ROUNDS):
            say(f"whole runs, round {number + 1} of {ROUNDS}")
            (report, program_wall), (lines, python_wall) = (
                whole_run(command, environment) for command in (search, [*python, 1]))
            opened, asked, _ = map(float, lines.split())
            program_work = seconds_of(report, "loading") + seconds_of(report, "searching")
            runs.append((program_wall, program_work, python_wall, opened + asked))
    report_ratios(calls, np.array(runs), checks)


def report_ratios(calls, runs, checks):
    added = np.median(calls[:, 0] / calls[:, 1]) - 1
    call, search = np.median(calls, axis=0)
    print(f"- kneighbors {call:.3f} s, the search in it {search:.3f} s: {100 * added:.1f} % more "
          f"(meant to be at most {100 * MOST_ADDED:.0f} %; medians of {ROUNDS} calls in one process).")
    program_wall, program_work, python_wall, python_work = runs.min(axis=0)
    print(f"- Opening and asking: the package {python_work:.2f} s, talvik search "
          f"{program_work:.2f} s, {python_work / program_work:.3f} times as long; whole processes, with the package's "
          f"imports, {python_wall:.2f} and {program_wall:.2f} s (the quickest of {ROUNDS} each, in "
          "turn).", flush=True)
    checks.require(added <= MOST_ADDED, f"the package adds {100 * added:.1f} % to its search")


if __name__ == "__main__":
    ask(sys.argv[1], sys.argv[2], int(sys.argv[3]))
