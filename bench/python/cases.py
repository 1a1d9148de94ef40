"""The questions, as each library's users would ask them.

A library that has no such function, or only an approximate one, has no entry.
"""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import Any, Callable

import pandas as pd
import polars as pl
import pyarrow.compute as pc
import vask

Ask = Callable[[Any], Any]


@dataclass
class Case:
    """A question. Each way of asking takes the library's own table and gives keys and results."""

    id: str
    title: str
    keys: list[str]
    results: list[str]
    ask: dict[str, Ask] = field(default_factory=dict)
    #: Whether the libraries mean the same where cells are missing.
    with_missing: bool = True


def grouped(
    id: str,
    title: str,
    keys: list[str],
    aggregates: dict[str, tuple[Any, ...]],
    sql: str,
    polars: list[pl.Expr],
    pandas: Ask | None = None,
    pyarrow: list[tuple[Any, ...]] | None = None,
) -> Case:
    """A question by groups. `pyarrow` names columns and functions, in the order of the results."""
    names = list(aggregates)
    case = Case(id, title, keys, names)
    by = ", ".join(keys)
    case.ask["vask"] = lambda t: vask.aggregate(t, keys, **aggregates)
    case.ask["Polars"] = lambda t: t.group_by(keys).agg(*polars)
    query = sql if sql.startswith("SELECT") else f"SELECT {by}, {sql} FROM x GROUP BY {by}"
    case.ask["DuckDB"] = lambda t: t.sql(query).to_arrow_table()
    if pandas is not None:
        case.ask["pandas"] = lambda t: pandas(
            t.groupby(keys, sort=False, observed=True, dropna=False)
        ).reset_index()
    if pyarrow is not None:
        asked = pyarrow
        case.ask["PyArrow"] = lambda t: (
            t.group_by(keys, use_threads=True).aggregate(asked).rename_columns([*keys, *names])
        )
    return case


def whole(
    id: str,
    title: str,
    aggregates: dict[str, tuple[Any, ...]],
    sql: str,
    polars: list[pl.Expr],
    pandas: Callable[[Any], list[Any]] | None = None,
    pyarrow: Callable[[Any], list[Any]] | None = None,
) -> Case:
    """A question of whole columns."""
    names = list(aggregates)
    case = Case(id, title, [], names)
    case.ask["vask"] = lambda t: vask.aggregate(t, **aggregates)
    case.ask["Polars"] = lambda t: t.select(*polars)
    case.ask["DuckDB"] = lambda t: t.sql(f"SELECT {sql} FROM x").to_arrow_table()
    for library, ask in (("pandas", pandas), ("PyArrow", pyarrow)):
        if ask is not None:
            case.ask[library] = lambda t, ask=ask: dict(zip(names, ask(t)))
    return case


def sums(columns: list[str], function: str, sql: str) -> dict[str, Any]:
    """One function of several columns."""
    return {
        "aggregates": {c: (c, function) for c in columns},
        "sql": ", ".join(f"{sql}({c}) AS {c}" for c in columns),
        "polars": [getattr(pl.col(c), function)() for c in columns],
        "pandas": lambda g: getattr(g[columns], function)(),
        "pyarrow": [(c, function) for c in columns],
    }


v1, v2, v3 = pl.col("v1"), pl.col("v2"), pl.col("v3")


def mode_sql(key: str) -> str:
    """Counting first is faster than a set of counters for each group."""
    return (
        f"SELECT {key}, CASE WHEN max(c) > 1 THEN arg_max(v3, c * 1000000 - v3) END AS m FROM "
        f"(SELECT {key}, v3, count(*) AS c FROM x GROUP BY {key}, v3) q GROUP BY {key}"
    )


def mode_polars(table: pl.DataFrame, key: str) -> pl.DataFrame:
    counted = table.group_by(key, "v3").agg(c=pl.len())
    most = counted.sort("c", "v3", descending=[True, False]).group_by(key, maintain_order=True)
    return most.first().select(key, m=pl.when(pl.col("c") > 1).then("v3"))


def mode_pandas(table: pd.DataFrame, key: str) -> pd.DataFrame:
    counted = table.groupby([key, "v3"], sort=False).size().reset_index(name="c")
    counted = counted.sort_values(["c", "v3"], ascending=[False, True])
    most = counted.drop_duplicates(key)
    return pd.DataFrame({key: most[key], "m": most["v3"].where(most["c"] > 1)})


