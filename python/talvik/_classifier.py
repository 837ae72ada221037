"""Classification by the nearest documents."""

from __future__ import annotations

from typing import Any, Callable

import numpy as np
from sklearn.base import ClassifierMixin
from sklearn.utils import column_or_1d
from sklearn.utils.multiclass import check_classification_targets
from sklearn.utils.validation import check_is_fitted

from ._base import check_choice
from ._neighbors import DocumentSearch

VOTES = {"uniform": False, "distance": True}


class WordMoverClassifier(ClassifierMixin, DocumentSearch):
    """A vote of the nearest documents, after scikit-learn's KNeighborsClassifier.

    Documents at infinite distance have no vote.  A document without a known word, for which nobody
    votes, gets the shares of the classes among the fitted documents.

    Parameters
    ----------
    weights : {"uniform", "distance"}, callable or None, default "uniform"
        Every vote counts the same (None, too), or 1 / distance; documents at distance 0 outvote all
        others.  A callable gets the distances, shape (n_queries, n_neighbors), and gives the votes.
    n_neighbors, distance, steps, metric, vectors, stop_words, radius, n_jobs, comm, verbose
        As in `WordMoverNeighbors`.

    Attributes
    ----------
    classes_ : array, ascending

    Examples
    --------
    >>> from talvik import WordMoverClassifier, load_vectors
    >>> vectors = load_vectors([[1, 0], [0.8, 0.6], [0, 1]], words=["tea", "coffee", "car"])
    >>> model = WordMoverClassifier(n_neighbors=1, vectors=vectors)
    >>> model.fit(["tea", "car"], ["drink", "vehicle"]).predict(["coffee"])
    array(['drink'], dtype='<U7')
    """

    def __init__(
        self,
        n_neighbors: int = 5,
        *,
        weights: str | Callable | None = "uniform",
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
        self.weights = weights

    def fit(self, X: Any, y: Any = None, ids: Any = None) -> WordMoverClassifier:
        """Take documents and their classes.

        Parameters
        ----------
        X, ids
            As in `WordMoverNeighbors.fit`.
        y : array of shape (n_documents,)
            Classes; None: the labels of a saved collection.

        Returns
        -------
        self
        """
        self._check_weights()
        labels = None if y is None else self._check_labels(y)
        with self._whole():
            self._fit_documents(X, labels, ids)
            if labels is None:
                labels = np.array(self._collection.labels)
                if len(labels) == 0:
                    raise ValueError(
                        "y: the classifier requires y to be passed, but the target y is None"
                    )
            self._set_labels(labels)
        return self

    def partial_fit(
        self, X: Any, y: Any, classes: Any = None, ids: Any = None
    ) -> WordMoverClassifier:
        """Append documents and their classes, which costs a copy of the documents before.

        Parameters
        ----------
        X, y, ids
            As in `fit`.
        classes : array, optional
            Classes that may come later; new ones may come at any time, though.

        Returns
        -------
        self
        """
        labels = self._check_labels(y)
        with self._whole():
            if hasattr(self, "_collection"):
                self._append_more(X, labels, ids)
                labels = np.concatenate([self.classes_[self._labels], labels])
                known = self.classes_
            else:
                self.fit(X, labels, ids)
                known = labels
            self._set_labels(labels, known if classes is None else np.union1d(known, classes))
        return self

    def _check_weights(self) -> None:
        if self.weights is not None and not callable(self.weights):
            check_choice("weights", self.weights, VOTES)

    def _check_labels(self, y: Any) -> np.ndarray:
        labels = column_or_1d(y, warn=True)
        check_classification_targets(labels)
        return labels

    def _set_labels(self, labels: np.ndarray, known: Any = None) -> None:
        if len(labels) != self.n_samples_fit_:
            raise ValueError(f"y: {len(labels)} labels for {self.n_samples_fit_} documents")
        self.classes_ = np.unique(labels if known is None else np.concatenate([known, labels]))
        self._labels = np.searchsorted(self.classes_, labels)

    def predict_proba(self, X: Any) -> np.ndarray:
        """Give each class's share of the votes.

        Parameters
        ----------
        X : documents in any form that `fit` takes

        Returns
        -------
        array of float64, shape (n_documents, n_classes)
            Columns as `classes_`; rows sum to 1.
        """
        check_is_fitted(self, "_collection")
        distances, indices = self.kneighbors(X)
        votes = np.where(np.isfinite(distances), self._votes(distances), 0.0)
        classes = len(self.classes_)
        cells = self._labels[indices] + classes * np.arange(len(indices))[:, None]
        shares = np.bincount(cells.ravel(), votes.ravel(), classes * len(indices))
        shares = shares.reshape(len(indices), classes)
        unheard = shares.sum(axis=1) == 0
        shares[unheard] = np.bincount(self._labels, minlength=classes)
        return shares / shares.sum(axis=1, keepdims=True)

    def _votes(self, distances: np.ndarray) -> np.ndarray:
        self._check_weights()
        if callable(self.weights):
            return np.asarray(self.weights(distances), dtype=float)
        if self.weights != "distance":
            return np.ones(distances.shape)
        same = distances == 0
        with np.errstate(divide="ignore"):
            return np.where(same.any(axis=1, keepdims=True), same, 1.0 / distances)

    def predict(self, X: Any) -> np.ndarray:
        """Give the class of most votes.

        Parameters
        ----------
        X : documents in any form that `fit` takes

        Returns
        -------
        array of shape (n_documents,)
            Of classes with the same votes the first of `classes_`.
        """
        shares = self.predict_proba(X)
        return self.classes_[shares.argmax(axis=1)]

    def _more_tags(self) -> dict[str, Any]:
        return {**super()._more_tags(), "requires_y": True}
