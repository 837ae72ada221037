"""What the estimators share: parameters, the fitted collection, queries."""

from __future__ import annotations

import numbers
import os
from contextlib import contextmanager
from pathlib import Path
from typing import Any, Iterator, TypeVar

import numpy as np
from joblib import effective_n_jobs
from sklearn.base import BaseEstimator
from sklearn.utils.validation import check_is_fitted, check_non_negative

from . import _core, _documents
from ._core import Collection, Vectors
from ._progress import progress_bar
from ._vectors import load_vectors

MEASURES = {
    "one-way": _core.Measure.one_way,
    "other-way": _core.Measure.other_way,
    "two-way": _core.Measure.two_way,
    "exact": _core.Measure.exact,
}
METRICS = {"euclidean": _core.Metric.euclidean, "cosine": _core.Metric.cosine}
Estimator = TypeVar("Estimator", bound="WordMoverBase")


def check_choice(name: str, value: Any, choices: dict[str, Any]) -> Any:
    if isinstance(value, str) and value in choices:
        return choices[value]
    raise ValueError(f"{name}: {value!r} is none of {', '.join(map(repr, choices))}")


def check_whole(name: str, value: Any, least: int) -> int:
    if not isinstance(value, numbers.Integral) or isinstance(value, bool):
        raise TypeError(f"{name}: a whole number is needed, not {type(value)}")
    if value < least:
        raise ValueError(f"{name}: {value}, must be at least {least}")
    return int(value)


def check_flat(name: str, values: Any) -> np.ndarray:
    array = np.asarray(values)
    if array.ndim != 1:
        raise ValueError(f"{name}: {array.ndim} dimensions, one is needed")
    return array


def communicator_address(comm: Any) -> int:
    """Give the address of the MPI_Comm inside a communicator of mpi4py; 0 for None."""
    if comm is None:
        return 0
    from mpi4py import MPI

    if not isinstance(comm, MPI.Comm):
        raise TypeError(f"comm: a communicator of mpi4py is needed, not {type(comm)}")
    if MPI.Get_library_version().rstrip("\0") != _core.mpi_library():
        raise ValueError("comm: mpi4py was built with another MPI library than talvik")
    return MPI._addressof(comm)


