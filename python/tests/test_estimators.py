"""The estimators among scikit-learn's."""

import numpy as np
import pytest
from scipy import sparse
from sklearn.base import clone
from sklearn.cluster import DBSCAN
from sklearn.model_selection import GridSearchCV
from sklearn.neighbors import KNeighborsClassifier
from sklearn.pipeline import make_pipeline
from sklearn.utils.estimator_checks import parametrize_with_checks

from talvik import (
    EmptyDocumentWarning,
    WordMoverClassifier,
    WordMoverNeighbors,
    WordMoverTransformer,
    load_vectors,
)

# The classes of these checks lie in a few columns and differ by the size of the numbers, but
# documents are scaled to the sum 1.
NOT_APPLICABLE = {
    name: "the classes differ by sums, which documents do not keep"
    for name in ("check_classifiers_classes", "check_classifiers_train")
}


class ForAnyMatrix:
    """Word vectors for as many columns as a check's matrix has: they have no default."""

    def _vectors_given(self, kind, X):
        if kind != "matrix":
            return super()._vectors_given(kind, X)
        random = np.random.default_rng(0)
        return load_vectors(random.normal(size=(X.shape[1], 8)))

    def _more_tags(self):
        return {**super()._more_tags(), "_xfail_checks": NOT_APPLICABLE}


class Neighbors(ForAnyMatrix, WordMoverNeighbors):
    pass


class Classifier(ForAnyMatrix, WordMoverClassifier):
    pass


class Transformer(ForAnyMatrix, WordMoverTransformer):
    pass


@pytest.mark.filterwarnings("ignore::talvik.EmptyDocumentWarning")
@parametrize_with_checks([Neighbors(n_neighbors=1), Classifier(), Transformer(n_neighbors=1)])
def test_scikit_learns_checks(estimator, check):
    check(estimator)


def test_steps_are_chosen_by_cross_validation_in_other_processes(vectors, resident):
    model = WordMoverClassifier(vectors=vectors, stop_words="english")
    search = GridSearchCV(model, {"steps": [0, 2]}, cv=3, n_jobs=2, error_score="raise")
    search.fit(resident.texts, resident.labels)
    assert search.cv_results_["mean_test_score"].min() > 0.5  # guessing is right for one in six


def reciprocal(distances):
    return 1 / (1 + distances)


@pytest.mark.parametrize("weights", ["uniform", "distance", None, reciprocal])
def test_a_precomputed_graph_votes_as_the_classifier(vectors, resident, queries, weights):
    pipeline = make_pipeline(
        WordMoverTransformer(n_neighbors=5, vectors=vectors),
        KNeighborsClassifier(n_neighbors=5, metric="precomputed", weights=weights),
    ).fit(resident.texts, resident.labels)
    model = WordMoverClassifier(vectors=vectors, weights=weights)
    model.fit(resident.texts, resident.labels)
    expected = pipeline.predict_proba(queries.texts)
    np.testing.assert_allclose(model.predict_proba(queries.texts), expected, atol=1e-6)
    assert model.score(queries.texts, queries.labels) > 0.5


def test_the_graph_holds_each_document_and_finite_numbers(vectors, resident):
    texts = resident.texts[:30] + ["qqqq"]
    with pytest.warns(EmptyDocumentWarning) as warned:
        transformer = WordMoverTransformer(n_neighbors=3, vectors=vectors)
        graph = transformer.fit_transform(iter(texts))
    assert len(warned) == 1 and warned[0].filename == __file__
    assert sparse.isspmatrix_csr(graph) and graph.shape == (31, 31)
    assert transformer.get_feature_names_out()[30] == "wordmovertransformer30"
    data = graph.data.reshape(31, 4)
    assert (np.diff(data, axis=1) >= 0).all() and np.isfinite(data).all()
    assert (graph.indices.reshape(31, 4)[:30, 0] == np.arange(30)).all()
    assert DBSCAN(eps=0.7, min_samples=2, metric="precomputed").fit(graph).labels_[-1] == -1


def test_appended_documents_count_as_those_fitted_at_once(vectors, resident, queries):
    at_once = WordMoverClassifier(vectors=vectors).fit(resident.texts, resident.labels)
    grown, classes = clone(at_once), sorted(set(resident.labels))
    for part in (slice(0, 50), slice(50, 51), slice(51, None)):
        grown.partial_fit(resident.texts[part], resident.labels[part], classes=classes)
    np.testing.assert_array_equal(grown.classes_, at_once.classes_)
    expected = at_once.predict_proba(queries.texts)
    np.testing.assert_array_equal(grown.predict_proba(queries.texts), expected)
    grown.partial_fit(["A nation."], ["another"])
    assert grown.predict_proba(queries.texts).shape[1] == len(at_once.classes_) + 1
