"""Tables of the library, and where their columns come from."""

from __future__ import annotations

import os
import weakref
from collections.abc import Iterable, Iterator, Mapping, Sequence
from ctypes import addressof, byref, c_void_p
from typing import Any, Callable, Optional

from . import _arrow, _library
from ._calls import call
from ._memory import MemoryColumn, buffer_column, describe, numpy_column, python_column
from ._types import ColumnType, column_type
from .errors import InvalidTypeError, InvalidValueError, LibraryError, UnknownNameError, nearest

__all__ = ["NativeTable", "Source", "source_of"]


class NativeTable:
    """A table of the library. May be read by several threads at once.

    ``notes`` say what was copied or converted on the way, for people.
    """

    def __init__(self, nan_is_null: bool = False) -> None:
        self.handle = c_void_p()
        self.types: dict[str, ColumnType] = {}
        self.nan_is_null = nan_is_null
        self.notes: list[str] = []

    def _owns(self, handle: c_void_p) -> None:
        self.handle = handle
        # Not at exit: another thread may still be reading then.
        weakref.finalize(self, _library.library.vask_table_free, handle).atexit = False

    @property
    def rows(self) -> int:
        return max(0, int(_library.library.vask_table_rows(self.handle)))

    @classmethod
    def of_stream(cls, capsule: object, nan_is_null: bool = False) -> NativeTable:
        """Takes the stream of records out of a capsule."""
        table = cls(nan_is_null)
        stream = _arrow.stream_of(capsule)
        try:
            schema = _arrow.stream_schema(stream)
        except OSError as failure:
            raise LibraryError(f"the producer of the table failed: {failure.strerror}") from None
        try:
            if schema.format != b"+s":
                raise InvalidTypeError(
                    "the data are one column, not a table of named columns; "
                    "give a mapping, as in {'x': data}"
                )
            for i in range(schema.n_children):
                child = schema.children[i].contents
                table.types[(child.name or b"").decode()] = _schema_type(child)
        finally:
            _arrow.release(schema)
        handle = c_void_p()
        call(_library.library.vask_table_from_stream, addressof(stream), byref(handle))
        table._owns(handle)
        return table

    @classmethod
    def new(cls, nan_is_null: bool = False) -> NativeTable:
        """A table without columns."""
        table = cls(nan_is_null)
        handle = c_void_p()
        call(_library.library.vask_table_new, byref(handle))
        table._owns(handle)
        return table

    def add_memory(self, name: str, column: MemoryColumn) -> None:
        """Adds a column of this process's own memory."""
        schema, array = column.records(name)
        self._add(name, schema, array)
        if column.copied:
            self.notes.append(f"column {name!r} ({describe(column)}) is a copy: {column.copied}")

    def add_arrow(self, name: str, capsules: tuple[object, object]) -> None:
        """Adds a column of a pair of capsules, a schema's and an array's."""
        schema = _arrow.ArrowSchema.from_address(
            _arrow.struct_pointer(capsules[0], _arrow.SCHEMA_CAPSULE)
        )
        array = _arrow.ArrowArray.from_address(
            _arrow.struct_pointer(capsules[1], _arrow.ARRAY_CAPSULE)
        )
        self._add(name, schema, array)

    def _add(self, name: str, schema: _arrow.ArrowSchema, array: _arrow.ArrowArray) -> None:
        rows = array.length
        if self.types and rows != self.rows:
            _arrow.release(schema)
            _arrow.release(array)
            first = next(iter(self.types))
            raise InvalidValueError(
                f"column {name!r} has {rows} values, column {first!r} has {self.rows}"
            )
        type_ = _schema_type(schema)
        call(
            _library.library.vask_table_add_arrow,
            self.handle,
            _library.name_bytes(name),
            addressof(schema),
            addressof(array),
        )
        self.types[name] = type_


def _schema_type(schema: _arrow.ArrowSchema) -> ColumnType:
    if schema.dictionary:
        words = column_type(schema.dictionary.contents.format.decode())
        return words._replace(name=f"dictionary of {words.name}", dtype=None)
    return column_type(schema.format.decode())


