"""Classes of real texts from their nearest documents: time and error of several ways, in one run.

The ways: the package talvik; scikit-learn's brute force on TF-IDF vectors and on mean word vectors;
the exact distance of POT, pair by pair.  All get the same sparse documents and word vectors and use
two cores; their processor times are compared, as other work may go on beside them.  What POT would
take for all pairs is extrapolated from random ones; for a few queries its nearest documents are
found among all, and must be those of the package.
"""

import resource

import numpy as np
from sklearn.feature_extraction.text import TfidfTransformer
from sklearn.neighbors import NearestNeighbors
from talvik import WordMoverNeighbors, load_vectors

import peers_exact
import peers_ways as ways
from peers_table import header, row, significant

VOTERS = (1, 5)
NEIGHBOURS = max(VOTERS)
ROUNDS = 2  # the quicker time counts; the slow exact search is made once
STEPS = 3
SEED = 22
CHECKED_QUERIES = 4  # against all documents by POT
LARGEST_DIFFERENCE = 1e-6  # of an exact distance
MEASURES = {  # name: (parameters, rounds)
    "two-way": ({"distance": "two-way"}, ROUNDS),
    f"two-way, {STEPS} steps": ({"distance": "two-way", "steps": STEPS}, ROUNDS),
    "exact": ({"distance": "exact"}, 1),
}


def quickest(rounds, task):
    return min((ways.timed(task) for _ in range(rounds)), key=lambda run: run.processor)


def by_package(case, vectors, params):
    nn = WordMoverNeighbors(NEIGHBOURS, vectors=vectors, n_jobs=ways.THREADS, **params)
    return nn.fit(case.resident.entries).kneighbors(case.queries.entries)


def by_cosine(resident, queries):
    nn = NearestNeighbors(n_neighbors=NEIGHBOURS, algorithm="brute", metric="cosine",
                          n_jobs=ways.THREADS)
    return nn.fit(resident).kneighbors(queries)


def by_tfidf(case):
    # Each row is scaled in the end, so shares of words do as well as counts.
    model = TfidfTransformer().fit(case.resident.entries)
    return by_cosine(model.transform(case.resident.entries), model.transform(case.queries.entries))


def by_mean_vectors(case):
    return by_cosine(case.resident.entries @ case.vectors, case.queries.entries @ case.vectors)


def vote_error(case, lists, voters):
    """The share of queries that get another class; of tied classes the nearest document's wins."""
    classes = case.resident.classes[lists[:, :voters]]
    votes = (classes[:, :, None] == classes[:, None, :]).sum(axis=2)
    voted = classes[np.arange(len(classes)), votes.argmax(axis=1)]
    return np.mean(voted != case.queries.classes)


def run_pot(case, say):
    """The time of random pairs, and the distances of a few queries to all documents."""
    random = np.random.default_rng(SEED)
    pairs = np.column_stack([random.integers(side.count, size=case.sampled_pairs)
                             for side in (case.queries, case.resident)])
    checked = np.arange(CHECKED_QUERIES) * case.queries.count // CHECKED_QUERIES
    everything = np.column_stack([np.repeat(checked, case.resident.count),
                                  np.tile(np.arange(case.resident.count), CHECKED_QUERIES)])
    say(f"{case.name}: POT for {len(pairs)} random pairs")
    sample = ways.timed(lambda: peers_exact.pot_distances(case, pairs), resource.RUSAGE_CHILDREN)
    say(f"{case.name}: POT for {len(everything)} pairs of {CHECKED_QUERIES} queries")
    return sample, checked, peers_exact.pot_distances(case, everything).reshape(CHECKED_QUERIES, -1)


def compare_case(case, checks, say):
    sample, checked, pot_distances = run_pot(case, say)
    vectors = load_vectors(case.vectors, unit_length=False)  # scaled already
    runs = {}
    for name, (params, rounds) in MEASURES.items():
        say(f"{case.name}: talvik, {name}")
        runs["talvik", name] = quickest(rounds, lambda: by_package(case, vectors, params))
    for name, way in ("TF-IDF, cosine", by_tfidf), ("mean vectors, cosine", by_mean_vectors):
        say(f"{case.name}: scikit-learn, {name}")
        runs["scikit-learn", name] = quickest(ROUNDS, lambda: way(case))

    distances, lists = runs["talvik", "exact"].result
    nearest = np.sort(pot_distances, axis=1)[:, :NEIGHBOURS]
    listed = np.take_along_axis(pot_distances, lists[checked], axis=1)
    difference = max(np.abs(nearest - distances[checked]).max(), np.abs(listed - nearest).max())
    checks.require(difference <= LARGEST_DIFFERENCE,
                   f"{case.name}: an exact list of talvik differs from POT's by {difference:.2g}")

    unit = runs["talvik", "two-way"].processor
    for (way, name), run in runs.items():
        errors = [f"{100 * vote_error(case, run.result[1], voters):.2f} %" for voters in VOTERS]
        row(case.name, way, name, f"{run.wall:.2f}", f"{run.processor:.2f}",
            significant(run.processor / unit), *errors)
    all_pairs = case.queries.count * case.resident.count
    scale = all_pairs / case.sampled_pairs
    row(case.name, "POT, pair by pair", "exact", f"{sample.wall * scale:.0f} *",
        f"{sample.processor * scale:.0f} *", significant(sample.processor * scale / unit),
        *["as talvik's exact"] * len(VOTERS))
    return (f"- {case.name}: * extrapolated from {sample.wall:.2f} s, {sample.processor:.2f} s of "
            f"processor time, for {case.sampled_pairs:,} random pairs of {all_pairs:,}. POT's "
            f"{NEIGHBOURS} nearest of {CHECKED_QUERIES} queries among all {case.resident.count:,} "
            f"documents are talvik's, at distances that differ by {difference:.1e} at most "
            f"(checked: {LARGEST_DIFFERENCE:.0e}).")


def compare(cases, checks, say):
    header("data", "way", "nearest by", "seconds", "processor seconds", "two-way = 1",
           *(f"{voters}-NN error" for voters in VOTERS))
    notes = [compare_case(case, checks, say) for case in cases]
    print("", *notes, sep="\n", flush=True)
