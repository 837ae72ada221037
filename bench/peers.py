"""Compares the program with other ways of computing the same distances, on real data, in one run.

The ways: the program; NumPy and SciPy in blocks, plainly and with the program's own idea of taking
distinct words once; NumPy pair by pair; the exact transport distance of the library POT, pair by
pair.  All use two cores and the same documents.  Prints tables in Markdown for docs/results.md,
and ends with status 1 if the ways do not agree, or if a relaxed distance is above an exact one.
"""

import os

PROGRAM_ENVIRONMENT = dict(os.environ)
os.environ.update(OPENBLAS_NUM_THREADS="1", OMP_NUM_THREADS="1")  # before NumPy loads its BLAS

import functools
import pathlib
import subprocess
import sys
import tempfile
import time
from typing import NamedTuple

import numpy as np
import ot
import scipy

import peers_classes
import peers_documents as documents
import peers_exact
import peers_lists
import peers_python
import peers_ways as ways
from peers_table import header, row, significant

ROOT = pathlib.Path(__file__).resolve().parent.parent
DATA = ROOT / "data"
PROGRAM = ROOT / os.environ.get("TALVIK", "build-bench/talvik")
ROUNDS = 2  # every way in turn; the quicker of its times counts
NEIGHBOURS = 16
STEPS = 3  # capacity steps of the program's third run
SEED = 20


class Case(NamedTuple):
    """One data set: what the program is called with, and the same documents for Python."""

    name: str
    trees: tuple  # resident and query documents, of texts
    arguments: list
    vectors: np.ndarray
    resident: documents.Documents
    queries: documents.Documents
    tolerance: float  # of a distance; what rounding may leave of it
    sampled_pairs: int  # for what computes one pair at a time
    sampled_queries: int  # for the errors beside exact transport


class Run(NamedTuple):
    """What one way found for all pairs: distances[query, resident] and lists of neighbours."""

    seconds: float
    distances: np.ndarray
    lists: np.ndarray


@functools.cache
def glove():
    return documents.read_vectors(DATA / "glove-100d.bin")


def text_case(title, name, sampled_pairs, sampled_queries):
    index, vectors = glove()
    resident, queries = DATA / name / "resident", DATA / name / "queries"
    arguments = ["corpus", "--embeddings", DATA / "glove-100d.bin", "--resident", resident,
                 "--queries", queries]
    # Between a word and itself up to about 0.001 can remain in single precision.
    return Case(title, (resident, queries), arguments, vectors, documents.read_corpus(resident, index),
                documents.read_corpus(queries, index), 1e-3, sampled_pairs, sampled_queries)


def image_case(limit, sampled_pairs):
    files = [DATA / "mnist" / name for name in
             ("train-images-idx3-ubyte", "train-labels-idx1-ubyte",
              "t10k-images-idx3-ubyte", "t10k-labels-idx1-ubyte")]
    options = ["--resident-images", "--resident-labels", "--query-images", "--query-labels"]
    arguments = ["mnist", "--limit-queries", limit]
    for option, file in zip(options, files):
        arguments += [option, file]
    # Squared distances of pixels are whole numbers; only roots and sums are rounded.
    return Case("MNIST", None, arguments, documents.pixel_positions(),
                documents.read_images(*files[:2]), documents.read_images(*files[2:], limit), 1e-5,
                sampled_pairs, limit)


CASES = {
    "spam": lambda: text_case("SpamAssassin", "spam", 1000, 400),
    "brown": lambda: text_case("Brown", "brown", 200, 40),
    "mnist": lambda: image_case(256, 1000),
}


class Checks:
    """Says what does not hold and remembers it."""

    def __init__(self):
        self.failures = 0

    def require(self, holds, text):
        if not holds:
            self.failures += 1
            print(f"FAILED: {text}", flush=True)


def say(text):
    print(text, file=sys.stderr, flush=True)


def numbers_of(report, name):
    line = next(line for line in report.splitlines() if line.startswith(name + " "))
    return [float(number) for number in line[len(name):].split()]


def run_program(case, mode, steps, checks):
    """A run of the program; its own figure for the seconds, which leaves loading out."""
    with tempfile.TemporaryDirectory() as folder:
        lists, matrix = pathlib.Path(folder, "lists.tsv"), pathlib.Path(folder, "matrix.npy")
        command = [PROGRAM, *case.arguments, "--mode", mode, "--steps", steps, "--out", lists,
                   "--format", "tsv", "--by", "index", "--matrix", matrix, "--k", NEIGHBOURS,
                   "--threads", ways.THREADS]
        report = subprocess.run([str(part) for part in command], env=PROGRAM_ENVIRONMENT,
                                stdout=subprocess.PIPE, text=True, check=True).stdout
        distances, rows = np.load(matrix), np.loadtxt(lists, skiprows=1)
    checks.require(numbers_of(report, "entries") ==
                   [case.resident.entries.nnz, case.queries.entries.nnz],
                   f"{case.name}: the program and Python read other documents")
    neighbours = rows[:, 1].astype(int).reshape(-1, NEIGHBOURS)
    checks.require(np.array_equal(np.take_along_axis(distances, neighbours, axis=1).ravel(),
                                  np.float32(rows[:, 3])),
                   f"{case.name}: the program's lists and matrix differ")
    return Run(numbers_of(report, "seconds")[0], distances, neighbours)


