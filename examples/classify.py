#!/usr/bin/env python3
"""Classes of texts from their nearest documents, beside other ways of finding these.

usage: examples/classify.py [--data DIR] [--vectors FILE] [--every N] [--plot FILE]

DIR holds resident/CLASS/TEXT and queries/CLASS/TEXT: data/spam, where scripts/fetch-data has made it,
else the sample.  Capacity steps and neighbours are chosen by cross-validation among the resident
texts; the accuracy is that of the queries.
"""

import argparse
from pathlib import Path

import numpy as np
from sklearn.datasets import load_files
from sklearn.feature_extraction.text import CountVectorizer, TfidfVectorizer
from sklearn.model_selection import GridSearchCV
from sklearn.neighbors import KNeighborsClassifier, NearestNeighbors
from sklearn.pipeline import make_pipeline
from sklearn.preprocessing import FunctionTransformer
from talvik import WordMoverClassifier, WordMoverNeighbors, load_vectors

DATA = Path(__file__).resolve().parent.parent / "data"
NEIGHBOURS = [1, 3, 7, 15]
MOST = 16  # neighbours in the plot


def arguments():
    spam, glove = DATA / "spam", DATA / "glove-100d.bin"
    fetched = spam.is_dir() and glove.is_file()
    parser = argparse.ArgumentParser()
    parser.add_argument("--data", type=Path, default=spam if fetched else DATA / "sample")
    parser.add_argument(
        "--vectors", type=Path, default=glove if fetched else DATA / "sample" / "vectors.bin"
    )
    parser.add_argument("--every", type=int, default=1, help="take every Nth text")
    parser.add_argument("--plot", type=Path)
    return parser.parse_args()


def read(root, every):
    files = load_files(root, encoding="utf-8", decode_error="replace", shuffle=True, random_state=0)
    return files.data[::every], files.target[::every]


def mean_vectors(vectors):
    """Each text's words, averaged."""
    counts = CountVectorizer(vocabulary=vectors.words)
    return make_pipeline(counts, FunctionTransformer(lambda X: X @ vectors.rows))


def report(name, search, texts, labels):
    chosen = ", ".join(f"{key.split('__')[-1]} {value}" for key, value in search.best_params_.items())
    print(f"{name:<22}{search.score(texts, labels):10.4f}   {chosen}", flush=True)


def precision(labels, found, classes):
    """The share of the k nearest texts with the query's class, for every k."""
    same = classes[found] == labels[:, None]
    return np.cumsum(same, axis=1).mean(axis=0) / np.arange(1, found.shape[1] + 1)


def main():
    options = arguments()
    vectors = load_vectors(options.vectors)
    texts, classes = read(options.data / "resident", options.every)
    queries, labels = read(options.data / "queries", options.every)
    print(f"{options.data.name}: {len(texts)} texts, {len(queries)} queries")
    print(f"{'nearest by':<22}{'accuracy':>10}   chosen")

    mover = GridSearchCV(
        WordMoverClassifier(vectors=vectors, stop_words="english"),
        {"steps": [0, 1, 3], "n_neighbors": NEIGHBOURS},
        cv=3,
    ).fit(texts, classes)
    report("word mover's distance", mover, queries, labels)
    others = {
        "TF-IDF cosine": TfidfVectorizer(stop_words="english"),
        "mean word vectors": mean_vectors(vectors),
    }
    curves = {}
    for name, features in others.items():
        votes = make_pipeline(features, KNeighborsClassifier(metric="cosine"))
        grid = {"kneighborsclassifier__n_neighbors": NEIGHBOURS}
        report(name, GridSearchCV(votes, grid, cv=3).fit(texts, classes), queries, labels)
        lists = NearestNeighbors(n_neighbors=MOST, metric="cosine").fit(features.fit_transform(texts))
        found = lists.kneighbors(features.transform(queries), return_distance=False)
        curves[name] = precision(labels, found, classes)

    nn = WordMoverNeighbors(
        MOST, vectors=vectors, stop_words="english", steps=mover.best_params_["steps"]
    ).fit(texts)
    found = nn.kneighbors(queries, return_distance=False)
    curves = {"word mover's distance": precision(labels, found, classes), **curves}
    for k in (1, 4, 16):
        values = "  ".join(f"{name} {curve[k - 1]:.4f}" for name, curve in curves.items())
        print(f"precision at {k:<3} {values}")
    if options.plot:
        draw(curves, options)


def draw(curves, options):
    import matplotlib

    matplotlib.use("Agg")
    from matplotlib import pyplot as plt

    figure, axes = plt.subplots(figsize=(6, 3.6), layout="constrained")
    for (name, curve), marker in zip(curves.items(), "osd"):
        axes.plot(np.arange(1, MOST + 1), curve, marker=marker, markersize=4, label=name)
    axes.set_xlabel("k")
    axes.set_ylabel("precision at k")
    axes.set_title(f"The k nearest texts with the query's class ({options.data.name})")
    axes.grid(alpha=0.3)
    axes.legend()
    undated = {"Date": None} if options.plot.suffix == ".svg" else None
    figure.savefig(options.plot, metadata=undated)


if __name__ == "__main__":
    main()
