"""The aggregates of :mod:`vask` on Dask's data frames.

Each worker makes states of its partitions, which are merged as a tree; only states travel. Medians
and their like have no state of fixed size: their rows go through Dask's own shuffle to the worker
that owns their key, and are computed there exactly. Scheduling, retries and transport are Dask's.
"""

from __future__ import annotations

from collections.abc import Mapping
from typing import Any, Optional

import dask.dataframe as dd
import numpy
import pandas
import pyarrow
from dask.delayed import delayed

from ._functions import Aggregation
from ._plan import Plan, plan_of
from ._query import Options
from ._table import MappingSource, Source
from ._whole import is_in as _is_in
from .errors import InvalidTypeError, InvalidValueError

__all__ = ["aggregate", "is_in"]

#: States that one task merges. Each level of the tree reads all groups of its states once more.
SPLIT_EVERY = 8

#: Up to so many pieces of partitions, each travels as an Arrow table by a task of its own, which is
#: cheaper than Dask's shuffle. But pieces grow with the square of the partitions, and the
#: shuffle's tasks with their number.
_MOST_PIECES = 4096

#: Where a row goes in the shuffle.
_OWNER = "vask.owner"

_COUNTS = frozenset(("size", "count", "count_nulls", "count_distinct"))
#: Functions that give a value to every group that has one.
_VALUES = frozenset(("sum", "min", "max", "first", "last", "any", "range"))


def aggregate(
    data: Any,
    by: Any = None,
    *,
    results: Optional[Mapping[str, Aggregation]] = None,
    dropna: bool = False,
    skipna: bool = True,
    sort: bool = False,
    ddof: int = 1,
    wide_sums: bool = False,
    partitions: int = 0,
    split_every: int = SPLIT_EVERY,
    **named: Aggregation,
) -> Any:
    """Aggregates the columns of a Dask data frame, whole or by groups.

    ``vask.dask.aggregate(frame, "kind", total=("v", "sum"), mid=("v", "median")).compute()``

    Nothing is computed before the result is. It depends on the data and how they are cut into
    partitions: never on the number of workers, on timing, or on a worker that was lost.

    Args:
        data: a Dask data frame. A NaN counts as null, as everywhere in pandas.
        by, named, results, dropna, skipna, ddof, wide_sums, partitions: as in
            :func:`vask.aggregate`.
        sort: puts groups in ascending order of their keys. Otherwise they are in the order of their
            first rows, or in one that the shuffle makes where all aggregates put values in order.
        split_every: how many tables of states a task merges.

    Returns:
        A Dask data frame with the keys and the aggregates as columns, categories as the values that
        they stand for. It has one partition; without ``sort`` and where all aggregates put values
        in order, as many as ``data``, for results that one worker cannot hold.

    Raises:
        what :func:`vask.aggregate` raises; at once for names and types, with the result for values.
    """
    if not hasattr(data, "to_delayed") or not hasattr(data, "columns"):
        raise InvalidTypeError(f"a {type(data).__name__} is no Dask data frame")
    if not isinstance(split_every, int) or split_every < 2:
        raise InvalidValueError(f"split_every is a number from 2 on, not {split_every!r}")
    options = Options(dropna, skipna, True, sort, wide_sums, ddof, partitions)
    types = _column_types(data)
    example = pyarrow.schema(list(types.items())).empty_table()
    plan = plan_of(example, by, results, named, options)
    rules = _pandas_types(plan, data._meta, plan.run(example).schema)
    meta = _frame(plan.run(example), rules)

    columns = plan.columns or list(data.columns[:1])
    types = {name: types[name] for name in columns}
    frame = data[columns]
    merged = plan.only(ordered=False)
    ordered = plan.only(ordered=True)
    owned = _owners_results(frame, ordered, types) if ordered.requests else []
    if owned and plan.by and not merged.requests and not sort:
        tables = [delayed(_frame)(table, rules) for table in owned]
        return dd.from_delayed(tables, meta=meta, verify_meta=False)
    if merged.requests or not owned:
        owned = [_tree(frame, merged, types, split_every), *owned]
    table = owned[0] if len(owned) == 1 else delayed(plan.joined)(owned)
    return dd.from_delayed([delayed(_frame)(table, rules)], meta=meta, verify_meta=False)


