"""How X becomes documents of a collection."""

from __future__ import annotations

import os
import sys
import warnings
from typing import Any

import numpy as np
from scipy import sparse

from ._core import Collection, Vectors


class EmptyDocumentWarning(UserWarning):
    """Documents without a known word are infinitely far from every other one."""


def is_saved(X: Any) -> bool:
    """Whether X is the path of a saved collection."""
    return isinstance(X, (str, os.PathLike))


def kind_of(X: Any) -> tuple[str, Any]:
    """Tell "collection", "texts", "tokens" and "matrix" apart; iterables become lists."""
    if is_saved(X):
        return "collection", load_collection(X)
    if isinstance(X, Collection):
        return "collection", X
    if sparse.issparse(X):
        return "matrix", X
    if hasattr(X, "__array__") and (array := np.asarray(X)).ndim != 1:
        if any(isinstance(item, str) for item in array.flat[:1]):
            raise TypeError("X: texts in one dimension are needed: df.text, not df[['text']]")
        return "matrix", X
    if isinstance(X, (dict, bytes)) or not hasattr(X, "__iter__"):
        raise TypeError(
            "X: an iterable of texts or of lists of words, a matrix of counts, or the path of a "
            f"saved collection is needed, not {type(X)}"
        )
    items = list(X)
    first = items[0] if items else ""
    if isinstance(first, str):
        return "texts", items
    if isinstance(first, (list, tuple, set, frozenset)) or hasattr(first, "__array__"):
        words = next((word for item in items for word in item), "") if np.ndim(first) else 0
        return ("tokens", items) if isinstance(words, str) else ("matrix", X)
    if hasattr(X, "__array__") and np.asarray(X).dtype.kind in "fiub":
        return "matrix", X
    raise TypeError(f"X[0]: a str or a list of words is needed, not {type(first)}")


def load_collection(path: Any) -> Collection:
    try:
        return Collection.load(os.fspath(path))
    except OSError as error:
        hint = " (X: a single str is a path; a text goes into a list)" if isinstance(path, str) else ""
        raise OSError(f"{error}{hint}") from None


def append(
    collection: Collection,
    kind: str,
    X: Any,
    vectors: Vectors,
    ids: list[str] | None = None,
    labels: list[str] | None = None,
) -> None:
    """Append documents, with a warning about those that have no known word."""
    if kind == "texts":
        report = collection.append_texts(X, vectors, ids=ids, labels=labels)
    elif kind == "tokens":
        report = collection.append_tokens(X, vectors, ids=ids, labels=labels)
    else:
        report = _append_matrix(collection, X, vectors, ids, labels)
    if report["empty"]:
        named = ", ".join(report["empty_ids"][:5])
        more = ", ..." if report["empty"] > 5 else ""
        warnings.warn(
            f"{report['empty']} of {report['documents']} documents hold no known word and are "
            f"infinitely far from every other: {named}{more}",
            EmptyDocumentWarning,
            stacklevel=callers_level(),
        )


def package_of(frame: Any) -> str:
    return (frame.f_globals.get("__name__") or "").partition(".")[0]


def callers_level() -> int:
    """Tell how far up the stack, for who asks, is what called the package or a pipeline."""
    level, frame = 1, sys._getframe(1)
    while frame.f_back and package_of(frame) in ("talvik", "sklearn"):
        level, frame = level + 1, frame.f_back
    return level


def _append_matrix(
    collection: Collection,
    X: Any,
    vectors: Vectors,
    ids: list[str] | None,
    labels: list[str] | None,
) -> dict[str, Any]:
    if X.shape[1] != len(vectors):
        raise ValueError(f"X: {X.shape[1]} columns for {len(vectors)} word vectors")
    rows = sparse.csr_matrix(X)
    return collection.append_arrays(
        np.ascontiguousarray(rows.indptr, dtype=np.int64),
        np.ascontiguousarray(rows.indices, dtype=np.int32),
        np.ascontiguousarray(rows.data, dtype=np.float32),
        vectors,
        ids=ids,
        labels=labels,
    )
