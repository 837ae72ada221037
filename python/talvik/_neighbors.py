"""Nearest documents, after scikit-learn's NearestNeighbors."""

from __future__ import annotations

import numbers
from typing import Any

import numpy as np
from scipy import sparse
from sklearn.utils.validation import check_is_fitted

from . import _core
from ._base import WordMoverBase, check_choice, check_flat, check_whole
from ._core import Collection
from ._explanation import Explanation

GRAPH_MODES = {"connectivity": False, "distance": True}  # whether the entries are distances


def split_rows(values: np.ndarray, offsets: np.ndarray) -> np.ndarray:
    """Give an array of arrays, which are views."""
    rows = np.empty(len(offsets) - 1, dtype=object)
    for row in range(len(rows)):
        rows[row] = values[offsets[row] : offsets[row + 1]]
    return rows


class DocumentSearch(WordMoverBase):
    """The questions that can be asked of fitted documents."""

    radius: float

    def kneighbors(
        self, X: Any = None, n_neighbors: int | None = None, return_distance: bool = True
    ) -> Any:
        """Find the nearest fitted documents.

        Parameters
        ----------
        X : documents in any form that `fit` takes, optional
            The queries.  None: the fitted documents, each without itself.
        n_neighbors : int, optional
            Per query; by default the parameter of the same name.
        return_distance : bool, default True

        Returns
        -------
        distances : array of float32, of distance="exact" float64, shape (n_queries, n_neighbors)
            Ascending.  Only where asked for.
        indices : array of int64, shape (n_queries, n_neighbors)
            Of equally near documents the lower number comes first.

        Raises
        ------
        ValueError
            For more neighbours than there are documents, and arguments that make no sense.
        """
        check_is_fitted(self, "_collection")
        wanted = self.n_neighbors if n_neighbors is None else n_neighbors
        k = check_whole("n_neighbors", wanted, 1)
        queries = None if X is None else self._queries(X)
        distances, indices = self._nearest(queries, k)
        return (distances, indices) if return_distance else indices

    def kneighbors_graph(
        self, X: Any = None, n_neighbors: int | None = None, mode: str = "connectivity"
    ) -> sparse.csr_matrix:
        """Give the nearest documents as a sparse matrix.

        Parameters
        ----------
        X, n_neighbors
            As in `kneighbors`.
        mode : {"connectivity", "distance"}
            What the entries are: ones, or distances.

        Returns
        -------
        csr_matrix of shape (n_queries, n_samples_fit_)
            The entries of a row are in the order of the distances.
        """
        check_choice("mode", mode, GRAPH_MODES)
        distances, indices = self.kneighbors(X, n_neighbors)
        offsets = np.arange(0, indices.size + 1, indices.shape[1])
        return self._graph(offsets, indices.ravel(), distances.ravel(), mode)

    def radius_neighbors(
        self, X: Any = None, radius: float | None = None, return_distance: bool = True
    ) -> Any:
        """Find all fitted documents at most so far away.

        Parameters
        ----------
        X
            As in `kneighbors`.
        radius : float, optional
            By default the parameter of the same name.
        return_distance : bool, default True

        Returns
        -------
        distances, indices : arrays of arrays, shape (n_queries,)
            As in `kneighbors`; distances only where asked for.
        """
        offsets, indices, distances = self._within(X, radius)
        rows = split_rows(indices, offsets)
        return (split_rows(distances, offsets), rows) if return_distance else rows

    def radius_neighbors_graph(
        self, X: Any = None, radius: float | None = None, mode: str = "connectivity"
    ) -> sparse.csr_matrix:
        """Give the documents at most so far away as a sparse matrix.

        Parameters
        ----------
        X, radius
            As in `radius_neighbors`.
        mode : {"connectivity", "distance"}
            As in `kneighbors_graph`, and so is what comes out.
        """
        check_choice("mode", mode, GRAPH_MODES)
        return self._graph(*self._within(X, radius), mode)

    def _within(self, X: Any, radius: float | None) -> tuple[np.ndarray, np.ndarray, np.ndarray]:
        check_is_fitted(self, "_collection")
        wanted = self.radius if radius is None else radius
        if not isinstance(wanted, numbers.Real) or not wanted >= 0:
            raise ValueError(f"radius: {wanted!r}, must be a number that is not negative")
        queries = None if X is None else self._queries(X)
        with self._running() as settings:
            found = _core.within(self._part, queries, float(wanted), settings)
        self._keep_stats(found[3])
        return found[:3]

    def _graph(
        self, offsets: np.ndarray, indices: np.ndarray, distances: np.ndarray, mode: str
    ) -> sparse.csr_matrix:
        data = distances if GRAPH_MODES[mode] else np.ones(len(indices))
        shape = (len(offsets) - 1, self.n_samples_fit_)
        return sparse.csr_matrix((data, indices, offsets), shape=shape)

    def pairwise_distances(self, X: Any, Y: Any = None) -> np.ndarray:
        """Compute all distances; with `comm`, on every process by itself.

        Relaxed distances are formed in single precision here: words that are nearly the same leave
        up to a few thousandths, where `kneighbors` is right.

        Parameters
        ----------
        X : documents
            The queries.
        Y : documents, optional
            What they are compared with; None: the fitted documents.

        Returns
        -------
        array of float32, of distance="exact" float64, shape (n_X, n_Y)
        """
        check_is_fitted(self, "_collection")
        others = self._collection if Y is None else self._queries(Y)
        queries = self._queries(X)
        with self._running() as settings:
            return _core.distance_matrix(others, queries, settings)

    def pair_distances(self, X: Any, pairs: Any) -> np.ndarray:
        """Compute the distances of some pairs, each by itself; with `comm`, on every process.

        Parameters
        ----------
        X : documents
            The queries.
        pairs : array of int, shape (n_pairs, 2)
            Of each pair the number of its query in X, and that of its fitted document.

        Returns
        -------
        array of float64, shape (n_pairs,)
            The very values of `kneighbors`, before it rounds relaxed ones to single precision.
        """
        check_is_fitted(self, "_collection")
        numbers_ = np.asarray(pairs)
        if numbers_.ndim != 2 or numbers_.shape[1] != 2 or numbers_.dtype.kind not in "iu":
            raise ValueError("pairs: must be whole numbers in two columns, query and document")
        queries = self._queries(X)
        turned = np.ascontiguousarray(numbers_[:, ::-1], dtype=np.int64)  # the document first
        with self._running() as settings:
            return _core.pair_distances(self._collection, queries, turned, settings)

    def explain(self, X: Any, index: int) -> Explanation:
        """Tell what the distance of a pair is made of.

        Parameters
        ----------
        X : str, list of words, row of counts, or int
            The query; an int is the number of a fitted document.
        index : int
            The number of a fitted document.

        Returns
        -------
        Explanation

        Examples
        --------
        >>> from talvik import WordMoverNeighbors, load_vectors
        >>> words = load_vectors([[0.0, 0.0], [3.0, 4.0]], words=["tea", "cup"], unit_length=False)
        >>> nn = WordMoverNeighbors(vectors=words).fit(["A cup."])
        >>> explanation = nn.explain("Some tea, tea!", 0)
        >>> explanation.distance, explanation.sources, explanation.targets
        (5.0, array(['cup'], dtype=object), array(['tea'], dtype=object))
        """
        check_is_fitted(self, "_collection")
        queries, query = self._one_query(X)
        number = check_whole("index", index, 0)
        distance, from_query, sources, targets, weights, lengths = _core.explain(
            self._collection, number, queries, query, self._settings()
        )
        from_side, to_side = (
            (queries, self._collection) if from_query else (self._collection, queries)
        )
        return Explanation(
            distance, from_query, names(from_side, sources), names(to_side, targets), weights, lengths
        )

    def _one_query(self, X: Any) -> tuple[Collection, int]:
        if isinstance(X, numbers.Integral):
            return self._collection, check_whole("X", X, 0)
        if sparse.issparse(X) or isinstance(X, np.ndarray) and X.ndim == 2:
            queries = self._queries(X)
        else:
            queries = self._queries([X])
        if len(queries) != 1:
            raise ValueError(f"X: {len(queries)} documents, one is needed")
        return queries, 0


