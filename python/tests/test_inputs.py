"""Whatever holds a table gives the same answers; what is copied is told, and nothing leaks."""

import array
import datetime as dt
import decimal
import gc

import duckdb
import numpy as np
import pandas as pd
import polars as pl
import pyarrow as pa
import pytest

import vask
from vask import _arrow, _memory

KIND = ["b", "a", None, "b", "a", "b"]
MASS = [1.5, 2.0, 3.25, None, 4.0, 0.5]
COUNT = [3, 1, 2, 5, 8, 7]
TABLE = pa.table({"kind": KIND, "mass": MASS, "count": pa.array(COUNT, pa.int32())})
FRAME = pd.DataFrame({"kind": KIND, "mass": MASS, "count": np.array(COUNT, "i4")})
ANSWER = {
    "kind": ["b", "a", None],
    "total": [2.0, 6.0, 3.25],
    "most": [7, 8, 2],
    "n": [3, 2, 1],
}


class OnlyAStream:
    """What is known of a producer is its interface."""

    def __init__(self, table):
        self._table = table

    def __arrow_c_stream__(self, requested_schema=None):
        return self._table.__arrow_c_stream__(requested_schema)


def relation():
    session = duckdb.connect()
    session.register("t", TABLE)
    return session.table("t")


PRODUCERS = {
    "pyarrow table": lambda: TABLE,
    "pyarrow chunks": lambda: pa.concat_tables([TABLE.slice(0, 1), TABLE.slice(1, 4), TABLE[5:]]),
    "pyarrow batch": lambda: TABLE.to_batches()[0],
    "pyarrow reader": lambda: TABLE.to_reader(2),
    "pyarrow views": lambda: TABLE.cast(TABLE.schema.set(0, pa.field("kind", pa.string_view()))),
    "pyarrow words": lambda: TABLE.set_column(0, "kind", TABLE["kind"].dictionary_encode()),
    "stream": lambda: OnlyAStream(TABLE),
    "polars": lambda: pl.DataFrame(TABLE),
    "polars lazy": lambda: pl.DataFrame(TABLE).lazy(),
    "polars categorical": lambda: pl.DataFrame(TABLE).cast({"kind": pl.Categorical}),
    "duckdb": relation,
    "pandas": lambda: FRAME,
    "pandas objects": lambda: FRAME.astype({"kind": object}),
    "pandas categorical": lambda: FRAME.astype({"kind": "category"}),
    "pandas nullable": lambda: FRAME.astype({"mass": "Float64", "count": "Int32"}),
    "pandas arrow": lambda: TABLE.to_pandas(types_mapper=pd.ArrowDtype),
    "pandas index": lambda: FRAME.set_index("kind"),
    "pandas slice": lambda: pd.concat([FRAME, FRAME]).iloc[6:],
    "numpy": lambda: {
        "kind": np.array(KIND, object),
        "mass": np.ma.masked_invalid(np.array([np.nan if m is None else m for m in MASS])),
        "count": np.array(COUNT, ">i2"),
    },
    "numpy strided": lambda: {
        "kind": KIND,
        "mass": MASS,
        "count": np.array([COUNT, COUNT], "i8").T[:, 1],
    },
    "lists": lambda: {"kind": KIND, "mass": MASS, "count": COUNT},
    "tuples and buffers": lambda: {
        "kind": tuple(KIND),
        "mass": iter(MASS),
        "count": array.array("i", COUNT),
    },
    "series": lambda: {
        "kind": pl.Series(KIND),
        "mass": FRAME["mass"],
        "count": pa.chunked_array([COUNT[:2], COUNT[2:]]),
    },
    "a result": lambda: vask.aggregate(TABLE, ["kind", "mass", "count"], n="size"),
}


@pytest.mark.parametrize("producer", PRODUCERS)
def test_every_producer_gives_the_same_answer(producer):
    result = vask.aggregate(
        PRODUCERS[producer](),
        by="kind",
        total=("mass", "sum"),
        most=("count", "max"),
        n="size",
    )
    assert result.to_pydict() == ANSWER


