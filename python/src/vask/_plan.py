"""What is asked of a table that an engine holds in parts: a query that can be sent to workers."""

from __future__ import annotations

from collections.abc import Mapping, Sequence
from dataclasses import dataclass, replace
from typing import TYPE_CHECKING, Any, Optional

from . import _arrow
from ._functions import Aggregation, Request
from ._query import Options, Query, column_list
from ._table import MappingSource, NativeTable, source_of
from .errors import InvalidValueError

if TYPE_CHECKING:
    import pyarrow

__all__ = ["Plan", "plan_of"]

#: Functions that put a group's values in order: their state would be all of its rows.
ORDERED = frozenset(("median", "quantile", "quartile", "iqr", "mad", "largest"))


@dataclass(frozen=True)
class Plan:
    """Keys and aggregates, apart from any data; small, and the same on every worker.

    A part's :meth:`states` are tables of a fixed form, which :meth:`merge` brings together in the
    order that is given. :meth:`run` is for rows of which all of a group are there.
    """

    by: tuple[str, ...]
    options: Options
    requests: tuple[Request, ...]

    def _query(self, data: Any) -> Query:
        return Query(source_of(data), list(self.by), self.options, list(self.requests))

    @property
    def columns(self) -> list[str]:
        """The columns that are read."""
        used = [*self.by, *(column for request in self.requests for column in request.columns)]
        return list(dict.fromkeys(used))

    def only(self, ordered: bool) -> Plan:
        """The aggregates that put values in order, or the others."""
        kept = [r for r in self.requests if (r.function in ORDERED) is ordered]
        return replace(self, requests=tuple(kept))

    def states(self, data: Any) -> pyarrow.Table:
        """The states of a part of the rows."""
        return self._query(data).partial().to_arrow()

    def merge(self, states: Sequence[Any], finish: bool) -> pyarrow.Table:
        """Several parts' states together: states again, or with ``finish`` the result."""
        tables = [NativeTable.of_stream(_arrow.stream_capsule(table)) for table in states]
        query = Query(MappingSource({}), [], self.options, list(self.requests))
        query.by = list(self.by)
        return query.merge(tables, finish).to_arrow()

    def run(self, data: Any) -> pyarrow.Table:
        """The result of rows of which all of a group are there."""
        return self._query(data).run().to_arrow()

    def joined(self, results: Sequence[pyarrow.Table]) -> pyarrow.Table:
        """Results of different aggregates, or of different groups, as one table.

        Groups come in the order of the first table that has them.
        """
        import pyarrow

        table = pyarrow.concat_tables(results, promote_options="default")
        names = [request.name for request in self.requests]
        firsts = tuple(Request(name, "first", (name,)) for name in names)
        # A null of a result stays one: there is at most one value of each group to take.
        options = replace(self.options, skipna=True)
        return replace(self, options=options, requests=firsts).run(table)


def plan_of(
    example: pyarrow.Table,
    by: Any,
    results: Optional[Mapping[str, Aggregation]],
    named: Mapping[str, Aggregation],
    options: Options,
) -> Plan:
    """The plan of what a caller asks of tables like ``example``, whose rows do not matter."""
    query = Query(source_of(example), column_list(by), options)
    for name, aggregation in [*(results or {}).items(), *named.items()]:
        query.add(name, aggregation)
    for request in query.requests:
        if request.function == "first_row":
            raise InvalidValueError(
                f"result {request.name!r}: rows that an engine holds in parts have no numbers"
            )
    query.run()  # raises for names that are given twice and for types that do not go
    return Plan(tuple(query.by), options, tuple(query.requests))