class WordMoverBase(BaseEstimator):
    """Fits a collection of documents and takes queries to it."""

    _collection: Collection

    def __init__(
        self,
        n_neighbors: int = 5,
        *,
        distance: str = "two-way",
        steps: int = 0,
        metric: str = "euclidean",
        vectors: Any = None,
        stop_words: Any = None,
        radius: float = 1.0,
        n_jobs: int | None = None,
        comm: Any = None,
        verbose: int = 0,
    ) -> None:
        self.n_neighbors = n_neighbors
        self.distance = distance
        self.steps = steps
        self.metric = metric
        self.vectors = vectors
        self.stop_words = stop_words
        self.radius = radius
        self.n_jobs = n_jobs
        self.comm = comm
        self.verbose = verbose

    def _vectors_given(self, kind: str, X: Any) -> Vectors:
        if self.vectors is not None:
            return load_vectors(self.vectors)
        if kind == "collection":
            return X.vocabulary
        raise ValueError("vectors: none were given, and X is no saved collection")

    def _stop_words(self) -> list[str]:
        if self.stop_words is None:
            return []
        if isinstance(self.stop_words, str) and self.stop_words == "english":
            return _core.english_stop_words()
        if isinstance(self.stop_words, (str, os.PathLike)):
            return _core.read_stop_words(os.fspath(self.stop_words))
        if not hasattr(self.stop_words, "__iter__"):
            raise TypeError(f"stop_words: an iterable of str is needed, not {type(self.stop_words)}")
        return [str(word) for word in self.stop_words]

    def _check_matrix(self, X: Any, reset: bool) -> Any:
        X = self._validate_data(X, accept_sparse="csr", dtype=[np.float32, np.float64], reset=reset)
        check_non_negative(X, f"{type(self).__name__}: X")
        return X

    @contextmanager
    def _whole(self) -> Iterator[None]:
        """Puts every attribute back where a fit fails."""
        before = self.__dict__.copy()
        try:
            yield
        except BaseException:
            self.__dict__.clear()
            self.__dict__.update(before)
            raise

    def _fit_documents(self, X: Any, labels: Any, ids: Any) -> None:
        self._settings(address=communicator_address(self.comm))
        check_whole("n_neighbors", self.n_neighbors, 1)
        kind, X = _documents.kind_of(X)
        if kind == "matrix":
            X = self._check_matrix(X, reset=True)
        vectors = self._vectors_given(kind, X)
        if kind == "collection":
            if ids is not None:
                raise ValueError("ids: a saved collection has its own")
            self._set_collection(X, np.array(X.ids, dtype=object))
        else:
            collection = Collection(stop_words=self._stop_words())
            self._append(collection, kind, X, vectors, labels, ids, 0)
        self._vectors = vectors
        self._last_stats: dict[str, Any] = {}

    def _append(
        self,
        collection: Collection,
        kind: str,
        X: Any,
        vectors: Vectors,
        labels: Any,
        ids: Any,
        before: int,
    ) -> None:
        count = X.shape[0] if kind == "matrix" else len(X)
        if count == 0:
            raise ValueError("X: no documents")
        given = np.arange(before, before + count) if ids is None else check_flat("ids", ids)
        names = None if ids is None else [str(name) for name in given]
        label_names = None if labels is None else [str(label) for label in labels]
        _documents.append(collection, kind, X, vectors, names, label_names)
        if given.dtype.kind in "SU":
            given = given.astype(object)
        self._set_collection(collection, np.concatenate([self.ids_, given]) if before else given)

    def _append_more(self, X: Any, labels: Any, ids: Any) -> None:
        kind, X = _documents.kind_of(X)
        if kind == "collection":
            raise ValueError("X: a saved collection cannot be appended to another one")
        if kind == "matrix":
            X = self._check_matrix(X, reset=False)
        changed = self._collection.copy()
        self._append(changed, kind, X, self._vectors, labels, ids, len(self._collection))

    def _set_collection(self, collection: Collection, ids: np.ndarray) -> None:
        part = collection
        if self.comm is not None:
            part = collection.slice(self.comm.Get_rank(), self.comm.Get_size())
        self._collection, self._part, self.ids_ = collection, part, ids
        self.n_samples_fit_ = len(collection)

    def _queries(self, X: Any) -> Collection:
        """Documents treated as the fitted ones were."""
        kind, X = _documents.kind_of(X)
        if kind == "collection":
            return X
        if kind == "matrix":
            X = self._check_matrix(X, reset=False)
        queries = self._collection.for_queries()
        _documents.append(queries, kind, X, self._vectors)
        return queries

    def _settings(self, progress: Any = None, address: int = 0) -> _core.Settings:
        threads = 0
        if self.n_jobs is not None:
            threads = effective_n_jobs(self.n_jobs)
        return _core.Settings(
            measure=check_choice("distance", self.distance, MEASURES),
            steps=check_whole("steps", self.steps, 0),
            metric=check_choice("metric", self.metric, METRICS),
            threads=threads,
            communicator=address,
            progress=progress,
        )

    @contextmanager
    def _running(self) -> Iterator[_core.Settings]:
        with progress_bar(self.verbose) as progress:
            yield self._settings(progress, communicator_address(self.comm))

    def _nearest(self, queries: Collection | None, k: int) -> tuple[np.ndarray, np.ndarray]:
        """Distances and numbers, shape (n_queries, k)."""
        most = self.n_samples_fit_ - (queries is None)
        if k > most:
            raise ValueError(
                f"Expected n_neighbors <= n_samples_fit, but n_neighbors = {k}, n_samples_fit = "
                f"{self.n_samples_fit_}" + (", each without itself" if queries is None else "")
            )
        with self._running() as settings:
            _, numbers, distances, stats = _core.neighbours(self._part, queries, k, settings)
        self._keep_stats(stats)
        return distances.reshape(-1, k), numbers.reshape(-1, k)

    def _keep_stats(self, stats: dict[str, Any]) -> None:
        self._last_stats.clear()
        self._last_stats.update(stats)

    @property
    def stats_(self) -> dict[str, Any]:
        """What the last search did: pairs bounded, refined, settled and solved; seconds."""
        check_is_fitted(self, "_collection")
        return dict(self._last_stats)

    @property
    def vocabulary_(self) -> dict[str, int]:
        """The words that occur in the fitted documents, by number."""
        check_is_fitted(self, "_collection")
        words = self._collection.vocabulary.words[: self._collection.used_words]
        return {word: number for number, word in enumerate(words)}

    def save(self, path: str | os.PathLike) -> None:
        """Write the fitted documents into a file that `talvik search` opens, too.

        Ids and labels are kept as text; parameters are not kept.

        Parameters
        ----------
        path : path
            Written aside first: what was there stays until the new file is whole.

        Raises
        ------
        OSError
            Where it cannot be written.
        """
        check_is_fitted(self, "_collection")
        self._collection.save(os.fspath(path))

    @classmethod
    def load(cls: type[Estimator], path: str | os.PathLike, **params: Any) -> Estimator:
        """Open what `save` or `talvik index` wrote.

        Parameters
        ----------
        path : path
            The saved collection.
        **params
            The estimator's parameters.  Without `vectors`, queries are looked up in the words that
            the file holds.

        Returns
        -------
        estimator
            Fitted.
        """
        return cls(**params).fit(Path(path))

    def __getstate__(self) -> dict[str, Any]:
        # A communicator belongs to its process.
        state = dict(super().__getstate__())
        state["comm"] = None
        if "_part" in state:
            state["_part"] = state["_collection"]
        return state

    def _more_tags(self) -> dict[str, Any]:
        return {
            "requires_positive_X": True,
            "X_types": ["2darray", "sparse", "string"],
            "preserves_dtype": [np.float32],
        }
