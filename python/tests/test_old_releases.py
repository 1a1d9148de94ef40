"""What the libraries beside this one gave and took some years ago: frames without the PyCapsule
interface, columns that Arrow reads by other ways, and results that go out by PyArrow.

`scripts/test-python` runs it with the releases of requirements/oldest.txt, too.
"""

import decimal
import math

import duckdb
import numpy as np
import pandas as pd
import polars as pl
import pyarrow as pa
import pyarrow.csv
import pyarrow.parquet
import pytest

import vask

KIND = ["b", "a", None, "b", "a", "b"]
MASS = [1.5, 2.0, 3.25, None, 4.0, 0.5]
COUNT = [3, 1, 2, 5, 8, 2**53 + 1]
TABLE = pa.table({"kind": KIND, "mass": MASS, "count": COUNT})
FRAME = pd.DataFrame({"kind": KIND, "mass": MASS, "count": COUNT})
POLARS = pl.DataFrame({"kind": KIND, "mass": MASS, "count": COUNT})
ANSWER = {
    "kind": ["b", "a", None],
    "total": [2.0, 6.0, 3.25],
    "most": [2**53 + 1, 8, 2],
    "n": [3, 2, 1],
}


SESSION = duckdb.connect()  # a relation does not keep its own
SESSION.register("t", TABLE)


def written(tmp_path, ending):
    path = tmp_path / f"t.{ending}"
    (pa.parquet.write_table if ending == "parquet" else pa.csv.write_csv)(TABLE, str(path))
    return path


PRODUCERS = {
    "pyarrow table": lambda _: TABLE,
    "pyarrow chunks": lambda _: pa.concat_tables([TABLE.slice(0, 1), TABLE.slice(1)]),
    "pyarrow batch": lambda _: TABLE.to_batches()[0],
    "pyarrow reader": lambda _: pa.RecordBatchReader.from_batches(TABLE.schema, TABLE.to_batches()),
    "polars": lambda _: POLARS,
    "polars lazy": lambda _: POLARS.lazy(),
    "polars categorical": lambda _: POLARS.with_columns(pl.col("kind").cast(pl.Categorical)),
    "duckdb": lambda _: SESSION.query("SELECT * FROM t"),
    "pandas": lambda _: FRAME,
    "pandas categorical": lambda _: FRAME.astype({"kind": "category"}),
    "pandas nullable": lambda _: FRAME.astype({"mass": "Float64", "count": "Int64"}),
    "pandas index": lambda _: FRAME.set_index("kind"),
    "arrow columns": lambda _: {name: TABLE[name] for name in TABLE.column_names},
    "arrow arrays": lambda _: {"kind": pa.array(KIND), "mass": pa.array(MASS), "count": COUNT},
    "polars columns": lambda _: {name: POLARS[name] for name in POLARS.columns},
    "parquet": lambda folder: written(folder, "parquet"),
    "csv": lambda folder: written(folder, "csv"),
}


@pytest.mark.parametrize("producer", PRODUCERS)
def test_every_producer_gives_the_same_answer(producer, tmp_path):
    result = vask.aggregate(
        PRODUCERS[producer](tmp_path),
        by="kind",
        total=("mass", "sum"),
        most=("count", "max"),
        n="size",
    )
    assert result.to_pydict() == ANSWER


@pytest.mark.parametrize("column", [TABLE["mass"], pa.array(MASS), POLARS["mass"]], ids=type)
def test_a_null_of_a_column_is_no_nan(column):
    assert vask.sum(column) == 11.25
    assert vask.count(column) == 5
    assert vask.median(column) == 2.0


def test_results_go_out():
    result = vask.aggregate(FRAME, "kind", total=("mass", "sum"), n="size")
    assert result.to_arrow().to_pydict() == {
        "kind": ["b", "a", None],
        "total": [2.0, 6.0, 3.25],
        "n": [3, 2, 1],
    }
    empty = vask.aggregate({"x": pa.array([None, 1, None])}, "x", s=("x", "max"))
    assert empty["s"].to_arrow().to_pylist() == [None, 1]
    assert result.to_polars()["total"].to_list() == [2.0, 6.0, 3.25]
    assert result.to_pandas()["n"].tolist() == [3, 2, 1]
    assert duckdb.from_arrow(result.to_arrow()).fetchall() == [
        ("b", 2.0, 3),
        ("a", 6.0, 2),
        (None, 3.25, 1),
    ]
    column = result["total"].to_arrow()
    del result
    assert column.to_pylist() == [2.0, 6.0, 3.25]


def test_two_columns_of_one_name_are_told():
    twice = pa.Table.from_arrays([pa.array([1]), pa.array([2])], names=["a", "a"])
    with pytest.raises(ValueError, match="several columns are called 'a'"):
        vask.aggregate(twice, s=("a", "sum"))


def test_columns_of_objects():
    tenth = decimal.Decimal("0.1")
    frame = pd.DataFrame(
        {
            "k": ["x", "y", "x"],
            "d": pd.Series([tenth, math.nan, tenth], dtype=object),
            "t": pd.Series([pd.Timestamp(2020, 1, 1), pd.NaT, None], dtype=object),
        }
    )
    result = vask.aggregate(frame, "k", s=("d", "sum"), t=("t", "count"))
    assert result.to_pydict() == {
        "k": ["x", "y"],
        "s": [decimal.Decimal("0.2"), None],
        "t": [1, 0],
    }
    assert vask.sum([tenth, math.nan, None]) == tenth
    with pytest.raises(TypeError, match="of the type object; convert them"):
        vask.aggregate({"odd": [object()]}, n=("odd", "count"))


def test_numbers_of_numpy_are_numbers():
    assert vask.nlargest([1, 5, 3], np.int64(2)) == [5, 3]
    assert vask.aggregate(FRAME, partitions=np.int32(3), s=("mass", "sum"))["s"][0] == 11.25
    with pytest.raises(ValueError, match="not 2\\.5"):
        vask.nlargest([1], 2.5)
