"""What a comparison found, as lines, as a table and as a picture."""

from __future__ import annotations

import math
from pathlib import Path
from typing import Any

import numpy as np
from cases import CASES, Case

LIBRARIES = ["vask", "Polars", "DuckDB", "pandas", "PyArrow"]
COLOURS = {
    "vask": "#c03028", "Polars": "#3070b0", "DuckDB": "#d0a020", "pandas": "#602080",
    "PyArrow": "#40a060",
}  # fmt: skip

Times = dict[str, dict[str, Any]]
#: By the questions' ids, each library's seconds by the clock and of the processor.
Results = dict[str, Times]


def line(case: Case, times: Times) -> str:
    cells = (f"{n} {1000 * t['clock']:,.0f} ({1000 * t['cpu']:,.0f})" for n, t in times.items())
    return f"{case.title}: {', '.join(cells)}"


def ratio(times: Times) -> float:
    """Our time over that of the fastest other library."""
    return float(times["vask"]["clock"] / min(t["clock"] for n, t in times.items() if n != "vask"))


def summary(results: Results) -> str:
    """The geometric mean of the ratios, and where we are behind."""
    ratios = {case.title: ratio(results[case.id]) for case in CASES if case.id in results}
    mean = math.exp(sum(map(math.log, ratios.values())) / len(ratios))
    behind = [f"{title} ({found:.2f})" for title, found in ratios.items() if found > 1]
    return (
        f"vask takes {mean:.2f} of the fastest other library's time (geometric mean of "
        f"{len(ratios)} questions); behind it: {', '.join(behind) or 'none'}."
    )


def markdown(results: Results, title: str, versions: dict[str, str]) -> str:
    lines = [
        f"{title}. Milliseconds by the clock, the least of the rounds; in brackets, of the "
        "processor.",
        "",
        "| question | " + " | ".join(f"{n} {versions[n]}" for n in LIBRARIES)
        + " | vask / best other |",
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
        lines.append(f"| {case.title} | " + " | ".join(cells) + f" | {ratio(times):.2f} |")
    return "\n".join([*lines, "", summary(results)]) + "\n"


def panel(axes: Any, results: Results, shown: list[Case], versions: dict[str, str]) -> None:
    for library in LIBRARIES:
        places, ratios = [], []
        for place, case in enumerate(shown):
            times = results.get(case.id, {})
            if library in times:
                places.append(place)
                ratios.append(times[library]["clock"] / times["vask"]["clock"])
        ours = library == "vask"
        axes.scatter(
            np.array(ratios), places, color=COLOURS[library], zorder=3 if ours else 2,
            label=f"{library} {versions[library]}", s=36 if ours else 26,
        )  # fmt: skip
    axes.set_xscale("log")
    axes.axvline(2, color="#888888", linewidth=0.8, linestyle=":")
    axes.set_yticks(range(len(shown)), [case.title for case in shown])
    axes.grid(axis="x", color="#dddddd", linewidth=0.6)


def picture(found: dict[str, Results], versions: dict[str, str], threads: int, path: Path) -> None:
    """A panel for each table, with a row for each question."""
    import matplotlib

    matplotlib.use("svg")
    matplotlib.rcParams["svg.hashsalt"] = "vask"
    from matplotlib import pyplot

    shown = [case for case in CASES if any(case.id in results for results in found.values())]
    size = (4 + 3.6 * len(found), 0.3 * len(shown) + 1.8)
    figure, panels = pyplot.subplots(1, len(found), figsize=size, sharey=True, squeeze=False)
    for axes, (title, results) in zip(panels[0], found.items()):
        panel(axes, results, shown, versions)
        axes.set_title(title, fontsize=10)
    panels[0][0].invert_yaxis()
    handles, labels = panels[0][0].get_legend_handles_labels()
    figure.legend(handles, labels, fontsize=8, ncols=len(LIBRARIES), loc="lower right")
    figure.supxlabel(
        f"time, vask = 1, {threads} threads (right is slower; dotted: twice the time)",
        fontsize=9, x=0.02, ha="left",
    )  # fmt: skip
    figure.tight_layout()
    figure.savefig(path, metadata={"Date": None})
    figure.savefig(path.with_suffix(".png"), dpi=110)