def timed(task):
    began = time.perf_counter()
    result = task()
    return time.perf_counter() - began, result


def run_numpy(case, direction):
    """The one-way and the two-way run of a NumPy way, which share the first direction."""
    vectors, resident, queries = case.vectors, case.resident, case.queries
    first_seconds, one_way = timed(lambda: direction(vectors, resident, queries).T)
    other_seconds, two_way = timed(lambda: np.maximum(one_way,
                                                      direction(vectors, queries, resident)))
    runs = []
    for seconds, distances in (first_seconds, one_way), (first_seconds + other_seconds, two_way):
        list_seconds, lists = timed(lambda: ways.nearest(distances, NEIGHBOURS))
        runs.append(Run(seconds + list_seconds, distances, lists))
    return runs


PROGRAM_RUNS = {  # name: (mode, capacity steps)
    "one way": ("split", 0),
    "two-way": ("two-way", 0),
    f"two-way, {STEPS} steps": ("two-way", STEPS),
}
NUMPY_RUNS = {
    "NumPy and SciPy, distinct words once": ways.distinct_once,
    "NumPy and SciPy, blocks": ways.in_blocks,
}


def rounds(case, checks):
    """{(way, run): Run with the quickest time}, every way once a round, in turn."""
    best = {}

    def keep(key, run):
        if key not in best or run.seconds < best[key].seconds:
            best[key] = run

    for number in range(ROUNDS):
        for run, (mode, steps) in PROGRAM_RUNS.items():
            say(f"{case.name}, round {number + 1} of {ROUNDS}: talvik, {run}")
            keep(("talvik", run), run_program(case, mode, steps, checks))
        for way, direction in NUMPY_RUNS.items():
            say(f"{case.name}, round {number + 1} of {ROUNDS}: {way}")
            for run, result in zip(("one way", "two-way"), run_numpy(case, direction)):
                keep((way, run), result)
    return best


def compare(case, best, checks):
    """Distances of every NumPy way against the program's, and its lists against those distances."""
    difference = 0
    for (way, name), run in best.items():
        ours = best["talvik", name]
        largest = np.abs(run.distances - ours.distances).max()
        checks.require(largest <= case.tolerance,
                       f"{case.name}, {name}: a distance of {way} differs by {largest:.2g}")
        kth = np.sort(ours.distances, axis=1)[:, :NEIGHBOURS]
        listed = np.take_along_axis(ours.distances, run.lists, axis=1)
        checks.require(np.abs(listed - kth).max() <= 2 * case.tolerance,
                       f"{case.name}, {name}: {way} lists a document that is not among the nearest")
        difference = max(difference, largest)
    same = np.mean([(best[way, name].lists == best["talvik", name].lists).mean()
                    for way, name in best if way != "talvik"])
    return difference, same


def error(case, lists, queries=slice(None)):
    """The fraction of queries whose first neighbour is of another class."""
    return np.mean(case.resident.classes[lists[:, 0]] != case.queries.classes[queries])


class PairRuns(NamedTuple):
    """The ways that take one pair at a time, on the sampled pairs."""

    pairs: np.ndarray  # (query, resident) rows
    relaxed_seconds: float
    exact_seconds: float
    bounds: np.ndarray  # pairs x 2, both directions in double precision
    exact: np.ndarray
    queries: np.ndarray  # of the re-ranked lists
    reranked: np.ndarray  # their program's lists in the order of the exact distance


def run_pairs(case, lists, checks):
    random = np.random.default_rng(SEED)
    pairs = np.column_stack([random.integers(side.count, size=case.sampled_pairs)
                             for side in (case.queries, case.resident)])
    chosen = np.arange(case.sampled_queries) * case.queries.count // case.sampled_queries
    candidates = np.column_stack([np.repeat(chosen, NEIGHBOURS), lists[chosen].ravel()])
    with ways.PairPool(case.vectors, case.resident, case.queries) as pool:
        say(f"{case.name}: {len(pairs)} pairs one at a time")
        relaxed_seconds, relaxed = timed(lambda: pool.map(ways.relaxed_pair, pairs))
        exact_seconds, exact = timed(lambda: pool.map(ways.exact_pair, pairs))
        bounds = pool.map(ways.bounds_pair, pairs)
        say(f"{case.name}: exact distances of {len(candidates)} neighbours")
        listed = pool.map(ways.exact_pair, candidates).reshape(-1, NEIGHBOURS)
    checks.require(np.abs(relaxed - bounds).max() <= case.tolerance,
                   f"{case.name}: NumPy's single pairs differ from double precision")
    order = np.argsort(listed, axis=1, kind="stable")
    return PairRuns(pairs, relaxed_seconds, exact_seconds, bounds, exact, chosen,
                    np.take_along_axis(lists[chosen], order, axis=1))


