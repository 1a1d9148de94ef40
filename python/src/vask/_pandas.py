"""pandas frames column by column, whatever their version: nothing is copied that need not be."""

from __future__ import annotations

from collections.abc import Sequence
from typing import Any, Union

from ._memory import MemoryColumn, bits_of, numpy_column, python_column
from ._table import MappingSource, Source
from .errors import InvalidTypeError, InvalidValueError

__all__ = ["frame_source", "series_column"]


def frame_source(data: Any) -> Source:
    """The columns of a frame, and the named levels of its index.

    A label that is no text is known by what ``str`` makes of it. A NaN counts as null, as
    everywhere in pandas.
    """
    if not hasattr(data, "columns"):
        raise InvalidTypeError(
            f"a pandas {type(data).__name__} is no table; give {{'x': series}} or a frame"
        )
    positions: dict[str, int] = {}
    for i, label in enumerate(data.columns):
        if str(label) in positions:
            raise InvalidValueError(f"the frame has more than one column {str(label)!r}")
        positions[str(label)] = i
    return _FrameSource(data, positions)


class _FrameSource(MappingSource):
    def __init__(self, data: Any, positions: dict[str, int]) -> None:
        levels = {
            str(name): i
            for i, name in enumerate(data.index.names)
            if name is not None and str(name) not in positions
        }
        super().__init__(_FrameColumns(data, positions, levels), nan_is_null=True)
        self._rows = len(data)
        self.names = [*positions]
        self._levels = levels

    @property
    def known(self) -> Sequence[str]:
        return [*self.names, *self._levels]

    def table(self, columns: Sequence[str]) -> Any:
        if not columns and not self.names:
            return MappingSource({"index": range(self._rows)}).table(["index"])
        return super().table(columns)


class _FrameColumns(dict):  # type: ignore[type-arg]
    """Columns by name, made when they are asked for."""

    def __init__(self, data: Any, positions: dict[str, int], levels: dict[str, int]) -> None:
        super().__init__(dict.fromkeys([*positions, *levels]))
        self.data, self._positions, self._levels = data, positions, levels

    def __getitem__(self, name: str) -> Any:
        if name in self._positions:
            return self.data.iloc[:, self._positions[name]]
        return self.data.index.get_level_values(self._levels[name]).to_series()


def series_column(name: str, series: Any) -> Union[MemoryColumn, Any]:
    """A column of a series or an index, or an Arrow array where the series is one."""
    values = getattr(series, "array", series)
    dtype = series.dtype
    kind = type(dtype).__name__

    if kind == "CategoricalDtype":
        return _categorical_column(name, values, dtype)
    if hasattr(values, "__arrow_array__") and (
        kind == "ArrowDtype" or getattr(dtype, "storage", "").startswith("pyarrow")
    ):
        return values.__arrow_array__()
    if hasattr(values, "_mask") and hasattr(values, "_data"):  # nullable numbers and booleans
        return numpy_column(name, values._data, values._mask)
    if kind == "DatetimeTZDtype":
        # UTC, without a copy; view() would lose the unit.
        column = numpy_column(name, series.to_numpy(f"datetime64[{dtype.unit}]"))
        column.format += str(dtype.tz)
        return column
    if kind == "NumpyEADtype" or hasattr(dtype, "str"):
        array = series.to_numpy()
        if array.dtype.kind == "O":
            return _object_column(name, array)
        return numpy_column(name, array)
    if kind == "StringDtype":
        return _object_column(name, series.to_numpy(dtype=object))
    return _by_pyarrow(name, series)


def _object_column(name: str, array: Any) -> Any:
    """Texts, mostly: PyArrow reads them ten times faster than a loop of Python's."""
    try:
        import pyarrow
    except ImportError:
        return python_column(name, array.tolist(), nan_is_null=True)
    try:
        return pyarrow.array(array, from_pandas=True)
    except (pyarrow.ArrowInvalid, pyarrow.ArrowTypeError, pyarrow.ArrowNotImplementedError):
        return python_column(name, array.tolist(), nan_is_null=True)


def _categorical_column(name: str, values: Any, dtype: Any) -> MemoryColumn:
    """The codes as they are; -1 stands for null."""
    codes = values.codes
    column = numpy_column(name, codes)
    missing = codes < 0
    if missing.any():
        column.buffers = [bits_of(~missing), column.buffers[1]]
        column.nulls = int(missing.sum())
    categories = series_column(name, dtype.categories)
    if not isinstance(categories, MemoryColumn):
        categories = python_column(name, categories.to_pylist())
    column.dictionary = categories
    column.ordered = bool(dtype.ordered)
    return column


def _by_pyarrow(name: str, series: Any) -> Any:
    """Types that only PyArrow knows how to read, or nobody."""
    try:
        import pyarrow

        return pyarrow.array(series, from_pandas=True)
    except (ImportError, TypeError, ValueError, NotImplementedError) as failure:
        raise InvalidTypeError(
            f"column {name!r} has pandas' type {series.dtype}, which cannot be aggregated"
        ) from failure
