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
import vask  # noqa: E402
from cases import CASES, Case  # noqa: E402

LIBRARIES = ["vask", "Polars", "DuckDB", "pandas", "PyArrow"]
VERSIONS = {
    "vask": vask.__version__,
    "Polars": pl.__version__,
    "DuckDB": duckdb.__version__,
    "pandas": pd.__version__,
    "PyArrow": pa.__version__,
}
#: A question that takes longer is asked once more and no oftener.
LONG = 20.0


def make_table(rows: int, k: int) -> pa.Table:
    """The shape of the public group-by benchmark, and a key with a group for each row."""
    rng = np.random.default_rng(108)
    few, many = [f"id{i:03d}" for i in range(1, k + 1)], rows // k
    texts = pa.array([f"id{i:010d}" for i in range(1, many + 1)])
    return pa.table(
        {
            "id1": pa.array(few).take(pa.array(rng.integers(0, k, rows))),
            "id2": pa.array(few).take(pa.array(rng.integers(0, k, rows))),
            "id3": texts.take(pa.array(rng.integers(0, many, rows))),
            "id4": rng.integers(1, k + 1, rows).astype("i4"),
            "id5": rng.integers(1, k + 1, rows).astype("i4"),
            "id6": rng.integers(1, many + 1, rows).astype("i4"),
            "v1": rng.integers(1, 6, rows).astype("i4"),
            "v2": rng.integers(1, 16, rows).astype("i4"),
            "v3": np.round(rng.uniform(0, 100, rows), 4),
            "row": rng.permutation(rows).astype("i4"),
        }
    ).combine_chunks()


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
        if not pa.types.is_integer(column.type):
            digits = pc.replace_substring_regex(column.cast(pa.string()), "^id", "")
            column = digits.cast(pa.int64())
        weight = (weight * 31 + column.to_numpy()) % 65521
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


def markdown(results: dict[str, dict[str, Any]], title: str) -> str:
    lines = [
        f"{title}. Milliseconds by the clock, the least of the rounds; in brackets, of the "
        "processor.",
        "",
        "| question | " + " | ".join(f"{n} {VERSIONS[n]}" for n in LIBRARIES)
        + " | best other / vask |",
        "|---|" + "---:|" * (len(LIBRARIES) + 1),
    ]  # fmt: skip
    for case in CASES:
        if case.id not in results:
            continue
        times = results[case.id]
        cells = [
            f"{1000 * times[n]['clock']:,.0f} ({1000 * times[n]['cpu']:,.0f})" if n in times else ""
            for n in LIBRARIES
        ]
        others = [times[n]["clock"] for n in LIBRARIES[1:] if n in times]
        cells.append(f"{min(others) / times['vask']['clock']:.2f}")
        lines.append(f"| {case.title} | " + " | ".join(cells) + " |")
    return "\n".join(lines) + "\n"


def picture(results: dict[str, dict[str, Any]], title: str, path: Path) -> None:
    import matplotlib

    matplotlib.use("svg")
    matplotlib.rcParams["svg.hashsalt"] = "vask"
    from matplotlib import pyplot

    shown = [case for case in CASES if case.id in results]
    figure, axes = pyplot.subplots(figsize=(9, 0.32 * len(shown) + 1.4))
    colours = {
        "vask": "#c03028", "Polars": "#3070b0", "DuckDB": "#d0a020",
        "pandas": "#602080", "PyArrow": "#40a060",
    }  # fmt: skip
    for library in LIBRARIES:
        places = [i for i, case in enumerate(shown) if library in results[case.id]]
        ours = [results[shown[i].id]["vask"]["clock"] for i in places]
        theirs = [results[shown[i].id][library]["clock"] for i in places]
        axes.scatter(
            np.array(theirs) / np.array(ours), places, color=colours[library],
            label=f"{library} {VERSIONS[library]}", zorder=3 if library == "vask" else 2,
            s=36 if library == "vask" else 26,
        )  # fmt: skip
    axes.set_xscale("log")
    axes.axvline(2, color="#888888", linewidth=0.8, linestyle=":")
    axes.set_yticks(range(len(shown)), [case.title for case in shown])
    axes.invert_yaxis()
    axes.grid(axis="x", color="#dddddd", linewidth=0.6)
    axes.set_xlabel("time, vask = 1 (right is slower; dotted: twice the time)")
    axes.set_title(title, fontsize=10)
    axes.legend(fontsize=8, loc="lower right")
    figure.tight_layout()
    figure.savefig(path, metadata={"Date": None})
    figure.savefig(path.with_suffix(".png"), dpi=110)


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--rows", type=lambda text: int(float(text)), default=10_000_000)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--case", help="some questions, by their ids with commas between")
    parser.add_argument("--out", type=Path, default=Path("build/side_by_side"))
    arguments = parser.parse_args()
    wanted = arguments.case.split(",") if arguments.case else [case.id for case in CASES]
    unknown = set(wanted) - {case.id for case in CASES}
    if unknown:
        parser.error(f"there is no case {sorted(unknown)[0]}; {[case.id for case in CASES]}")

    arguments.out.mkdir(parents=True, exist_ok=True)
    kept = arguments.out / f"python-{arguments.rows}.json"
    results = json.loads(kept.read_text()) if kept.exists() and arguments.case else {}
    title = f"{arguments.rows:,} rows, K = 100, {THREADS} threads"
    tables = tables_of(make_table(arguments.rows, 100))
    for case in CASES:
        if case.id in wanted:
            results[case.id] = measure(case, tables, arguments.rounds)
            line = ", ".join(
                f"{n} {1000 * t['clock']:,.0f} ({1000 * t['cpu']:,.0f})"
                for n, t in results[case.id].items()
            )
            print(f"{case.title}: {line}", flush=True)
            kept.write_text(json.dumps(results, indent=1))
            kept.with_suffix(".md").write_text(markdown(results, title))
    picture(results, title, kept.with_suffix(".svg"))


if __name__ == "__main__":
    main()
