"""The search's lists against all distances, which nothing has pruned.

Per query the k nearest of all documents, by the distances of all its pairs in double precision, ties
by number: the search must name the same documents at the same distances.
"""

import pathlib

import numpy as np
import talvik

COLLECTIONS = [  # name, folder, vectors
    ("sample", "sample", "sample/vectors.bin"),
    ("Brown", "brown", "glove-100d.bin"),
    ("SpamAssassin", "spam", "glove-100d.bin"),
]
SEED = 5
NEIGHBOURS = 17
QUERIES_AT_A_TIME = 100
# Exact distances of all pairs would take hours: of so many random queries.
EXACT_QUERIES = 6


def texts_of(tree):
    """The texts of a folder's classes, in the order of their paths."""
    files = sorted(path for path in pathlib.Path(tree).glob("*/**/*") if path.is_file())
    return [path.read_text(encoding="latin-1") for path in files]


def nearest_of_all(fitted, queries):
    """Distances and numbers of the nearest of every query, from all its pairs."""
    shape = len(queries), fitted.n_samples_fit_
    every = fitted.pair_distances(queries, np.indices(shape).reshape(2, -1).T).reshape(shape)
    order = np.argsort(every, axis=1, kind="stable")[:, :NEIGHBOURS]
    return np.take_along_axis(every, order, axis=1), order


def compare_lists(name, fitted, queries, checks):
    same = places = 0
    for first in range(0, len(queries), QUERIES_AT_A_TIME):
        some = queries[first:first + QUERIES_AT_A_TIME]
        distances, numbers = fitted.kneighbors(some)
        expected_distances, expected = nearest_of_all(fitted, some)
        same += np.count_nonzero((numbers == expected) &
                                 (distances == expected_distances.astype(distances.dtype)))
        places += expected.size
    checks.require(same == places, f"{name}, {fitted.distance}: {places - same} of {places} places "
                                   "of the lists differ from those of all distances")
    print(f"- {name}, {fitted.distance}, {len(queries):,} queries: {same:,} of {places:,} places of "
          "the lists hold the document and the distance of the full computation.", flush=True)


def compare(data, checks, say):
    random = np.random.default_rng(SEED)
    for name, folder, vectors in COLLECTIONS:
        say(f"{name}: lists against all distances")
        resident, queries = (texts_of(data / folder / side) for side in ("resident", "queries"))
        words = talvik.load_vectors(data / vectors)
        fitted = talvik.WordMoverNeighbors(NEIGHBOURS, vectors=words).fit(resident)
        compare_lists(name, fitted, queries, checks)
        some = random.choice(len(queries), EXACT_QUERIES, replace=False)
        compare_lists(name, fitted.set_params(distance="exact"), [queries[q] for q in some], checks)
