"""Queries: what is asked of a table, carried out at once or by parts."""

from __future__ import annotations

import sys
from collections.abc import Iterable, Sequence
from ctypes import byref, c_void_p
from dataclasses import dataclass, field
from numbers import Integral
from typing import Any, Optional, Union

from . import _library
from ._calls import run_query
from ._functions import Request, Selector, check_types, requests_of
from ._progress import Progress
from ._result import Result
from ._table import NativeTable, Source
from .errors import InvalidTypeError, InvalidValueError

__all__ = ["Options", "Query", "column_list", "on"]


@dataclass(frozen=True)
class Options:
    """How a query is carried out; :func:`vask.aggregate` says what each means."""

    dropna: bool = False
    skipna: bool = True
    nan_is_null: bool = False
    sort: bool = False
    wide_sums: bool = False
    ddof: int = 1
    partitions: int = 0
    progress: Union[bool, Progress] = False
    explain: bool = False
    validate: bool = False

    def __post_init__(self) -> None:
        for name in (
            "dropna", "skipna", "nan_is_null", "sort", "wide_sums", "explain", "validate",
        ):  # fmt: skip
            value = getattr(self, name)
            if not isinstance(value, bool):
                hint = (
                    f"; to call a result {name!r}, give it by results={{{name!r}: ...}}"
                    if isinstance(value, tuple)
                    else ""
                )
                raise InvalidTypeError(f"{name} is True or False, not {value!r}{hint}")
        if not isinstance(self.partitions, Integral) or not 0 <= self.partitions <= 256:
            raise InvalidValueError(
                f"partitions is a number from 1 to 256, or 0 for the default, "
                f"not {self.partitions!r}"
            )
        if not isinstance(self.progress, bool) and not callable(self.progress):
            raise InvalidTypeError(
                "progress is True for a bar, or a function that is given the share that is done, "
                f"not {self.progress!r}"
            )
        if self.ddof not in (0, 1):
            raise InvalidValueError(f"ddof is 0 or 1, not {self.ddof!r}")

    def flags(self, table: Optional[NativeTable] = None) -> int:
        flags = 0
        if not self.skipna:
            flags |= _library.KEEP_NULLS
        if self.nan_is_null or (table is not None and table.nan_is_null):
            flags |= _library.NAN_IS_NULL
        if self.wide_sums:
            flags |= _library.WIDE_SUMS
        if self.sort:
            flags |= _library.SORT_GROUPS
        if self.dropna:
            flags |= _library.DROP_NULL_KEYS | _library.NAN_KEY_IS_NULL
        if self.validate:
            flags |= _library.VALIDATE
        return flags


def column_list(by: Any) -> list[str]:
    """The columns that ``by`` names: none, one or several."""
    if by is None:
        return []
    if isinstance(by, str):
        return [by]
    if isinstance(by, (list, tuple)):
        names = list(by)
        for name in names:
            if not isinstance(name, str):
                raise InvalidTypeError(f"a key is named by a text, not by {name!r}")
        repeated = {name for name in names if names.count(name) > 1}
        if repeated:
            raise InvalidValueError(f"the key {sorted(repeated)[0]!r} is named twice")
        return names
    raise InvalidTypeError(f"by is a column's name or a list of them, not {by!r}")