def test_what_is_copied_is_told(capsys):
    data = {"x": np.arange(10)[::2], "y": np.arange(5)}
    result = vask.aggregate(data, explain=True, s=("x", "sum"), t=("y", "sum"))
    assert any("'x'" in note and "copy" in note for note in result.notes)
    assert not any("'y'" in note and "copy" in note for note in result.notes)
    told = capsys.readouterr().err
    assert "vask: column 'x' (int64) is a copy" in told
    vask.aggregate(data, s=("x", "sum"))
    assert capsys.readouterr().err == ""


def test_only_what_is_needed_is_read():
    """A column of no type that could be aggregated does no harm."""
    frame = pd.DataFrame({"x": [1, 2], "odd": [object(), object()]})
    assert vask.aggregate(frame, s=("x", "sum")).to_pydict() == {"s": [3]}
    nested = pa.table({"x": [1, 2], "odd": [[1], [2, 3]]})
    assert vask.aggregate(nested, s=("x", "sum")).to_pydict() == {"s": [3]}
    with pytest.raises(TypeError, match=r"column 'odd'"):
        vask.aggregate(nested, s=("odd", "sum"))
    with pytest.raises(TypeError, match=r"column 'odd'"):
        vask.aggregate(frame, s=("odd", "count"))


KEYS = {
    "int8": pa.array([1, None, 1, -128], pa.int8()),
    "uint64": pa.array([2**64 - 1, None, 2**64 - 1, 0], pa.uint64()),
    "int32": pa.array([-(2**31), None, -(2**31), 0], pa.int32()),
    "float32": pa.array([0.5, None, 0.5, -0.5], pa.float32()),
    "bool": pa.array([True, None, True, False]),
    "string": pa.array(["a\0b", None, "a\0b", "a\0c"]),
    "large_string": pa.array(["x", None, "x", ""], pa.large_string()),
    "string_view": pa.array(
        ["a text of 20 letters", None, "a text of 20 letters", ""], pa.string_view()
    ),
    "binary": pa.array([b"\xff", None, b"\xff", b""]),
    "date32": pa.array([dt.date(2020, 1, 1), None, dt.date(2020, 1, 1), dt.date(1960, 1, 1)]),
    "date64": pa.array(
        [dt.date(2020, 1, 1), None, dt.date(2020, 1, 1), dt.date(1960, 1, 1)], pa.date64()
    ),
    "timestamp": pa.array([5, None, 5, -7], pa.timestamp("us", "Europe/Berlin")),
    "duration": pa.array([5, None, 5, -7], pa.duration("ms")),
    "time": pa.array([dt.time(1), None, dt.time(1), dt.time(0)], pa.time64("us")),
    "decimal": pa.array(
        [decimal.Decimal("1.20"), None, decimal.Decimal("1.20"), decimal.Decimal("-1.00")],
        pa.decimal128(18, 2),
    ),
    "dictionary": pa.array(["x", None, "x", "y"]).dictionary_encode(),
    "null": pa.nulls(4),
}


@pytest.mark.parametrize("name", KEYS)
def test_keys_and_values_of_every_type_keep_it(name):
    values = KEYS[name]
    table = pa.table({"k": values, "one": [1, 1, 1, 1]})
    result = vask.aggregate(table, "k", n=("one", "sum"), first=("k", "first"), c=("k", "count"))
    back = pa.table(result)
    back.validate(full=True)
    if name == "null":
        assert back["n"].to_pylist() == [4]
        return
    keys = values.to_pylist()
    assert back["k"].to_pylist() == [keys[0], None, keys[3]]
    assert back["n"].to_pylist() == [2, 1, 1]
    assert back["c"].to_pylist() == [2, 0, 1]
    assert back["first"].to_pylist() == [keys[0], None, keys[3]]
    if name != "dictionary":
        assert result["k"].to_pylist() == [keys[0], None, keys[3]]
    if name in ("timestamp", "duration", "decimal", "date32", "int8", "uint64"):
        assert back.schema.field("k").type == values.type
        assert back.schema.field("first").type == values.type


def test_pandas_dates_with_and_without_zone():
    stamps = pd.to_datetime(["2020-01-01 12:00", None, "2020-07-01 12:00"])
    frame = pd.DataFrame({"naive": stamps, "aware": stamps.tz_localize("Europe/Berlin")})
    result = vask.aggregate(
        frame, a=("naive", "max"), b=("aware", "max"), n=("aware", "count"), m=("naive", "median")
    ).to_pandas()
    assert result["a"][0] == stamps[2]
    assert result["b"][0] == stamps[2].tz_localize("Europe/Berlin")
    assert result["n"][0] == 2
    assert result["m"][0] == stamps[0] + (stamps[2] - stamps[0]) / 2


