"""Columns of this process's memory, read by PyArrow, and Arrow's columns, read by Python."""

import array
import datetime as dt
import decimal
import gc
import threading

import numpy as np
import polars as pl
import pyarrow as pa
import pytest

from vask import Error, _arrow, _memory
from vask._column import Column
from vask._memory import buffer_column, numpy_column, python_column


class Lender:
    """Gives a column to PyArrow, which releases it."""

    def __init__(self, column):
        self.column = column

    def __arrow_c_array__(self, requested_schema=None):
        schema, values = self.column.records("x")
        return (
            _arrow.capsule_of(schema, _arrow.SCHEMA_CAPSULE),
            _arrow.capsule_of(values, _arrow.ARRAY_CAPSULE),
        )


def read(values):
    """A PyArrow array as a column of ours."""
    capsules = values.__arrow_c_array__()
    schema = _arrow.ArrowSchema.from_address(
        _arrow.struct_pointer(capsules[0], _arrow.SCHEMA_CAPSULE)
    )
    data = _arrow.ArrowArray.from_address(_arrow.struct_pointer(capsules[1], _arrow.ARRAY_CAPSULE))
    return Column("x", schema, data, capsules)


BERLIN = pa.timestamp("us", "Europe/Berlin")

LISTS = [
    [1, -2, None],
    [2**63, 1, None],
    [1.5, 2, None, -0.0],
    ["a", "bä", None, "", "ein längerer Text als zwölf"],
    [b"x", None, b"\0"],
    [True, None, False] * 7,
    [],
    [None],
    [dt.date(1969, 12, 31), None, dt.date(2024, 2, 29)],
    [dt.datetime(1960, 1, 2, 3, 4, 5, 6), None],
    [dt.datetime(2020, 7, 1, tzinfo=dt.timezone.utc), None],
    [dt.timedelta(days=-1, microseconds=3)],
    [decimal.Decimal("1.25"), None, decimal.Decimal("-3"), decimal.Decimal("1E+3")],
]


@pytest.mark.parametrize("items", LISTS, ids=repr)
def test_lists_keep_their_values_both_ways(items):
    there = pa.array(Lender(python_column("x", items)))
    there.validate(full=True)
    assert there.to_pylist() == items
    assert read(there).to_pylist() == items
    assert pa.array(read(there)).equals(there)


ARROWS = [
    pa.array(["abcdefghijklm", None, "abcdefghijkl", ""], pa.string_view()),
    pa.array([b"abcdefghijklm", None, b""], pa.binary_view()),
    pa.array(["a", "b", "a", None]).dictionary_encode(),
    pa.array(["x", None, "yy"], pa.large_string()),
    pa.array([1, 2, None, 4, 5], pa.int16()),
    pa.array([2**64 - 1, None], pa.uint64()),
    pa.array([1.5, None], pa.float32()),
    pa.array([True, None, False] * 3000),
    pa.array([True, False] * 40),
    pa.array([dt.time(1, 2, 3), None], pa.time32("s")),
    pa.array([dt.time(1, 2, 3, 4)], pa.time64("us")),
    pa.array([dt.datetime(2020, 7, 1, 12, tzinfo=dt.timezone.utc), None], BERLIN),
    pa.array([dt.date(2020, 1, 1), None], pa.date64()),
    pa.array([None, decimal.Decimal("-12.34")], pa.decimal128(18, 2)),
    pa.nulls(3),
]


@pytest.mark.parametrize("values", ARROWS, ids=lambda a: str(a.type))
@pytest.mark.parametrize("begin", [0, 1, 2])
def test_arrow_columns_of_every_type_and_offset(values, begin):
    values = values.slice(begin)
    column = read(values)
    expected = values.to_pylist()
    assert column.to_pylist() == expected
    assert column.null_count == values.null_count
    assert [column[i] for i in range(len(column))] == expected
    assert column[1:] == expected[1:]
    assert column[::-1] == expected[::-1]
    back = pa.array(column)
    back.validate(full=True)
    assert back.equals(values)
    assert pl.Series(column).null_count() == values.null_count


