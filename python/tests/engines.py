"""A table for the engines' tests, with what makes engines stumble, and how results are compared."""

import numpy
import pandas
import pyarrow

import vask

#: Aggregates that merge to the same bits, however rows are cut.
EXACT = {
    "rows": "size",
    "n": ("x", "count"),
    "missing": ("x", "count_nulls"),
    "total": ("v", "sum"),
    "least": ("x", "min"),
    "greatest": ("x", "max"),
    "start": ("v", "first"),
    "end": ("x", "last"),
    "words": ("text", "nunique"),
    "values": ("v", "nunique"),
    "common": ("text", "mode"),
    "whole_mean": ("v", "mean"),
}
#: Aggregates of sums of floats: rows are added in another order than on one machine.
ROUNDED = {
    "sum_x": ("x", "sum"),
    "mean_x": ("x", "mean"),
    "std_x": ("x", "std"),
    "var_v": ("v", "var", 0),
    "skew_x": ("x", "skew"),
    "cov": (("v", "x"), "cov"),
    "corr": (("v", "x"), "corr"),
    "slope": (("x", "v"), "slope"),
    "intercept": (("x", "v"), "intercept"),
    "weighted": (("v", "x"), "weighted_mean"),
}
#: Aggregates that put values in order.
ORDERED = {
    "mid": ("x", "median"),
    "p90": ("v", "quantile", 0.9),
    "top": ("v", "nlargest", 2),
    "iqr": ("x", "iqr"),
}
ALL = {**EXACT, **ROUNDED, **ORDERED}
#: How far sums of floats may differ: rows of a group times half a unit of the last place.
TOLERANCE = 1e-11


def table(rows: int = 20_000, seed: int = 20) -> pyarrow.Table:
    """Half of the rows have one key; some keys are null, -0.0 or 0.0; some values are null."""
    r = numpy.random.default_rng(seed)
    key = r.integers(0, 400, rows)
    key[r.random(rows) < 0.5] = 7
    name = numpy.array(["", "a", "häufig", "a longer text that no word holds", "z"], dtype=object)
    kind = name[r.integers(0, 5, rows)]
    # Far from 0, where sums of powers would lose the digits by which values differ.
    x = 1e6 + r.normal(0, 1, rows) * r.integers(1, 50, rows)
    zero = numpy.where(r.random(rows) < 0.5, -0.0, 0.0)
    part = numpy.where(r.random(rows) < 0.3, zero, r.integers(1, 3, rows).astype(float))
    return pyarrow.table(
        {
            "key": key,
            "kind": pyarrow.array(kind, mask=r.random(rows) < 0.1),
            "part": pyarrow.array(part, mask=r.random(rows) < 0.1),
            "v": r.integers(-1000, 1000, rows),
            "x": pyarrow.array(x, mask=r.random(rows) < 0.2),
            "text": pyarrow.array(name[r.integers(0, 5, rows)], mask=r.random(rows) < 0.4),
        }
    )


def single(data, by, wanted, **options):
    """What one machine gives: rows by key."""
    return rows_of(vask.aggregate(data, by, results=wanted, **options).to_arrow(), by)


def rows_of(result: pyarrow.Table, by) -> dict:
    keys = [result[name].to_pylist() for name in by]
    others = [name for name in result.column_names if name not in by]
    values = [result[name].to_pylist() for name in others]
    rows = {}
    for i in range(len(result)):
        key = tuple(None if k is None or k != k else k for k in (column[i] for column in keys))
        assert key not in rows, f"the key {key} stands twice"
        rows[key] = {name: column[i] for name, column in zip(others, values)}
    return rows


def of_pandas(frame: pandas.DataFrame) -> pyarrow.Table:
    return pyarrow.Table.from_pandas(frame, preserve_index=False)


def compare(found: dict, expected: dict, names=None) -> None:
    assert found.keys() == expected.keys()
    for key, row in expected.items():
        for name, value in row.items():
            if names is None or name in names:
                check(found[key][name], value, name in ROUNDED, (key, name))


def check(found, expected, rounded: bool, where) -> None:
    if found is None or expected is None or not rounded:
        assert found == expected, where
    else:
        # A skewness or a correlation can be 0 but for rounding.
        assert abs(found - expected) <= TOLERANCE * max(1.0, abs(expected)) * 1e3, where
