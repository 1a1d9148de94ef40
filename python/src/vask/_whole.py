"""Aggregates of single columns: ``vask.median(x)``."""

from __future__ import annotations

from ctypes import byref, c_void_p
from typing import Any, Optional, Union, overload

from . import _library
from ._calls import run_query
from ._column import Column
from ._functions import Selector
from ._query import Options, Query, on
from ._result import Result
from ._table import MappingSource, NativeTable, add_column

# `all`, `any`, `max`, `min` and `sum` are functions of this module, not the built-in ones.


def _options(skipna: bool, nan_is_null: bool) -> Options:
    return Options(skipna=skipna, nan_is_null=nan_is_null)


def _ask(
    function: str, columns: dict[str, Any], parameters: tuple[Any, ...], options: Options
) -> list[Any]:
    """The values of a function of whole columns: one, or one for each parameter."""
    query = Query(MappingSource(columns), [], options)
    names = tuple(columns)
    query.add("value", (names if len(names) > 1 else names[0], function, *parameters))
    result = query.run()
    return [result[name][0] for name in result]


def sum(x: Any, *, skipna: bool = True, nan_is_null: bool = False, wide_sums: bool = False) -> Any:
    """The sum of a column; ``None`` of no values.

    Args:
        x: an array of NumPy or Arrow, a series, or a sequence of Python's values.
        skipna: passes over nulls; if ``False``, one null makes the result ``None``.
        nan_is_null: takes NaN for null, which is so for pandas' series in any case.
        wide_sums: gives a ``Decimal`` of up to 38 digits for integers.

    Returns:
        A number, or ``None`` where there is no value.

    The other functions of this module take the same arguments, and raise what
    :func:`vask.aggregate` raises.
    """
    options = Options(skipna=skipna, nan_is_null=nan_is_null, wide_sums=wide_sums)
    return _ask("sum", {"x": x}, (), options)[0]


def mean(x: Any, *, skipna: bool = True, nan_is_null: bool = False) -> Any:
    """The mean of a column."""
    return _ask("mean", {"x": x}, (), _options(skipna, nan_is_null))[0]


def count(x: Any, *, nan_is_null: bool = False) -> int:
    """The number of values that are not null."""
    counted: int = _ask("count", {"x": x}, (), _options(True, nan_is_null))[0]
    return counted


def size(x: Any) -> int:
    """The number of values, nulls and all."""
    counted: int = _ask("size", {"x": x}, (), Options())[0]
    return counted


def min(x: Any, *, skipna: bool = True, nan_is_null: bool = False) -> Any:
    """The least value of a column, of texts by their bytes."""
    return _ask("min", {"x": x}, (), _options(skipna, nan_is_null))[0]


def max(x: Any, *, skipna: bool = True, nan_is_null: bool = False) -> Any:
    """The greatest value of a column, of texts by their bytes."""
    return _ask("max", {"x": x}, (), _options(skipna, nan_is_null))[0]


def median(x: Any, *, skipna: bool = True, nan_is_null: bool = False) -> Any:
    """The median of a column, between two values their mean."""
    return _ask("median", {"x": x}, (), _options(skipna, nan_is_null))[0]


def quantile(
    x: Any,
    q: Any = 0.5,
    *,
    skipna: bool = True,
    nan_is_null: bool = False,
    interpolation: str = "linear",
) -> Any:
    """The value at a fraction of a column's order, interpolated linearly.

    A list of fractions gives a list, at the price of one selection.
    """
    from ._aggregate import _check_fixed

    _check_fixed(True, interpolation)
    several = isinstance(q, (list, tuple)) or getattr(q, "ndim", 0) > 0
    values = _ask("quantile", {"x": x}, (list(q) if several else q,), _options(skipna, nan_is_null))
    return values if several else values[0]


def std(x: Any, ddof: int = 1, *, skipna: bool = True, nan_is_null: bool = False) -> Any:
    """The standard deviation of a column."""
    return _ask("std", {"x": x}, (ddof,), _options(skipna, nan_is_null))[0]


def var(x: Any, ddof: int = 1, *, skipna: bool = True, nan_is_null: bool = False) -> Any:
    """The variance of a column."""
    return _ask("var", {"x": x}, (ddof,), _options(skipna, nan_is_null))[0]


def skew(x: Any, *, skipna: bool = True, nan_is_null: bool = False) -> Any:
    """The skewness of a sample."""
    return _ask("skew", {"x": x}, (), _options(skipna, nan_is_null))[0]


