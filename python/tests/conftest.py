"""What the tests share: the sample, small random worlds, distances the slow way."""

import os
from pathlib import Path
from types import SimpleNamespace

import numpy as np
import pytest
from scipy.optimize import linprog
from sklearn.datasets import load_files

from talvik import load_vectors

SAMPLE = Path(os.environ["TALVIK_SAMPLE"])


def read_tree(root):
    files = load_files(root, encoding="utf-8", shuffle=False)
    ids = [str(Path(name).relative_to(root)) for name in files.filenames]
    labels = [files.target_names[target] for target in files.target]
    return SimpleNamespace(ids=ids, labels=labels, texts=files.data)


@pytest.fixture(scope="session")
def vectors():
    return load_vectors(SAMPLE / "vectors.bin")


@pytest.fixture(scope="session")
def resident():
    return read_tree(SAMPLE / "resident")


@pytest.fixture(scope="session")
def queries():
    return read_tree(SAMPLE / "queries")


def word_distances(metric, a, b):
    a, b = a.astype(float), b.astype(float)
    if metric == "euclidean":
        return np.linalg.norm(a[:, None] - b[None], axis=2)
    lengths = np.outer(np.linalg.norm(a, axis=1), np.linalg.norm(b, axis=1))
    return 1 - a @ b.T / lengths


def one_way(weights, capacities, ground, steps):
    nearest = steps + 1
    while nearest > len(capacities):
        nearest //= 2
    cost = 0.0
    for row, left in zip(ground, weights):
        order = np.argsort(row)[:nearest]
        for word in order[:-1]:
            moved = min(left, capacities[word])
            cost += moved * row[word]
            left -= moved
        cost += left * row[order[-1]]
    return cost


def exact(weights, capacities, ground):
    rows, columns = ground.shape
    sums = np.vstack([np.kron(np.eye(rows), np.ones(columns)), np.tile(np.eye(columns), rows)])
    return linprog(ground.ravel(), A_eq=sums, b_eq=np.concatenate([weights, capacities])).fun


def slow_distance(rows, document, query, distance="two-way", steps=0, metric="euclidean"):
    """The distance of two rows of counts."""
    if not document.any() or not query.any():
        return np.inf
    a, b = np.flatnonzero(document), np.flatnonzero(query)
    wa, wb = document[a] / document.sum(), query[b] / query.sum()
    ground = word_distances(metric, rows[a], rows[b])
    if distance == "exact":
        return exact(wa, wb, ground)
    forth, back = one_way(wa, wb, ground, steps), one_way(wb, wa, ground.T, steps)
    return {"one-way": forth, "other-way": back, "two-way": max(forth, back)}[distance]


def random_world(seed, documents=12, queries=4, words=15, dimensions=3):
    """Word rows, counts of documents, counts of queries; some have no words."""
    random = np.random.default_rng(seed)
    rows = random.normal(size=(words, dimensions)).astype(np.float32)
    counts = random.poisson(0.4, size=(documents + queries, words))
    return rows, counts[:documents], counts[documents:]
