"""Exact, reproducible statistics of tables, by groups, on all cores.

>>> import vask
>>> table = {"kind": ["a", "b", "a"], "v": [1.0, 2.5, 4.0]}
>>> vask.aggregate(table, "kind", total=("v", "sum"), mid=("v", "median")).to_pydict()
{'kind': ['a', 'b'], 'total': [5.0, 2.5], 'mid': [2.5, 2.5]}

:func:`aggregate` and :func:`group_by` take data frames, Arrow tables, arrays and files;
:func:`median` and its like take single columns. Results depend on the data alone: never on the
number of cores, on timing or on the machine.
"""

from __future__ import annotations

from . import _library
from ._aggregate import GroupBy, aggregate, group_by
from ._column import Column
from ._functions import describe_functions as functions
from ._result import Result
from ._whole import (
    all,
    any,
    corr,
    count,
    cov,
    first,
    intercept,
    is_in,
    last,
    max,
    mean,
    median,
    min,
    mode,
    nlargest,
    nunique,
    quantile,
    size,
    skew,
    slope,
    std,
    sum,
    var,
)
from .errors import (
    CancelledError,
    DataError,
    Error,
    InvalidTypeError,
    InvalidValueError,
    LibraryError,
    NotEnoughMemoryError,
    SumOverflowError,
    UnknownNameError,
)

#: The version of the library and of this package.
__version__ = _library.version()

__all__ = [
    "CancelledError",
    "Column",
    "DataError",
    "Error",
    "GroupBy",
    "InvalidTypeError",
    "InvalidValueError",
    "LibraryError",
    "NotEnoughMemoryError",
    "Result",
    "SumOverflowError",
    "UnknownNameError",
    "aggregate",
    "all",
    "any",
    "corr",
    "count",
    "cov",
    "first",
    "functions",
    "group_by",
    "intercept",
    "is_in",
    "last",
    "max",
    "mean",
    "median",
    "min",
    "mode",
    "nlargest",
    "nunique",
    "quantile",
    "size",
    "skew",
    "slope",
    "std",
    "sum",
    "var",
]