def corr(x: Any, y: Any, *, skipna: bool = True, nan_is_null: bool = False) -> Any:
    """Pearson's correlation of two columns, over the rows in which both have a value."""
    return _ask("corr", {"x": x, "y": y}, (), _options(skipna, nan_is_null))[0]


def cov(x: Any, y: Any, ddof: int = 1, *, skipna: bool = True, nan_is_null: bool = False) -> Any:
    """The covariance of two columns, over the rows in which both have a value."""
    return _ask("cov", {"x": x, "y": y}, (ddof,), _options(skipna, nan_is_null))[0]


def slope(y: Any, x: Any, *, skipna: bool = True, nan_is_null: bool = False) -> Any:
    """The slope of the least-squares line that gives ``y`` from ``x``."""
    return _ask("slope", {"y": y, "x": x}, (), _options(skipna, nan_is_null))[0]


def intercept(y: Any, x: Any, *, skipna: bool = True, nan_is_null: bool = False) -> Any:
    """That line's value at 0."""
    return _ask("intercept", {"y": y, "x": x}, (), _options(skipna, nan_is_null))[0]


def first(x: Any, *, nan_is_null: bool = False) -> Any:
    """The first value that is not null."""
    return _ask("first", {"x": x}, (), _options(True, nan_is_null))[0]


def last(x: Any, *, nan_is_null: bool = False) -> Any:
    """The last value that is not null."""
    return _ask("last", {"x": x}, (), _options(True, nan_is_null))[0]


def nunique(x: Any, *, nan_is_null: bool = False) -> int:
    """The number of different values, nulls not counted; all NaNs are one value."""
    counted: int = _ask("nunique", {"x": x}, (), _options(True, nan_is_null))[0]
    return counted


def mode(x: Any, *, skipna: bool = True, nan_is_null: bool = False) -> Any:
    """The most frequent value, the smallest of several; ``None`` if none occurs twice."""
    return _ask("mode", {"x": x}, (), _options(skipna, nan_is_null))[0]


def nlargest(x: Any, n: int = 5, *, nan_is_null: bool = False) -> list[Any]:
    """The ``n`` largest values, the largest first; fewer if there are not so many."""
    values = _ask("nlargest", {"x": x}, (n,), _options(True, nan_is_null))
    return [value for value in values if value is not None]


def any(x: Any, *, skipna: bool = True, nan_is_null: bool = False) -> Optional[bool]:
    """Whether some value is not 0."""
    truth: Optional[bool] = _ask("any", {"x": x}, (), _options(skipna, nan_is_null))[0]
    return truth


_NOTHING = object()


@overload
def all(
    *, exclude: Union[str, list[str], tuple[str, ...]] = (), numeric: bool = False
) -> Selector: ...


@overload
def all(x: Any, *, skipna: bool = True, nan_is_null: bool = False) -> Optional[bool]: ...


def all(
    x: Any = _NOTHING,
    *,
    skipna: bool = True,
    nan_is_null: bool = False,
    exclude: Union[str, list[str], tuple[str, ...]] = (),
    numeric: bool = False,
) -> Union[Selector, Optional[bool]]:
    """Whether no value of a column is 0; without a column, all columns that are no keys.

    ``vask.aggregate(table, "k", m=(vask.all(), "mean"))`` makes a result of each column.

    Args:
        exclude: a column or several that are not meant.
        numeric: means columns of numbers and booleans alone.
    """
    if x is _NOTHING:
        return Selector(exclude, numeric)
    truth: Optional[bool] = _ask("all", {"x": x}, (), _options(skipna, nan_is_null))[0]
    return truth


def is_in(values: Any, among: Any) -> Column:
    """Whether each value of a column occurs among those of another.

    Numbers are compared by value whatever their types, texts with texts. A null is in nothing: its
    row is null.

    Returns:
        A column of booleans, as long as ``values``.
    """
    tables = []
    for column in (values, among):
        table = NativeTable.new()
        add_column(table, "x", column)
        tables.append(table)
    handle = c_void_p()
    query = _library.new_query()
    run_query(
        on(
            _library.library.vask_is_in,
            tables[0].handle,
            b"x",
            tables[1].handle,
            b"x",
            byref(query),
            byref(handle),
            keep=tables,
        ),
        query,
        tables[0].rows + tables[1].rows,
        False,
        lambda: _library.library.vask_result_free(handle),
    )
    return Result(handle, [*tables[0].notes, *tables[1].notes])["contained"]
