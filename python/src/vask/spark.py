"""The aggregates of :mod:`vask` on Spark's data frames.

Each task makes states of its partition from Arrow batches; Spark's shuffle brings the states of a
key to the task that owns it, where they are merged. Medians and their like have no state of fixed
size: there the rows travel instead, and are computed exactly. Scheduling, retries and transport are
Spark's.
"""

from __future__ import annotations

from collections.abc import Iterator, Mapping
from typing import Any, Callable, Optional

import pyarrow
from pyspark import TaskContext
from pyspark.sql import functions
from pyspark.sql.pandas.types import from_arrow_schema, to_arrow_schema

from ._functions import Aggregation
from ._plan import Plan, plan_of
from ._query import Options
from ._whole import is_in as _is_in
from .errors import InvalidTypeError, InvalidValueError

__all__ = ["aggregate", "is_in"]

_Batches = Iterator[pyarrow.RecordBatch]

#: The column that says where states stand among those of all parts.
_PLACE = "vask.place"

#: Rows that are aggregated at once. Sums of floats depend on it in their last digits, so it is the
#: same everywhere.
ROWS_OF_A_PART = 1 << 22

#: States of a partition that are held before they are merged.
_MOST_STATES = 8

#: Parts and their states' rows share the 64 bits of a place.
_ROW_BITS = 32

_ROWS_OF_A_BATCH = 1 << 16


def aggregate(
    data: Any,
    by: Any = None,
    *,
    results: Optional[Mapping[str, Aggregation]] = None,
    dropna: bool = False,
    skipna: bool = True,
    nan_is_null: bool = False,
    sort: bool = False,
    ddof: int = 1,
    wide_sums: bool = False,
    partitions: int = 0,
    owners: int = 0,
    **named: Aggregation,
) -> Any:
    """Aggregates the columns of a Spark data frame, whole or by groups.

    ``vask.spark.aggregate(frame, "kind", total=("v", "sum"), mid=("v", "median")).show()``

    Nothing is computed before the result is. It depends on the data and how they are cut into
    partitions: never on the number of workers, on timing, or on a worker that was lost.

    Args:
        data: a Spark data frame.
        by, named, results, dropna, skipna, nan_is_null, ddof, wide_sums, partitions: as in
            :func:`vask.aggregate`.
        sort: puts groups in ascending order of their keys, nulls last. Otherwise they are in an
            order that Spark's hash makes.
        owners: the number of tasks that share the keys; 0 for the setting
            ``spark.sql.shuffle.partitions``.

    Returns:
        A Spark data frame with the keys and the aggregates as columns.

    Raises:
        what :func:`vask.aggregate` raises for names and types; for values, Spark's exception with
        that text when the result is computed.
    """
    if not hasattr(data, "mapInArrow"):
        raise InvalidTypeError(f"a {type(data).__name__} is no Spark data frame")
    if not isinstance(owners, int) or owners < 0:
        raise InvalidValueError(f"owners is a number from 1 on, or 0, not {owners!r}")
    options = Options(dropna, skipna, nan_is_null, False, wide_sums, ddof, partitions)
    example = to_arrow_schema(data.schema).empty_table()
    plan = plan_of(example, by, results, named, options)
    if not owners:
        owners = int(data.sparkSession.conf.get("spark.sql.shuffle.partitions"))
    owners = owners if plan.by else 1

    ordered = plan.only(ordered=True)
    merged = plan.only(ordered=False)
    answers = []
    if merged.requests or not ordered.requests or not plan.by:
        states = _placed(merged.states(example))
        parts = _mapped(_select(data, merged), _on_part(merged, example), states)
        answers.append(_owned(parts, plan, owners, _merging(merged), states))
    if ordered.requests:
        rows = _select(data, ordered)
        answers.append(_owned(rows, plan, owners, ordered.run, example.select(ordered.columns)))
    result = answers[0]
    if len(answers) > 1:
        both = answers[0].unionByName(answers[1], allowMissingColumns=True)
        result = _owned(both, plan, owners, _joining(plan), plan.run(example))
    if sort and plan.by:
        result = result.orderBy(*(_named(key).asc_nulls_last() for key in plan.by))
    return result