@dataclass
class Query:
    """Keys and aggregates of one source."""

    source: Source
    by: list[str]
    options: Options
    requests: list[Request] = field(default_factory=list)

    def __post_init__(self) -> None:
        self.source.check(self.by)

    def add(self, result: Optional[str], aggregation: Any) -> None:
        """Adds the aggregates that a tuple or a name means."""
        types = None
        columns = aggregation[0] if isinstance(aggregation, tuple) and aggregation else None
        if isinstance(columns, Selector) and columns.numeric:
            types = self.source.table(self.source.names).types
        self.requests += requests_of(
            result, aggregation, self.source, self.by, types, self.options.ddof
        )

    def columns(self) -> list[str]:
        """The columns that the query reads."""
        used = [*self.by, *(column for request in self.requests for column in request.columns)]
        return list(dict.fromkeys(used))

    def run(self) -> Result:
        """The result. The query may be run again."""
        seen = set(self.by)
        for request in self.requests:
            if request.name in seen:
                raise InvalidValueError(f"two columns of the result are called {request.name!r}")
            seen.add(request.name)

        notes: list[str] = []
        functions = [request.function for request in self.requests]
        parts = self.source.parts(self.columns(), functions, self.options.dropna)
        if parts is None:
            table = self.source.table(self.columns())
            check_types(self.requests, self.by, table.types)
            handle = self._call(_library.library.vask_run, table, notes)
        else:
            handle = self._run_parts(parts, notes)
        return self.finish(handle, notes)

    def finish(self, handle: c_void_p, notes: list[str]) -> Result:
        notes = list(dict.fromkeys(notes))
        if self.options.explain:
            for note in notes:
                print(f"vask: {note}", file=sys.stderr)
        return Result(handle, notes, self.by)

    def partial(self) -> Result:
        """The states of the aggregates by key, of rows that are a part of all."""
        notes: list[str] = []
        table = self.source.table(self.columns())
        check_types(self.requests, self.by, table.types)
        return self.finish(self._call(_library.library.vask_partial, table, notes), notes)

    def merge(self, states: Sequence[NativeTable], finish: bool) -> Result:
        """States of parts brought together: states again, or with ``finish`` the result."""
        notes: list[str] = []
        return self.finish(self._merge(states, finish, notes), notes)

    # ---- one table ------------------------------------------------------------------------

    def structure(self, table: Optional[NativeTable], notes: list[str]) -> tuple[Any, Any]:
        """The library's record of this query, and what has to live as long."""
        query = _library.new_query()
        by = _library.names_array(self.by)
        aggregates = (_library.Aggregate * max(1, len(self.requests)))()
        for aggregate, request in zip(aggregates, self.requests):
            aggregate.function = request.function.encode()
            for i, column in enumerate(request.columns):
                aggregate.columns[i] = _library.name_bytes(column)
            aggregate.parameter = 0.0 if request.parameter is None else request.parameter
            aggregate.as_ = _library.name_bytes(request.name)
        query.by = by
        query.n_by = len(self.by)
        query.aggregates = aggregates
        query.n_aggregates = len(self.requests)
        query.flags = self.options.flags(table)
        query.partitions = self.options.partitions
        query.note = _library.NOTE(
            lambda _context, text: notes.append(text.decode(errors="replace"))
        )
        return query, (by, aggregates)

    def _call(self, function: Any, table: NativeTable, notes: list[str]) -> c_void_p:
        """Runs one of the library's functions on a table: its result's handle."""
        notes += table.notes
        query, kept = self.structure(table, notes)
        handle = c_void_p()
        run_query(
            on(function, table.handle, byref(query), byref(handle), keep=(table, kept)),
            query,
            table.rows,
            self.options.progress,
            lambda: _library.library.vask_result_free(handle),
        )
        return handle

    # ---- parts ----------------------------------------------------------------------------

    def _run_parts(self, parts: Iterable[NativeTable], notes: list[str]) -> c_void_p:
        """Partial states of each part, merged as they come so that few are held."""
        states: list[NativeTable] = []
        nan_is_null = self.options.nan_is_null
        for part in parts:
            check_types(self.requests, self.by, part.types)
            nan_is_null = nan_is_null or part.nan_is_null
            states.append(_states_table(self._call(_library.library.vask_partial, part, notes)))
            if len(states) == _MOST_STATES:
                states = [_states_table(self._merge(states, False, notes))]
        return self._merge(states, True, notes)

    def _merge(self, states: Sequence[NativeTable], finish: bool, notes: list[str]) -> c_void_p:
        query, kept = self.structure(None, notes)
        handles = (c_void_p * len(states))(*(state.handle for state in states))
        handle = c_void_p()
        run_query(
            on(
                _library.library.vask_merge,
                handles,
                len(states),
                byref(query),
                int(finish),
                byref(handle),
                keep=(states, kept),
            ),
            query,
            sum(state.rows for state in states),
            False,
            lambda: _library.library.vask_result_free(handle),
        )
        return handle


#: States are merged when so many are there: each merge reads all groups once more.
_MOST_STATES = 8


def on(function: Any, *arguments: Any, keep: Any) -> Any:
    """A function of the library that still takes the error's place, with what it needs."""

    def call(error: Any, _kept: Any = keep) -> int:
        code: int = function(*arguments, error)
        return code

    return call


def _states_table(handle: c_void_p) -> NativeTable:
    """States as a table, which is what they are merged from."""
    result = Result(handle)
    return NativeTable.of_stream(result.__arrow_c_stream__())
