"""The types of columns: what an Arrow format names, for people, for NumPy and for Python."""

from __future__ import annotations

import datetime
import decimal
from typing import Any, Callable, NamedTuple

__all__ = ["ColumnType", "column_type", "format_of_dtype"]


class ColumnType(NamedTuple):
    """A type of values.

    ``name`` is Arrow's word for it. ``kind`` is one of ``integer``, ``float``, ``boolean``,
    ``decimal``, ``temporal``, ``text``, ``binary``, ``null`` and ``other``. ``dtype`` is NumPy's
    type of the values as they lie in memory, or ``None`` where they have no fixed width.
    """

    format: str
    name: str
    kind: str
    dtype: str | None


_PLAIN = {
    "n": ("null", "null", None),
    "b": ("bool", "boolean", None),
    "c": ("int8", "integer", "i1"),
    "C": ("uint8", "integer", "u1"),
    "s": ("int16", "integer", "i2"),
    "S": ("uint16", "integer", "u2"),
    "i": ("int32", "integer", "i4"),
    "I": ("uint32", "integer", "u4"),
    "l": ("int64", "integer", "i8"),
    "L": ("uint64", "integer", "u8"),
    "f": ("float32", "float", "f4"),
    "g": ("float64", "float", "f8"),
    "u": ("utf8", "text", None),
    "U": ("large_utf8", "text", None),
    "vu": ("utf8_view", "text", None),
    "z": ("binary", "binary", None),
    "Z": ("large_binary", "binary", None),
    "vz": ("binary_view", "binary", None),
    "tdD": ("date32", "temporal", "i4"),
    "tdm": ("date64", "temporal", "i8"),
    "tts": ("time32[s]", "temporal", "i4"),
    "ttm": ("time32[ms]", "temporal", "i4"),
    "ttu": ("time64[us]", "temporal", "i8"),
    "ttn": ("time64[ns]", "temporal", "i8"),
}
_UNITS = {"s": "s", "m": "ms", "u": "us", "n": "ns"}
_UNITS_A_SECOND = {"s": 1, "m": 1_000, "u": 1_000_000, "n": 1_000_000_000}


def column_type(format: str) -> ColumnType:
    """What an Arrow format string names."""
    if format in _PLAIN:
        name, kind, dtype = _PLAIN[format]
        return ColumnType(format, name, kind, dtype)
    if format.startswith("ts") and format[3:4] == ":" and format[2] in _UNITS:
        zone = format[4:]
        name = f"timestamp[{_UNITS[format[2]]}{', ' + zone if zone else ''}]"
        return ColumnType(format, name, "temporal", "i8")
    if format.startswith("tD") and format[2:] in _UNITS:
        return ColumnType(format, f"duration[{_UNITS[format[2:]]}]", "temporal", "i8")
    if format.startswith("d:"):
        digits = format[2:].split(",")
        if len(digits) == 2 or digits[2] == "128":
            name = f"decimal128({digits[0]}, {digits[1]})"
            return ColumnType(format, name, "decimal", None)
    return ColumnType(format, f"an Arrow type with the format {format!r}", "other", None)


def decimal_scale(format: str) -> int:
    return int(format[2:].split(",")[1])


def numpy_dtype(format: str) -> str | None:
    """NumPy's type that means the same as the values of fixed width, dates and times included."""
    if format == "tdD":
        return "M8[D]"
    if format == "tdm":
        return "M8[ms]"
    if format.startswith("ts"):
        return f"M8[{_UNITS[format[2]]}]"
    if format.startswith("tD"):
        return f"m8[{_UNITS[format[2]]}]"
    if format.startswith("tt"):
        return None
    return column_type(format).dtype


def format_of_dtype(dtype: Any) -> str | None:
    """The Arrow format of a NumPy type whose values Arrow has as they lie in memory.

    Byte order is left out of account. ``None``: Arrow has no such values.
    """
    kind, width = dtype.kind, dtype.itemsize
    if kind in "iuf":
        return {
            "i1": "c", "u1": "C", "i2": "s", "u2": "S", "i4": "i", "u4": "I",
            "i8": "l", "u8": "L", "f4": "f", "f8": "g",
        }.get(f"{kind}{width}")  # fmt: skip
    if kind in "Mm":
        # str of the type: "datetime64[ns]", "timedelta64[25s]", "datetime64".
        unit = dtype.name.partition("[")[2].rstrip("]")
        arrow = {"s": "s", "ms": "m", "us": "u", "ns": "n"}.get(unit)
        if arrow:
            return f"ts{arrow}:" if kind == "M" else f"tD{arrow}"
    return None


_EPOCH = datetime.datetime(1970, 1, 1)
_EPOCH_DAY = datetime.date(1970, 1, 1).toordinal()


def python_value(format: str) -> Callable[[int], Any] | None:
    """Turns a stored integer into the value that Python has for it; ``None`` if it is the value.

    Times of day, timestamps and durations come as ``datetime`` has them, in microseconds; what
    lies between is cut off, as ``datetime`` cannot hold it. What lies outside ``datetime``'s years
    stays an integer.
    """
    if format == "tdD":
        return lambda day: _or_integer(lambda v: datetime.date.fromordinal(v + _EPOCH_DAY), day)
    if format == "tdm":
        return lambda ms: _or_integer(
            lambda v: datetime.date.fromordinal(v // 86_400_000 + _EPOCH_DAY), ms
        )
    if format.startswith("tt"):
        a_second = _UNITS_A_SECOND[format[2]]
        return lambda v: (_EPOCH + _microseconds(v, a_second)).time()
    if format.startswith("tD"):
        a_second = _UNITS_A_SECOND[format[2]]
        return lambda v: _or_integer(lambda w: _microseconds(w, a_second), v)
    if format.startswith("ts"):
        a_second = _UNITS_A_SECOND[format[2]]
        zone = _zone(format[4:])
        if zone is None:
            return lambda v: _or_integer(lambda w: _EPOCH + _microseconds(w, a_second), v)
        utc = _EPOCH.replace(tzinfo=datetime.timezone.utc)
        return lambda v: _or_integer(
            lambda w: (utc + _microseconds(w, a_second)).astimezone(zone), v
        )
    return None


def _microseconds(value: int, a_second: int) -> datetime.timedelta:
    return datetime.timedelta(microseconds=value * 1_000_000 // a_second)


def _or_integer(convert: Callable[[int], Any], value: int) -> Any:
    try:
        return convert(value)
    except (OverflowError, ValueError):
        return value


def _zone(name: str) -> datetime.tzinfo | None:
    if not name:
        return None
    if name[0] in "+-":
        hours, _, minutes = name[1:].partition(":")
        offset = datetime.timedelta(hours=int(hours), minutes=int(minutes or 0))
        return datetime.timezone(-offset if name[0] == "-" else offset)
    try:
        from zoneinfo import ZoneInfo

        return ZoneInfo(name)
    except (ImportError, KeyError, ValueError, OSError):  # no time zone data on this machine
        return datetime.timezone.utc


def python_decimal(unscaled: int, scale: int) -> decimal.Decimal:
    sign = 1 if unscaled < 0 else 0
    return decimal.Decimal((sign, tuple(map(int, str(abs(unscaled)))), -scale))
