"""One column of a result: Python's view of an Arrow array, without a copy of its values."""

from __future__ import annotations

import ctypes
import struct
from collections.abc import Iterator
from ctypes import addressof, pointer
from typing import TYPE_CHECKING, Any, Optional, Union, overload

from . import _arrow, _memory, _types
from ._types import column_type

if TYPE_CHECKING:
    import numpy
    import pyarrow

__all__ = ["Column"]


class Column:
    """A column of a result.

    It has a length, can be indexed and iterated (nulls are ``None``), and gives its values to NumPy
    (``numpy.asarray(column)``), PyArrow (``pyarrow.array(column)``) and Polars
    (``polars.Series(column)``) without a copy where they have the same memory layout. It is never
    changed, and may be read by several threads.
    """

    def __init__(
        self, name: str, schema: _arrow.ArrowSchema, array: _arrow.ArrowArray, owner: object
    ) -> None:
        self._schema = schema
        self._array = array
        self._owner = owner
        self._format = schema.format.decode()
        self.name = name
        self._words: Optional[Column] = None
        if schema.dictionary:
            self._words = Column(name, schema.dictionary.contents, array.dictionary.contents, owner)

    @property
    def type(self) -> str:
        """The Arrow type's name, as in ``int64`` or ``timestamp[us, UTC]``."""
        if self._words is not None:
            return f"dictionary<{self._words.type}>"
        return column_type(self._format).name

    @property
    def null_count(self) -> int:
        """The number of nulls."""
        if self._format == "n":
            return len(self)
        if self._array.null_count >= 0:
            return int(self._array.null_count)
        return self._present().count(False)

    def __len__(self) -> int:
        return int(self._array.length)

    def __iter__(self) -> Iterator[Any]:
        return iter(self.to_pylist())

    @overload
    def __getitem__(self, index: int) -> Any: ...

    @overload
    def __getitem__(self, index: slice) -> list[Any]: ...

    def __getitem__(self, index: Union[int, slice]) -> Any:
        rows = len(self)
        if isinstance(index, slice):
            start, stop, step = index.indices(rows)
            if step == 1:
                return self._values(start, max(start, stop))
            return [self[i] for i in range(start, stop, step)]
        at = index + rows if index < 0 else index
        if not 0 <= at < rows:
            raise IndexError(f"row {index} of a column of {rows} rows")
        return self._values(at, at + 1)[0]

    def __repr__(self) -> str:
        shown = ", ".join("null" if v is None else str(v) for v in self[:10])
        more = ", ..." if len(self) > 10 else ""
        return f"<vask.Column {self.name!r}: {len(self)} of {self.type}: [{shown}{more}]>"

    def to_pylist(self) -> list[Any]:
        """The values as Python's own, nulls as ``None``.

        Timestamps, dates, times and durations come as ``datetime``'s (cut off at microseconds,
        integers outside its years), decimals as ``decimal.Decimal``.
        """
        return self._values(0, len(self))

    def to_numpy(self) -> numpy.ndarray[Any, Any]:
        """The values as a NumPy array.

        Numbers, dates, timestamps and durations without nulls are not copied, and cannot be
        written to. With nulls, numbers come as float64 with NaN in their place (integers beyond
        2**53 as objects, so that none is rounded), dates and times with NaT. Texts, times of day
        and decimals come as objects, nulls as ``None``; dictionaries as the words.
        """
        values: numpy.ndarray[Any, Any] = self._numpy()
        return values

    def _numpy(self) -> Any:
        import numpy

        dtype = None if self._words is not None else _types.numpy_dtype(self._format)
        if self._format == "b" and not self.null_count:
            bits = self._memory(1, "u1", -(-(int(self._array.offset) + len(self)) // 8), bits=True)
            offset = int(self._array.offset)
            flags = numpy.unpackbits(bits, bitorder="little")[offset : offset + len(self)]
            return flags.view(numpy.bool_)
        if dtype is None:
            objects = numpy.empty(len(self), dtype=object)
            objects[:] = self.to_pylist()
            return objects
        stored: Any = self._memory(1, _types.column_type(self._format).dtype, len(self))
        nulls = self.null_count
        if self._format == "tdD":
            stored = stored.astype("i8")
        if not nulls:
            return stored.view(dtype) if dtype[0] in "mM" else stored
        missing = ~numpy.array(self._present(), dtype=bool)
        if dtype[0] in "mM":
            moments = stored.view(dtype).copy()
            moments[missing] = "NaT"
            return moments
        if dtype[0] in "iu" and len(stored) and dtype[1] == "8":
            there = stored[~missing]
            if len(there) and (int(there.max()) > 2**53 or int(there.min()) < -(2**53)):
                objects = stored.astype(object)
                objects[missing] = None
                return objects
        floats = stored.astype("f4" if dtype == "f4" else "f8")
        floats[missing] = numpy.nan
        return floats

    def __array__(self, dtype: Any = None, copy: Optional[bool] = None) -> Any:
        array = self.to_numpy()
        if dtype is not None and array.dtype != dtype:
            if copy is False:
                raise ValueError(f"a column of {self.type} is no array of {dtype} without a copy")
            return array.astype(dtype)
        return array.copy() if copy else array

    def to_arrow(self) -> pyarrow.Array:
        """The column as a PyArrow array, without a copy. Needs PyArrow."""
        import pyarrow

        if hasattr(pyarrow.Array, "__arrow_c_array__"):
            return pyarrow.array(self)
        # A release without the PyCapsule interface.
        array, schema = _lent_array(self._array, self), _lent_schema(self._schema, self)
        imported: Any = pyarrow.Array
        column: pyarrow.Array = imported._import_from_c(addressof(array), addressof(schema))
        return column

    def __arrow_c_schema__(self) -> object:
        return _arrow.capsule_of(_lent_schema(self._schema, self), _arrow.SCHEMA_CAPSULE)

    def __arrow_c_array__(self, requested_schema: object = None) -> tuple[object, object]:
        return (
            self.__arrow_c_schema__(),
            _arrow.capsule_of(_lent_array(self._array, self), _arrow.ARRAY_CAPSULE),
        )

    # ---- reading the buffers --------------------------------------------------------------

    def _address(self, buffer: int) -> int:
        return int(self._array.buffers[buffer] or 0)

    def _memory(self, buffer: int, dtype: Optional[str], rows: int, bits: bool = False) -> Any:
        """A buffer as a NumPy array that keeps this column alive."""
        import numpy

        width = numpy.dtype(dtype).itemsize
        start = self._address(buffer) + (0 if bits else int(self._array.offset) * width)
        if not rows or not start:
            return numpy.empty(0, dtype)
        memory: Any = (ctypes.c_char * (rows * width)).from_address(start)
        memory._owner = self
        values = numpy.frombuffer(memory, dtype)
        values.flags.writeable = False
        return values

    def _present(self, begin: int = 0, end: Optional[int] = None) -> list[bool]:
        """Which rows have a value."""
        end = len(self) if end is None else end
        if self._format == "n":
            return [False] * (end - begin)
        if not self._array.n_buffers or not self._address(0):
            return [True] * (end - begin)
        return self._bits(0, begin, end)

    def _bits(self, buffer: int, begin: int, end: int) -> list[bool]:
        first, last = begin + int(self._array.offset), end + int(self._array.offset)
        if first >= last:
            return []
        data = ctypes.string_at(self._address(buffer) + first // 8, (last + 7) // 8 - first // 8)
        whole = int.from_bytes(data, "little") >> (first % 8)
        # From the end: the least bit is the last digit.
        digits = bin(whole | 1 << (last - first))[:2:-1] if last - first < 4096 else None
        if digits is not None:
            return [digit == "1" for digit in digits[: last - first]]
        shift = first % 8
        return [bool(data[(i + shift) >> 3] >> ((i + shift) & 7) & 1) for i in range(last - first)]

    def _values(self, begin: int, end: int) -> list[Any]:
        """Rows from ``begin`` to ``end`` as Python's values."""
        if end <= begin:
            return []
        if self._format == "n":
            return [None] * (end - begin)
        present = self._present(begin, end)
        stored = self._stored(begin, end, present)
        if all(present):
            return stored
        return [value if there else None for value, there in zip(stored, present)]

    def _stored(self, begin: int, end: int, present: list[bool]) -> list[Any]:
        if self._words is not None:
            words = self._words.to_pylist()
            codes = self._numbers(begin, end)
            return [words[code] if there else None for code, there in zip(codes, present)]
        kind = column_type(self._format).kind
        if kind == "boolean":
            return self._bits(1, begin, end)
        if kind in ("text", "binary"):
            raw = self._raw_texts(begin, end, present)
            if kind == "binary":
                return list(raw)
            return [text.decode(errors="surrogateescape") for text in raw]
        if kind == "decimal":
            scale = _types.decimal_scale(self._format)
            first = self._address(1) + 16 * (begin + int(self._array.offset))
            data = ctypes.string_at(first, 16 * (end - begin))
            return [
                _types.python_decimal(
                    int.from_bytes(data[i : i + 16], "little", signed=True), scale
                )
                for i in range(0, len(data), 16)
            ]
        numbers = self._numbers(begin, end)
        convert = _types.python_value(self._format)
        if convert is None:
            return numbers
        return [convert(v) if there else None for v, there in zip(numbers, present)]

    def _numbers(self, begin: int, end: int) -> list[Any]:
        dtype = column_type(self._format).dtype
        assert dtype is not None, self._format
        letter, width = _STRUCT[dtype], int(dtype[1])
        first = self._address(1) + width * (begin + int(self._array.offset))
        data = ctypes.string_at(first, width * (end - begin))
        return list(struct.unpack(f"={end - begin}{letter}", data))

    def _raw_texts(self, begin: int, end: int, present: list[bool]) -> list[bytes]:
        first = begin + int(self._array.offset)
        rows = end - begin
        if self._format[0] == "v":
            return self._raw_views(first, rows, present)
        letter, width = ("q", 8) if self._format in "UZ" else ("i", 4)
        if not self._address(1):
            return [b""] * rows
        offsets = struct.unpack(
            f"={rows + 1}{letter}",
            ctypes.string_at(self._address(1) + width * first, width * (rows + 1)),
        )
        start, stop = offsets[0], offsets[-1]
        data = ctypes.string_at(self._address(2) + start, stop - start) if stop > start else b""
        return [data[a - start : b - start] for a, b in zip(offsets, offsets[1:])]

    def _raw_views(self, first: int, rows: int, present: list[bool]) -> list[bytes]:
        """Views: up to 12 bytes stand in the view, longer texts in a buffer that it names."""
        data = ctypes.string_at(self._address(1) + 16 * first, 16 * rows)
        texts = []
        for row, there in enumerate(present):
            view = data[16 * row : 16 * row + 16]
            length = int.from_bytes(view[:4], "little")
            if not there or not length:
                texts.append(b"")
            elif length <= 12:
                texts.append(view[4 : 4 + length])
            else:
                _prefix, buffer, offset = struct.unpack("=4sii", view[4:])
                texts.append(ctypes.string_at(self._address(2 + buffer) + offset, length))
        return texts


_STRUCT = {
    "i1": "b", "u1": "B", "i2": "h", "u2": "H", "i4": "i", "u4": "I", "i8": "q", "u8": "Q",
    "f4": "f", "f8": "d",
}  # fmt: skip


def _lent_schema(schema: _arrow.ArrowSchema, owner: object) -> _arrow.ArrowSchema:
    """A record of its own over the same memory: readers may take records apart."""
    lent = _arrow.ArrowSchema()
    ctypes.memmove(addressof(lent), addressof(schema), ctypes.sizeof(lent))
    kept: list[object] = [owner]
    if schema.dictionary:
        words = _lent_schema(schema.dictionary.contents, owner)
        lent.dictionary = pointer(words)
        kept.append(words)
    lent.release = _memory._RELEASE_SCHEMA
    lent.private_data = _memory._keep(kept)
    return lent


def _lent_array(array: _arrow.ArrowArray, owner: object) -> _arrow.ArrowArray:
    lent = _arrow.ArrowArray()
    ctypes.memmove(addressof(lent), addressof(array), ctypes.sizeof(lent))
    kept: list[object] = [owner]
    if array.dictionary:
        words = _lent_array(array.dictionary.contents, owner)
        lent.dictionary = pointer(words)
        kept.append(words)
    lent.release = _memory._RELEASE_ARRAY
    lent.private_data = _memory._keep(kept)
    return lent
