"""Reads the documents that bench/peers compares the ways on, by the program's own rules.

The rules are those of docs/formats.md: the same words, weights, order and unit vectors as in a run
of `talvik corpus` or `talvik mnist`.
"""

import collections
import pathlib
from typing import NamedTuple

import numpy as np
import scipy.sparse

TRIMMED = b".,:;'()"  # off both ends of a token
IMAGE_SIDE = 28
IMAGE_HEADER_BYTES, LABEL_HEADER_BYTES = 16, 8


class Documents(NamedTuple):
    """A collection: row d of `entries`, in ascending word order, is document d; weights sum to 1."""

    entries: scipy.sparse.csr_matrix  # float32, documents x words
    classes: np.ndarray
    names: list = None  # CLASS/NUMBER, of documents that come from a tree

    @property
    def count(self):
        return self.entries.shape[0]

    def document(self, d):
        """The words and the weights of one document."""
        begin, end = self.entries.indptr[d:d + 2]
        return self.entries.indices[begin:end], self.entries.data[begin:end]


def read_vectors(path):
    """The index of every word of an embedding file, and the vectors, scaled to unit length."""
    content = path.read_bytes()
    header = content.index(b"\n")
    count, dimensions = map(int, content[:header].split())
    index, vectors, at = {}, np.empty((count, dimensions), np.float32), header
    for row in range(count):
        at += content[at:at + 1] == b"\n"
        space = content.index(b" ", at)
        index.setdefault(content[at:space], len(index))
        vectors[row] = np.frombuffer(content, "<f4", dimensions, space + 1)
        at = space + 1 + 4 * dimensions
    if len(index) != count:
        raise ValueError(f"{path}: a word occurs twice")
    lengths = np.sqrt((vectors * vectors).sum(axis=1, dtype=np.float64))
    vectors /= np.where(lengths == 0, 1, lengths)[:, None]
    return index, vectors


def word_of(token):
    """Punctuation off both ends, unless there is nothing else; then cut at the first apostrophe."""
    return (token.strip(TRIMMED) or token).split(b"'", 1)[0]


def count_words(text, index):
    """(word, count) pairs in ascending word order; tokens end at single spaces only."""
    numbers = (index.get(word_of(token)) for token in text.split(b" "))
    counts = collections.Counter(number for number in numbers if number is not None)
    return sorted(counts.items())


def from_rows(rows, classes, words):
    """Documents of lists of (word, count) pairs."""
    starts = np.cumsum([0] + [len(row) for row in rows])
    numbers, counts = np.array([pair for row in rows for pair in row]).T
    return normalised(counts, numbers, starts, classes, words)


def normalised(counts, numbers, starts, classes, words):
    sums = np.add.reduceat(counts, starts[:-1], dtype=np.float64)
    weights = (counts / np.repeat(sums, np.diff(starts))).astype(np.float32)
    shape = (len(starts) - 1, words)
    return Documents(scipy.sparse.csr_matrix((weights, numbers, starts), shape), np.array(classes))


def read_corpus(root, index):
    """The documents of a tree CLASS/NUMBER by class and number; those of no known word left out."""
    rows, classes, names = [], [], []
    for folder in sorted(path for path in pathlib.Path(root).iterdir() if path.is_dir()):
        for file in sorted(folder.iterdir(), key=lambda path: int(path.name)):
            row = count_words(file.read_bytes(), index)
            if row:
                rows.append(row)
                classes.append(folder.name)
                names.append(f"{folder.name}/{file.name}")
    return from_rows(rows, classes, len(index))._replace(names=names)


def read_images(images_path, labels_path, limit=None):
    """The images of an IDX file as documents of their pixels; blank ones left out."""
    pixels = np.fromfile(images_path, np.uint8, offset=IMAGE_HEADER_BYTES)
    pixels = pixels.reshape(-1, IMAGE_SIDE**2)[:limit]
    labels = np.fromfile(labels_path, np.uint8, offset=LABEL_HEADER_BYTES)[:limit]
    kept = pixels.any(axis=1)
    images = scipy.sparse.csr_matrix(pixels[kept].astype(np.float32))
    return normalised(images.data, images.indices, images.indptr, labels[kept], IMAGE_SIDE**2)


def pixel_positions():
    """The vector of a pixel: its row and its column."""
    return np.indices((IMAGE_SIDE, IMAGE_SIDE), np.float32).reshape(2, -1).T.copy()
