"""What goes wrong, as exceptions.

Every exception of this package is a :class:`Error`, and also the built-in one that
such a mistake raises elsewhere, so both ``except vask.Error`` and
``except KeyError`` catch an unknown column.
"""

from __future__ import annotations

import difflib
from collections.abc import Iterable

__all__ = [
    "CancelledError",
    "DataError",
    "Error",
    "InvalidTypeError",
    "InvalidValueError",
    "LibraryError",
    "NotEnoughMemoryError",
    "SumOverflowError",
    "UnknownNameError",
]


class Error(Exception):
    """The base of all exceptions of this package."""


class UnknownNameError(Error, KeyError):
    """No column or no function has this name. The text tells the nearest name."""

    def __str__(self) -> str:
        # KeyError shows the repr of its argument, which makes sentences hard to read.
        return str(self.args[0]) if self.args else ""


class InvalidTypeError(Error, TypeError):
    """A column has a type that the function does not take, or an argument a wrong one."""


class InvalidValueError(Error, ValueError):
    """An argument is out of bounds, or arguments do not go together."""


class DataError(Error, ValueError):
    """The data cannot be aggregated: malformed arrays, a NaN in an order statistic."""


class SumOverflowError(DataError, OverflowError):
    """A sum of integers leaves 64 bits. The text names the group."""


class NotEnoughMemoryError(Error, MemoryError):
    """There is not enough memory for the call. The data are as they were."""


class CancelledError(Error):
    """The call was stopped before it had a result."""


class LibraryError(Error, RuntimeError):
    """A producer of Arrow data failed, or the library could not be loaded or has a fault."""


def nearest(name: str, known: Iterable[str]) -> str:
    """A sentence that ends in the name that was probably meant, or the known ones."""
    names = [str(other) for other in known]
    folded = [other for other in names if other.casefold() == name.casefold()]
    close = folded or difflib.get_close_matches(name, names, n=1, cutoff=0.5)
    if close:
        return f"did you mean {close[0]!r}?"
    if not names:
        return "there are none."
    shown = ", ".join(repr(other) for other in names[:20])
    return f"there are {shown}{', ...' if len(names) > 20 else '.'}"
