"""What a result is to its readers, and what it shows to people."""

import gc

import duckdb
import numpy as np
import pandas as pd
import polars as pl
import pyarrow as pa
import pytest

import vask

RESULT = vask.aggregate(
    pa.table(
        {"k": ["x", "y", "x"], "v": [1, None, 3], "d": pa.array([1, 2, 3], pa.timestamp("us"))}
    ),
    "k",
    s=("v", "sum"),
    m=("v", "mean"),
    d=("d", "max"),
)


def test_every_reader_takes_it():
    rows = [("x", 4, 2.0), ("y", None, None)]
    assert list(zip(*(pa.table(RESULT)[n].to_pylist() for n in "ksm"))) == rows
    assert RESULT.to_arrow().equals(pa.table(RESULT))
    assert pl.DataFrame(RESULT)["s"].to_list() == [4, None]
    assert RESULT.to_polars().equals(pl.DataFrame(RESULT))
    assert duckdb.from_arrow(RESULT).project("k, s, m").fetchall() == rows
    assert RESULT.to_pandas()["k"].tolist() == ["x", "y"]
    assert RESULT.to_pandas(index=True).loc["x", "s"] == 4
    assert pd.isna(RESULT.to_pandas()["s"][1])
    assert dict(RESULT).keys() == {"k", "s", "m", "d"}
    assert RESULT.to_numpy()["d"].dtype == "M8[us]"
    assert vask.aggregate(RESULT, t=("s", "sum"))["t"][0] == 4
    assert pa.array(RESULT["m"]).to_pylist() == [2.0, None]
    assert pl.Series(RESULT["m"]).to_list() == [2.0, None]


def test_values_are_not_copied():
    result = vask.aggregate({"k": np.arange(1000), "v": np.arange(1000.0)}, "k", s=("v", "sum"))
    where = result["s"].to_numpy().ctypes.data
    assert pa.table(result)["s"].chunk(0).buffers()[1].address == where
    assert pa.array(result["s"]).buffers()[1].address == where
    assert pl.DataFrame(result)["s"].to_numpy().ctypes.data == where
    assert np.asarray(result["s"]).ctypes.data == where


def test_what_was_taken_outlives_the_result():
    result = vask.aggregate({"k": np.arange(100_000)}, "k", n="size")
    column, array, table = result["n"], result["n"].to_numpy(), pa.table(result)
    frame = pl.DataFrame(result)
    del result
    gc.collect()
    vask.aggregate({"k": np.arange(100_000)}, "k", n=("k", "max"))  # would reuse the memory
    assert column[99_999] == array[99_999] == frame["n"][99_999] == 1
    assert table["n"].to_pylist() == [1] * 100_000


def test_as_a_mapping():
    assert RESULT.columns == list(RESULT) == ["k", "s", "m", "d"]
    assert RESULT.key_columns == ["k"]
    assert RESULT.shape == (2, 4)
    assert RESULT.types == {"k": "utf8", "s": "int64", "m": "float64", "d": "timestamp[us]"}
    assert "s" in RESULT
    assert "q" not in RESULT
    with pytest.raises(KeyError, match="no column 'S'; did you mean 's'"):
        RESULT["S"]
    with pytest.raises(KeyError):
        RESULT[0]
    assert RESULT["s"][-1] is None
    with pytest.raises(IndexError):
        RESULT["s"][2]


def test_shown_as_text():
    text = repr(RESULT)
    assert text.splitlines()[0] == "vask.Result: 2 rows, 4 columns"
    assert text.splitlines()[1].split() == ["k", "s", "m", "d"]
    assert text.splitlines()[3].split()[:3] == ["x", "4", "2.0"]
    assert text.splitlines()[4].split()[:3] == ["y", "null", "null"]
    long = repr(vask.aggregate({"k": list(range(1000))}, "k", n="size"))
    assert len(long.splitlines()) == 3 + 11
    assert "999" in long
    assert "1,000 rows" in long
    wide = vask.aggregate({"v": [1]}, results={f"column_{i}": ("v", "sum") for i in range(40)})
    assert "…" in repr(wide)
    assert "column_39" in repr(wide)


def test_shown_in_a_notebook():
    result = vask.aggregate({"k": ["<b>", "x" * 100]}, "k", n="size")
    page = result._repr_html_()
    assert "<td>&lt;b&gt;</td>" in page
    assert "x" * 100 not in page
    assert page.count("<tr>") == 3
