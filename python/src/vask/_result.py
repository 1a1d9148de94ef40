"""What a query gives: a table that every Arrow consumer takes without a copy."""

from __future__ import annotations

import html
import weakref
from collections.abc import Iterator, Sequence
from ctypes import addressof, c_void_p
from typing import TYPE_CHECKING, Any, Optional

from . import _arrow, _library
from ._calls import call
from ._column import Column
from .errors import UnknownNameError, nearest

if TYPE_CHECKING:
    import numpy
    import pandas
    import polars
    import pyarrow

__all__ = ["Result"]

_SHOWN_ROWS = 10
_SHOWN_COLUMNS = 12
_SHOWN_WIDTH = 32


class Result:
    """A table of results: the keys' columns first, then one column for each aggregate.

    It is a mapping from names to :class:`Column`\\ s with a number of rows as its length, and a
    table for everything that knows the Arrow PyCapsule interface: ``pyarrow.table(result)``,
    ``polars.DataFrame(result)``, ``duckdb.from_arrow(result)``. Values are not copied. It is never
    changed, and may be read by several threads.

    Attributes:
        columns: the names of the columns, in order.
        key_columns: the names of those that are keys.
        notes: what was copied or converted to get the answer, and which ways were taken.
    """

    def __init__(
        self, handle: c_void_p, notes: Sequence[str] = (), keys: Sequence[str] = ()
    ) -> None:
        self._handle = handle
        weakref.finalize(self, _library.library.vask_result_free, handle).atexit = False
        self.notes = list(notes)
        self.key_columns = list(keys)
        stream = self._stream()
        try:
            schema = _arrow.stream_schema(stream)
            batch = _arrow.stream_next(stream)
        finally:
            _arrow.release(stream)
        records = _Records(schema, batch)
        self._columns = {
            name: Column(name, schema.children[i].contents, batch.children[i].contents, records)
            for i, name in enumerate(
                (schema.children[i].contents.name or b"").decode() for i in range(schema.n_children)
            )
        }

    def _stream(self) -> _arrow.ArrowArrayStream:
        stream = _arrow.ArrowArrayStream()
        call(_library.library.vask_result_stream, self._handle, addressof(stream))
        return stream

    @property
    def columns(self) -> list[str]:
        return list(self._columns)

    @property
    def shape(self) -> tuple[int, int]:
        """Rows and columns."""
        return len(self), len(self._columns)

    @property
    def types(self) -> dict[str, str]:
        """The names of the columns' Arrow types."""
        return {name: column.type for name, column in self._columns.items()}

    def keys(self) -> list[str]:
        """The names of the columns, so that ``dict(result)`` works."""
        return self.columns

    def __len__(self) -> int:
        return int(_library.library.vask_result_rows(self._handle))

    def __iter__(self) -> Iterator[str]:
        return iter(self._columns)

    def __contains__(self, name: object) -> bool:
        return name in self._columns

    def __getitem__(self, name: str) -> Column:
        try:
            return self._columns[name]
        except (KeyError, TypeError):
            raise UnknownNameError(
                f"the result has no column {name!r}; {nearest(str(name), self._columns)}"
            ) from None

    def __arrow_c_stream__(self, requested_schema: object = None) -> object:
        return _arrow.capsule_of(self._stream(), _arrow.STREAM_CAPSULE)

    def to_arrow(self) -> pyarrow.Table:
        """The result as a PyArrow table, without a copy. Needs PyArrow."""
        import pyarrow

        if hasattr(pyarrow.Table, "__arrow_c_stream__"):
            return pyarrow.table(self)
        # A release without the PyCapsule interface.
        reader: Any = pyarrow.RecordBatchReader
        stream = self._stream()
        table: pyarrow.Table = reader._import_from_c(addressof(stream)).read_all()
        return table

    def to_polars(self) -> polars.DataFrame:
        """The result as a Polars frame, numbers without a copy. Needs Polars."""
        import polars

        try:
            return polars.DataFrame(self)
        except TypeError:  # a release that takes PyArrow's tables alone
            return polars.DataFrame(self.to_arrow())

    def to_pandas(self, index: bool = False) -> pandas.DataFrame:
        """The result as a pandas frame. Needs pandas, and uses PyArrow if it is there.

        Args:
            index: makes the keys the frame's index, as ``DataFrame.groupby`` does.
        """
        import pandas

        frame: pandas.DataFrame
        try:
            table = self.to_arrow()
        except ImportError:
            frame = pandas.DataFrame(self.to_numpy())
        else:
            frame = table.to_pandas()
        if index and self.key_columns:
            frame = frame.set_index(self.key_columns)
        return frame

    def to_numpy(self) -> dict[str, numpy.ndarray[Any, Any]]:
        """The columns as NumPy arrays by name; :meth:`Column.to_numpy` says which are copied."""
        return {name: column.to_numpy() for name, column in self._columns.items()}

    def to_pydict(self) -> dict[str, list[Any]]:
        """The columns as lists of Python's values by name."""
        return {name: column.to_pylist() for name, column in self._columns.items()}

    # ---- for people -----------------------------------------------------------------------

    def _shown_columns(self) -> list[Optional[Column]]:
        """The columns to show; ``None`` for those left out."""
        columns: list[Optional[Column]] = list(self._columns.values())
        if len(columns) > _SHOWN_COLUMNS:
            half = _SHOWN_COLUMNS // 2
            return [*columns[:half], None, *columns[-half:]]
        return columns

    def _cells(self) -> list[list[str]]:
        """The columns that are shown, as texts: name, type, values."""
        rows = len(self)
        shown = []
        for column in self._shown_columns():
            if column is None:
                kept = min(rows, _SHOWN_ROWS) + (rows > _SHOWN_ROWS)
                shown.append(["…", "", *["…"] * kept])
                continue
            cells = [column.name, column.type]
            if rows <= _SHOWN_ROWS:
                cells += map(_cell, column[:rows])
            else:
                half = _SHOWN_ROWS // 2
                cells += [*map(_cell, column[:half]), "…", *map(_cell, column[rows - half :])]
            shown.append(cells)
        return shown

    def _size(self) -> str:
        rows, columns = self.shape
        return f"{rows:,} row{'s' * (rows != 1)}, {columns:,} column{'s' * (columns != 1)}"

    def __repr__(self) -> str:
        shown = self._cells()
        widths = [max(map(len, cells)) for cells in shown]
        right = [column is not None and _is_number(column) for column in self._shown_columns()]
        lines = [
            "  ".join(
                cell.rjust(width) if to_right else cell.ljust(width)
                for cell, width, to_right in zip(line, widths, right)
            ).rstrip()
            for line in zip(*shown)
        ]
        return "\n".join([f"vask.Result: {self._size()}", *lines])

    def _repr_html_(self) -> str:
        shown = self._cells()
        style = [
            ' style="text-align: right"' if column is not None and _is_number(column) else ""
            for column in self._shown_columns()
        ]
        head = "".join(
            f"<th{s}>{html.escape(cells[0])}<br><small>{html.escape(cells[1])}</small></th>"
            for cells, s in zip(shown, style)
        )
        body = "".join(
            "<tr>"
            + "".join(f"<td{s}>{html.escape(cell)}</td>" for cell, s in zip(line, style))
            + "</tr>"
            for line in zip(*(cells[2:] for cells in shown))
        )
        return (
            f"<div><table><thead><tr>{head}</tr></thead><tbody>{body}</tbody></table>"
            f"<small>{self._size()}</small></div>"
        )


class _Records:
    """The two records of a batch, released with the last column."""

    def __init__(self, schema: _arrow.ArrowSchema, batch: _arrow.ArrowArray) -> None:
        self.schema, self.batch = schema, batch
        weakref.finalize(self, _release_both, schema, batch).atexit = False


def _release_both(schema: _arrow.ArrowSchema, batch: _arrow.ArrowArray) -> None:
    _arrow.release(batch)
    _arrow.release(schema)


def _is_number(column: Column) -> bool:
    return column.type.startswith(("int", "uint", "float", "decimal"))


def _cell(value: Any) -> str:
    if value is None:
        return "null"
    text = repr(value) if isinstance(value, float) else str(value)
    text = text.replace("\n", "\\n").replace("\t", "\\t")
    return text if len(text) <= _SHOWN_WIDTH else text[: _SHOWN_WIDTH - 1] + "…"