def is_in(data: Any, column: str, among: Any, among_column: Optional[str] = None) -> Any:
    """A Spark data frame with a column ``contained``: whether ``column``'s value occurs in another.

    The different values of the other column, the smaller one, are sent to every worker; the rows of
    ``data`` stay where they are. A null is in nothing: its row is null.

    Args:
        data: a Spark data frame.
        column: the name of its column.
        among: a Spark data frame, or a column or sequence that :func:`vask.is_in` takes.
        among_column: the name of its column; the same as ``column`` if it is not given.
    """
    if not hasattr(data, "mapInArrow"):
        raise InvalidTypeError(f"a {type(data).__name__} is no Spark data frame")
    if hasattr(among, "mapInArrow"):
        name = among_column or column
        among = among.select(_named(name)).distinct().toArrow()[name]
    sent = data.sparkSession.sparkContext.broadcast(among)

    def contained(batches: _Batches) -> _Batches:
        for batch in batches:
            flags = pyarrow.array(_is_in(batch.column(column), sent.value))
            yield batch.append_column("contained", flags)

    example = to_arrow_schema(data.schema).append(pyarrow.field("contained", pyarrow.bool_()))
    return _mapped(data, contained, example.empty_table())


def _named(column: str) -> Any:
    return functions.col("`" + column.replace("`", "``") + "`")


def _select(data: Any, plan: Plan) -> Any:
    return data.select(*map(_named, plan.columns or data.columns[:1]))


def _numbered(columns: int) -> list[str]:
    """Names that Spark takes as they are, for it reads dots in others as paths."""
    return [f"c{i}" for i in range(columns)]


def _mapped(rows: Any, work: Callable[[_Batches], _Batches], example: pyarrow.Table) -> Any:
    """What work makes of each partition: tables like the example."""
    names = rows.columns
    made = example.rename_columns(_numbered(example.num_columns))

    def on_partition(batches: _Batches) -> _Batches:
        for batch in work(batch.rename_columns(names) for batch in batches):
            yield batch.rename_columns(made.column_names)

    numbered = rows.toDF(*_numbered(len(names)))
    mapped = numbered.mapInArrow(on_partition, from_arrow_schema(made.schema))
    return mapped.toDF(*example.column_names)


# ---- in the workers -------------------------------------------------------------------------


def _on_part(plan: Plan, example: pyarrow.Table) -> Callable[[_Batches], _Batches]:
    """The states of a partition."""

    def on_part(batches: _Batches) -> _Batches:
        states: list[pyarrow.Table] = []
        for part in _parts(batches, example):
            states.append(plan.states(part))
            if len(states) == _MOST_STATES:
                states = [plan.merge(states, False)]
        table = states[0] if len(states) == 1 else plan.merge(states, False)
        yield from _placed(table).to_batches(max_chunksize=_ROWS_OF_A_BATCH)

    return on_part


def _parts(batches: _Batches, example: pyarrow.Table) -> Iterator[pyarrow.Table]:
    """Tables of a fixed number of rows, whatever the batches that Spark makes; one at least."""
    held: list[pyarrow.RecordBatch] = []
    rows = 0
    given = 0
    for batch in batches:
        while rows + len(batch) >= ROWS_OF_A_PART:
            missing = ROWS_OF_A_PART - rows
            yield pyarrow.Table.from_batches([*held, batch.slice(0, missing)])
            given += 1
            batch, held, rows = batch.slice(missing), [], 0
        if len(batch):
            held.append(batch)
            rows += len(batch)
    if held:
        yield pyarrow.Table.from_batches(held)
    elif not given:
        yield example


def _placed(states: pyarrow.Table) -> pyarrow.Table:
    """States with their places: a shuffle brings them in any order."""
    context = TaskContext.get()
    first = (context.partitionId() if context is not None else 0) << _ROW_BITS
    places = pyarrow.array(range(first, first + len(states)), type=pyarrow.int64())
    return states.append_column(_PLACE, places)


def _owned(
    rows: Any,
    plan: Plan,
    owners: int,
    work: Callable[[pyarrow.Table], pyarrow.Table],
    example: pyarrow.Table,
) -> Any:
    """What work gives of the rows of each owner, whom a row's key tells.

    ``example`` is what an owner has of no rows at all.
    """

    def on_owner(batches: _Batches) -> _Batches:
        held = list(batches)
        # One who owns no key has no groups, but all rows together are one even if there are none.
        if held or not plan.by:
            table = pyarrow.Table.from_batches(held) if held else example
            yield from work(table).to_batches(max_chunksize=_ROWS_OF_A_BATCH)

    moved = rows.repartition(owners, *map(_named, plan.by)) if plan.by else rows.repartition(1)
    return _mapped(moved, on_owner, work(example))


def _merging(plan: Plan) -> Callable[[pyarrow.Table], pyarrow.Table]:
    def merge(states: pyarrow.Table) -> pyarrow.Table:
        return plan.merge([states.sort_by(_PLACE).drop_columns([_PLACE])], True)

    return merge


def _joining(plan: Plan) -> Callable[[pyarrow.Table], pyarrow.Table]:
    def join(both: pyarrow.Table) -> pyarrow.Table:
        return plan.joined([both])

    return join
