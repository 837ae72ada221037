"""The other ways of computing distances between documents that bench/peers times.

All of them use THREADS cores: in blocks as threads, since NumPy and SciPy let go of Python's lock
in their loops; pair by pair as processes, since there Python itself takes most of the time.  The
BLAS is kept to one thread in each.
"""

import concurrent.futures
import multiprocessing
import resource
import time
import warnings
from typing import NamedTuple

import numpy as np
import ot
import scipy.sparse
from scipy.spatial.distance import cdist

THREADS = 2
# Products of 512 x 2048 and (all distinct words) x 256 scores were the fastest of those tried.
BLOCK_ENTRIES, BLOCK_WORDS = 512, 2048
DISTINCT_PANEL_WORDS = 256
SPARSE_COLUMNS = 64  # documents per sparse product; the table's rows stay in the caches
PAIRS_PER_TASK = 8
SIMPLEX_STEPS = 10_000_000  # the exact solver's default is too few for long texts


def in_threads(task, items):
    with concurrent.futures.ThreadPoolExecutor(THREADS) as pool:
        return list(pool.map(task, items))


def slices(count, width):
    return [slice(begin, min(begin + width, count)) for begin in range(0, count, width)]


def compact(collection):
    """The collection's distinct words, and its matrix with one column for each of them."""
    words, columns = np.unique(collection.entries.indices, return_inverse=True)
    entries = collection.entries
    shape = (collection.count, len(words))
    return words, scipy.sparse.csr_matrix((entries.data, columns, entries.indptr), shape)


def block_scores(points, entries, panel):
    """For every document the scores of its words against a panel, by products of its own rows."""
    starts, first = entries.indptr, 0
    while first < len(starts) - 1:
        last = max(first + 1, np.searchsorted(starts, starts[first] + BLOCK_ENTRIES, "right") - 1)
        rows = points.take(entries.indices[starts[first]:starts[last]], axis=0)
        scores = rows @ panel.T
        for d in range(first, last):
            yield scores[starts[d] - starts[first]:starts[d + 1] - starts[first]]
        first = last


def distinct_scores(points, entries, panel):
    """The same by one product of all distinct words, of which every document takes its rows."""
    scores = points @ panel.T
    for begin, end in zip(entries.indptr[:-1], entries.indptr[1:]):
        yield scores.take(entries.indices[begin:end], axis=0)


def one_way(vectors, travelling, standing, scores_of, panel_words):
    """Every word of `travelling` goes to the nearest word of the document of `standing`.

    Returns a matrix, travelling x standing.  Of one word, distances are ordered as
    |b|^2 - 2 a.b, so the product gives these scores (one more column holds the norm), and only the
    minima become distances.
    """
    words, weights = compact(travelling)
    targets, entries = compact(standing)
    a, b = vectors[words], vectors[targets]
    panels = np.column_stack([-2 * a, np.ones(len(a), np.float32)])
    points = np.column_stack([b, np.einsum("ij,ij->i", b, b)])
    norms = np.einsum("ij,ij->i", a, a)
    minima = np.empty((standing.count, len(words)), np.float32)

    def fill(panel):
        nearest = minima[:, panel]
        for d, scores in enumerate(scores_of(points, entries, panels[panel])):
            np.minimum.reduce(scores, axis=0, out=nearest[d])
        np.sqrt(np.abs(nearest + norms[panel]), out=nearest)

    def pour(documents):
        return weights @ minima[documents].T

    in_threads(fill, slices(len(words), panel_words))
    return np.concatenate(in_threads(pour, slices(standing.count, SPARSE_COLUMNS)), axis=1)


def in_blocks(vectors, travelling, standing):
    return one_way(vectors, travelling, standing, block_scores, BLOCK_WORDS)


def distinct_once(vectors, travelling, standing):
    return one_way(vectors, travelling, standing, distinct_scores, DISTINCT_PANEL_WORDS)


def nearest(distances, k):
    """The k nearest of every row, ascending."""
    def select(rows):
        part = np.argpartition(distances[rows], k - 1, axis=1)[:, :k]
        part.sort(axis=1)
        values = np.take_along_axis(distances[rows], part, axis=1)
        return np.take_along_axis(part, np.argsort(values, axis=1, kind="stable"), axis=1)
    return np.concatenate(in_threads(select, slices(len(distances), SPARSE_COLUMNS)))


def relaxed_pair(a, a_weights, b, b_weights):
    """Both directions for one pair, in single precision: a's words travel, b's words travel."""
    squares = np.einsum("ij,ij->i", a, a)[:, None] + np.einsum("ij,ij->i", b, b) - 2 * (a @ b.T)
    squares = np.abs(squares)
    return (a_weights @ np.sqrt(squares.min(axis=1)), b_weights @ np.sqrt(squares.min(axis=0)))


def sums_to_one(weights):
    """In double precision, as far as single precision left a difference."""
    weights = weights.astype(np.float64)
    return weights / weights.sum()


def exact_pair(a, a_weights, b, b_weights):
    """The full transport distance of one pair, in double precision."""
    with warnings.catch_warnings():
        warnings.simplefilter("error")  # it warns where it has not come to the end
        return ot.emd2(sums_to_one(a_weights), sums_to_one(b_weights), cdist(a, b),
                       numItermax=SIMPLEX_STEPS)


def bounds_pair(a, a_weights, b, b_weights):
    """Both directions for one pair in double precision, from differences of the vectors."""
    distances = cdist(a, b)
    return (sums_to_one(a_weights) @ distances.min(axis=1),
            sums_to_one(b_weights) @ distances.min(axis=0))


class Timed(NamedTuple):
    wall: float
    processor: float
    result: object


def timed(task, who=resource.RUSAGE_SELF):
    """Runs the task; its own time, or that of processes that it starts and ends."""
    def processor():
        usage = resource.getrusage(who)
        return usage.ru_utime + usage.ru_stime

    began, busy = time.perf_counter(), processor()
    result = task()
    return Timed(time.perf_counter() - began, processor() - busy, result)


class PairPool:
    """Processes that compute one pair at a time."""

    def __init__(self, vectors, resident, queries):
        self.data = vectors, resident, queries
        _PairTask.data = self.data  # the processes are forks and find it there
        self.pool = multiprocessing.get_context("fork").Pool(THREADS)

    def map(self, function, pairs):
        """function(resident document, query) of every (query, resident) pair."""
        return np.array(self.pool.map(_PairTask(function), pairs, PAIRS_PER_TASK))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.pool.close()
        self.pool.join()


class _PairTask:
    data = None

    def __init__(self, function):
        self.function = function

    def __call__(self, pair):
        vectors, resident, queries = _PairTask.data
        words1, weights1 = resident.document(pair[1])
        words2, weights2 = queries.document(pair[0])
        return self.function(vectors[words1], weights1, vectors[words2], weights2)
