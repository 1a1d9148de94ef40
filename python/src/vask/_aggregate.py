"""Aggregates of a table, whole or by groups."""

from __future__ import annotations

from collections.abc import Mapping
from ctypes import POINTER, byref, c_int32, c_int64, cast
from typing import TYPE_CHECKING, Any, Optional, Union

from . import _library
from ._calls import run_query
from ._functions import Aggregation, Selector
from ._progress import Progress
from ._query import Options, Query, column_list, on
from ._result import Result
from ._table import source_of
from .errors import InvalidValueError

if TYPE_CHECKING:
    import numpy

__all__ = ["GroupBy", "aggregate", "group_by"]

By = Union[None, str, "list[str]", "tuple[str, ...]"]


def aggregate(
    data: Any,
    by: By = None,
    *,
    results: Optional[Mapping[str, Aggregation]] = None,
    dropna: bool = False,
    skipna: bool = True,
    nan_is_null: bool = False,
    sort: bool = False,
    observed: bool = True,
    ddof: int = 1,
    interpolation: str = "linear",
    wide_sums: bool = False,
    partitions: int = 0,
    progress: Union[bool, Progress] = False,
    explain: bool = False,
    validate: bool = False,
    **named: Aggregation,
) -> Result:
    """Aggregates the columns of a table, whole or by groups.

    >>> import vask
    >>> table = {"kind": ["a", "b", "a"], "v": [1, 2, 4]}
    >>> result = vask.aggregate(table, "kind", total=("v", "sum"), mid=("v", "median"))
    >>> result.to_pydict()
    {'kind': ['a', 'b'], 'total': [5, 2], 'mid': [2.5, 2.0]}

    Args:
        data: a PyArrow table or batch, a Polars frame, a pandas frame, a DuckDB relation, anything
            else with the Arrow PyCapsule interface, a mapping from names to arrays or lists, or the
            path of a Parquet or CSV file (or a folder of them), which PyArrow reads by parts.
        by: the column or columns whose values make the groups; none for one group of all rows.
        named: a result's name with ``(column, function, *parameters)``, as in
            ``p90=("v3", "quantile", 0.9)``. Functions of two columns take a pair, as in
            ``r=(("v1", "v2"), "corr")``. A list of columns, or :func:`vask.all`, makes a result of
            each, as in ``mean_v1``; so do a list of quantiles, and ``nlargest``. ``"size"`` needs
            no column. :func:`vask.functions` lists the functions.
        results: the same as a mapping, for names that are also options.
        dropna: leaves out rows with a null or NaN key, which make a group each otherwise.
        skipna: passes over nulls. If ``False``, one null makes an aggregate of its group null,
            counts excepted.
        nan_is_null: takes NaN for null, which is so for pandas frames in any case. Otherwise a NaN
            is a value: sums and moments with it are NaN, and order statistics refuse it.
        sort: puts groups in ascending order of their keys, nulls last. Otherwise they are in the
            order of their first rows.
        observed: lists the categories that occur. That is the only way; ``False`` is refused.
        ddof: 1 for a sample's ``std``, ``var`` and ``cov``, 0 for a population's.
        interpolation: how a quantile between two values is made. ``"linear"`` is the only way.
        wide_sums: gives sums of integers as decimals of 38 digits. Otherwise they have 64 bits, and
            a sum that leaves them is an error.
        partitions: how many partitions rows are cut into; 0 for a fixed default. Sums of floats
            depend on it in their last digits, and on nothing else: neither the machine nor the
            number of cores.
        progress: shows a bar, or calls a function with the share that is done.
        explain: prints what was copied and which ways were taken to standard error.
        validate: checks Arrow data in full before they are read: that texts are UTF-8, offsets
            under nulls too, all entries of dictionaries, the number of nulls. Otherwise only that
            is checked which keeps reads within what the arrays say they have.

    Returns:
        A :class:`Result`: one row for each group, keys first; without ``by`` one row.

    Raises:
        UnknownNameError: a ``KeyError``, for a column or function that there is not.
        InvalidTypeError: a ``TypeError``, for a column of a type that the function does not take.
        InvalidValueError: a ``ValueError``, for a parameter out of bounds.
        SumOverflowError: an ``OverflowError``, for a sum that leaves 64 bits.
        DataError: a ``ValueError``, for values without an answer, such as a NaN in a median.

    Other threads run meanwhile, and may use the same data. The data must not be changed until the
    call is over. Ctrl-C stops it.
    """
    _check_fixed(observed, interpolation)
    query = Query(
        source_of(data),
        column_list(by),
        Options(
            dropna,
            skipna,
            nan_is_null,
            sort,
            wide_sums,
            ddof,
            partitions,
            progress,
            explain,
            validate,
        ),
    )
    for name, aggregation in [*(results or {}).items(), *named.items()]:
        query.add(name, aggregation)
    return query.run()


