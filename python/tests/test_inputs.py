"""Documents and vectors in every form, and what is refused."""

from types import SimpleNamespace

import numpy as np
import pandas as pd
import pytest
from scipy import sparse

from talvik import (
    EmptyDocumentWarning,
    Vectors,
    WordMoverClassifier,
    WordMoverNeighbors,
    WordMoverTransformer,
    load_vectors,
)

WORDS = ["dog", "puppy", "sleeps", "rests", "price", "rises"]
ROWS = np.array([[1, 0], [0.9, 0.1], [0, 1], [0.1, 0.9], [-1, 0], [-1, 1]], dtype=np.float32)
TEXTS = ["The dog sleeps.", "Price rises, price rises!", "A puppy"]
TOKENS = [["dog", "sleeps"], ["price", "rises", "price", "rises"], ["puppy"]]
COUNTS = np.array([[1, 0, 1, 0, 0, 0], [0, 0, 0, 0, 2, 2], [0, 1, 0, 0, 0, 0]])
FORMS = {
    "list": TEXTS,
    "series": pd.Series(TEXTS, index=[7, 8, 9]),
    "generator": TEXTS,
    "strings": np.array(TEXTS),
    "tokens": TOKENS,
    "dense": COUNTS,
    "lists of counts": COUNTS.tolist(),
    "frame": pd.DataFrame(COUNTS, columns=WORDS),
    "csr": sparse.csr_matrix(COUNTS, dtype=np.float32),
    "coo": sparse.coo_matrix(COUNTS),
}


@pytest.fixture
def small():
    return load_vectors(ROWS, words=WORDS)


def neighbours_of(vectors, **params):
    return WordMoverNeighbors(**{"n_neighbors": 1, "vectors": vectors, **params})


@pytest.mark.parametrize("form", FORMS)
def test_all_forms_of_documents_mean_the_same(small, form):
    X = (text for text in TEXTS) if form == "generator" else FORMS[form]
    nn = neighbours_of(small).fit(X)
    expected = neighbours_of(small).fit(TEXTS).pairwise_distances(["dog rises"])
    np.testing.assert_array_equal(nn.pairwise_distances([["dog", "rises"]]), expected)
    distances, indices = nn.kneighbors(TEXTS if form == "generator" else FORMS[form])
    np.testing.assert_array_equal(indices.ravel(), [0, 1, 2])
    np.testing.assert_array_equal(distances, 0)
    assert set(nn.vocabulary_) == {"dog", "puppy", "sleeps", "price", "rises"}


def test_all_forms_of_vectors_mean_the_same(tmp_path, small):
    path = tmp_path / "words.txt"
    path.write_text("".join(f"{w} {a} {b}\n" for w, (a, b) in zip(WORDS, ROWS.tolist())))
    order = list(reversed(range(len(WORDS))))
    keyed = SimpleNamespace(
        key_to_index={WORDS[n]: place for place, n in enumerate(order)}, vectors=ROWS[order]
    )
    for source in (path, str(path), keyed, load_vectors(ROWS.astype(np.float64), words=WORDS)):
        vectors = load_vectors(source)
        assert isinstance(vectors, Vectors) and vectors.unit_length
        for number, word in enumerate(WORDS):
            np.testing.assert_array_equal(vectors.rows[vectors.find(word)], small.rows[number])
        assert neighbours_of(source).fit(TEXTS).kneighbors(["puppy"])[1].tolist() == [[2]]
    assert not small.rows.flags.writeable
    np.testing.assert_array_equal(load_vectors(ROWS, unit_length=False).rows, ROWS)


def test_ids_and_classes_are_those_given(small):
    nn = neighbours_of(small).fit(TEXTS, ids=pd.Series([30, 10, 20], index=[5, 6, 7]))
    assert nn.ids_[nn.kneighbors(["puppy"])[1]].tolist() == [[20]]
    nn.partial_fit(["puppy rests"], ids=[7])
    assert nn.ids_.tolist() == [30, 10, 20, 7] and nn.n_samples_fit_ == 4
    assert nn.ids_[nn.kneighbors(["puppy rests"])[1]].tolist() == [[7]]
    assert nn.fit(TEXTS, ["y", "x", "y"]).partial_fit(["dog"], ["z"]).ids_.tolist() == [0, 1, 2, 3]
    assert nn.classes_.tolist() == ["x", "y", "z"]
    assert nn.fit(TEXTS, [2, 1, 2]).classes_.tolist() == [1, 2]  # a second fit forgets the first
    assert not hasattr(nn.fit(TEXTS), "classes_")


def test_stop_words_are_left_out_of_texts_and_lists(small, tmp_path):
    (tmp_path / "stop").write_text("dog\nprice\n")
    for stop_words in (["dog", "price"], tmp_path / "stop"):
        nn = neighbours_of(small, stop_words=stop_words).fit(TEXTS)
        assert set(nn.vocabulary_) == {"puppy", "sleeps", "rises"}
        assert nn.pairwise_distances([["dog", "sleeps"]])[0, 0] == 0
    english = load_vectors(np.eye(2), words=["the", "tea"])
    assert set(neighbours_of(english, stop_words="english").fit(["the tea"]).vocabulary_) == {"tea"}


def test_documents_without_a_known_word_are_infinitely_far(small):
    with pytest.warns(EmptyDocumentWarning, match="1 of 2 documents .*: b$"):
        nn = neighbours_of(small, n_neighbors=2).fit(["dog", "cat"], ids=["a", "b"])
    with pytest.warns(EmptyDocumentWarning, match="2 of 3"):
        distances, indices = nn.kneighbors(["dog", "", "\ud800"])
    assert distances.tolist() == [[0, np.inf], [np.inf] * 2, [np.inf] * 2]
    assert indices.tolist() == [[0, 1]] * 3
    model = WordMoverClassifier(n_neighbors=1, vectors=small).fit(TEXTS, ["b", "b", "a"])
    with pytest.warns(EmptyDocumentWarning):
        np.testing.assert_allclose(model.predict_proba(["cat"]), [[1 / 3, 2 / 3]])


