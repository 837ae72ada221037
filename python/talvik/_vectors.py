"""Word vectors from files, arrays and objects of other packages."""

from __future__ import annotations

import os
from typing import Any, Sequence

import numpy as np

from ._core import Vectors


def load_vectors(
    vectors: Any, words: Sequence[str] | None = None, *, unit_length: bool = True
) -> Vectors:
    """Read word vectors, or take them over.

    Parameters
    ----------
    vectors : path, array of shape (n_words, n_dimensions), or object
        A file: the embedding file, word2vec text, fastText .vec or GloVe text, plain or compressed
        by gzip.  An array: float32 in C order is read as it is, others are converted first.  An
        object with `key_to_index` and `vectors`, as gensim's KeyedVectors.
    words : sequence of str, optional
        The words of an array's rows.  Rows without words are the columns of count matrices.
    unit_length : bool, default True
        Scale every row to length 1 (a zero row stays zero).

    Returns
    -------
    Vectors
        A table that never changes; estimators and threads may share it.

    Raises
    ------
    OSError
        For a file that cannot be read.
    ValueError
        For numbers that are not finite, words that come twice, counts that do not agree.

    Examples
    --------
    >>> vectors = load_vectors([[3.0, 4.0], [1.0, 0.0]], words=["tea", "cup"])
    >>> len(vectors), "tea" in vectors
    (2, True)
    >>> vectors.rows[0].tolist()
    [0.6000000238418579, 0.800000011920929]
    """
    if isinstance(vectors, Vectors):
        return vectors
    if isinstance(vectors, (str, os.PathLike)):
        return Vectors.read(os.fspath(vectors), unit_length=unit_length)
    if hasattr(vectors, "key_to_index") and hasattr(vectors, "vectors"):
        words = sorted(vectors.key_to_index, key=vectors.key_to_index.__getitem__)
        vectors = vectors.vectors
    try:
        rows = np.ascontiguousarray(vectors, dtype=np.float32)
    except (TypeError, ValueError):
        raise TypeError(
            "vectors: a path, an array of numbers, or an object with key_to_index and vectors is "
            f"needed, not {type(vectors)}"
        ) from None
    try:
        return Vectors.from_arrays(list(words or ()), rows, unit_length=unit_length)
    except ValueError as error:
        raise ValueError(f"vectors: {error}") from None
