"""What a distance is made of."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any

import numpy as np


@dataclass(frozen=True, eq=False, repr=False)
class Explanation:
    """The flows of a distance, by falling cost.

    Attributes
    ----------
    distance : float
        The sum of weights * distances.
    from_query : bool
        Whether the words of the query move to those of the fitted document, or the other way.
    sources, targets : array of object, shape (n_flows,)
        The words, or the columns' numbers where the vectors have no words.
    weights : array of float64, shape (n_flows,)
        What share of its document moves.
    distances : array of float64, shape (n_flows,)
        Between the two words.
    """

    distance: float
    from_query: bool
    sources: np.ndarray
    targets: np.ndarray
    weights: np.ndarray
    distances: np.ndarray

    def __repr__(self) -> str:
        return (
            f"<Explanation: distance {self.distance:.6g}, {len(self.weights)} flows from the "
            f"{'query' if self.from_query else 'fitted document'}>"
        )

    def to_frame(self) -> Any:
        """Give a pandas.DataFrame: source, target, weight, distance, cost."""
        import pandas as pd

        return pd.DataFrame(
            {
                "source": self.sources,
                "target": self.targets,
                "weight": self.weights,
                "distance": self.distances,
                "cost": self.weights * self.distances,
            }
        )

    def to_matrix(self) -> tuple[list, list, np.ndarray]:
        """Give the source words, the target words, and the weight that each sends to each."""
        rows = list(dict.fromkeys(self.sources))
        columns = list(dict.fromkeys(self.targets))
        weights = np.zeros((len(rows), len(columns)))
        row_of = {word: number for number, word in enumerate(rows)}
        column_of = {word: number for number, word in enumerate(columns)}
        for source, target, weight in zip(self.sources, self.targets, self.weights):
            weights[row_of[source], column_of[target]] += weight
        return rows, columns, weights
