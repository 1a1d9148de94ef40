"""Parquet and CSV files, read by PyArrow in parts, so that they may be larger than memory."""

from __future__ import annotations

import os
from collections.abc import Iterator, Sequence
from pathlib import Path
from typing import Any, Optional, Union

from . import _arrow
from ._table import NativeTable, Source
from .errors import DataError, Error, InvalidTypeError, InvalidValueError

__all__ = ["FileSource"]

#: Rows of a part. Sums of floats depend on it in their last digits, so it is the same everywhere.
ROWS_OF_A_PART = 1 << 22

#: Functions without a state: all rows of a group are needed at once.
NEED_ALL_ROWS = frozenset(("median", "quantile", "quartile", "iqr", "mad", "largest", "first_row"))
#: Functions whose states are their different values, among which a NaN that is left out as a key
#: would be left out, too.
STATES_OF_VALUES = frozenset(("count_distinct", "mode"))


class FileSource(Source):
    """A file, or a folder of files, of one format that its ending tells."""

    def __init__(self, path: Union[str, os.PathLike[str]]) -> None:
        try:
            import pyarrow
            import pyarrow.dataset
        except ImportError:
            raise InvalidTypeError(
                "files are read by PyArrow, which is not installed: pip install pyarrow"
            ) from None
        self._path = Path(path)
        if not self._path.exists():
            raise FileNotFoundError(f"there is no file {str(path)!r}")
        self._pyarrow = pyarrow
        try:
            self._dataset = pyarrow.dataset.dataset(str(self._path), format=self._format())
            self.names = list(self._dataset.schema.names)
        except (pyarrow.ArrowInvalid, OSError) as failure:
            raise DataError(f"{self._path} cannot be read: {failure}") from failure

    def _format(self) -> Any:
        sample = self._path
        if sample.is_dir():
            files = sorted(p for p in sample.rglob("*") if p.is_file() and p.name[0] not in "._")
            if not files:
                raise InvalidValueError(f"there are no files in {sample}")
            sample = files[0]
        endings = [ending.lower() for ending in sample.suffixes]
        while endings and endings[-1] in (".gz", ".bz2", ".zst", ".lz4", ".xz"):
            endings.pop()
        ending = endings[-1] if endings else ""
        if ending in (".parquet", ".pq"):
            return "parquet"
        if ending in (".arrow", ".feather", ".ipc"):
            return "ipc"
        if ending in (".csv", ".tsv", ".tab"):
            import pyarrow.csv

            separator = "," if ending == ".csv" else "\t"
            return self._pyarrow.dataset.CsvFileFormat(
                pyarrow.csv.ParseOptions(delimiter=separator, newlines_in_values=True),
                convert_options=pyarrow.csv.ConvertOptions(strings_can_be_null=True),
            )
        raise InvalidValueError(
            f"{self._path} is read by its ending: .parquet, .csv, .tsv or .arrow"
        )

    def table(self, columns: Sequence[str]) -> NativeTable:
        """All rows at once."""
        return self._read(self._batches(list(columns or self.names[:1])))

    def parts(
        self, columns: Sequence[str], functions: Sequence[str], dropna: bool
    ) -> Optional[Iterator[NativeTable]]:
        if NEED_ALL_ROWS.intersection(functions):
            return None
        if dropna and STATES_OF_VALUES.intersection(functions):
            return None
        return self._parts(list(columns or self.names[:1]))

    def _parts(self, columns: list[str]) -> Iterator[NativeTable]:
        """Parts of a fixed number of rows, whatever the batches that the file is read in."""
        held: list[Any] = []
        rows = 0
        given = 0
        for batch in self._batches(columns):
            while rows + len(batch) >= ROWS_OF_A_PART:
                missing = ROWS_OF_A_PART - rows
                yield self._read([*held, batch.slice(0, missing)])
                given += 1
                batch, held, rows = batch.slice(missing), [], 0
            if len(batch):
                held.append(batch)
                rows += len(batch)
        if held or not given:
            yield self._read(held, columns)

    def _batches(self, columns: list[str]) -> Iterator[Any]:
        options: dict[str, Any] = {}
        if self._dataset.format.default_extname == "parquet":
            # Else whole columns are read ahead of the part that is worked on.
            options["fragment_scan_options"] = self._pyarrow.dataset.ParquetFragmentScanOptions(
                pre_buffer=False
            )
        scanner = self._dataset.scanner(
            columns=columns,
            batch_size=1 << 17,
            batch_readahead=4,
            fragment_readahead=1,
            use_threads=True,
            **options,
        )
        try:
            yield from scanner.to_batches()
        except (self._pyarrow.ArrowInvalid, OSError) as failure:
            raise DataError(f"{self._path} cannot be read: {failure}") from failure

    def _read(self, batches: Any, columns: Sequence[str] = ()) -> NativeTable:
        chunks = list(batches)
        if not chunks:
            schema = self._dataset.schema
            if columns:
                schema = self._pyarrow.schema([schema.field(name) for name in columns])
            table = schema.empty_table()
        else:
            table = self._pyarrow.Table.from_batches(chunks)
        try:
            return NativeTable.of_stream(_arrow.stream_capsule(table))
        except Error as failure:
            raise type(failure)(f"{self._path}: {failure}") from failure
