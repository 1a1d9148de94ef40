"""Functions by the names that users of data frames know, and requests for them."""

from __future__ import annotations

import math
from collections.abc import Iterable, Mapping, Sequence
from numbers import Integral
from typing import Any, NamedTuple, Optional, Union

from . import _library
from ._table import Source
from ._types import ColumnType
from .errors import InvalidTypeError, InvalidValueError, UnknownNameError, nearest

__all__ = ["Aggregation", "Request", "Selector", "requests_of"]

#: Names that mean something else in the library, or that it does not have.
_NAMES = {
    "any": "any_true",
    "all": "all_true",
    "nlargest": "largest",
}
#: Of a sample, of a population.
_BY_DDOF = {
    "std": ("stdev", "stdevp"),
    "var": ("variance", "variancep"),
    "cov": ("covars", "covarp"),
}
#: Parameters that need not be told.
_DEFAULTS = {"quantile": 0.5, "nlargest": 5}

_NUMBERS = frozenset(("integer", "float", "boolean", "decimal", "null"))
_TYPES = {
    "numbers and booleans": _NUMBERS,
    "numbers, booleans, dates and times": _NUMBERS | {"temporal"},
}

Aggregation = Union[str, "tuple[Any, ...]"]


class Selector:
    """Stands for columns that are chosen once the table is known: ``vask.all()``."""

    def __init__(self, exclude: Iterable[str] = (), numeric: bool = False) -> None:
        self.exclude = frozenset([exclude] if isinstance(exclude, str) else exclude)
        self.numeric = numeric

    def __repr__(self) -> str:
        return "vask.all()"


class Request(NamedTuple):
    """One aggregate, as the library is asked for it."""

    name: str
    function: str
    columns: tuple[str, ...]
    parameter: Optional[float] = None
    written: str = ""  #: the function as its user named it


class _Rule(NamedTuple):
    """What the library says of a function."""

    function: str
    columns: int
    takes_parameter: bool
    parameter: Optional[float]
    types: str
    meaning: str


def _read_rules() -> dict[str, _Rule]:
    rules: dict[str, _Rule] = {}
    for fields in _library.functions():
        name, columns, parameter, types, meaning = (*fields[:4], fields[-1])
        if columns:
            rules[name] = _Rule(name, int(columns), bool(parameter), None, types, meaning)
            continue
        same, _, fixed = meaning.removeprefix("the same as ").partition(" of ")
        rule = rules[same]
        rules[name] = rule._replace(
            takes_parameter=rule.takes_parameter and not fixed,
            parameter=float(fixed) if fixed else None,
        )
    for name, function in _NAMES.items():
        if function in rules:
            rules[name] = rules[function]
    return rules


_rules = _read_rules()
#: By the library's names, of which some mean something else in Python.
_library_rules = {rule.function: rule for rule in _rules.values()}


def function_names() -> list[str]:
    return sorted(_rules)


def describe_functions() -> dict[str, str]:
    """Each function's name with what it gives."""
    return {
        name: f"{rule.meaning} (of {rule.types})" if rule.columns else rule.meaning
        for name, rule in sorted(_rules.items())
    }


def requests_of(
    result: Optional[str],
    aggregation: Any,
    source: Source,
    by: Sequence[str],
    types: Optional[Mapping[str, ColumnType]],
    ddof: int,
) -> list[Request]:
    """The aggregates that ``(columns, function, *parameters)`` means.

    Args:
        result: the name to give, or ``None`` for one made of function and columns.
        source: what has the columns.
        types: their types, where a selector has to know them.
    """
    label = f"result {result!r}" if result is not None else f"aggregate {aggregation!r}"
    if isinstance(aggregation, str):
        aggregation = ((), aggregation)
    elif hasattr(aggregation, "aggfunc"):  # pandas.NamedAgg, which is a tuple up to pandas 2
        aggregation = (aggregation.column, aggregation.aggfunc, *getattr(aggregation, "args", ()))
    if not isinstance(aggregation, tuple) or len(aggregation) < 1:
        raise InvalidTypeError(
            f"{label}: an aggregate is a tuple (column, function, *parameters), not {aggregation!r}"
        )
    if len(aggregation) == 1:
        aggregation = ((), aggregation[0])
    columns, function, *parameters = aggregation
    if not isinstance(function, str):
        raise InvalidTypeError(f"{label}: a function is named by a text, not by {function!r}")
    if function not in _rules:
        raise UnknownNameError(
            f"{label}: there is no function {function!r}; {nearest(function, _rules)}"
        )

    rule = _rules[function]
    operands, several = _operands(label, function, rule, columns, source, by, types)
    asked = _parameters(label, function, rule, parameters, ddof)

    requests = []
    for operand in operands:
        for actual, parameter, suffix in asked:
            name = result
            if name is None:
                name = f"{function}({', '.join(operand)})"
            elif several:
                name = f"{result}_{'_'.join(operand)}"
            requests.append(Request(name + suffix, actual, operand, parameter, function))
    return requests


