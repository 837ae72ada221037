"""Threads, signals, memory, progress: the package while it runs."""

import os
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import numpy as np
import pytest
from scipy.sparse import csr_matrix

from talvik import WordMoverNeighbors, load_vectors


def large_world(documents=3000, words=60, vocabulary=5000):
    random = np.random.default_rng(1)
    rows = load_vectors(random.normal(size=(vocabulary, 50)))
    offsets = np.arange(0, documents * words + 1, words)
    numbers = random.integers(0, vocabulary, documents * words)
    counts = csr_matrix((np.ones(len(numbers)), numbers, offsets), shape=(documents, vocabulary))
    return rows, counts


def test_threads_search_one_object_while_another_appends():
    rows, counts = large_world(300, 20)
    nn = WordMoverNeighbors(n_neighbors=4, vectors=rows, n_jobs=1).fit(counts)
    expected = nn.kneighbors(counts[:20])
    other = WordMoverNeighbors(vectors=rows).fit(nn._collection)
    with ThreadPoolExecutor(4) as pool:
        appends = pool.submit(lambda: [other.partial_fit(counts[i]) for i in range(30)])
        searches = [pool.submit(nn.kneighbors, counts[:20]) for _ in range(20)]
        for search in searches:
            for got, wanted in zip(search.result(), expected):
                np.testing.assert_array_equal(got, wanted)
    appends.result()
    assert other.n_samples_fit_ == 330 and nn.n_samples_fit_ == 300


# The signal comes from another thread, in time only where the search has let go of the lock.
INTERRUPTED = """
import os, signal, threading, time
from test_running import large_world
from talvik import WordMoverNeighbors
rows, counts = large_world()
nn = WordMoverNeighbors(vectors=rows, distance="exact").fit(counts)
sent, began = [], time.monotonic()
def interrupt():
    sent.append(time.monotonic())
    os.kill(os.getpid(), signal.SIGINT)
threading.Timer(0.5, interrupt).start()
try:
    nn.kneighbors()
except KeyboardInterrupt:
    print(sent[0] - began, time.monotonic() - sent[0])
nn.kneighbors(counts[:1])
"""


def test_control_c_from_another_thread_ends_a_search_within_a_second():
    ran = subprocess.run(
        [sys.executable, "-c", INTERRUPTED], cwd=Path(__file__).parent, capture_output=True, text=True
    )
    assert ran.returncode == 0, ran.stderr
    until_sent, until_ended = map(float, ran.stdout.split())
    assert until_sent < 2 and until_ended < 1


def test_verbose_shows_how_far_a_search_has_come(capsys):
    rows, counts = large_world(1500, 60)
    nn = WordMoverNeighbors(vectors=rows, distance="exact", verbose=1).fit(counts)
    nn.kneighbors(counts[:60])
    assert "60/60" in capsys.readouterr().err
    assert nn.stats_["pairs"] == 60 * 1500 and nn.stats_["solved"] > 0


def resident_kib():
    with open("/proc/self/statm", encoding="ascii") as statm:
        return int(statm.read().split()[1]) * os.sysconf("SC_PAGESIZE") // 1024


def test_a_thousand_calls_leave_no_memory_behind():
    rows, counts = large_world(500, 3, 100)
    words = load_vectors(np.eye(3), words=["a", "b", "c"])
    nn = WordMoverNeighbors(vectors=rows, n_jobs=1).fit(counts)
    texts = WordMoverNeighbors(n_neighbors=1, vectors=words, n_jobs=1).fit(["a b", "b c"])

    def call():
        nn.kneighbors(counts[:10], n_neighbors=500)
        nn.pairwise_distances(counts[:10])
        nn.radius_neighbors(counts[:5], 2.0)
        texts.partial_fit(["c c a"]).explain("a c", 0)
        with pytest.raises(ValueError):
            texts.fit(["a"], ids=[""])
        texts.fit(["a b", "b c"])

    for _ in range(100):
        call()
    before = resident_kib()
    for _ in range(1000):
        call()
    # An array that stayed would be 20 KiB each time.
    assert resident_kib() - before < 4 * 1024


def test_the_import_starts_no_mpi():
    code = "import talvik; from mpi4py import rc; rc.initialize = False; from mpi4py import MPI; "
    code += "import sys; sys.exit(MPI.Is_initialized())"
    subprocess.run([sys.executable, "-c", code], check=True)


def test_the_import_leaves_no_products_to_the_kernels_for_unknown_processors():
    if " avx2 " not in Path("/proc/cpuinfo").read_text():
        pytest.skip("a processor without AVX2")
    code = "import os, talvik, threadpoolctl; assert 'OPENBLAS_CORETYPE' not in os.environ; "
    code += "print([used.get('architecture') for used in threadpoolctl.threadpool_info()])"
    unset = {name: value for name, value in os.environ.items() if name != "OPENBLAS_CORETYPE"}
    ran = subprocess.run(
        [sys.executable, "-c", code], env=unset, stdout=subprocess.PIPE, text=True, check=True
    )
    assert "'" in ran.stdout and "Prescott" not in ran.stdout
