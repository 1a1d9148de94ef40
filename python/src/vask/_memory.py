"""Columns in this process's own memory, as Arrow arrays: from buffers, NumPy and Python lists."""

from __future__ import annotations

import ctypes
import datetime
import decimal
import itertools
from array import array
from collections.abc import Sequence
from ctypes import POINTER, addressof, c_void_p, pointer
from dataclasses import dataclass
from typing import Any, Optional

from . import _arrow
from ._types import column_type, format_of_dtype
from .errors import InvalidTypeError

__all__ = ["MemoryColumn", "bits_of", "numpy_column", "python_column", "text_column"]


@dataclass
class MemoryColumn:
    """Values that an Arrow array can lend: buffers, and what keeps them alive.

    ``buffers`` are objects with memory, or ``None``: validity bits first, as Arrow has them.
    ``copied`` says why the values are a copy of what the caller has, for people.
    """

    format: str
    rows: int
    buffers: Sequence[Any]
    nulls: int = 0
    dictionary: Optional[MemoryColumn] = None
    ordered: bool = False
    copied: str = ""

    def records(self, name: str) -> tuple[_arrow.ArrowSchema, _arrow.ArrowArray]:
        """The two records of the interface, released once by whoever takes them over."""
        schema = _arrow.ArrowSchema()
        schema.format = _lasting(self.format.encode())
        schema.name = _lasting(name.encode())
        schema.flags = _arrow.FLAG_NULLABLE
        record = _arrow.ArrowArray()
        record.length = self.rows
        record.null_count = self.nulls
        record.n_buffers = len(self.buffers)
        addresses = (c_void_p * len(self.buffers))(*map(address_of, self.buffers))
        record.buffers = ctypes.cast(addresses, POINTER(c_void_p))
        kept: list[Any] = [self.buffers, addresses]
        if self.dictionary is not None:
            if self.ordered:
                schema.flags |= _arrow.FLAG_DICTIONARY_ORDERED
            words_schema, words = self.dictionary.records("")
            schema.dictionary = pointer(words_schema)
            record.dictionary = pointer(words)
            kept += [words_schema, words]
        schema.release = _RELEASE_SCHEMA
        schema.private_data = _keep((schema.format, schema.name, kept))
        record.release = _RELEASE_ARRAY
        record.private_data = _keep(kept)
        return schema, record


def address_of(memory: Any) -> Optional[int]:
    """Where an object's memory begins; ``None`` for ``None``."""
    if memory is None:
        return None
    if isinstance(memory, bytes):
        return ctypes.cast(ctypes.c_char_p(memory), c_void_p).value
    if isinstance(memory, array):
        return memory.buffer_info()[0]
    if isinstance(memory, ctypes.Array):
        return addressof(memory)
    address: int = memory.__array_interface__["data"][0]
    return address


# What lent records need, by the key in their private_data, until they are released.
_lent: dict[int, Any] = {}
_keys = itertools.count(1)
# A format or name outlives its record: readers may keep the pointer.
_texts: dict[bytes, bytes] = {}


def _lasting(text: bytes) -> bytes:
    return _texts.setdefault(text, text)


def _keep(what: Any) -> int:
    key = next(_keys)
    _lent[key] = what
    return key


def _released(record: Any) -> None:
    if record.dictionary:
        _arrow.release(record.dictionary.contents)
    record.release = None
    _lent.pop(record.private_data, None)


# May be called on any thread: ctypes takes the interpreter's lock.
_release_schema = _arrow._RELEASE(lambda at: _released(_arrow.ArrowSchema.from_address(at)))
_release_array = _arrow._RELEASE(lambda at: _released(_arrow.ArrowArray.from_address(at)))
_RELEASE_SCHEMA = ctypes.cast(_release_schema, c_void_p).value
_RELEASE_ARRAY = ctypes.cast(_release_array, c_void_p).value


# ---- NumPy ------------------------------------------------------------------------------------


def bits_of(flags: Any) -> Any:
    """An array of booleans as Arrow's bits."""
    import numpy

    return numpy.packbits(flags, bitorder="little")