def order_statistics(key: str) -> list[Case]:
    """What pandas calls holistic: all values of a group are needed."""
    mode = Case(f"mode_{key}", f"mode v3 by {key}", [key], ["m"], with_missing=False)
    mode.ask = {
        "vask": lambda t: vask.aggregate(t, key, m=("v3", "mode")),
        "Polars": lambda t: mode_polars(t, key),
        "DuckDB": lambda t: t.sql(mode_sql(key)).to_arrow_table(),
        "pandas": lambda t: mode_pandas(t, key),
    }
    distinct = grouped(
        f"nunique_{key}", f"distinct v3 by {key}", [key], {"u": ("v3", "nunique")},
        f"SELECT {key}, count(*) AS u FROM (SELECT {key}, v3 FROM x GROUP BY {key}, v3) q "
        f"GROUP BY {key}",
        [v3.n_unique().alias("u")],
        lambda g: g["v3"].nunique().rename("u"), [("v3", "count_distinct")],
    )  # fmt: skip
    distinct.with_missing = False
    return [
        grouped(
            f"median_{key}", f"median v3 by {key}", [key], {"m": ("v3", "median")},
            "median(v3) AS m", [v3.median().alias("m")],
            lambda g: g["v3"].median().rename("m"),
        ),
        mode,
        distinct,
        grouped(
            f"quantile_{key}", f"90 % quantile v3 by {key}", [key],
            {"q": ("v3", "quantile", 0.9)},
            "quantile_cont(v3, 0.9) AS q", [v3.quantile(0.9, "linear").alias("q")],
            lambda g: g["v3"].quantile(0.9).rename("q"),
        ),
    ]  # fmt: skip


def pandas_r2(groups: Any) -> Any:
    """From sums, which is how a pandas user avoids a function call for each group."""
    frame = groups.obj
    pair = frame.v1.notna() & frame.v2.notna()
    a, b = (frame[v].astype("f8").where(pair) for v in ("v1", "v2"))
    columns = {"a": a, "b": b, "aa": a * a, "bb": b * b, "ab": a * b, "n": pair}
    frame = pd.concat([frame[groups.keys], pd.DataFrame(columns)], axis=1)
    s = frame.groupby(groups.keys, sort=False, dropna=False).sum()
    cov = s.n * s.ab - s.a * s.b
    r = cov / ((s.n * s.aa - s.a**2) ** 0.5 * (s.n * s.bb - s.b**2) ** 0.5)
    return r.rename("r").to_frame()


def pandas_two_largest(groups: Any) -> Any:
    """The second of the rows that are sorted once."""
    frame = groups.obj.sort_values("v3", ascending=False)
    ranked = frame.groupby(groups.keys, sort=False)["v3"]
    return pd.DataFrame({"l_1": ranked.nth(0).set_axis(frame.loc[ranked.nth(0).index, "id6"]),
                         "l_2": ranked.nth(1).set_axis(frame.loc[ranked.nth(1).index, "id6"])
                         }).rename_axis("id6")  # fmt: skip


def eight_aggregates(key: str) -> Case:
    """Eight aggregates of one column, which passes may be shared by."""
    functions = ["count", "sum", "mean", "min", "max", "std", "var", "skew"]
    sql = ["count", "sum", "avg", "min", "max", "stddev_samp", "var_samp", "skewness"]
    polars = [v3.count(), v3.sum(), v3.mean(), v3.min(), v3.max(), v3.std(), v3.var(),
              v3.skew(bias=False)]  # fmt: skip
    sample = pc.VarianceOptions(ddof=1)
    options = {"std": ("stddev", sample), "var": ("variance", sample)}
    options["skew"] = ("skew", pc.SkewOptions(biased=False))
    return grouped(
        f"eight_{key}", f"eight aggregates of v3 by {key}", [key],
        {f: ("v3", f) for f in functions},
        ", ".join(f"{name}(v3) AS {f}" for f, name in zip(functions, sql)),
        [expression.alias(f) for f, expression in zip(functions, polars)],
        lambda g: g["v3"].agg(functions),
        [("v3", *options.get(f, (f,))) for f in functions],
    )  # fmt: skip


six = ["id1", "id2", "id3", "id4", "id5", "id6"]

