"""Times this package beside Polars, DuckDB, pandas and PyArrow on one table in memory.

Every library asks the same questions of the same columns, on two threads, in turn; answers are
compared before a time counts. Writes a table, JSON and a picture.
"""

from __future__ import annotations

import os

THREADS = 2
os.environ.setdefault("POLARS_MAX_THREADS", str(THREADS))

import argparse  # noqa: E402
import gc  # noqa: E402
import json  # noqa: E402
import resource  # noqa: E402
import time  # noqa: E402
from pathlib import Path  # noqa: E402
from typing import Any  # noqa: E402

import duckdb  # noqa: E402
import numpy as np  # noqa: E402
import pandas as pd  # noqa: E402
import polars as pl  # noqa: E402
import pyarrow as pa  # noqa: E402
import pyarrow.compute as pc  # noqa: E402
import report  # noqa: E402
import vask  # noqa: E402
from cases import CASES, Case, asked_of  # noqa: E402
from data import SHAPES, make_table  # noqa: E402
from report import LIBRARIES, Results  # noqa: E402

VERSIONS = {
    "vask": vask.__version__,
    "Polars": pl.__version__,
    "DuckDB": duckdb.__version__,
    "pandas": pd.__version__,
    "PyArrow": pa.__version__,
}
#: A question that takes longer is asked once more and no oftener.
LONG = 20.0


def tables_of(table: pa.Table) -> dict[str, Any]:
    """The table as each library holds it."""
    session = duckdb.connect()
    session.execute(f"SET threads = {THREADS}")
    session.execute("SET preserve_insertion_order = false")
    session.register("x", table)
    pa.set_cpu_count(THREADS)
    return {
        "vask": table,
        "Polars": pl.from_arrow(table),
        "DuckDB": session,
        "pandas": table.to_pandas(),
        "PyArrow": table,
    }


def as_table(answer: Any) -> pa.Table:
    if isinstance(answer, dict):
        return pa.table({name: [value] for name, value in answer.items()})
    if isinstance(answer, pd.DataFrame):
        return pa.Table.from_pandas(answer, preserve_index=False)
    return pa.table(answer)


def digest(case: Case, answer: Any) -> list[Any]:
    """What answers are compared by: of each result, how many values, their sum, and their sum
    weighted by a number made of the key, so that values at wrong keys are found."""
    table = as_table(answer)
    results = [name for name in table.column_names if name not in case.keys]
    weight: Any = np.ones(len(table))
    for key in case.keys:
        column = table[key]
        if not pa.types.is_integer(column.type) and not pa.types.is_floating(column.type):
            column = pc.replace_substring_regex(column.cast(pa.string()), "^id", "")
        numbers = pc.fill_null(column.cast(pa.int64()), 0).to_numpy()  # no key has the number 0
        weight = (weight * 31 + numbers) % 65521
    found: list[Any] = [len(table)]
    for name in results:
        values = table[name].cast(pa.float64()).to_numpy().copy()
        there = ~np.isnan(values)
        values[~there] = 0
        found += [int(there.sum()), float(values.sum()), float((values * weight).sum())]
    return found


def same(ours: list[Any], theirs: list[Any]) -> bool:
    return len(ours) == len(theirs) and bool(np.allclose(ours, theirs, rtol=1e-8, atol=1e-6))


def timed(case: Case, library: str, tables: dict[str, Any]) -> tuple[float, float, Any]:
    """Seconds by the clock and of the processor, and the answer."""
    gc.collect()
    before = resource.getrusage(resource.RUSAGE_SELF)
    begin = time.perf_counter()
    answer = case.ask[library](tables[library])
    took = time.perf_counter() - begin
    after = resource.getrusage(resource.RUSAGE_SELF)
    cpu = after.ru_utime - before.ru_utime + after.ru_stime - before.ru_stime
    return took, cpu, answer


def measure(case: Case, tables: dict[str, Any], rounds: int) -> dict[str, Any]:
    best: dict[str, Any] = {}
    expected: list[Any] | None = None
    libraries = [library for library in LIBRARIES if library in case.ask]
    for turn in range(rounds + 1):  # the first warms up and is compared
        # Another one begins each time.
        for library in libraries[turn % len(libraries) :] + libraries[: turn % len(libraries)]:
            if turn > 1 and best[library]["clock"] > LONG:
                continue
            took, cpu, answer = timed(case, library, tables)
            if turn == 0:
                found = digest(case, answer)
                expected = expected or found
                if not same(expected, found):
                    raise AssertionError(f"{case.id}: {library} gives {found}, not {expected}")
                if took > LONG:
                    best[library] = {"clock": took, "cpu": cpu}
                continue
            known = best.setdefault(library, {"clock": took, "cpu": cpu})
            known["clock"], known["cpu"] = min(known["clock"], took), min(known["cpu"], cpu)
            del answer
    return best


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--rows", type=lambda text: int(float(text)), default=10_000_000)
    parser.add_argument("--values", default="100,10,2", help="K, of which there are rows/K groups")
    parser.add_argument("--shape", default="plain", help=f"some of {', '.join(SHAPES)}")
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--case", help="some questions, by their ids with commas between")
    parser.add_argument("--out", type=Path, default=Path("build/side_by_side"))
    arguments = parser.parse_args()
    shapes, wanted = arguments.shape.split(","), (arguments.case or "").split(",")
    for asked, known in ((shapes, list(SHAPES)), (wanted, ["", *(case.id for case in CASES)])):
        unknown = set(asked) - set(known)
        if unknown:
            parser.error(f"there is no {min(unknown)}; there are {', '.join(known)}")

    if "missing" in shapes and arguments.values not in ("100", parser.get_default("values")):
        parser.error("missing cells go with K = 100: libraries differ on a sum of no value")

    arguments.out.mkdir(parents=True, exist_ok=True)
    found: dict[str, Results] = {}
    for shape in shapes:
        for k in [100] if shape == "missing" else map(int, arguments.values.split(",")):
            title = f"{arguments.rows:,} rows, K = {k}" + (f", {shape}" if shape != "plain" else "")
            kept = arguments.out / f"python-{arguments.rows}-k{k}-{shape}.json"
            results = json.loads(kept.read_text()) if kept.exists() and arguments.case else {}
            found[title] = results
            print(f"{title}, {THREADS} threads", flush=True)
            tables = tables_of(make_table(arguments.rows, k, shape))
            for case in asked_of(shape, k):
                if arguments.case and case.id not in wanted:
                    continue
                results[case.id] = measure(case, tables, arguments.rounds)
                print(report.line(case, results[case.id]), flush=True)
                kept.write_text(json.dumps(results, indent=1))
                text = report.markdown(results, f"{title}, {THREADS} threads", VERSIONS)
                kept.with_suffix(".md").write_text(text)
    report.picture(found, VERSIONS, THREADS, arguments.out / f"python-{arguments.rows}.svg")


if __name__ == "__main__":
    main()
