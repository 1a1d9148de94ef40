"""The table that the libraries are compared on, in several shapes."""

from __future__ import annotations

from typing import Any

import numpy as np
import pyarrow as pa
import pyarrow.compute as pc

#: What a shape changes of the plain table.
SHAPES = {
    "plain": "keys at random, each as often as the others",
    "sorted": "rows in the order of id1 to id6",
    "reversed": "rows in the reverse of that order",
    "half": "half of all rows belong to one group of each key",
    "zipf": "keys follow Zipf's law with exponent 1.2",
    "missing": "5 % of all cells are missing",
}

KEYS = ["id1", "id2", "id3", "id4", "id5", "id6"]
MISSING = 0.05


class KeySource:
    """Draws the numbers of keys, from 0, as the shape asks."""

    def __init__(self, rng: np.random.Generator, rows: int, shape: str) -> None:
        self.rng, self.rows, self.shape = rng, rows, shape
        self.first = rng.random(rows) < 0.5 if shape == "half" else None

    def draw(self, values: int) -> np.ndarray[Any, Any]:
        if self.shape == "zipf":
            shares = np.cumsum(np.arange(1, values + 1, dtype="f8") ** -1.2)
            drawn = np.searchsorted(shares, self.rng.random(self.rows) * shares[-1])
            # The frequent ones lie anywhere among the values.
            return self.rng.permutation(values)[np.minimum(drawn, values - 1)]
        drawn = self.rng.integers(0, values, self.rows)
        return drawn if self.first is None else np.where(self.first, 0, drawn)


def make_table(rows: int, k: int, shape: str = "plain", without: tuple[str, ...] = ()) -> pa.Table:
    """The shape of the public group-by benchmark, and a key with a group for each row."""
    rng = np.random.default_rng(108)
    keys = KeySource(rng, rows, shape)
    many = max(rows // k, 1)
    numbers = [keys.draw(values).astype("i4") for values in (k, k, many, k, k, many)]
    if shape in ("sorted", "reversed"):
        order = np.lexsort(numbers[::-1])
        order = order[::-1] if shape == "reversed" else order
        numbers = [each[order] for each in numbers]
    few = pa.array([f"id{i:03d}" for i in range(1, k + 1)])
    texts = pa.array([f"id{i:010d}" for i in range(1, many + 1)])
    columns: dict[str, Any] = {
        name: words.take(pa.array(number))
        for name, words, number in zip(KEYS, [few, few, texts], numbers)
    }
    columns |= {name: (number + 1).astype("i4") for name, number in zip(KEYS[3:], numbers[3:])}
    columns |= {
        "v1": rng.integers(1, 6, rows).astype("i4"),
        "v2": rng.integers(1, 16, rows).astype("i4"),
        "v3": np.round(rng.uniform(0, 100, rows), 4),
    }
    if "row" not in without:
        columns["row"] = rng.permutation(rows).astype("i4")
    arrays = {name: pa.array(values) for name, values in columns.items()}
    if shape == "missing":
        arrays = {
            name: pc.if_else(pa.array(rng.random(rows) < MISSING), None, values)
            for name, values in arrays.items()
        }
    return (
        pa.table(arrays).combine_chunks().drop_columns([name for name in without if name in arrays])
    )