CASES = [
    grouped("q1", "sum v1 by id1", ["id1"], **sums(["v1"], "sum", "sum")),
    grouped("q2", "sum v1 by id1, id2", ["id1", "id2"], **sums(["v1"], "sum", "sum")),
    grouped(
        "q3", "sum v1, mean v3 by id3", ["id3"], {"v1": ("v1", "sum"), "v3": ("v3", "mean")},
        "sum(v1) AS v1, avg(v3) AS v3", [v1.sum(), v3.mean()],
        lambda g: g.agg({"v1": "sum", "v3": "mean"}), [("v1", "sum"), ("v3", "mean")],
    ),
    grouped("q4", "mean v1, v2, v3 by id4", ["id4"], **sums(["v1", "v2", "v3"], "mean", "avg")),
    grouped("q5", "sum v1, v2, v3 by id6", ["id6"], **sums(["v1", "v2", "v3"], "sum", "sum")),
    grouped(
        "q6", "median, sd v3 by id4, id5", ["id4", "id5"],
        {"m": ("v3", "median"), "s": ("v3", "std")},
        "median(v3) AS m, stddev_samp(v3) AS s",
        [v3.median().alias("m"), v3.std().alias("s")],
        lambda g: pd.DataFrame({"m": g["v3"].median(), "s": g["v3"].std()}),
    ),
    grouped(
        "q7", "max v1, min v2 by id3", ["id3"], {"a": ("v1", "max"), "b": ("v2", "min")},
        "max(v1) AS a, min(v2) AS b", [v1.max().alias("a"), v2.min().alias("b")],
        lambda g: pd.DataFrame({"a": g["v1"].max(), "b": g["v2"].min()}),
        [("v1", "max"), ("v2", "min")],
    ),
    grouped(
        "q8", "two largest v3 by id6", ["id6"], {"l": ("v3", "nlargest", 2)},
        "max(v3, 2)[1] AS l_1, max(v3, 2)[2] AS l_2",
        [v3.top_k(2).sort(descending=True).get(0).alias("l_1"),
         v3.top_k(2).sort(descending=True).get(1, null_on_oob=True).alias("l_2")],
        pandas_two_largest,
    ),
    grouped(
        "q9", "correlation v1, v2 by id2, id4", ["id2", "id4"], {"r": (("v1", "v2"), "corr")},
        "corr(v1, v2) AS r", [pl.corr("v1", "v2").alias("r")], pandas_r2,
    ),
    grouped(
        "q10", "sum v3, count by all six ids", six, {"s": ("v3", "sum"), "n": ("v3", "count")},
        "sum(v3) AS s, count(*) AS n", [v3.sum().alias("s"), pl.len().alias("n")],
        lambda g: g["v3"].agg(s="sum", n="count"), [("v3", "sum"), ("v3", "count")],
    ),
    grouped(
        "five", "five aggregates by id1, id4", ["id1", "id4"],
        {"a": ("v1", "sum"), "b": ("v2", "mean"), "c": ("v3", "min"), "d": ("v3", "max"),
         "e": ("v3", "std")},
        "sum(v1) AS a, avg(v2) AS b, min(v3) AS c, max(v3) AS d, stddev_samp(v3) AS e",
        [v1.sum().alias("a"), v2.mean().alias("b"), v3.min().alias("c"), v3.max().alias("d"),
         v3.std().alias("e")],
        lambda g: g.agg(a=("v1", "sum"), b=("v2", "mean"), c=("v3", "min"), d=("v3", "max"),
                        e=("v3", "std")),
        [("v1", "sum"), ("v2", "mean"), ("v3", "min"), ("v3", "max"),
         ("v3", "stddev", pc.VarianceOptions(ddof=1))],
    ),
    whole("sum", "sum v3", {"s": ("v3", "sum")}, "sum(v3) AS s", [v3.sum().alias("s")],
          lambda t: [t["v3"].sum()], lambda t: [pc.sum(t["v3"]).as_py()]),
    whole("min_max", "min, max v3", {"a": ("v3", "min"), "b": ("v3", "max")},
          "min(v3) AS a, max(v3) AS b", [v3.min().alias("a"), v3.max().alias("b")],
          lambda t: [t["v3"].min(), t["v3"].max()],
          lambda t: list(pc.min_max(t["v3"]).as_py().values())),
    whole("median", "median v3", {"m": ("v3", "median")}, "median(v3) AS m",
          [v3.median().alias("m")], lambda t: [t["v3"].median()],
          lambda t: pc.quantile(t["v3"]).to_pylist()),
    whole("mode", "mode v1", {"m": ("v1", "mode")}, "mode(v1) AS m",
          [v1.mode().min().alias("m")], lambda t: [t["v1"].mode().min()],
          lambda t: [pc.mode(t["v1"])[0].as_py()["mode"]]),
    whole("sd_skew", "sd, skewness v3", {"s": ("v3", "std"), "k": ("v3", "skew")},
          "stddev_samp(v3) AS s, skewness(v3) AS k",
          [v3.std().alias("s"), v3.skew(bias=False).alias("k")],
          lambda t: [t["v3"].std(), t["v3"].skew()],
          lambda t: [pc.stddev(t["v3"], ddof=1).as_py(), pc.skew(t["v3"], biased=False).as_py()]),
    whole("corr", "correlation v1, v2", {"r": (("v1", "v2"), "corr")}, "corr(v1, v2) AS r",
          [pl.corr("v1", "v2").alias("r")], lambda t: [t["v1"].corr(t["v2"])]),
    whole("nunique", "distinct id6", {"u": ("id6", "nunique")}, "count(DISTINCT id6) AS u",
          [pl.col("id6").n_unique().alias("u")], lambda t: [t["id6"].nunique()],
          lambda t: [pc.count_distinct(t["id6"]).as_py()]),
    *(eight_aggregates(key) for key in ("id4", "id6")),
    *(case for key in ("id4", "id6", "row") for case in order_statistics(key)),
]  # fmt: skip

#: The only ones whose answer is the same for every shape of the keys.
OF_VALUES_ALONE = {"sum", "min_max", "median", "mode", "sd_skew", "corr"}
for each in CASES:
    if each.id in ("q8", "q10", "mode", "nunique"):
        each.with_missing = False


def asked_of(shape: str, k: int) -> list[Case]:
    """The questions that are worth asking of a table beside the plain one with K = 100."""
    if shape == "missing":
        return [case for case in CASES if case.with_missing]
    if (shape, k) == ("plain", 100):
        return CASES
    return [case for case in CASES if case.id not in OF_VALUES_ALONE and case.keys != ["row"]]