def _check_fixed(observed: bool, interpolation: str) -> None:
    if observed is not True:
        raise InvalidValueError(
            "observed is True: categories without rows make no groups; "
            "reindex the result to list them"
        )
    if interpolation != "linear":
        raise InvalidValueError(f'interpolation is "linear", not {interpolation!r}')


def group_by(
    data: Any,
    by: By,
    *,
    dropna: bool = False,
    skipna: bool = True,
    nan_is_null: bool = False,
    sort: bool = False,
    observed: bool = True,
    wide_sums: bool = False,
    partitions: int = 0,
    progress: Union[bool, Progress] = False,
    explain: bool = False,
    validate: bool = False,
) -> GroupBy:
    """Groups the rows of a table, to be aggregated later.

    >>> import vask
    >>> groups = vask.group_by({"kind": ["a", "b", "a"], "v": [1, 2, 4]}, "kind")
    >>> groups.max("v").to_pydict()
    {'kind': ['a', 'b'], 'v': [4, 2]}
    >>> groups.codes.tolist(), groups.first_rows.tolist()
    ([0, 1, 0], [0, 1])

    The arguments are those of :func:`aggregate`. Nothing is computed before an aggregate is asked
    for, and each call reads the data as they are then.
    """
    _check_fixed(observed, "linear")
    keys = column_list(by)
    if not keys:
        raise InvalidValueError("name one key at least; without keys there is vask.aggregate")
    options = Options(
        dropna, skipna, nan_is_null, sort, wide_sums, 1, partitions, progress, explain, validate
    )
    return GroupBy(data, keys, options)


