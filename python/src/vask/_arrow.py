"""The Arrow C data and stream interfaces, and their PyCapsules, by ctypes alone."""

from __future__ import annotations

import ctypes
import errno
import sys
from ctypes import POINTER, Structure, addressof, byref, c_char_p, c_int, c_int64, c_void_p
from typing import Any, Callable

from .errors import NotEnoughMemoryError

__all__ = [
    "ArrowArray",
    "ArrowArrayStream",
    "ArrowSchema",
    "Record",
    "array_capsules",
    "capsule_of",
    "release",
    "stream_capsule",
    "stream_of",
    "struct_pointer",
]


class ArrowSchema(Structure):
    pass


class ArrowArray(Structure):
    pass


class ArrowArrayStream(Structure):
    pass


# Function pointers are plain addresses here: they are tested, set to null and passed on more
# often than called.
ArrowSchema._fields_ = [
    ("format", c_char_p),
    ("name", c_char_p),
    ("metadata", c_void_p),
    ("flags", c_int64),
    ("n_children", c_int64),
    ("children", POINTER(POINTER(ArrowSchema))),
    ("dictionary", POINTER(ArrowSchema)),
    ("release", c_void_p),
    ("private_data", c_void_p),
]
ArrowArray._fields_ = [
    ("length", c_int64),
    ("null_count", c_int64),
    ("offset", c_int64),
    ("n_buffers", c_int64),
    ("n_children", c_int64),
    ("buffers", POINTER(c_void_p)),
    ("children", POINTER(POINTER(ArrowArray))),
    ("dictionary", POINTER(ArrowArray)),
    ("release", c_void_p),
    ("private_data", c_void_p),
]
ArrowArrayStream._fields_ = [
    ("get_schema", c_void_p),
    ("get_next", c_void_p),
    ("get_last_error", c_void_p),
    ("release", c_void_p),
    ("private_data", c_void_p),
]

#: One of the three records of the interface.
Record = Structure

FLAG_DICTIONARY_ORDERED = 1
FLAG_NULLABLE = 2

_RELEASE = ctypes.CFUNCTYPE(None, c_void_p)
_GET_SCHEMA = ctypes.CFUNCTYPE(c_int, c_void_p, c_void_p)
_GET_NEXT = ctypes.CFUNCTYPE(c_int, c_void_p, c_void_p)
_GET_LAST_ERROR = ctypes.CFUNCTYPE(c_char_p, c_void_p)

SCHEMA_CAPSULE = b"arrow_schema"
ARRAY_CAPSULE = b"arrow_array"
STREAM_CAPSULE = b"arrow_array_stream"

_python = ctypes.pythonapi
_python.PyCapsule_New.restype = ctypes.py_object
_python.PyCapsule_New.argtypes = [c_void_p, c_char_p, c_void_p]
_python.PyCapsule_GetPointer.restype = c_void_p
_python.PyCapsule_GetPointer.argtypes = [ctypes.py_object, c_char_p]
# The same function for a destructor, where the capsule has no reference left to count.
_pointer_of_dying = ctypes.PYFUNCTYPE(c_void_p, c_void_p, c_char_p)(
    ("PyCapsule_GetPointer", _python)
)


def release(record: Record) -> None:
    """Releases a record unless it is released or was moved out of."""
    address = record.release
    if address:
        _RELEASE(address)(addressof(record))


def struct_pointer(capsule: object, name: bytes) -> int:
    """The record in a capsule. The capsule goes on owning what is not moved out."""
    pointer: int | None = _python.PyCapsule_GetPointer(capsule, name)
    assert pointer is not None  # ctypes has raised the interpreter's ValueError otherwise
    return pointer


def stream_of(capsule: object) -> ArrowArrayStream:
    """The stream in a capsule, which has to be held while the stream is used."""
    return ArrowArrayStream.from_address(struct_pointer(capsule, STREAM_CAPSULE))


# Records that capsules own, by address, with what has to live as long as they do.
_owned: dict[int, tuple[Record, object]] = {}


