"""The C library: where it is, its functions, and its codes as exceptions."""

from __future__ import annotations

import ctypes
import os
import re
from collections.abc import Sequence
from ctypes import (
    CFUNCTYPE,
    POINTER,
    Structure,
    byref,
    c_char_p,
    c_double,
    c_int,
    c_int32,
    c_int64,
    c_size_t,
    c_uint,
    c_void_p,
    sizeof,
)
from pathlib import Path
from typing import Any, Callable

from . import errors

__all__ = ["Aggregate", "Query", "library"]

OK = 0
BAD_REQUEST = 1
BAD_DATA = 2
NO_MEMORY = 3
CANCELLED = 4
FAILED = 5

KEEP_NULLS = 1
NAN_IS_NULL = 2
WIDE_SUMS = 4
SORT_GROUPS = 8
DROP_NULL_KEYS = 16
NAN_KEY_IS_NULL = 32
VALIDATE = 64


class Aggregate(Structure):
    _fields_ = [
        ("function", c_char_p),
        ("columns", c_char_p * 2),
        ("parameter", c_double),
        ("as_", c_char_p),
    ]


PROGRESS = CFUNCTYPE(c_int, c_void_p, c_double)
NOTE = CFUNCTYPE(None, c_void_p, c_char_p)


class Query(Structure):
    _fields_ = [
        ("size", c_size_t),
        ("aggregate_size", c_size_t),
        ("by", POINTER(c_char_p)),
        ("n_by", c_size_t),
        ("aggregates", POINTER(Aggregate)),
        ("n_aggregates", c_size_t),
        ("flags", c_uint),
        ("partitions", c_int),
        ("progress", PROGRESS),
        ("note", NOTE),
        ("context", c_void_p),
    ]


#: Names of functions, their arguments' types, and the type of what they give.
_TEXT = POINTER(c_char_p)
_HANDLE = POINTER(c_void_p)
_FUNCTIONS: dict[str, tuple[list[Any], Any]] = {
    "vask_table_from_stream": ([c_void_p, _HANDLE, _TEXT], c_int),
    "vask_table_new": ([_HANDLE, _TEXT], c_int),
    "vask_table_add_arrow": ([c_void_p, c_char_p, c_void_p, c_void_p, _TEXT], c_int),
    "vask_table_add_values": (
        [
            c_void_p, c_char_p, c_char_p, c_int64, c_void_p, c_void_p, c_int64, c_void_p,
            c_void_p, _TEXT,
        ],
        c_int,
    ),
    "vask_table_rows": ([c_void_p], c_int64),
    "vask_table_free": ([c_void_p], None),
    "vask_functions": ([], c_char_p),
    "vask_run": ([c_void_p, POINTER(Query), _HANDLE, _TEXT], c_int),
    "vask_partial": ([c_void_p, POINTER(Query), _HANDLE, _TEXT], c_int),
    "vask_merge": ([_HANDLE, c_size_t, POINTER(Query), c_int, _HANDLE, _TEXT], c_int),
    "vask_group_codes": (
        [c_void_p, POINTER(Query), POINTER(c_int32), POINTER(c_int64), _TEXT],
        c_int,
    ),
    "vask_is_in": ([c_void_p, c_char_p, c_void_p, c_char_p, POINTER(Query), _HANDLE, _TEXT], c_int),
    "vask_result_rows": ([c_void_p], c_int64),
    "vask_result_stream": ([c_void_p, c_void_p, _TEXT], c_int),
    "vask_result_free": ([c_void_p], None),
    "vask_free_text": ([c_void_p], None),
    "vask_version": ([], c_char_p),
}  # fmt: skip


def _candidates() -> list[Path]:
    """The library of the wheel; the variable VASK_LIBRARY names another one, for development."""
    named = os.environ.get("VASK_LIBRARY")
    if named:
        return [Path(named)]
    here = Path(__file__).resolve().parent
    return [here / "lib" / "libvask.so.0"]


def _load() -> ctypes.CDLL:
    tried = _candidates()
    for path in tried:
        if path.exists():
            try:
                # A CDLL lets go of the interpreter's lock during each call.
                loaded = ctypes.CDLL(str(path))
            except OSError as failure:
                raise errors.LibraryError(f"{path} could not be loaded: {failure}") from failure
            for name, (arguments, result) in _FUNCTIONS.items():
                function = getattr(loaded, name)
                function.argtypes = arguments
                function.restype = result
            return loaded
    places = " and ".join(str(path) for path in tried)
    raise errors.LibraryError(f"the library is not at {places}; install the package's wheel")


library = _load()


def version() -> str:
    text: bytes = library.vask_version()
    return text.decode()


def functions() -> list[list[str]]:
    """The library's functions: name, columns, parameter, types of values, type of the result,
    and what it gives."""
    text: bytes = library.vask_functions()
    return [line.split("\t") for line in text.decode().splitlines() if line]


def name_bytes(name: str) -> bytes:
    encoded = name.encode()
    if b"\0" in encoded:
        raise errors.InvalidValueError(f"a column's name cannot hold the character NUL: {name!r}")
    return encoded


def exception_of(code: int, text: str) -> errors.Error:
    """The exception that a code and its text mean."""
    if code == NO_MEMORY:
        return errors.NotEnoughMemoryError(text)
    if code == CANCELLED:
        return errors.CancelledError(text)
    if code == BAD_DATA:
        if re.search(r"64 bits", text):
            return errors.SumOverflowError(text)
        return errors.DataError(text)
    if code == BAD_REQUEST:
        return errors.InvalidValueError(text)
    return errors.LibraryError(text)


def checked(function: Callable[..., int], *arguments: Any) -> None:
    """Calls a function whose last argument takes an error's text, and raises what it reports."""
    error = c_char_p()
    code = function(*arguments, byref(error))
    if code == OK:
        return
    text = error.value.decode(errors="replace") if error.value else f"the library gave code {code}"
    library.vask_free_text(error)
    # What to do, in this language.
    text = text.replace("VASK_WIDE_SUMS", "wide_sums=True")
    raise exception_of(code, text.replace("VASK_NAN_IS_NULL", "nan_is_null=True"))


def names_array(names: Sequence[str]) -> Any:
    return (c_char_p * max(len(names), 1))(*map(name_bytes, names))


def new_query() -> Query:
    query = Query()
    query.size = sizeof(Query)
    query.aggregate_size = sizeof(Aggregate)
    return query