BAD_X = {
    "none": ([], ValueError, "X: no documents"),
    "a number among texts": (["dog", 3], TypeError, r"X\[1\]: a str"),
    "a text among lists of words": ([["dog"], "dog"], TypeError, r"X\[1\]: a list of words"),
    "texts in two dimensions": (pd.DataFrame({"text": TEXTS}), TypeError, "X: texts in one dim"),
    "a number among words": ([["dog"], ["dog", 3]], TypeError, r"X\[1\]\[1\]: a str"),
    "a text alone": ("The dog sleeps.", OSError, "a text goes into a list"),
    "nothing": (None, TypeError, "X: an iterable"),
    "a dictionary": ({"dog": 1}, TypeError, "X: an iterable"),
    "negative counts": (-COUNTS, ValueError, "Negative values"),
    "counts of other words": (COUNTS[:, :4], ValueError, "X: 4 columns for 6"),
    "counts that are no numbers": (COUNTS * np.nan, ValueError, "NaN"),
}


@pytest.mark.parametrize("name", BAD_X)
def test_documents_that_are_none_are_named(small, name):
    X, kind, message = BAD_X[name]
    with pytest.raises(kind, match=message):
        neighbours_of(small).fit(X)
    nn = neighbours_of(small).fit(TEXTS)
    calls = [nn.partial_fit, nn.kneighbors]
    for call in calls if X is not None and len(X) > 0 else calls[:1]:  # None are the fitted ones
        with pytest.raises(kind):
            call(X)
    assert nn.n_samples_fit_ == 3


def fit(**params):
    return lambda nn: nn.set_params(**params).fit(TEXTS)


BAD_CALLS = {
    "vectors: rows: ": (ValueError, fit(vectors=[[np.nan]])),
    "vectors: .*'a' comes twice": (ValueError, lambda nn: load_vectors(ROWS[:2], words=["a", "a"])),
    "vectors: none": (ValueError, fit(vectors=None)),
    "vectors: a path": (TypeError, fit(vectors=object())),
    "/no/file": (OSError, fit(vectors="/no/file")),
    "distance: 'far'": (ValueError, fit(distance="far")),
    "metric: None": (ValueError, fit(metric=None)),
    "steps: -1": (ValueError, fit(steps=-1)),
    "steps: a whole": (TypeError, fit(steps=0.5)),
    "n_neighbors: 0": (ValueError, fit(n_neighbors=0)),
    "comm: ": (TypeError, fit(comm="world")),
    "stop_words: an iterable": (TypeError, fit(stop_words=5)),
    "n_neighbors = 4": (ValueError, lambda nn: nn.kneighbors(TEXTS, 4)),
    "each without itself": (ValueError, lambda nn: nn.kneighbors(n_neighbors=3)),
    "radius: -1": (ValueError, lambda nn: nn.radius_neighbors(TEXTS, -1)),
    "radius: nan": (ValueError, lambda nn: nn.radius_neighbors(TEXTS, np.nan)),
    "mode: 'far'": (ValueError, lambda nn: nn.kneighbors_graph(mode="far")),
    "mode: None": (ValueError, lambda nn: WordMoverTransformer(mode=None).fit(TEXTS)),
    "index: -1": (ValueError, lambda nn: nn.explain("dog", -1)),
    "document: 3": (ValueError, lambda nn: nn.explain("dog", 3)),
    "the id 'a'": (ValueError, lambda nn: nn.partial_fit(["dog"], ids=["a"])),
    "ids: 1 of them for 2": (ValueError, lambda nn: nn.partial_fit(["dog", "dog"], ids=["d"])),
    "ids: 0 dimensions": (ValueError, lambda nn: nn.fit(TEXTS, ids="abc")),
    "y: 2 of them for 3": (ValueError, lambda nn: nn.fit(TEXTS, [1, 2])),
    r"X\[1\]: a str": (
        TypeError,
        lambda nn: nn.set_params(vectors=load_vectors(np.eye(2), words=["x", "y"])).fit(["x", 3]),
    ),
    "y: 2 dimensions": (ValueError, lambda nn: nn.fit(TEXTS, np.eye(3))),
    "weights: 'v'": (ValueError, lambda nn: WordMoverClassifier(weights="v").fit(TEXTS, [1, 2, 3])),
}


@pytest.mark.parametrize("message", BAD_CALLS)
def test_calls_that_make_no_sense_are_named_and_change_nothing(small, message):
    kind, call = BAD_CALLS[message]
    nn = neighbours_of(small).fit(TEXTS, ids=["a", "b", "c"])
    with pytest.raises(kind, match=message):
        call(nn)
    nn.set_params(**neighbours_of(small).get_params())
    assert nn.ids_[nn.kneighbors(["puppy"])[1]].tolist() == [["c"]]


def test_a_classifier_whose_fit_fails_is_what_it_was(small, tmp_path):
    saved = tmp_path / "unlabelled.talvik"
    neighbours_of(small).fit(TEXTS[:2]).save(saved)
    classifier = WordMoverClassifier(1, vectors=small).fit(TEXTS, ["x", "y", "z"])
    for labels in None, ["x"]:
        with pytest.raises(ValueError, match="^y: "):
            classifier.fit(saved, labels)
        assert classifier.predict(TEXTS).tolist() == ["x", "y", "z"]
