"""Saved collections, pickles, and the program's lists on the sample."""

import copy
import csv
import os
import pickle
import re
import subprocess
from pathlib import Path

import h5py
import joblib
import numpy as np
import pandas as pd
import pytest
from conftest import SAMPLE

from talvik import WordMoverClassifier, WordMoverNeighbors, load_vectors


def talvik(*arguments):
    program = os.environ.get("TALVIK_BINARY")
    if not program:
        pytest.skip("the program is not built")
    ran = subprocess.run([program, *map(str, arguments)], capture_output=True, text=True)
    assert ran.returncode == 0, ran.stdout + ran.stderr


def test_the_program_and_the_package_read_each_others_files(tmp_path, vectors, resident, queries):
    settings = {"n_neighbors": 4, "distance": "exact", "vectors": vectors}
    nn = WordMoverNeighbors(stop_words="english", **settings)
    nn.fit(resident.texts, resident.labels, ids=resident.ids)
    nn.save(tmp_path / "package.talvik")
    index = ["--vectors", SAMPLE / "vectors.bin", "--texts", SAMPLE / "resident"]
    talvik("index", *index, "--stop-words", "english", "--output", tmp_path / "program.talvik")
    loaded = WordMoverNeighbors.load(tmp_path / "program.talvik", **settings)
    assert loaded.ids_.tolist() == resident.ids
    assert loaded.classes_.tolist() == nn.classes_.tolist() == sorted(set(resident.labels))

    search = ["--vectors", SAMPLE / "vectors.bin", "--texts", SAMPLE / "queries", "--k", 4]
    search += ["--distance", "exact", "--collection", tmp_path / "package.talvik"]
    talvik("search", *search, "--out", tmp_path / "lists.tsv")
    expected = pd.read_csv(tmp_path / "lists.tsv", sep="\t", quoting=csv.QUOTE_NONE)
    for ours in (nn, loaded):
        distances, indices = ours.kneighbors(queries.texts)
        assert ours.ids_[indices].ravel().tolist() == expected.neighbour.tolist()
        np.testing.assert_allclose(distances.ravel(), expected.distance, rtol=1e-6)
    assert expected["query"][::4].tolist() == queries.ids


def test_what_is_saved_answers_as_before(tmp_path, vectors, resident, queries):
    nn = WordMoverNeighbors(n_neighbors=3, vectors=vectors, steps=1)
    nn.fit(resident.texts[:40], ids=resident.ids[:40])
    expected = nn.kneighbors(queries.texts[:5])
    joblib.dump(nn, tmp_path / "joblib")
    nn.save(tmp_path / "saved")
    again = [
        pickle.loads(pickle.dumps(nn)),
        copy.deepcopy(nn),
        joblib.load(tmp_path / "joblib"),
        WordMoverNeighbors.load(tmp_path / "saved", n_neighbors=3, vectors=vectors, steps=1),
        WordMoverNeighbors(n_neighbors=3, vectors=vectors, steps=1).fit(nn._collection),
    ]
    for other in again:
        for got, wanted in zip(other.kneighbors(queries.texts[:5]), expected):
            np.testing.assert_array_equal(got, wanted)
        assert other.ids_.tolist() == resident.ids[:40]
        other.partial_fit(["A nation at peace."], ids=["new"])
        assert other.kneighbors(["A nation at peace."])[1][0, 0] == 40
    assert nn.n_samples_fit_ == 40
    with pytest.raises(OSError, match="/no/where"):
        nn.save("/no/where/file")


def strings(group):
    bounds, text = group["offsets"][:], group["bytes"][:].tobytes()
    assert bounds.dtype == "<i8" and group["bytes"].dtype == "u1"
    return [text[begin:end].decode() for begin, end in zip(bounds, bounds[1:])]


def test_h5py_reads_a_saved_collection_as_the_docs_say(
    tmp_path, monkeypatch, capsys, vectors, resident
):
    nn = WordMoverNeighbors(vectors=vectors, stop_words=["peace", "énergie"])
    held = nn.fit(resident.texts, resident.labels, ids=resident.ids)._collection
    monkeypatch.chdir(tmp_path)
    nn.save("news.h5")
    with h5py.File("news.h5") as f:
        assert f.id.get_create_plist().get_version()[0] == 3
        for name, dtype, numbers in (
            ("vocabulary/rows", "<f4", held.vocabulary.rows),
            ("documents/offsets", "<i8", held.offsets),
            ("documents/words", "<i4", held.words),
            ("documents/weights", "<f4", held.weights),
        ):
            assert f[name].dtype == dtype and f[name].fletcher32 and not f[name].compression
            np.testing.assert_array_equal(f[name], numbers)
        assert strings(f["vocabulary/words"]) == held.vocabulary.words
        assert strings(f["documents/ids"]) == resident.ids
        assert strings(f["documents/labels"]) == resident.labels
        assert strings(f["rules/stop_words"]) == ["peace", "énergie"]
        rules = {"min_length": 1, "max_words": 2**31 - 1, "unit_length": 1, "all_words": 0}
        rules |= {"keep_case": 0, "keep_texts": 0, "used_words": held.used_words, "version": 1}
        assert dict(f.attrs) == {**rules, "format": b"talvik collection"}
    docs = Path(__file__).parents[2] / "docs" / "formats.md"
    (program,) = re.findall("```python\n(with h5py.*?)```", docs.read_text("utf-8"), re.DOTALL)
    exec(program, {"h5py": h5py})
    of_first = slice(*held.offsets[:2])
    entries = zip(held.words[of_first], held.weights[of_first])
    expected = [f"{held.vocabulary.word(v)} {weight!s}" for v, weight in entries]
    assert capsys.readouterr().out.splitlines() == expected


def test_rows_without_words_and_a_saved_classifier(tmp_path):
    rows = load_vectors(np.eye(4))
    model = WordMoverClassifier(n_neighbors=1, vectors=rows).fit(np.eye(4)[:2], ["x", "y"])
    model.save(tmp_path / "saved")
    for other in (
        pickle.loads(pickle.dumps(model)),
        WordMoverClassifier.load(tmp_path / "saved", n_neighbors=1),
    ):
        assert other.predict([[0, 1, 0, 0], [1, 0, 0, 0]]).tolist() == ["y", "x"]
        assert other.explain([0, 0, 2, 1], 0).sources.tolist() == [2, 3]
