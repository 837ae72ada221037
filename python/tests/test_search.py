"""Answers against the slow way, on random worlds."""

import warnings

import numpy as np
import pytest
from conftest import random_world, slow_distance
from hypothesis import given, settings
from hypothesis import strategies as st
from scipy import sparse

from talvik import EmptyDocumentWarning, WordMoverNeighbors, load_vectors

seeds = st.integers(0, 2**32 - 1)
worlds = settings(max_examples=25, deadline=None, derandomize=True)


def slow_matrix(rows, documents, queries, **distance):
    return np.array([[slow_distance(rows, d, q, **distance) for d in documents] for q in queries])


def fitted(rows, documents, **params):
    vectors = load_vectors(rows, unit_length=False)
    return WordMoverNeighbors(vectors=vectors, **params).fit(documents)


@given(
    seeds,
    st.sampled_from(["one-way", "other-way", "two-way", "exact"]),
    st.integers(0, 3),
    st.sampled_from(["euclidean", "cosine"]),
)
@worlds
def test_all_questions_agree_with_brute_force(seed, distance, steps, metric):
    rows, documents, queries = random_world(seed)
    params = {"distance": distance, "steps": steps, "metric": metric}
    with warnings.catch_warnings():
        warnings.simplefilter("ignore", EmptyDocumentWarning)
        nn = fitted(rows, documents, **params)
        expected = slow_matrix(rows, documents, queries, **params)
        np.testing.assert_allclose(nn.pairwise_distances(queries), expected, rtol=1e-3, atol=3e-3)

        k = 5
        distances, indices = nn.kneighbors(queries, k)
        assert indices.dtype == np.int64
        assert distances.dtype == (np.float64 if distance == "exact" else np.float32)
        near = np.sort(expected, axis=1)[:, :k]
        np.testing.assert_allclose(distances, near, rtol=1e-5, atol=1e-6)
        found = np.take_along_axis(expected, indices, axis=1)
        np.testing.assert_allclose(found, distances, rtol=1e-5, atol=1e-6)

        pairs = np.column_stack([np.repeat(np.arange(len(indices)), k), indices.ravel()])
        settled = nn.pair_distances(queries, pairs).astype(distances.dtype)
        np.testing.assert_array_equal(settled, distances.ravel())

        radius = float(np.median(expected[np.isfinite(expected)]))
        graph = nn.radius_neighbors_graph(queries, radius, mode="distance")
        reached = sparse.csr_matrix((np.ones(graph.nnz), graph.indices, graph.indptr), graph.shape)
        unsure = np.abs(expected - radius) < 1e-5
        assert ((reached.toarray() == 1) == (expected <= radius))[~unsure].all()
        lists = nn.radius_neighbors(queries, radius)
        np.testing.assert_array_equal(np.concatenate(lists[1]), graph.indices)
        np.testing.assert_array_equal(np.concatenate(lists[0]), graph.data)


@given(seeds)
@worlds
def test_fitted_documents_are_not_their_own_neighbours(seed):
    rows, documents, _ = random_world(seed)
    documents[:, 0] += 1
    nn = fitted(rows, documents)
    expected = slow_matrix(rows, documents, documents)
    np.fill_diagonal(expected, np.inf)
    distances, indices = nn.kneighbors(n_neighbors=3)
    assert (indices != np.arange(len(documents))[:, None]).all()
    np.testing.assert_allclose(distances, np.sort(expected, axis=1)[:, :3], rtol=1e-5, atol=1e-6)
    graph = nn.kneighbors_graph(n_neighbors=3, mode="distance")
    np.testing.assert_array_equal(graph.indices.reshape(-1, 3), indices)
    np.testing.assert_array_equal(graph.data.reshape(-1, 3), distances)
    assert set(nn.kneighbors_graph(n_neighbors=3).data) == {1.0}


@pytest.mark.parametrize("distance", ["one-way", "other-way", "two-way", "exact"])
def test_an_explanation_adds_up_to_the_distance(distance):
    rows, documents, queries = random_world(seed=7)
    documents[:, 0] += 1
    queries[:, 1] += 1
    nn = fitted(rows, documents, distance=distance)
    for number in range(len(documents)):
        explanation = nn.explain(queries[0], number)
        cost = (explanation.weights * explanation.distances).sum()
        expected = slow_distance(rows, documents[number], queries[0], distance)
        assert cost == pytest.approx(explanation.distance) == pytest.approx(expected, rel=1e-5)
        moving = queries[0] if explanation.from_query else documents[number]
        sources, _, weights = explanation.to_matrix()
        assert sorted(sources) == list(np.flatnonzero(moving))
        assert weights.sum() == pytest.approx(1)
        assert explanation.to_frame().cost.is_monotonic_decreasing
    assert nn.explain(3, 3).distance == 0