class Source:
    """Named columns that tables are made of.

    Each query makes a table of the columns that it needs, which borrows what can be borrowed, so
    it sees the data as they are then.
    """

    #: The columns' names in order.
    names: Sequence[str]

    def table(self, columns: Sequence[str]) -> NativeTable:
        """A table with these columns at least."""
        raise NotImplementedError

    @property
    def known(self) -> Sequence[str]:
        """The columns that may be named: those that ``all`` means, and others."""
        return self.names

    def parts(
        self, columns: Sequence[str], functions: Sequence[str], dropna: bool
    ) -> Optional[Iterator[NativeTable]]:
        """Tables that together have all rows, for data that are to be read by parts."""
        return None

    def check(self, columns: Iterable[str]) -> None:
        """Raises for a column that there is not."""
        for column in columns:
            if not isinstance(column, str):
                raise InvalidTypeError(f"a column is named by a text, not by {column!r}")
            if column not in self.known:
                raise UnknownNameError(
                    f"there is no column {column!r}; {nearest(column, self.known)}"
                )


class TableSource(Source):
    """A table that is there already, from a stream that can be read but once."""

    def __init__(self, table: NativeTable) -> None:
        self._table = table
        self.names = list(table.types)

    def table(self, columns: Sequence[str]) -> NativeTable:
        return self._table


class StreamSource(Source):
    """Data that give a stream as often as asked, of some of their columns."""

    def __init__(
        self,
        names: Sequence[str],
        select: Callable[[Sequence[str]], Any],
        nan_is_null: bool = False,
    ) -> None:
        self.names = names
        self._select = select
        self._nan_is_null = nan_is_null

    def table(self, columns: Sequence[str]) -> NativeTable:
        chosen = self._select(columns or self.names[:1])
        return NativeTable.of_stream(_arrow.stream_capsule(chosen), self._nan_is_null)


class MappingSource(Source):
    """A mapping from names to columns of any kind that a column can have."""

    def __init__(self, columns: Mapping[str, Any], nan_is_null: bool = False) -> None:
        for name in columns:
            if not isinstance(name, str):
                raise InvalidTypeError(f"a column is named by a text, not by {name!r}")
        self.names = list(columns)
        self._columns = columns
        self._nan_is_null = nan_is_null

    def table(self, columns: Sequence[str]) -> NativeTable:
        table = NativeTable.new(self._nan_is_null)
        for name in dict.fromkeys(columns or self.names[:1]):
            add_column(table, name, self._columns[name])
        return table


def add_column(table: NativeTable, name: str, values: Any) -> None:
    """Adds one column: an Arrow array, a pandas series, a NumPy array, a buffer or a sequence."""
    module = type(values).__module__.partition(".")[0]
    if module == "pandas":
        from ._pandas import series_column

        table.nan_is_null = True
        values = series_column(name, values)
        if isinstance(values, MemoryColumn):
            table.add_memory(name, values)
            return
    if module == "numpy":
        table.add_memory(name, numpy_column(name, values))
    elif hasattr(values, "__arrow_c_array__") or hasattr(values, "_export_to_c"):
        table.add_arrow(name, _arrow.array_capsules(values))
    # Not by __array__, which old releases have alone: it makes NaNs of nulls.
    elif hasattr(values, "__arrow_c_stream__") or _in_chunks(values):
        table.add_arrow(name, _arrow.array_capsules(_joined(table, name, values)))
    elif hasattr(values, "__array__"):
        import numpy

        table.add_memory(name, numpy_column(name, numpy.asarray(values)))
    elif isinstance(values, (str, bytes, Mapping)):
        raise InvalidTypeError(
            f"column {name!r} is a {type(values).__name__}, not a column of values"
        )
    elif _has_buffer(values):
        table.add_memory(name, buffer_column(name, memoryview(values)))
    elif isinstance(values, Iterable):
        table.add_memory(name, python_column(name, list(values)))
    else:
        raise InvalidTypeError(
            f"column {name!r} is a {type(values).__name__}, not a column of values"
        )


def _in_chunks(values: Any) -> bool:
    """Whether it is PyArrow's or Polars' column in chunks."""
    return hasattr(values, "num_chunks") or hasattr(values, "n_chunks")