def _tree(frame: Any, plan: Plan, types: dict[str, pyarrow.DataType], split_every: int) -> Any:
    """The result of states, merged as a tree that the order and number of partitions fix."""
    states = [delayed(_states)(plan, part, types) for part in frame.to_delayed()]
    while len(states) > split_every:
        states = [
            delayed(plan.merge)(states[i : i + split_every], False)
            for i in range(0, len(states), split_every)
        ]
    return delayed(plan.merge)(states, True)


def _owners_results(frame: Any, plan: Plan, types: dict[str, pyarrow.DataType]) -> list[Any]:
    """The results of rows whose key one partition owns."""
    frame = frame[plan.columns]
    types = {name: types[name] for name in plan.columns}
    owners = frame.npartitions if plan.by else 1
    if owners * frame.npartitions <= _MOST_PIECES:
        pieces = [
            delayed(_pieces, nout=owners)(plan, part, types, owners) for part in frame.to_delayed()
        ]
        return [delayed(_run_pieces)(plan, [piece[i] for piece in pieces]) for i in range(owners)]
    placed = frame.map_partitions(_place, list(plan.by), owners, types, enforce_metadata=False)
    moved = (
        placed.shuffle(on=_OWNER, npartitions=owners, ignore_index=True)
        if owners > 1
        else placed.repartition(npartitions=1)
    )
    return [delayed(_run)(plan, part, types) for part in moved.to_delayed()]


# ---- on the workers -------------------------------------------------------------------------


def _states(plan: Plan, part: pandas.DataFrame, types: dict[str, pyarrow.DataType]) -> Any:
    return plan.states(_source(part, types))


def _run(plan: Plan, part: pandas.DataFrame, types: dict[str, pyarrow.DataType]) -> Any:
    return plan.run(_source(part, types))


def _pieces(
    plan: Plan, part: pandas.DataFrame, types: dict[str, pyarrow.DataType], owners: int
) -> list[pyarrow.Table]:
    """A partition's rows by owner."""
    placed = _place(part, list(plan.by), owners, types)
    owner = placed.pop(_OWNER).to_numpy()
    schema = pyarrow.schema(list(types.items()))
    rows = pyarrow.Table.from_pandas(placed[list(types)], schema, preserve_index=False)
    if owners == 1:
        return [rows]
    in_order = rows.take(pyarrow.array(owner.argsort(kind="stable")))
    ends = numpy.bincount(owner, minlength=owners).cumsum()
    return [in_order[end - n : end] for end, n in zip(ends, numpy.diff(ends, prepend=0))]


def _run_pieces(plan: Plan, pieces: list[pyarrow.Table]) -> Any:
    return plan.run(pyarrow.concat_tables(pieces))


def _source(part: pandas.DataFrame, types: dict[str, pyarrow.DataType]) -> Source:
    """A partition's columns in the types that all partitions have."""
    columns = {name: _column(name, part[name], type_) for name, type_ in types.items()}
    return MappingSource(columns, nan_is_null=True)


def _column(name: str, series: Any, type_: pyarrow.DataType) -> Any:
    # An empty partition, or one of nulls alone, does not tell the type of its texts; nor does it
    # tell that of its categories, which differ between partitions.
    if not (
        isinstance(series.dtype, pandas.CategoricalDtype)
        or pyarrow.types.is_large_string(type_)
        or series.dtype == object
    ):
        return series
    try:
        values = pyarrow.array(series, from_pandas=True)
        if isinstance(values, pyarrow.ChunkedArray):
            values = values.combine_chunks()
        if isinstance(values.type, pyarrow.DictionaryType):
            return pyarrow.DictionaryArray.from_arrays(
                values.indices, values.dictionary.cast(type_), ordered=values.type.ordered
            )
        return values if values.type == type_ else values.cast(type_)
    except (pyarrow.ArrowInvalid, pyarrow.ArrowTypeError, NotImplementedError) as failure:
        raise InvalidTypeError(
            f"column {name!r}: a partition does not hold the {type_} that the frame tells of "
            f"({failure}); cast the column, or make its categories known with .cat.as_known()"
        ) from failure


def _place(
    part: pandas.DataFrame, by: list[str], owners: int, types: dict[str, pyarrow.DataType]
) -> Any:
    """The rows with the number of their owner, which depends on their key alone."""
    plain = {name: _plain(name, part[name], types[name]) for name in part.columns}
    placed: pandas.DataFrame = pandas.DataFrame(plain, index=part.index)
    if by:
        hashes = pandas.util.hash_pandas_object(placed[by].apply(_unsigned_zero), index=False)
        placed[_OWNER] = (hashes % owners).astype("int16" if owners < 1 << 15 else "int64")
    else:
        placed[_OWNER] = 0
    return placed