def numpy_column(name: str, values: Any, missing: Any = None) -> MemoryColumn:
    """A column of a one-dimensional array, ``missing`` an array of booleans or ``None``.

    Numbers, dates and times that lie one after another in the machine's byte order are lent,
    others are copied.
    """
    import numpy

    if values.ndim != 1:
        raise InvalidTypeError(
            f"column {name!r} is an array of shape {values.shape}, not of one dimension"
        )
    if isinstance(values, numpy.ma.MaskedArray):
        mask = numpy.ma.getmaskarray(values)
        missing = mask if missing is None else mask | missing
        values = numpy.ma.getdata(values)
    rows = len(values)
    nulls = int(missing.sum()) if missing is not None else 0
    validity = bits_of(~missing) if nulls else None
    dtype = values.dtype

    if dtype.kind == "b":
        return MemoryColumn(
            "b", rows, [validity, bits_of(values)], nulls, copied="booleans are packed into bits"
        )
    if dtype.kind in "OUST":
        items = values.tolist()
        if nulls:
            items = [None if gone else item for item, gone in zip(items, missing)]
        return python_column(name, items)

    copied = ""
    if dtype.kind == "f" and dtype.itemsize == 2:
        values, copied = values.astype("f4"), "float16 is widened to float32"
    elif dtype.kind in "Mm" and format_of_dtype(dtype) is None:
        # Days become dates; other units that Arrow lacks become seconds.
        if dtype.name == "datetime64[D]":
            days = values.astype("i8")
            gone = numpy.isnat(values)
            if gone.any():
                missing = gone if missing is None else missing | gone
                validity, nulls = bits_of(~missing), int(missing.sum())
            return MemoryColumn(
                "tdD", rows, [validity, days.astype("i4")], nulls, copied="days take 32 bits"
            )
        values = values.astype(f"{dtype.kind}8[s]")
        copied = f"{dtype.name} is converted to seconds"
    format = format_of_dtype(values.dtype)
    if format is None:
        raise InvalidTypeError(
            f"column {name!r} has NumPy's type {dtype}, which cannot be aggregated; "
            "convert it with astype, to float64 say"
        )
    if not values.dtype.isnative:
        values = values.astype(values.dtype.newbyteorder("="))
        copied = "its bytes are in another machine's order"
    elif not values.flags.c_contiguous or not values.flags.aligned:
        values = numpy.require(values, requirements=["C", "A"])
        copied = copied or "its values do not lie one after another"
    return MemoryColumn(format, rows, [validity, values], nulls, copied=copied)


# ---- plain buffers and Python's own values ------------------------------------------------------


def buffer_column(name: str, view: memoryview) -> MemoryColumn:
    """A column of what has the buffer protocol, such as ``array.array``."""
    letters = {"q": "l", "l": "l", "Q": "L", "L": "L", "f": "f", "d": "g"}
    for signed, unsigned in (("b", "B"), ("h", "H"), ("i", "I")):
        letters[signed] = {"b": "c", "h": "s", "i": "i"}[signed]
        letters[unsigned] = {"B": "C", "H": "S", "I": "I"}[unsigned]
    format = letters.get(view.format.lstrip("@="))
    if format is None or view.ndim != 1:
        raise InvalidTypeError(
            f"column {name!r} is a buffer of {view.ndim} dimensions of the type {view.format!r}, "
            "not one dimension of numbers"
        )
    # Through a memoryview there is an address only for memory that can be written to.
    if view.readonly or not view.contiguous:
        return MemoryColumn(format, len(view), [None, view.tobytes()], copied="it is read-only")
    memory = (ctypes.c_char * view.nbytes).from_buffer(view)
    return MemoryColumn(format, len(view), [None, memory])


def text_column(items: Sequence[Any], encode: bool = True) -> MemoryColumn:
    """Texts (or bytes, with ``encode`` off), ``None`` for nulls."""
    encoded = [
        b"" if item is None else item.encode("utf-8", "surrogatepass") if encode else bytes(item)
        for item in items
    ]
    joined = b"".join(encoded)
    wide = len(joined) >= 2**31
    offsets = array("q" if wide else "i", [0])
    offsets.extend(itertools.accumulate(map(len, encoded)))
    validity, nulls = _validity(items)
    return MemoryColumn(
        ("U" if wide else "u") if encode else ("Z" if wide else "z"),
        len(items),
        [validity, offsets, joined],
        nulls,
        copied="Python's texts are encoded" if encode else "Python's bytes are joined",
    )


def _validity(items: Sequence[Any]) -> tuple[Optional[bytes], int]:
    nulls = sum(1 for item in items if item is None)
    return (_bits([item is not None for item in items]) if nulls else None), nulls