def _has_buffer(values: Any) -> bool:
    try:
        memoryview(values)
    except TypeError:
        return False
    return True


def _joined(table: NativeTable, name: str, values: Any) -> Any:
    """The one array of a column that comes in chunks."""
    if type(values).__module__.startswith("polars"):
        if hasattr(values, "columns"):
            raise InvalidTypeError(f"column {name!r} is a table, not a column of values")
        chunks = values.n_chunks()
        array = values.to_arrow()
    else:
        try:
            import pyarrow
        except ImportError:
            raise InvalidTypeError(
                f"column {name!r} comes in chunks, which PyArrow has to join, and PyArrow is not "
                "installed; give the whole table"
            ) from None
        chunked = values if hasattr(values, "num_chunks") else pyarrow.chunked_array(values)
        chunks = chunked.num_chunks
        array = chunked.chunk(0) if chunks == 1 else chunked.combine_chunks()
        if isinstance(array, pyarrow.ChunkedArray):  # more than an array can hold
            raise InvalidValueError(f"column {name!r} is too long for one array")
    if chunks > 1:
        table.notes.append(f"column {name!r} is a copy: its {chunks} chunks are joined")
    return array


def source_of(data: Any) -> Source:
    """The columns of whatever holds a table."""
    if isinstance(data, Source):
        return data
    if isinstance(data, (str, os.PathLike)):
        from ._files import FileSource

        return FileSource(data)
    if isinstance(data, Mapping) and not hasattr(data, "__arrow_c_stream__"):
        return MappingSource(data)
    module = type(data).__module__.partition(".")[0]
    if module == "pandas":
        from ._pandas import frame_source

        return frame_source(data)
    if module == "polars":
        return _polars_source(data)
    if module in ("pyarrow", "duckdb", "_duckdb"):
        source = _selecting_source(data)
        if source is not None:
            return source
    if module in ("pyarrow", "vask") and hasattr(data, "null_count"):
        raise InvalidTypeError("the data are one column, not a table; give {'x': column}")
    if (
        hasattr(data, "__arrow_c_stream__")
        or hasattr(data, "to_reader")
        or hasattr(data, "read_next_batch")
    ):
        return TableSource(NativeTable.of_stream(_arrow.stream_capsule(data)))
    if hasattr(data, "__arrow_c_array__") or hasattr(data, "_export_to_c"):
        return _record_source(data)
    raise InvalidTypeError(
        f"a {type(data).__name__} is no table; give a data frame, an Arrow table, a mapping from "
        "names to arrays, or the path of a Parquet or CSV file"
    )


def _polars_source(data: Any) -> Source:
    if hasattr(data, "collect"):  # a lazy frame
        told = hasattr(data, "collect_schema")
        names = list(data.collect_schema().names() if told else data.columns)
        return StreamSource(names, lambda columns: data.select(list(columns)).collect())
    if hasattr(data, "columns"):
        return StreamSource(list(data.columns), lambda columns: data.select(list(columns)))
    raise InvalidTypeError(f"a Polars {type(data).__name__} is no table; give {{'x': series}}")


def _selecting_source(data: Any) -> Optional[Source]:
    """For data of which only the needed columns need be made or joined."""
    if hasattr(data, "column_names") and hasattr(data, "select"):  # PyArrow
        names = list(data.column_names)
        if len(set(names)) == len(names):
            return StreamSource(names, lambda columns: data.select(list(columns)))
    elif hasattr(data, "columns") and hasattr(data, "project"):  # a DuckDB relation
        names = list(data.columns)

        def project(columns: Sequence[str]) -> Any:
            quoted = ('"' + column.replace('"', '""') + '"' for column in columns)
            return data.project(", ".join(quoted))

        return StreamSource(names, project)
    return None


def _record_source(data: Any) -> Source:
    """A record batch, or anything else that gives an array of records."""
    try:
        import pyarrow
    except ImportError:
        raise InvalidTypeError(
            f"a {type(data).__name__} gives a single Arrow array, which takes PyArrow to open"
        ) from None
    if not isinstance(data, pyarrow.RecordBatch):
        data = pyarrow.record_batch(data)
    return source_of(pyarrow.Table.from_batches([data]))