def _operands(
    label: str,
    function: str,
    rule: _Rule,
    columns: Any,
    source: Source,
    by: Sequence[str],
    types: Optional[Mapping[str, ColumnType]],
) -> tuple[list[tuple[str, ...]], bool]:
    """The columns of each call, and whether several calls are asked for."""
    several = isinstance(columns, (list, Selector))
    if isinstance(columns, Selector):
        unknown = sorted(columns.exclude.difference(source.names))
        if unknown:
            raise UnknownNameError(
                f"{label}: there is no column {unknown[0]!r}; {nearest(unknown[0], source.names)}"
            )
        chosen = [name for name in source.names if name not in by and name not in columns.exclude]
        if columns.numeric:
            assert types is not None
            chosen = [name for name in chosen if types[name].kind in _NUMBERS]
        columns = chosen
    if rule.columns == 0:
        return [()], False  # a column may be named, as pandas does; rows are counted all the same
    operands = []
    for operand in columns if several else [columns]:
        pair = (operand,) if isinstance(operand, str) else operand
        if not isinstance(pair, tuple) or len(pair) != rule.columns:
            wanted = "one column" if rule.columns == 1 else "a pair of columns"
            example = "v1" if rule.columns == 1 else ("v1", "v2")
            raise InvalidTypeError(
                f"{label}: {function} takes {wanted}, as in {(example, function)!r}, "
                f"not {operand!r}"
            )
        for column in pair:
            if not isinstance(column, str):
                raise InvalidTypeError(f"{label}: a column is named by a text, not by {column!r}")
            if column not in source.known:
                raise UnknownNameError(
                    f"{label}: there is no column {column!r}; {nearest(column, source.known)}"
                )
        operands.append(pair)
    return operands, several


def _parameters(
    label: str, function: str, rule: _Rule, parameters: Sequence[Any], ddof: int
) -> list[tuple[str, Optional[float], str]]:
    """The library's function, its parameter and what the result's name ends in, for each call."""
    if len(parameters) > 1:
        raise InvalidTypeError(
            f"{label}: {function} takes one parameter at most, not {len(parameters)}"
        )
    given: Any = parameters[0] if parameters else _DEFAULTS.get(function)
    if function in _BY_DDOF:
        given = ddof if given is None else given
        if given not in (0, 1) or isinstance(given, bool):
            raise InvalidValueError(f"{label}: ddof is 0 or 1, not {given!r}")
        return [(_BY_DDOF[function][1 - given], None, "")]
    if not rule.takes_parameter:
        if parameters:
            raise InvalidTypeError(f"{label}: {function} takes no parameter, not {given!r}")
        return [(rule.function, rule.parameter, "")]
    if given is None:
        raise InvalidTypeError(f"{label}: {function} needs a parameter")

    if function == "nlargest":
        if not isinstance(given, Integral) or isinstance(given, bool) or given < 1:
            raise InvalidValueError(f"{label}: nlargest takes a number from 1 on, not {given!r}")
        return [(rule.function, float(k), f"_{k}") for k in range(1, int(given) + 1)]
    if isinstance(given, (list, tuple)) or (hasattr(given, "__array__") and _length(given)):
        return [(rule.function, _number(label, function, q), f"_{float(q):g}") for q in given]
    return [(rule.function, _number(label, function, given), "")]


def _length(values: Any) -> int:
    """How many numbers; 0 for one that is no array."""
    try:
        return len(values)
    except TypeError:
        return 0


def _number(label: str, function: str, value: Any) -> float:
    if isinstance(value, (str, bytes, bool)):
        raise InvalidTypeError(f"{label}: the parameter of {function} is a number, not {value!r}")
    try:
        number = float(value)
    except (TypeError, ValueError):
        raise InvalidTypeError(
            f"{label}: the parameter of {function} is a number, not {value!r}"
        ) from None
    if math.isnan(number) or (function == "quantile" and not 0 <= number <= 1):
        bounds = " from 0 to 1" if function == "quantile" else ""
        raise InvalidValueError(
            f"{label}: the parameter of {function} is a number{bounds}, not {value!r}"
        )
    return number


def check_types(
    requests: Sequence[Request], by: Sequence[str], types: Mapping[str, ColumnType]
) -> None:
    """Raises for a column whose type a function, or any key, does not take."""
    used = [*by, *(column for request in requests for column in request.columns)]
    for column in used:
        if types[column].kind == "other":
            raise InvalidTypeError(
                f"column {column!r} is {types[column].name}, which no key or value here has"
            )
    for request in requests:
        wanted = _library_rules[request.function].types
        for column in request.columns:
            type_ = types[column]
            allowed = _TYPES.get(wanted)
            if allowed is not None and type_.kind not in allowed:
                raise InvalidTypeError(
                    f"result {request.name!r}: {request.written} takes {wanted}, "
                    f"and column {column!r} is {type_.name}"
                )
