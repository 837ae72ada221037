"""Neighbours by meaning: word mover's distances between documents, relaxed and exact.

>>> import numpy as np
>>> from talvik import WordMoverNeighbors, load_vectors
>>> words = ["dog", "puppy", "sleeps", "rests", "price", "rises"]
>>> rows = np.array([[1, 0], [0.9, 0.1], [0, 1], [0.1, 0.9], [-1, 0], [-1, 1]])
>>> nn = WordMoverNeighbors(n_neighbors=1, vectors=load_vectors(rows, words=words))
>>> _ = nn.fit(["The dog sleeps.", "The price rises."], ids=["first", "second"])
>>> distances, indices = nn.kneighbors(["A puppy rests."])
>>> nn.ids_[indices]
array([['first']], dtype=object)
"""

from ._blas import kernels_of_processor

with kernels_of_processor():
    from ._core import Collection, Vectors

from ._classifier import WordMoverClassifier
from ._documents import EmptyDocumentWarning
from ._explanation import Explanation
from ._neighbors import WordMoverNeighbors
from ._transformer import WordMoverTransformer
from ._vectors import load_vectors

__all__ = [
    "Collection",
    "EmptyDocumentWarning",
    "Explanation",
    "Vectors",
    "WordMoverClassifier",
    "WordMoverNeighbors",
    "WordMoverTransformer",
    "load_vectors",
]
