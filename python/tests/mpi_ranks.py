"""Processes that search together; run under mpirun."""

import numpy as np
import pytest
from mpi4py import MPI
from test_running import large_world

from talvik import WordMoverNeighbors

COMM = MPI.COMM_WORLD


@pytest.mark.parametrize("distance", ["two-way", "exact"])
def test_every_process_gets_the_whole_answer(distance):
    rows, counts = large_world(61, 10)
    params = {"n_neighbors": 7, "distance": distance, "vectors": rows, "n_jobs": 1}
    alone = WordMoverNeighbors(**params).fit(counts)
    together = WordMoverNeighbors(comm=COMM, **params).fit(counts)
    for X in (None, counts[:9]):
        for ask in ("kneighbors", "radius_neighbors"):
            expected, got = getattr(alone, ask)(X), getattr(together, ask)(X)
            for one, other in zip(np.hstack(expected), np.hstack(got)):
                np.testing.assert_array_equal(one, other)
    together.partial_fit(counts[0])
    assert together.kneighbors(counts[0], 2)[1].tolist() == [[0, 61]]
    assert together._part.total_documents == 62
    sizes = COMM.allgather(len(together._part))
    assert sum(sizes) == 62 and max(sizes) - min(sizes) <= 2


def test_an_error_on_every_process_leaves_the_communicator_usable():
    rows, counts = large_world(10, 5)
    nn = WordMoverNeighbors(comm=COMM, vectors=rows).fit(counts)
    with pytest.raises(ValueError, match="radius"):
        nn.radius_neighbors(counts, -1)
    with pytest.raises(TypeError, match="comm"):
        WordMoverNeighbors(comm=object(), vectors=rows).fit(counts)
    assert nn.kneighbors(counts, 1)[1].ravel().tolist() == list(range(10))
