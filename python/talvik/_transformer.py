"""Distances to the nearest documents, for estimators that take a precomputed graph."""

from __future__ import annotations

from typing import Any

import numpy as np
from scipy import sparse
from sklearn.base import TransformerMixin
from sklearn.utils.validation import check_is_fitted

from ._base import check_choice
from ._neighbors import GRAPH_MODES, DocumentSearch


class WordMoverTransformer(TransformerMixin, DocumentSearch):
    """Documents into the sparse graph of their nearest fitted documents.

    What comes out goes into `KNeighborsClassifier(metric="precomputed")`, `DBSCAN`, `TSNE` and
    others.

    Parameters
    ----------
    mode : {"distance", "connectivity"}
        What the entries are.  With distances a document has one neighbour more, since a fitted
        document is its own nearest.
    n_neighbors, distance, steps, metric, vectors, stop_words, radius, n_jobs, comm, verbose
        As in `WordMoverNeighbors`.

    Examples
    --------
    >>> from talvik import WordMoverTransformer, load_vectors
    >>> vectors = load_vectors([[1, 0], [0.8, 0.6], [0, 1]], words=["tea", "coffee", "car"])
    >>> graph = WordMoverTransformer(n_neighbors=1, vectors=vectors)
    >>> graph.fit_transform(["tea", "car", "coffee"]).toarray().round(2)
    array([[0.  , 0.  , 0.63],
           [0.  , 0.  , 0.89],
           [0.63, 0.  , 0.  ]], dtype=float32)
    """

    def __init__(
        self,
        n_neighbors: int = 5,
        *,
        mode: str = "distance",
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
        super().__init__(
            n_neighbors,
            distance=distance,
            steps=steps,
            metric=metric,
            vectors=vectors,
            stop_words=stop_words,
            radius=radius,
            n_jobs=n_jobs,
            comm=comm,
            verbose=verbose,
        )
        self.mode = mode

    def fit(self, X: Any, y: Any = None, ids: Any = None) -> WordMoverTransformer:
        """Take the documents that are searched; see `WordMoverNeighbors.fit`.  y is not read."""
        check_choice("mode", self.mode, GRAPH_MODES)
        with self._whole():
            self._fit_documents(X, None, ids)
        return self

    def fit_transform(self, X: Any, y: Any = None, ids: Any = None) -> sparse.csr_matrix:
        """Fit, and give the graph among the fitted documents, which are read once.

        Parameters
        ----------
        X, y, ids
            As in `fit`.

        Returns
        -------
        csr_matrix of shape (n_samples_fit_, n_samples_fit_)
            As from `transform`: every document is in its own row.
        """
        return self.fit(X, ids=ids).transform(self._collection)

    def get_feature_names_out(self, input_features: Any = None) -> np.ndarray:
        """Name the graph's columns, after the class and by number; `ids_` tells the documents.

        Parameters
        ----------
        input_features : ignored

        Returns
        -------
        array of object, shape (n_samples_fit_,)
        """
        check_is_fitted(self, "_collection")
        prefix = type(self).__name__.lower()
        return np.array([f"{prefix}{i}" for i in range(self.n_samples_fit_)], dtype=object)

    def transform(self, X: Any) -> sparse.csr_matrix:
        """Give the graph from documents to their nearest fitted ones.

        Parameters
        ----------
        X : documents in any form that `fit` takes

        Returns
        -------
        csr_matrix of shape (n_documents, n_samples_fit_)
            The entries of a row are in the order of the distances.  Infinite distances, those of
            documents without a known word, are the largest finite number, as scikit-learn takes no
            infinity.
        """
        more = self.mode == "distance"
        graph = self.kneighbors_graph(X, self.n_neighbors + more, mode=self.mode)
        graph.data[np.isinf(graph.data)] = np.finfo(graph.data.dtype).max
        return graph