def _bits(flags: Sequence[bool]) -> bytes:
    bits = bytearray((len(flags) + 7) // 8)
    for i, flag in enumerate(flags):
        if flag:
            bits[i >> 3] |= 1 << (i & 7)
    return bytes(bits)


_EPOCH = datetime.datetime(1970, 1, 1)
_MICROSECOND = datetime.timedelta(microseconds=1)


def _is_missing(item: Any) -> bool:
    """pandas' NA and NaT, which need not be there to be known by name."""
    return item is None or type(item).__name__ in ("NAType", "NaTType")


#: Types of values beside which a float can only be the NaN that stands for a null.
_NO_FLOATS = (str, bytes, datetime.date, datetime.timedelta, decimal.Decimal)


def python_column(name: str, items: Sequence[Any], nan_is_null: bool = False) -> MemoryColumn:
    """A column of Python's values: all of one kind, integers and floats may mix.

    ``None`` and pandas' NA and NaT are nulls; a float NaN among values that are no floats is one
    too, as object columns of pandas have it.
    """
    items = [None if _is_missing(item) else item for item in items]
    kinds: set[type] = {type(item) for item in items if item is not None}
    if float in kinds and any(issubclass(kind, _NO_FLOATS) for kind in kinds):
        items = [None if isinstance(item, float) and item != item else item for item in items]
        kinds = {type(item) for item in items if item is not None}
    if any(hasattr(kind, "dtype") for kind in kinds):  # NumPy's own scalars
        items = [item.item() if hasattr(type(item), "dtype") else item for item in items]
        kinds = {type(item) for item in items if item is not None}

    rows = len(items)
    validity, nulls = _validity(items)
    why = "Python's values are converted"

    def all_are(*allowed: type) -> bool:
        return all(issubclass(kind, allowed) for kind in kinds)

    if not kinds:
        return MemoryColumn("n", rows, [], rows)
    if all_are(bool):
        bits = _bits([bool(item) for item in items])
        return MemoryColumn("b", rows, [validity, bits], nulls, copied=why)
    if all_are(int) and bool not in kinds:
        numbers = [item or 0 for item in items]
        wide = max(numbers) > 2**63 - 1
        try:
            values = array("Q" if wide else "q", numbers)
        except OverflowError:
            raise InvalidTypeError(
                f"column {name!r} has integers beyond 64 bits; give them as float64 or decimal"
            ) from None
        return MemoryColumn("L" if wide else "l", rows, [validity, values], nulls, copied=why)
    if all_are(int, float) and bool not in kinds:
        floats = array("d", [0.0 if item is None else float(item) for item in items])
        return MemoryColumn("g", rows, [validity, floats], nulls, copied=why)
    if all_are(str):
        return text_column(items)
    if all_are(bytes, bytearray):
        return text_column(items, encode=False)
    if all_are(datetime.datetime):
        zones = {item.tzinfo for item in items if item is not None}
        if len(zones) == 1 or None not in zones:
            utc = datetime.timezone.utc
            aware = None not in zones
            stamps = [
                item.astimezone(utc).replace(tzinfo=None) if aware and item is not None else item
                for item in items
            ]
            zone = ""
            if aware:
                only = next(iter(zones)) if len(zones) == 1 else utc
                zone = str(getattr(only, "key", "") or "UTC")
            return MemoryColumn(
                f"tsu:{zone}",
                rows,
                [validity, array("q", [_since(item, _EPOCH) for item in stamps])],
                nulls,
                copied=why,
            )
    elif all_are(datetime.date) and datetime.datetime not in kinds:
        epoch = _EPOCH.toordinal()
        days = array("i", [0 if item is None else item.toordinal() - epoch for item in items])
        return MemoryColumn("tdD", rows, [validity, days], nulls, copied=why)
    elif all_are(datetime.timedelta):
        spans = array("q", [0 if item is None else item // _MICROSECOND for item in items])
        return MemoryColumn("tDu", rows, [validity, spans], nulls, copied=why)
    elif all_are(decimal.Decimal):
        return _decimal_column(name, items, validity, nulls)
    found = " and ".join(sorted(kind.__name__ for kind in kinds))
    hint = "one type is needed" if len(kinds) > 1 else "convert them, to texts say"
    raise InvalidTypeError(f"column {name!r} holds values of the type {found}; {hint}")


def _since(moment: Optional[datetime.datetime], epoch: datetime.datetime) -> int:
    return 0 if moment is None else (moment - epoch) // _MICROSECOND


def _decimal_column(
    name: str, items: Sequence[Any], validity: Optional[bytes], nulls: int
) -> MemoryColumn:
    parts = [item.as_tuple() for item in items if item is not None]
    if any(not isinstance(part.exponent, int) for part in parts):
        raise InvalidTypeError(f"column {name!r} has decimals that are no numbers")
    scale = max(0, -min(part.exponent for part in parts))
    unscaled = [0 if item is None else int(item.scaleb(scale)) for item in items]
    digits = max(len(str(abs(number))) for number in unscaled)
    if digits > 18:
        raise InvalidTypeError(
            f"column {name!r} needs decimals of {digits} digits; 18 is the most that can be"
        )
    packed = b"".join(number.to_bytes(16, "little", signed=True) for number in unscaled)
    return MemoryColumn(
        f"d:{max(digits, scale, 1)},{scale}",
        len(items),
        [validity, packed],
        nulls,
        copied="Python's decimals are converted",
    )


def describe(column: MemoryColumn) -> str:
    """The type's name for people."""
    if column.dictionary is not None:
        return f"dictionary of {column_type(column.dictionary.format).name}"
    return column_type(column.format).name