def _take_exception_functions() -> tuple[Callable[[], Any], Callable[[Any], None]]:
    """A pair of functions: sets the interpreter's current exception aside, brings it back.

    A capsule often dies while an exception unwinds the frame that held it, and Python code must
    not run with an exception set.
    """
    if sys.version_info >= (3, 12):
        take = ctypes.PYFUNCTYPE(c_void_p)(("PyErr_GetRaisedException", _python))
        bring = ctypes.PYFUNCTYPE(None, c_void_p)(("PyErr_SetRaisedException", _python))
        return take, bring
    # Arguments that stand ready: making them would already be Python code.
    slots = (c_void_p * 3)()
    arguments = tuple(c_void_p(addressof(slots) + i * ctypes.sizeof(c_void_p)) for i in range(3))
    fetch = ctypes.PYFUNCTYPE(None, c_void_p, c_void_p, c_void_p)(("PyErr_Fetch", _python))
    restore = ctypes.PYFUNCTYPE(None, c_void_p, c_void_p, c_void_p)(("PyErr_Restore", _python))

    def take_three() -> tuple[int | None, int | None, int | None]:
        fetch(*arguments)
        return slots[0], slots[1], slots[2]

    def bring_three(saved: tuple[int | None, int | None, int | None]) -> None:
        restore(*saved)

    return take_three, bring_three


_take_exception, _bring_exception = _take_exception_functions()


def _destructor(name: bytes) -> Any:
    def destroy(
        capsule: int,
        take: Callable[[], Any] = _take_exception,
        bring: Callable[[Any], None] = _bring_exception,
        pointer_of: Any = _pointer_of_dying,
        owned: dict[int, tuple[Record, object]] = _owned,
        release_record: Callable[[Record], None] = release,
    ) -> None:
        # Everything comes in as defaults: a capsule may die when modules are already torn down.
        raised = take()
        record, _owner = owned.pop(pointer_of(capsule, name))
        release_record(record)
        bring(raised)

    return ctypes.PYFUNCTYPE(None, c_void_p)(destroy)


_destructors = {name: _destructor(name) for name in (SCHEMA_CAPSULE, ARRAY_CAPSULE, STREAM_CAPSULE)}


def capsule_of(record: Record, name: bytes, owner: object = None) -> object:
    """A capsule that owns a record: releases it at its end, if nobody moved out of it."""
    address = addressof(record)
    _owned[address] = (record, owner)
    try:
        return _python.PyCapsule_New(address, name, ctypes.cast(_destructors[name], c_void_p).value)
    except BaseException:
        del _owned[address]
        raise


def move(source: Record, target: Record) -> None:
    """Moves a record: the source then counts as released."""
    ctypes.memmove(byref(target), byref(source), ctypes.sizeof(source))
    source.release = None


# ---- producers and consumers of releases that do not have the PyCapsule interface yet -----------


def stream_capsule(data: Any) -> object:
    """The stream of a table, of a release that gives PyArrow's tables alone through those."""
    if hasattr(data, "__arrow_c_stream__"):
        capsule: object = data.__arrow_c_stream__()
        return capsule
    for name in ("to_arrow", "arrow", "to_reader"):  # Polars, DuckDB, PyArrow's tables
        if hasattr(data, name):
            return stream_capsule(getattr(data, name)())
    stream = ArrowArrayStream()
    data._export_to_c(addressof(stream))
    return capsule_of(stream, STREAM_CAPSULE)


def array_capsules(data: Any) -> tuple[object, object]:
    """The schema and the array of a column, of an old release of PyArrow by its own export."""
    if hasattr(data, "__arrow_c_array__"):
        capsules: tuple[object, object] = data.__arrow_c_array__()
        return capsules
    schema, array = ArrowSchema(), ArrowArray()
    data._export_to_c(addressof(array), addressof(schema))
    return capsule_of(schema, SCHEMA_CAPSULE), capsule_of(array, ARRAY_CAPSULE)


def _stream_failure(code: int, stream: ArrowArrayStream) -> Exception:
    text = stream_error(stream)
    return NotEnoughMemoryError(text) if code == errno.ENOMEM else OSError(code, text)


def stream_schema(stream: ArrowArrayStream) -> ArrowSchema:
    """The schema of a stream, which the caller releases.

    OSError with the producer's text, and NotEnoughMemoryError where it had no memory.
    """
    schema = ArrowSchema()
    code = _GET_SCHEMA(stream.get_schema)(addressof(stream), addressof(schema))
    if code:
        raise _stream_failure(code, stream)
    return schema


def stream_next(stream: ArrowArrayStream) -> ArrowArray:
    """The next array of a stream, which the caller releases; a released one at the end."""
    array = ArrowArray()
    code = _GET_NEXT(stream.get_next)(addressof(stream), addressof(array))
    if code:
        raise _stream_failure(code, stream)
    return array


def stream_error(stream: ArrowArrayStream) -> str:
    text = _GET_LAST_ERROR(stream.get_last_error)(addressof(stream))
    return text.decode(errors="replace") if text else "the producer gives no reason"