def test_numpy_reads_without_a_copy_where_it_can():
    values = pa.array([1, 2, 3, 4], pa.int64()).slice(1)
    seen = read(values).to_numpy()
    assert seen.tolist() == [2, 3, 4]
    assert seen.ctypes.data == values.buffers()[1].address + 8
    with pytest.raises(ValueError, match="read-only"):
        seen[0] = 7

    days = read(pa.array([dt.date(2020, 1, 1), None])).to_numpy()
    assert days.dtype == "M8[D]"
    assert np.isnat(days).tolist() == [False, True]
    assert str(days[0]) == "2020-01-01"

    floats = read(pa.array([1, None, 3], pa.int8())).to_numpy()
    assert floats.dtype == "f8"
    assert np.isnan(floats).tolist() == [False, True, False]
    # A float would round them.
    exact = read(pa.array([2**53 + 1, None], pa.int64())).to_numpy()
    assert exact.tolist() == [2**53 + 1, None]

    assert np.asarray(read(pa.array([True, False, True]).slice(1))).tolist() == [False, True]
    assert np.asarray(read(pa.array([1, 2])), dtype="f4").dtype == "f4"


def test_a_view_keeps_what_it_shows():
    seen = read(pa.array(range(100_000))).to_numpy()
    gc.collect()
    other = pa.array(range(7, 100_007))  # would take the memory over
    assert seen[99_999] == 99_999
    assert len(other) == 100_000


@pytest.mark.parametrize(
    ("values", "expected", "copied"),
    [
        (np.arange(5), [0, 1, 2, 3, 4], False),
        (np.arange(10)[::2], [0, 2, 4, 6, 8], True),
        (np.arange(5)[::-1], [4, 3, 2, 1, 0], True),
        (np.arange(5).astype(">i4"), [0, 1, 2, 3, 4], True),
        (np.arange(3).astype("f2"), [0.0, 1.0, 2.0], True),
        (np.array(["2020-01-01", "NaT"], "M8[D]"), [dt.date(2020, 1, 1), None], True),
        (np.array([1, 2], "m8[h]"), [dt.timedelta(hours=1), dt.timedelta(hours=2)], True),
        (np.array([True, False] * 5), [True, False] * 5, True),
        (np.array(["a", "bb"]), ["a", "bb"], True),
        (np.array(["a", None], object), ["a", None], True),
        (np.ma.masked_array([1, 2, 3], [0, 1, 0]), [1, None, 3], False),
        (np.frombuffer(b"\1\0\0\0\0\2\0\0\0", "i4", 1, 0), [1], False),
        (np.frombuffer(b"\1\0\0\0\0\2\0\0\0", "u1")[1:][4:].view("i4"), [2], True),
    ],
    ids=str,
)
def test_numpy_arrays_are_lent_or_copied_for_a_reason(values, expected, copied):
    column = numpy_column("x", values)
    assert bool(column.copied) == copied
    there = pa.array(Lender(column))
    there.validate(full=True)
    assert there.to_pylist() == expected


def test_buffers_of_the_standard_library():
    assert pa.array(
        Lender(buffer_column("x", memoryview(array.array("d", [1, 2]))))
    ).to_pylist() == [
        1.0,
        2.0,
    ]
    assert pa.array(Lender(buffer_column("x", memoryview(b"\1\2")))).to_pylist() == [1, 2]


@pytest.mark.parametrize(
    "make",
    [
        lambda: python_column("x", [1, "a"]),
        lambda: python_column("x", [1, True]),
        lambda: python_column("x", [2**70]),
        lambda: python_column("x", [-1, 2**63]),
        lambda: python_column("x", [object()]),
        lambda: python_column("x", [dt.date(2020, 1, 1), dt.datetime(2020, 1, 1)]),
        lambda: python_column("x", [decimal.Decimal("1." + "1" * 30)]),
        lambda: python_column("x", [decimal.Decimal("NaN")]),
        lambda: numpy_column("x", np.zeros((2, 2))),
        lambda: numpy_column("x", np.zeros(2, complex)),
    ],
)
def test_what_is_no_column_is_told_by_name(make):
    with pytest.raises(TypeError, match="column 'x'") as failure:
        make()
    assert isinstance(failure.value, Error)


def test_lent_records_are_released_once_and_all():
    gc.collect()
    lent, owned = len(_memory._lent), len(_arrow._owned)
    column = python_column("x", ["a", "b", None])
    held = pa.array(Lender(column))
    assert len(_memory._lent) > lent
    Lender(column).__arrow_c_array__()  # capsules that nobody reads

    def fail():
        capsules = Lender(column).__arrow_c_array__()
        raise KeyError(len(capsules))  # they die while the exception is on its way

    for _ in range(3):
        with pytest.raises(KeyError, match="2"):
            fail()

    def elsewhere():
        nonlocal held
        del held

    thread = threading.Thread(target=elsewhere)
    thread.start()
    thread.join()
    gc.collect()
    assert len(_memory._lent) == lent
    assert len(_arrow._owned) == owned