def _plain(name: str, series: Any, type_: pyarrow.DataType) -> Any:
    """A column as every partition has it: categories as their values."""
    values = _column(name, series, type_)
    if values is series:
        return series
    if isinstance(values.type, pyarrow.DictionaryType):
        values = values.dictionary_decode()
    mapper = {pyarrow.large_string(): pandas.ArrowDtype(pyarrow.large_string())}.get
    return pandas.Series(values.to_pandas(types_mapper=mapper).array, index=series.index)


def _unsigned_zero(series: Any) -> Any:
    """-0.0 and 0.0 are one key, and so are all NaNs."""
    if series.dtype.kind != "f":
        return series
    return (series + 0.0).where(series.notna())


# ---- types ----------------------------------------------------------------------------------


def _column_types(data: Any) -> dict[str, pyarrow.DataType]:
    """The columns' types, by rows that Dask makes up."""
    types = {}
    for name in data.columns:
        if not isinstance(name, str):
            raise InvalidTypeError(f"a column is named by a text, not by {name!r}")
        series = data._meta_nonempty[name]
        type_ = pyarrow.array(series, from_pandas=True).type
        if isinstance(type_, pyarrow.DictionaryType):
            type_ = type_.value_type
        if pyarrow.types.is_null(type_) or pyarrow.types.is_string(type_):
            type_ = pyarrow.large_string()
        types[name] = type_
    return types


def _pandas_types(plan: Plan, meta: pandas.DataFrame, schema: pyarrow.Schema) -> dict[str, Any]:
    """The types of pandas that results have, whether or not a partition of them holds nulls."""
    origins = {request.name: request for request in plan.requests}
    types: dict[str, Any] = {}
    for field in schema:
        request = origins.get(field.name)
        never_null = request is not None and request.function in _COUNTS
        if request is None or (plan.by and request.function in _VALUES):
            column = request.columns[0] if request is not None else field.name
            dtype = meta[column].dtype
            never_null = never_null or (
                dtype.kind in "biu" and not isinstance(dtype, pandas.api.extensions.ExtensionDtype)
            )
        types[field.name] = _pandas_type(field.type, never_null)
    return types


def _pandas_type(type_: pyarrow.DataType, never_null: bool) -> Any:
    """None for what pandas makes of the type itself, which has a null of its own."""
    if pyarrow.types.is_integer(type_) or pyarrow.types.is_boolean(type_):
        if never_null:
            return None
        word = str(type_)
        name = "boolean" if word == "bool" else word.replace("uint", "UInt").replace("int", "Int")
        return pandas.api.types.pandas_dtype(name)
    if pyarrow.types.is_floating(type_) or pyarrow.types.is_large_string(type_):
        return None
    if pyarrow.types.is_timestamp(type_) or pyarrow.types.is_duration(type_):
        return None
    return pandas.ArrowDtype(type_)


def _frame(table: pyarrow.Table, types: Mapping[str, Any]) -> pandas.DataFrame:
    columns = {}
    for name, type_ in types.items():
        values = table[name]
        if type_ is None:
            columns[name] = values.to_pandas()
        else:
            columns[name] = pandas.Series(type_.__from_arrow__(values))
    frame: pandas.DataFrame = pandas.DataFrame(columns)
    return frame


# ---- containment ----------------------------------------------------------------------------


def is_in(values: Any, among: Any) -> Any:
    """Whether each value of a Dask series occurs among those of another, the smaller one.

    The different values of ``among`` are sent to every worker; the rows of ``values`` stay where
    they are. ``among`` may also be anything that :func:`vask.is_in` takes.

    Returns:
        A Dask series of pandas' ``boolean``; a null is in nothing, its row is null.
    """
    if not hasattr(values, "map_partitions"):
        raise InvalidTypeError(f"a {type(values).__name__} is no Dask series")
    if hasattr(among, "map_partitions"):
        name = "among"
        table = aggregate(among.to_frame(name=name), name)
        among = table[name].to_delayed()[0]
    meta = pandas.Series([], dtype="boolean", name=values.name)
    return values.map_partitions(_contained, among, meta=meta)


def _contained(part: Any, among: Any) -> Any:
    boolean: Any = pandas.BooleanDtype()
    flags = boolean.__from_arrow__(pyarrow.array(_is_in(part, among)))
    return pandas.Series(flags, index=part.index, name=part.name)
