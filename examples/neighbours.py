#!/usr/bin/env python3
"""The passages of real addresses that are nearest to a text of today.

usage: examples/neighbours.py          from a build or an installation of the package talvik
"""

from pathlib import Path

from sklearn.datasets import load_files
from talvik import WordMoverNeighbors, load_vectors

SAMPLE = Path(__file__).resolve().parent.parent / "data" / "sample"
TEXT = "Our Nation needs energy, and peace in the Middle East."

addresses = load_files(SAMPLE / "resident", encoding="utf-8")
nn = WordMoverNeighbors(n_neighbors=3, vectors=load_vectors(SAMPLE / "vectors.bin"))
nn.fit(addresses.data, [addresses.target_names[t] for t in addresses.target])
distances, indices = nn.kneighbors([TEXT])
moves = nn.explain(TEXT, int(indices[0, 0]))

for distance, index in zip(distances[0], indices[0]):
    who = addresses.target_names[addresses.target[index]]
    print(f"{distance:.4f}  {who}: {' '.join(addresses.data[index].split())[:70]}...")
print("\nWhat the nearest one is made of:")
for source, target, length in list(zip(moves.sources, moves.targets, moves.distances))[:5]:
    print(f"  {source} -> {target}  {length:.3f}")