def names(collection: Collection, numbers_: np.ndarray) -> np.ndarray:
    """Give the words of some numbers, or the numbers where there are no words."""
    vocabulary = collection.vocabulary
    found = np.empty(len(numbers_), dtype=object)
    found[:] = [vocabulary.word(int(n)) if vocabulary.has_words else int(n) for n in numbers_]
    return found


def distinct(labels: list) -> np.ndarray:
    """Give the labels, ascending, each once; a set first, as few of many are distinct."""
    return np.unique(list(set(labels)))


class WordMoverNeighbors(DocumentSearch):
    """Nearest documents by the word mover's distance.

    Every answer is that of the full computation; bounds only spare work.

    Parameters
    ----------
    n_neighbors : int, default 5
    distance : {"two-way", "one-way", "other-way", "exact"}
        Relaxed: each word of one document moves to the nearest words of the other; "one-way" those
        of the fitted document, "other-way" those of the query, "two-way" the larger of both.
        "exact": the cost of the optimal transport.
    steps : int, default 0
        Capacity steps of the relaxed distances: a word takes at most its own weight, so many times.
    metric : {"euclidean", "cosine"}
        Between words.
    vectors : Vectors, path, array or object
        What `load_vectors` takes.  None: those of the saved collection.
    stop_words : {"english"}, path of a list, or iterable of str, optional
        Words left out, in lower case.  A saved collection keeps its own.
    radius : float, default 1.0
        Of `radius_neighbors`.
    n_jobs : int, optional
        Threads.  None: as many as OpenMP takes; -1: all processors.
    comm : mpi4py.MPI.Comm, optional
        Processes that search together: all of them fit the same documents, each searches its part
        of them, and all get the whole answer.  Queries and parameters are the same everywhere.
    verbose : int, default 0
        Above 0 a bar shows how far a search has come, where tqdm is installed.

    Attributes
    ----------
    ids_ : array, shape (n_samples_fit_,)
        As given; of a saved collection text; else the documents' numbers.
    n_samples_fit_ : int
    classes_ : array
        The distinct labels, where there are any.
    vocabulary_ : dict
        The words that occur, by number.
    stats_ : dict
        What the last search did.

    Examples
    --------
    >>> from talvik import WordMoverNeighbors, load_vectors
    >>> vectors = load_vectors([[1, 0], [0.8, 0.6], [0, 1]], words=["tea", "coffee", "car"])
    >>> nn = WordMoverNeighbors(n_neighbors=2, vectors=vectors).fit(["tea", "car", "tea or car"])
    >>> distances, indices = nn.kneighbors(["coffee"])
    >>> indices
    array([[0, 2]])
    """

    def fit(self, X: Any, y: Any = None, ids: Any = None) -> WordMoverNeighbors:
        """Take the documents that are searched.

        Parameters
        ----------
        X : iterable of str, of lists of words, matrix of counts, or path of a saved collection
            A matrix, sparse or dense, has a column per word vector.  Lists of words are looked up
            as they are, less the stop words.
        y : array of shape (n_documents,), optional
            Labels, which are saved with the documents.
        ids : array of shape (n_documents,), optional
            Distinct; by default the documents' numbers.

        Returns
        -------
        self

        Warns
        -----
        EmptyDocumentWarning
            For documents without a known word, which are infinitely far from every other.
        """
        if y is not None:
            y = check_flat("y", y)
        with self._whole():
            self._fit_documents(X, y, ids)
            labels = self._collection.labels if y is None else y.tolist()
            if y is not None and len(labels) != self.n_samples_fit_:
                raise ValueError(f"y: {len(labels)} labels for {self.n_samples_fit_} documents")
            if len(labels):
                self.classes_ = distinct(labels)
            elif hasattr(self, "classes_"):
                del self.classes_  # of an earlier fit
        return self

    def partial_fit(self, X: Any, y: Any = None, ids: Any = None) -> WordMoverNeighbors:
        """Append documents, which costs a copy of those before; the first call fits.

        Parameters
        ----------
        X, y, ids
            As in `fit`.  Labels for all documents or for none; ids that are not there yet.

        Returns
        -------
        self
        """
        if not hasattr(self, "_collection"):
            return self.fit(X, y, ids)
        if y is not None:
            y = check_flat("y", y)
        with self._whole():
            self._append_more(X, y, ids)
            if y is not None:
                self.classes_ = np.union1d(self.classes_, distinct(y.tolist()))
        return self
