"""Producers and consumers of the Arrow interface in C: DuckDB's C library and nanoarrow."""

import ctypes
import os
from ctypes import CFUNCTYPE, byref, c_char_p, c_int, c_void_p

import _duckdb
import nanoarrow as na
import pytest

import vask
from vask._arrow import STREAM_CAPSULE, ArrowArray, ArrowArrayStream, capsule_of

# The shared object beneath DuckDB's Python module exports the C interface, too.
LIBRARY = ctypes.CDLL(_duckdb.__file__, mode=os.RTLD_LOCAL)

QUERY = """
    select (i % 7)::integer as k, 'text ' || (i % 5) as t, (i % 3 = 0) as b,
           (i * 0.25)::double as x, (i % 100)::decimal(9, 2) as d,
           case when i % 4 = 0 then null else i end as n,
           date '2024-01-01' + (i % 30)::integer as day,
           timestamp '2024-01-01 00:00:00' + to_seconds(i) as stamp, (i % 11)::utinyint as u
    from range(10000) as rows(i)
"""
ASKED = {
    "size": "size",
    "total": ("x", "sum"),
    "most": ("t", "max"),
    "exact": ("d", "sum"),
    "values": ("n", "count"),
    "days": ("day", "nunique"),
    "last": ("stamp", "max"),
    "truths": ("b", "sum"),
    "kinds": ("u", "nunique"),
}
WANTED = """
    select k, count(*) as size, sum(x) as total, max(t) as most, sum(d) as exact,
           count(n) as values, count(distinct day) as days, max(stamp) as last,
           sum(b::integer) as truths, count(distinct u) as kinds
    from ({}) group by k order by k
"""


class Database:
    """A connection of DuckDB's C interface."""

    def __init__(self):
        self.database = c_void_p()
        self.connection = c_void_p()
        assert LIBRARY.duckdb_open(None, byref(self.database)) == 0
        assert LIBRARY.duckdb_connect(self.database, byref(self.connection)) == 0

    def close(self):
        LIBRARY.duckdb_disconnect(byref(self.connection))
        LIBRARY.duckdb_close(byref(self.database))

    def query(self, text):
        """The result of a query, to be read batch by batch."""
        result = c_void_p()
        code = LIBRARY.duckdb_query_arrow(self.connection, text.encode(), byref(result))
        LIBRARY.duckdb_query_arrow_error.restype = c_char_p
        assert code == 0, LIBRARY.duckdb_query_arrow_error(result)
        return result


class Batches:
    """The batches of a query as a stream, which is released once."""

    def __init__(self, database, text):
        self.result = database.query(text)
        self.released = 0
        self.calls = (
            CFUNCTYPE(c_int, c_void_p, c_void_p)(self.get_schema),
            CFUNCTYPE(c_int, c_void_p, c_void_p)(self.get_next),
            CFUNCTYPE(c_char_p, c_void_p)(lambda stream: b"DuckDB failed"),
            CFUNCTYPE(None, c_void_p)(self.release),
        )
        self.stream = ArrowArrayStream(*(ctypes.cast(call, c_void_p) for call in self.calls), None)

    def get_schema(self, stream, out):
        place = c_void_p(out)
        return LIBRARY.duckdb_query_arrow_schema(self.result, byref(place))

    def get_next(self, stream, out):
        ctypes.memset(out, 0, ctypes.sizeof(ArrowArray))
        place = c_void_p(out)
        return LIBRARY.duckdb_query_arrow_array(self.result, byref(place))

    def release(self, stream):
        self.released += 1
        ArrowArrayStream.from_address(stream).release = None
        LIBRARY.duckdb_destroy_arrow(byref(self.result))

    def __arrow_c_stream__(self, requested_schema=None):
        return capsule_of(self.stream, STREAM_CAPSULE, self)


@pytest.fixture
def database():
    opened = Database()
    yield opened
    opened.close()


def rows_of(stream):
    columns = na.ArrayStream(stream).read_all()
    names = [field.name for field in columns.schema.fields]
    return [dict(zip(names, row.values())) for row in columns.iter_py()]


def test_columns_of_duckdbs_c_library(database):
    batches = Batches(database, QUERY)
    result = vask.aggregate(batches, by="k", **ASKED)
    assert batches.released == 1
    wanted = rows_of(Batches(database, WANTED.format(QUERY)))
    got = sorted(rows_of(result), key=lambda row: row["k"])
    assert [dict(row) for row in got] == wanted


def test_duckdbs_c_library_reads_results(database):
    result = vask.aggregate(Batches(database, QUERY), by=["k", "t"], total=("x", "sum"))
    capsule = result.__arrow_c_stream__()
    ctypes.pythonapi.PyCapsule_GetPointer.restype = c_void_p
    ctypes.pythonapi.PyCapsule_GetPointer.argtypes = [ctypes.py_object, c_char_p]
    stream = ctypes.pythonapi.PyCapsule_GetPointer(capsule, b"arrow_array_stream")
    LIBRARY.duckdb_arrow_scan.argtypes = [c_void_p, c_char_p, c_void_p]
    assert LIBRARY.duckdb_arrow_scan(database.connection, b"result", stream) == 0
    # Read whole: a scan of a stream through the C interface gives the first columns for any others.
    created = database.query("create table copied as select * from result")
    LIBRARY.duckdb_destroy_arrow(byref(created))
    (row,) = rows_of(
        Batches(database, "select count(*) as groups, sum(total) as total from copied")
    )
    assert row == {"groups": 35, "total": sum(i * 0.25 for i in range(10000))}


def test_nanoarrow_both_ways():
    array = na.c_array([3, None, 1, 3], na.int16())
    table = na.c_array_from_buffers(
        na.struct({"k": na.int16(), "v": na.float64()}),
        4,
        [None],
        children=[array, na.c_array([0.5, 1.5, None, 2.5], na.float64())],
    )
    result = vask.aggregate(na.ArrayStream(table), by="k", total=("v", "sum"), n=("v", "count"))
    assert rows_of(result) == [
        {"k": 3, "total": 3.0, "n": 2},
        {"k": None, "total": 1.5, "n": 1},
        {"k": 1, "total": None, "n": 0},
    ]
