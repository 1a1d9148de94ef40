"""How this package's time grows: with rows, with groups, with the shape of the keys, and with the
number of partitions on the same threads. Writes tables, in nanoseconds a row or as shares.

    python bench/python/growth.py --part rows,groups,shapes,partitions
"""

from __future__ import annotations

import argparse
import gc
import time
from pathlib import Path
from typing import Any

import numpy as np
import pyarrow as pa
import vask
from data import SHAPES, make_table

#: By title: keys and aggregates.
QUESTIONS: dict[str, tuple[list[str], dict[str, Any]]] = {
    "sum by 100 texts": (["id1"], {"s": ("v1", "sum")}),
    "mean, min, max by id4, id5": (
        ["id4", "id5"],
        {"a": ("v3", "mean"), "b": ("v3", "min"), "c": ("v3", "max")},
    ),
    "sum by id6": (["id6"], {"s": ("v3", "sum")}),
    "sum by id3, texts": (["id3"], {"s": ("v3", "sum")}),
    "deviation by id4": (["id4"], {"s": ("v3", "std")}),
    "median by id6": (["id6"], {"m": ("v3", "median")}),
    "distinct v3 by id4": (["id4"], {"u": ("v3", "nunique")}),
    "correlation by id2, id4": (["id2", "id4"], {"r": (("v1", "v2"), "corr")}),
}
GROUPED = {
    "sum": {"s": ("v", "sum")},
    "deviation": {"s": ("v", "std")},
    "median": {"m": ("v", "median")},
    "distinct": {"u": ("v", "nunique")},
}


def least(
    table: pa.Table, keys: list[str], aggregates: dict[str, Any], partitions: int = 0
) -> float:
    """Seconds, the least of some runs after one that is not counted; of one run if that is long."""
    vask.aggregate(table.slice(0, 1000), keys, partitions=partitions, results=aggregates)
    times: list[float] = []
    while len(times) < 4 and sum(times) < 8:
        gc.collect()
        begin = time.perf_counter()
        vask.aggregate(table, keys, partitions=partitions, results=aggregates)
        times.append(time.perf_counter() - begin)
    return min(times[1:] or times)


def markdown(title: str, head: list[str], lines: dict[str, list[str]]) -> str:
    text = [title, "", "| | " + " | ".join(head) + " |", "|---|" + "---:|" * len(head)]
    text += [f"| {name} | " + " | ".join(cells) + " |" for name, cells in lines.items()]
    return "\n".join(text) + "\n"


def by_rows(rows: list[int]) -> str:
    lines: dict[str, list[str]] = {name: [] for name in QUESTIONS}
    for n in rows:
        table = make_table(n, 100, without=("row",))
        for name, (keys, aggregates) in QUESTIONS.items():
            lines[name].append(f"{least(table, keys, aggregates) / n * 1e9:.1f}")
        del table
    return markdown("Nanoseconds a row, K = 100, by rows.", [f"{n:.0e}" for n in rows], lines)


def by_groups(rows: list[int]) -> str:
    lines: dict[str, list[str]] = {name: [] for name in GROUPED}
    head = []
    rng = np.random.default_rng(7)
    for n in rows:
        values = pa.array(np.round(rng.uniform(0, 100, n), 4))
        for groups in (10**i for i in range(1, len(str(n)))):
            if n != rows[0] and groups <= rows[0]:
                continue
            keys = rng.integers(0, groups, n) if groups < n else rng.permutation(n)
            table = pa.table({"k": pa.array(keys.astype("i4")), "v": values})
            head.append(f"{groups:.0e} of {n:.0e}")
            for name, aggregates in GROUPED.items():
                lines[name].append(f"{least(table, ['k'], aggregates) / n * 1e9:.1f}")
    return markdown("Nanoseconds a row, by groups of rows.", head, lines)


def by_shapes(rows: int) -> str:
    lines: dict[str, list[str]] = {name: [] for name in QUESTIONS}
    for shape in SHAPES:
        table = make_table(rows, 100, shape, without=("row",))
        for name, (keys, aggregates) in QUESTIONS.items():
            lines[name].append(f"{least(table, keys, aggregates) * 1000:.0f}")
    return markdown(f"Milliseconds, {rows:.0e} rows, K = 100, by shape.", list(SHAPES), lines)


def by_partitions(rows: int) -> str:
    counts = [1, 2, 4, 16, 64]
    lines: dict[str, list[str]] = {name: [] for name in QUESTIONS}
    table = make_table(rows, 100, without=("row",))
    for name, (keys, aggregates) in QUESTIONS.items():
        for count in counts:
            took = least(table, keys, aggregates, partitions=count)
            lines[name].append(f"{took * 1000:.0f}")
    head = [str(count) for count in counts]
    return markdown(
        f"Milliseconds, {rows:.0e} rows, by partitions on the same threads.", head, lines
    )


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--part", default="rows,groups,shapes,partitions")
    parser.add_argument("--rows", default="1e5,1e6,1e7,1e8", help="of the parts rows and groups")
    parser.add_argument("--out", type=Path, default=Path("build/side_by_side"))
    arguments = parser.parse_args()
    rows = [int(float(text)) for text in arguments.rows.split(",")]
    usual = min(10_000_000, max(rows))
    parts = {
        "rows": lambda: by_rows(rows),
        "groups": lambda: by_groups([n for n in rows if n >= usual]),
        "shapes": lambda: by_shapes(usual),
        "partitions": lambda: by_partitions(usual),
    }
    unknown = set(arguments.part.split(",")) - set(parts)
    if unknown:
        parser.error(f"there is no part {min(unknown)}; there are {', '.join(parts)}")
    arguments.out.mkdir(parents=True, exist_ok=True)
    for part in arguments.part.split(","):
        text = parts[part]()
        print(text, flush=True)
        (arguments.out / f"growth-{part}.md").write_text(text)


if __name__ == "__main__":
    main()
