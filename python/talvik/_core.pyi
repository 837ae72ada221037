from enum import Enum
from typing import Any, Callable

import numpy as np
from numpy.typing import NDArray

class Vectors:
    @staticmethod
    def read(path: str, unit_length: bool = True) -> Vectors: ...
    @staticmethod
    def from_arrays(
        words: list[str], rows: NDArray[np.float32], unit_length: bool = True
    ) -> Vectors: ...
    def __len__(self) -> int: ...
    def __contains__(self, word: str) -> bool: ...
    def find(self, word: str) -> int | None: ...
    def word(self, number: int) -> str: ...
    @property
    def dimensions(self) -> int: ...
    @property
    def has_words(self) -> bool: ...
    @property
    def unit_length(self) -> bool: ...
    @property
    def words(self) -> list[str]: ...
    @property
    def rows(self) -> NDArray[np.float32]: ...

class Collection:
    def __init__(
        self,
        *,
        stop_words: list[str] = ...,
        keep_case: bool = False,
        min_length: int = 1,
        max_words: int | None = None,
        keep_texts: bool = False,
        all_words: bool = False,
    ) -> None: ...
    def append_texts(
        self,
        texts: list[str],
        vectors: Vectors,
        ids: list[str] | None = None,
        labels: list[str] | None = None,
    ) -> dict[str, Any]: ...
    def append_tokens(
        self,
        documents: list[Any],
        vectors: Vectors,
        ids: list[str] | None = None,
        labels: list[str] | None = None,
    ) -> dict[str, Any]: ...
    def append_arrays(
        self,
        offsets: NDArray[np.int64],
        words: NDArray[np.int32],
        weights: NDArray[np.float32],
        vectors: Vectors,
        ids: list[str] | None = None,
        labels: list[str] | None = None,
        normalise: bool = True,
    ) -> dict[str, Any]: ...
    def for_queries(self) -> Collection: ...
    def slice(self, rank: int, size: int) -> Collection: ...
    def remove(self, documents: NDArray[np.int64]) -> None: ...
    def copy(self) -> Collection: ...
    def save(self, path: str) -> None: ...
    @staticmethod
    def load(path: str, rank: int = 0, size: int = 1) -> Collection: ...
    def __len__(self) -> int: ...
    @property
    def total_documents(self) -> int: ...
    @property
    def first_document(self) -> int: ...
    @property
    def vocabulary(self) -> Vectors: ...
    @property
    def used_words(self) -> int: ...
    @property
    def offsets(self) -> NDArray[np.int64]: ...
    @property
    def words(self) -> NDArray[np.int32]: ...
    @property
    def weights(self) -> NDArray[np.float32]: ...
    @property
    def ids(self) -> list[str]: ...
    @property
    def labels(self) -> list[str]: ...
    @property
    def texts(self) -> list[str]: ...
    @property
    def stop_words(self) -> list[str]: ...
    def find(self, id: str) -> int | None: ...

class Measure(Enum):
    one_way: Measure
    other_way: Measure
    two_way: Measure
    exact: Measure

class Metric(Enum):
    euclidean: Metric
    cosine: Metric

class Settings:
    def __init__(
        self,
        *,
        measure: Measure = ...,
        steps: int = 0,
        metric: Metric = ...,
        threads: int = 0,
        communicator: int = 0,
        progress: Callable[[int, int], Any] | None = None,
    ) -> None: ...

Found = tuple[NDArray[np.int64], NDArray[np.int64], NDArray[Any], dict[str, Any]]

def neighbours(
    collection: Collection, queries: Collection | None, k: int, settings: Settings
) -> Found: ...
def within(
    collection: Collection, queries: Collection | None, radius: float, settings: Settings
) -> Found: ...
def pair_distances(
    collection: Collection, queries: Collection, pairs: NDArray[np.int64], settings: Settings
) -> NDArray[np.float64]: ...
def distance_matrix(
    collection: Collection, queries: Collection, settings: Settings
) -> NDArray[Any]: ...
def explain(
    collection: Collection, document: int, queries: Collection, query: int, settings: Settings
) -> tuple[
    float,
    bool,
    NDArray[np.int32],
    NDArray[np.int32],
    NDArray[np.float64],
    NDArray[np.float64],
]: ...
def english_stop_words() -> list[str]: ...
def read_stop_words(path: str) -> list[str]: ...
def mpi_library() -> str: ...