def check_bounds(case, best, runs, checks):
    """Relaxed is at most exact: in double precision, and as the program computes it."""
    rounding = 1e-9 * (1 + runs.exact)
    checks.require((runs.bounds <= (runs.exact + rounding)[:, None]).all(),
                   f"{case.name}: a relaxed distance is above the exact one")
    at = tuple(runs.pairs.T)
    for name in PROGRAM_RUNS:
        ours = best["talvik", name].distances[at]
        checks.require((ours <= runs.exact + case.tolerance).all(),
                       f"{case.name}, {name}: a distance of talvik is above the exact one")
    two_way = np.abs(best["talvik", "two-way"].distances[at] - runs.bounds.max(axis=1)).max()
    checks.require(two_way <= case.tolerance,
                   f"{case.name}: talvik differs from double precision by {two_way:.2g}")
    return two_way


def print_speed(case, best, runs):
    size = f"{case.queries.count:,} x {case.resident.count:,}"
    all_pairs = case.queries.count * case.resident.count
    sampled = len(runs.pairs)
    lines = [(way, name, all_pairs, run.seconds, f"{100 * error(case, run.lists):.2f} %")
             for (way, name), run in best.items()]
    lines.append(("NumPy, pair by pair", "two-way", sampled, runs.relaxed_seconds, ""))
    lines.append(("POT, pair by pair", "exact", sampled, runs.exact_seconds, ""))
    for kind in ("one way", "two-way"):
        ours = all_pairs / best["talvik", kind].seconds
        for way, name, pairs, seconds, wrong in lines:
            if (name == "one way") == (kind == "one way"):
                row(case.name, way, name, size, f"{pairs:,}", f"{seconds:.2f}",
                    significant(pairs / seconds), significant(ours / (pairs / seconds)), wrong)


def print_tightness(case, best, runs):
    at = tuple(runs.pairs.T)
    ratios = [np.mean(best["talvik", name].distances[at] / runs.exact) for name in PROGRAM_RUNS]
    errors = [error(case, best["talvik", name].lists[runs.queries], runs.queries)
              for name in PROGRAM_RUNS]
    errors.append(error(case, runs.reranked, runs.queries))
    row(case.name, f"{len(runs.pairs):,}", *(f"{ratio:.3f}" for ratio in ratios),
        len(runs.queries), *(f"{100 * value:.1f} %" for value in errors))


def blas_name():
    """The BLAS that NumPy has loaded."""
    libraries = {line.split()[-1] for line in open("/proc/self/maps") if "blas" in line}
    return next((pathlib.Path(path).name for path in sorted(libraries) if "openblas" in
                 pathlib.Path(path).name), None)


def main():
    if not blas_name():
        sys.exit("bench/peers: NumPy runs without OpenBLAS: apt-get install libopenblas0-pthread")
    sections = [*CASES, "exact", "lists", "classes", "python"]
    wanted = sys.argv[1:] or sections
    unknown = set(wanted) - set(sections)
    if unknown:
        sys.exit(f"bench/peers: no data called {', '.join(sorted(unknown))}: "
                 f"{', '.join(sections)}")
    checks = Checks()
    done = []
    for name in [name for name in wanted if name in CASES]:
        case = CASES[name]()
        best = rounds(case, checks)
        runs = run_pairs(case, best["talvik", "two-way"].lists, checks)
        done.append((case, best, runs))
    if done:
        print_results(done, checks)
    texts = [CASES[name]() for name in ("spam", "brown")] if {"exact", "classes"} & set(wanted) else []
    if "exact" in wanted:
        peers_exact.compare(texts, checks, say)
    if "lists" in wanted:
        peers_lists.compare(DATA, checks, say)
    if "classes" in wanted:
        peers_classes.compare(texts, checks, say)
    if "python" in wanted:
        peers_python.compare(PROGRAM, PROGRAM_ENVIRONMENT, checks, say)
    sys.exit(checks.failures > 0)


def print_results(done, checks):
    header("data", "way", "distance", "queries x resident", "pairs", "seconds", "pairs/s",
           "time per pair, talvik = 1", "1-NN error")
    for case, best, runs in done:
        print_speed(case, best, runs)
    print()
    header("data", "pairs", *(f"{name} / exact" for name in PROGRAM_RUNS), "queries",
           *(f"error {name}" for name in PROGRAM_RUNS), "error exact")
    for case, best, runs in done:
        print_tightness(case, best, runs)
    print()
    for case, best, runs in done:
        difference, same = compare(case, best, checks)
        double = check_bounds(case, best, runs, checks)
        print(f"- {case.name}: largest difference between NumPy's distances and talvik's "
              f"{difference:.1e} (checked: at most {case.tolerance:.0e}), of talvik's to double "
              f"precision {double:.1e}; {100 * same:.2f} % of the places in the lists the same. "
              f"Relaxed is at most exact on all {len(runs.pairs):,} pairs, both directions.")
    print(f"- NumPy {np.__version__}, SciPy {scipy.__version__}, POT {ot.__version__}, "
          f"{blas_name()}, {ways.THREADS} threads or processes, the quicker of {ROUNDS} rounds.")


if __name__ == "__main__":
    main()