class GroupBy:
    """The groups of a table's rows. :func:`group_by` makes them."""

    def __init__(self, data: Any, by: list[str], options: Options) -> None:
        self._source = source_of(data)
        self._by = by
        self._options = options
        self._source.check(by)

    @property
    def by(self) -> list[str]:
        """The names of the keys."""
        return list(self._by)

    def __repr__(self) -> str:
        return f"<vask.GroupBy by {', '.join(map(repr, self._by))}>"

    def agg(
        self,
        *aggregations: Any,
        results: Optional[Mapping[str, Aggregation]] = None,
        **named: Aggregation,
    ) -> Result:
        """Aggregates of the groups.

        >>> import vask
        >>> groups = vask.group_by({"kind": ["a", "b", "a"], "v": [1, 2, 4]}, "kind")
        >>> groups.agg(total=("v", "sum"), rows="size").to_pydict()
        {'kind': ['a', 'b'], 'total': [5, 2], 'rows': [2, 1]}
        >>> groups.agg({"v": ["min", "max"]}).columns
        ['kind', 'v_min', 'v_max']

        Args:
            aggregations: mappings from columns to a function or a list of functions, as pandas
                takes them; names of functions, for all columns; tuples as in :func:`aggregate`,
                which are then called after function and column.
            named, results: as in :func:`aggregate`.
        """
        query = self._query()
        for aggregation in aggregations:
            if isinstance(aggregation, Mapping):
                for column, functions in aggregation.items():
                    if isinstance(functions, (list, tuple)):
                        for function in functions:
                            query.add(f"{column}_{function}", (column, function))
                    else:
                        query.add(column, (column, functions))
            elif isinstance(aggregation, str) and aggregation not in ("size", "len", "first_row"):
                self._add_each(query, aggregation, None, ())
            elif isinstance(aggregation, list):
                for column in self._others():
                    for function in aggregation:
                        query.add(f"{column}_{function}", (column, function))
            else:
                query.add(aggregation if isinstance(aggregation, str) else None, aggregation)
        for name, one in [*(results or {}).items(), *named.items()]:
            query.add(name, one)
        return query.run()

    aggregate = agg

    def _query(self) -> Query:
        return Query(self._source, list(self._by), self._options)

    def _others(self) -> list[str]:
        return [name for name in self._source.names if name not in self._by]

    def _add_each(self, query: Query, function: str, columns: Any, parameters: Any) -> None:
        """A function of each column, with the columns' names for the results."""
        if columns is None:
            columns = Selector()
        if isinstance(columns, Selector):
            types = self._source.table(self._source.names).types if columns.numeric else {}
            columns = [
                name
                for name in self._others()
                if name not in columns.exclude
                and (not columns.numeric or types[name].kind in ("integer", "float", "decimal"))
            ]
        for column in [columns] if isinstance(columns, str) else columns:
            if column in self._by:
                raise InvalidValueError(
                    f"{column!r} is a key, and so is the name of a column of the result; give the "
                    f"{function} a name of its own, as in agg(name=({column!r}, {function!r}))"
                )
            query.add(column, (column, function, *parameters))

    def _each(self, function: str, columns: Any, *parameters: Any) -> Result:
        query = self._query()
        self._add_each(query, function, columns, parameters)
        return query.run()

    def _pair(self, function: str, x: str, y: str, *parameters: Any) -> Result:
        query = self._query()
        query.add(function, ((x, y), function, *parameters))
        return query.run()

    def size(self) -> Result:
        """The number of rows of each group, as ``size``."""
        return self.agg(size="size")

    def count(self, columns: Any = None) -> Result:
        """The number of values that are not null; of all columns unless some are named."""
        return self._each("count", columns)

    def sum(self, columns: Any = None) -> Result:
        """Sums; exact for integers and decimals."""
        return self._each("sum", columns)

    def mean(self, columns: Any = None) -> Result:
        """Means."""
        return self._each("mean", columns)

    def min(self, columns: Any = None) -> Result:
        """Least values, of texts by their bytes."""
        return self._each("min", columns)

    def max(self, columns: Any = None) -> Result:
        """Greatest values, of texts by their bytes."""
        return self._each("max", columns)

    def median(self, columns: Any = None) -> Result:
        """Medians, between two values their mean."""
        return self._each("median", columns)

    def quantile(self, columns: Any = None, q: Any = 0.5, interpolation: str = "linear") -> Result:
        """Quantiles, interpolated linearly; a list of fractions gives a column for each."""
        _check_fixed(True, interpolation)
        return self._each("quantile", columns, q)

    def std(self, columns: Any = None, ddof: int = 1) -> Result:
        """Standard deviations; null for groups of one value unless ``ddof`` is 0."""
        return self._each("std", columns, ddof)

    def var(self, columns: Any = None, ddof: int = 1) -> Result:
        """Variances; null for groups of one value unless ``ddof`` is 0."""
        return self._each("var", columns, ddof)

    def skew(self, columns: Any = None) -> Result:
        """Skewness of a sample; null for groups of fewer than three values."""
        return self._each("skew", columns)

    def nunique(self, columns: Any = None) -> Result:
        """The number of different values, nulls not counted."""
        return self._each("nunique", columns)

    def mode(self, columns: Any = None) -> Result:
        """The most frequent value, the smallest of several; null if none occurs twice."""
        return self._each("mode", columns)

    def nlargest(self, columns: Any = None, n: int = 5) -> Result:
        """The ``n`` largest values in columns of their own, as ``v_1`` to ``v_5``."""
        return self._each("nlargest", columns, n)

    def first(self, columns: Any = None) -> Result:
        """The first value that is not null."""
        return self._each("first", columns)

    def last(self, columns: Any = None) -> Result:
        """The last value that is not null."""
        return self._each("last", columns)

    def any(self, columns: Any = None) -> Result:
        """Whether some value is not 0."""
        return self._each("any", columns)

    def all(self, columns: Any = None) -> Result:
        """Whether no value is 0."""
        return self._each("all", columns)

    def corr(self, x: str, y: str) -> Result:
        """Pearson's correlation of two columns, as ``corr``."""
        return self._pair("corr", x, y)

    def cov(self, x: str, y: str, ddof: int = 1) -> Result:
        """Covariance of two columns, as ``cov``."""
        return self._pair("cov", x, y, ddof)

    def slope(self, y: str, x: str) -> Result:
        """Slope of the least-squares line that gives ``y`` from ``x``, as ``slope``."""
        return self._pair("slope", y, x)

    def intercept(self, y: str, x: str) -> Result:
        """That line's value at 0, as ``intercept``."""
        return self._pair("intercept", y, x)

    @property
    def keys(self) -> Result:
        """The keys of the groups."""
        return self._query().run()

    def __len__(self) -> int:
        """The number of groups."""
        return len(self.keys)

    @property
    def codes(self) -> numpy.ndarray[Any, Any]:
        """The group of each row as int32: its row in the results, from 0; -1 for rows that
        ``dropna`` leaves out. Needs NumPy."""
        import numpy

        table = self._source.table(self._by)
        codes = numpy.empty(table.rows, dtype=numpy.int32)
        groups = c_int64()
        query, kept = self._query().structure(table, [])
        run_query(
            on(
                _library.library.vask_group_codes,
                table.handle,
                byref(query),
                cast(codes.ctypes.data, POINTER(c_int32)),
                byref(groups),
                keep=(table, codes, kept),
            ),
            query,
            table.rows,
            False,
            lambda: None,
        )
        return codes

    @property
    def first_rows(self) -> numpy.ndarray[Any, Any]:
        """The number of each group's first row, from 0, as int64, in the order of the results.
        Needs NumPy."""
        return self.agg(first_row="first_row")["first_row"].to_numpy()