def test_empty_tables():
    for data in (TABLE.slice(0, 0), FRAME.iloc[:0], {"kind": [], "mass": [], "count": []}):
        result = vask.aggregate(data, "kind", s=("mass", "sum"))
        assert len(result) == 0
        assert result.columns == ["kind", "s"]
        whole = vask.aggregate(data, s=("mass", "sum"), n="size", c=("mass", "count"))
        assert whole.to_pydict() == {"s": [None], "n": [0], "c": [0]}


@pytest.mark.parametrize(
    ("data", "error", "text"),
    [
        ({"a": [1, 2], "b": [1]}, ValueError, "column 'b' has 1 values, column 'a' has 2"),
        ({"a": "text", "b": [1]}, TypeError, "column 'a' is a str"),
        ({"a": 7, "b": [1]}, TypeError, "column 'a' is a int"),
        ({"a": np.zeros((2, 2)), "b": [1]}, TypeError, r"shape \(2, 2\)"),
        (7, TypeError, "a int is no table"),
        (pa.array([1]), TypeError, "no table|one column"),
        (pd.Series([1]), TypeError, "no table"),
        (pl.Series([1]), TypeError, "no table"),
        (pd.DataFrame([[1, 2]], columns=["a", "a"]), ValueError, "more than one column 'a'"),
        ({1: [1], "b": [2]}, TypeError, "named by a text, not by 1"),
    ],
    ids=str,
)
def test_what_is_no_table_is_told(data, error, text):
    with pytest.raises(error, match=text) as failure:
        vask.aggregate(data, x=("a", "count"), y=("b", "count"))
    assert isinstance(failure.value, vask.Error)


def test_a_producer_that_fails():
    def batches():
        yield TABLE.to_batches()[0]
        raise OSError("the disk is gone")

    reader = pa.RecordBatchReader.from_batches(TABLE.schema, batches())
    with pytest.raises(vask.Error, match="the disk is gone"):
        vask.aggregate(reader, s=("mass", "sum"))


def test_nothing_is_kept():
    gc.collect()
    before = len(_memory._lent), len(_arrow._owned), pa.total_allocated_bytes()
    for _ in range(3):
        table = pa.table({"k": pa.array(range(100_000)), "v": pa.array(range(100_000))})
        result = vask.aggregate(table, "k", s=("v", "sum"))
        column = pa.array(result["s"])
        back = pa.table(result)
        for failing in (("nothing", "sum"), ("v", "quantile", 2)):
            with pytest.raises(vask.Error):
                vask.aggregate(table, "k", s=failing)
        vask.aggregate({"k": ["a", "b"], "v": [1, 2]}, "k", s=("v", "sum"))
        result.__arrow_c_stream__()
    del table, result, column, back
    gc.collect()
    assert (len(_memory._lent), len(_arrow._owned), pa.total_allocated_bytes()) == before


def test_arrow_data_are_checked_in_full_on_request():
    offsets = pa.py_buffer(np.array([0, 1, 2, 3], "i4"))
    spoilt = pa.Array.from_buffers(pa.string(), 3, [None, offsets, pa.py_buffer(b"a\xffb")])
    table = pa.table({"k": spoilt, "v": [1, 2, 3]})
    assert vask.aggregate(table, n=("k", "count")).to_pydict() == {"n": [3]}
    assert vask.aggregate(table, n=("v", "sum"), validate=True).to_pydict() == {"n": [6]}
    for read in (
        lambda: vask.aggregate(table, n=("k", "count"), validate=True),
        lambda: vask.aggregate(table, "k", n=("v", "sum"), validate=True),
        lambda: vask.group_by(table, "k", validate=True).sum("v"),
        lambda: vask.group_by(table, "k", validate=True).codes,
    ):
        with pytest.raises(vask.DataError, match="'k': row 1 of a batch is no UTF-8"):
            read()
    with pytest.raises(vask.InvalidTypeError, match="validate is True or False"):
        vask.aggregate(table, "k", validate=1)
