"""The exact distances of the search library against those of POT, on real pairs.

Both compute in double precision from the same single-precision vectors and weights.  The search is
compared with POT's time for all pairs, extrapolated from random ones.
"""

import os
import pathlib
import resource
import subprocess

import numpy as np

import peers_ways as ways

ROOT = pathlib.Path(__file__).resolve().parent.parent
TOOL = ROOT / "build-bench/bench/pair_distances"
VECTORS = ROOT / "data/glove-100d.bin"
SEED = 21
LARGEST_DIFFERENCE = 1e-6
SEARCHED = "SpamAssassin"  # the case whose search is timed
NEIGHBOURS = 10
MOST_OF_POT = 0.02  # the search's share of POT's time for all pairs


def our_distances(case, pairs, searched):
    """A row of entries, entries, distance for every pair; seconds on the clock and of the
    processor, and problems, of a search."""
    lines = "".join(f"{case.queries.names[q]} {case.resident.names[i]}\n" for q, i in pairs)
    command = [TOOL, "--vectors", VECTORS, "--resident", case.trees[0], "--queries", case.trees[1],
               "--threads", ways.THREADS, *(["--k", NEIGHBOURS] if searched else [])]
    environment = {name: value for name, value in os.environ.items()
                   if name not in ("OMP_NUM_THREADS", "OPENBLAS_NUM_THREADS")}
    output = subprocess.run([str(part) for part in command], input=lines, env=environment,
                            stdout=subprocess.PIPE, text=True, check=True).stdout.splitlines()
    rows = np.array([[float(number) for number in line.split()] for line in output[:len(pairs)]])
    search = [float(number) for line in output[len(pairs):] for number in line.split()]
    return rows, search


def pot_distances(case, pairs):
    with ways.PairPool(case.vectors, case.resident, case.queries) as pool:
        return pool.map(ways.exact_pair, pairs)


def compare_case(case, checks, say):
    random = np.random.default_rng(SEED)
    pairs = np.column_stack([random.integers(side.count, size=case.sampled_pairs)
                             for side in (case.queries, case.resident)])
    say(f"{case.name}: exact distances of {len(pairs)} pairs")
    pot = ways.timed(lambda: pot_distances(case, pairs), resource.RUSAGE_CHILDREN)
    theirs = pot.result
    searched = case.name == SEARCHED
    say(f"{case.name}: {'exact search' if searched else 'the same pairs'} by talvik")
    rows, search = our_distances(case, pairs, searched)
    lengths = [[len(side.document(d)[0]) for side, d in zip((case.queries, case.resident), pair)]
               for pair in pairs]
    checks.require(np.array_equal(rows[:, :2], lengths),
                   f"{case.name}: talvik and Python read other documents")
    difference = np.abs(rows[:, 2] - theirs).max()
    checks.require(difference <= LARGEST_DIFFERENCE,
                   f"{case.name}: an exact distance differs by {difference:.2g}")
    print(f"- {case.name}, {len(pairs):,} random pairs: exact distances differ from POT's by "
          f"{difference:.1e} at most (checked: {LARGEST_DIFFERENCE:.0e}).")
    if searched:
        all_pairs = case.queries.count * case.resident.count
        wall, processor, solved = search
        expected = all_pairs / len(pairs) * pot.processor
        print(f"- {case.name}, all {all_pairs:,} pairs, processor time: POT {expected:.0f} s, "
              f"extrapolated from {pot.processor:.2f} s ({pot.wall:.2f} s on the clock) for these in "
              f"{ways.THREADS} processes; talvik's exact search, k {NEIGHBOURS}, {processor:.1f} s "
              f"({wall:.1f} s on the clock, {ways.THREADS} threads): {processor / expected:.4f} of it "
              f"(meant to be at most {MOST_OF_POT}); it solved {solved:,.0f} transport problems.")


def compare(cases, checks, say):
    for case in cases:
        compare_case(case, checks, say)
