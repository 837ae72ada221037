"""The search's lists against all distances, which nothing has pruned.

Per query the k nearest of all documents, by the distances of all its pairs in double precision, ties
by number: the search must name the same documents at the same distances.
"""

import pathlib

import numpy as np

import talvik
from talvik import _core

SEED = 5
NEIGHBOURS = 17
# Exact distances of all pairs would take hours: of so many random queries.
EXACT_QUERIES = {"Brown": 6, "SpamAssassin": 12}


def texts_of(tree):
    """The texts below a folder of classes, in the order of their paths."""
    files = sorted(path for path in pathlib.Path(tree).rglob("*") if path.is_file())
    return [path.read_text(encoding="latin-1") for path in files]


def filled(collection, texts, vectors):
    collection.append_texts(texts, vectors)
    return collection


def nearest_of_all(resident, queries, settings):
    """Distances and numbers of the nearest of every query, from all its pairs."""
    documents = np.arange(len(resident))
    distances, numbers = [], []
    for query in range(len(queries)):
        pairs = np.column_stack([documents, np.full_like(documents, query)])
        every = _core.distances(resident, queries, pairs, settings)
        order = np.argsort(every, kind="stable")[:NEIGHBOURS]
        numbers.append(order)
        distances.append(every[order])
    return np.array(distances), np.array(numbers)


def compare_measure(name, measure, resident, queries, checks):
    settings = _core.Settings(measure=measure)
    _, numbers, distances, _ = _core.neighbours(resident, queries, NEIGHBOURS, settings)
    expected_distances, expected = nearest_of_all(resident, queries, settings)
    same = np.count_nonzero((numbers == expected.ravel()) &
                            (distances == expected_distances.ravel().astype(distances.dtype)))
    checks.require(same == expected.size,
                   f"{name}, {measure.name}: {expected.size - same} of {expected.size} places of "
                   "the lists differ from those of all distances")
    print(f"- {name}, {measure.name}, {len(queries):,} queries: {same:,} of {expected.size:,} places "
          "of the lists hold the document and the distance of the full computation.", flush=True)


def compare(cases, path, checks, say):
    vectors = talvik.load_vectors(path)
    random = np.random.default_rng(SEED)
    for case in cases:
        say(f"{case.name}: lists against all distances")
        resident = filled(_core.Collection(), texts_of(case.trees[0]), vectors)
        texts = texts_of(case.trees[1])
        queries = filled(resident.for_queries(), texts, vectors)
        compare_measure(case.name, _core.Measure.two_way, resident, queries, checks)
        some = random.choice(len(texts), EXACT_QUERIES[case.name], replace=False)
        queries = filled(resident.for_queries(), [texts[q] for q in some], vectors)
        compare_measure(case.name, _core.Measure.exact, resident, queries, checks)
