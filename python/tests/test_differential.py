"""Generated tables, aggregated by this package, by a slow reference, and by pandas, Polars and
DuckDB. Where those define a function in another way, the comparison says in which."""

import datetime as dt
import math

import duckdb
import numpy as np
import pandas as pd
import polars as pl
import pyarrow as pa
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st
from reference import PAIRS, answer, canonical, groups_of, same

import vask

# Eighths: sums of them are exact in every order.
EIGHTHS = st.integers(-8000, 8000).map(lambda v: v / 8)
WORDS = st.sampled_from(["", "a", "b", "a\0b", "a\0c", "ein längerer Text", "ä" * 40])
KEYS = {
    "int8": (pa.int8(), st.integers(-2, 2)),
    "int64": (pa.int64(), st.sampled_from([0, 1, 2**40, -(2**62), 2**63 - 1, -(2**63)])),
    "int32": (pa.int32(), st.sampled_from([-(2**31), 2**31 - 1, 0, 1])),
    "uint64": (pa.uint64(), st.sampled_from([0, 1, 2**63, 2**64 - 1])),
    "float64": (pa.float64(), st.sampled_from([0.0, -0.0, 1.5, math.nan, math.inf])),
    "utf8": (pa.string(), WORDS),
    "large": (pa.large_string(), WORDS),
    "view": (pa.string_view(), WORDS),
    "bool": (pa.bool_(), st.booleans()),
    "date": (pa.date32(), st.dates(dt.date(2020, 1, 1), dt.date(2020, 1, 4))),
    "words": (pa.dictionary(pa.int8(), pa.string()), WORDS),
}
VALUES = {
    "int8": (pa.int8(), st.integers(-128, 127)),
    "int32": (pa.int32(), st.integers(-(2**31), 2**31 - 1)),
    "int64": (pa.int64(), st.integers(-(10**6), 10**6)),
    "uint16": (pa.uint16(), st.integers(0, 2**16 - 1)),
    "float32": (pa.float32(), EIGHTHS),
    "float64": (pa.float64(), EIGHTHS),
}

ORDERED = ["size", "count", "min", "max", "first", "last", "nunique", "mode"]
NUMERIC = ["sum", "mean", "median", "std", "var", "skew", "any", "all"]


def chunked(draw, values, type_):
    """The values in chunks of any lengths, empty ones too."""
    cuts = sorted(draw(st.lists(st.integers(0, len(values)), max_size=3)))
    ends = [*cuts, len(values)]
    begins = [0, *cuts]
    # A dictionary has to be the same in all chunks for some readers, so it stays whole.
    if pa.types.is_dictionary(type_):
        return pa.chunked_array([pa.array(values, type_.value_type).dictionary_encode()])
    return pa.chunked_array([pa.array(values[b:e], type_) for b, e in zip(begins, ends)], type_)


@st.composite
def tables(draw, keys=tuple(KEYS)):
    """A table with keys k, j and values v, w; and the keys to group by."""
    rows = draw(st.one_of(st.integers(0, 3), st.integers(4, 60)))
    columns = {}
    for name in ("k", "j"):
        type_, items = KEYS[draw(st.sampled_from(keys))]
        columns[name] = (type_, items)
    for name in ("v", "w"):
        columns[name] = VALUES[draw(st.sampled_from(list(VALUES)))]
    nulls = draw(st.sampled_from(["none", "some", "all"]))
    made = {}
    for name, (type_, items) in columns.items():
        if nulls == "some" or (nulls == "all" and name in "jv"):
            items = st.one_of(st.none(), items) if nulls == "some" else st.none()
        values = draw(st.lists(items, min_size=rows, max_size=rows))
        made[name] = chunked(draw, values, type_)
    by = draw(st.sampled_from([["k"], ["k", "j"], ["j"]]))
    return pa.table(made), by


def requests(functions):
    asked = {name: ("v", name) for name in functions}
    asked.update({name: (("v", "w"), name) for name in PAIRS})
    asked["q"] = ("v", "quantile", 0.3)
    asked["l_"] = ("v", "nlargest", 2)
    return asked


def by_key(columns, by, results):
    """The results of each key, from lists by name."""
    rows = len(columns[by[0]])
    table = {}
    for row in range(rows):
        key = tuple(canonical(columns[name][row]) for name in by)
        assert key not in table, f"group {key} twice"
        table[key] = {name: columns[name][row] for name in results}
    return table


def asked_of(table, by, data=None):
    """This package's answers, in the order in which it gives groups."""
    data = table if data is None else data
    named = requests(ORDERED + NUMERIC)
    asked = {name: asked for name, asked in named.items() if name != "l_"}
    result = vask.aggregate(data, by, results=asked, l=("v", "nlargest", 2))
    names = [name for name in result.columns if name not in by]
    return by_key(result.to_pydict(), by, names)


def expected_of(table, by):
    """The reference's."""
    columns = table.to_pydict()
    expected = {}
    for key, rows in groups_of(columns, by, table.num_rows).items():
        v = [columns["v"][row] for row in rows]
        w = [columns["w"][row] for row in rows]
        one = {name: answer(name, v) for name in ORDERED + NUMERIC}
        one.update({name: answer(name, v, w) for name in PAIRS})
        one["q"] = answer("quantile", v, parameter=0.3)
        one["l_1"], one["l_2"] = (answer("largest", v, parameter=k) for k in (1, 2))
        expected[key] = one
    return expected


def assert_same(ours, theirs, but=lambda name, ours: False):
    """Compares by key and name, leaving out what ``but`` says."""
    assert set(ours) == set(theirs)
    for key, one in theirs.items():
        for name, value in one.items():
            if isinstance(value, float) and math.isnan(value):
                value = None  # no generated value is NaN: it means that there is no answer
            if not but(name, ours[key][name]):
                assert same(ours[key][name], value), (key, name, ours[key][name], value)


@settings(max_examples=400)
@given(tables())
def test_reference(case):
    table, by = case
    ours = asked_of(table, by)
    theirs = expected_of(table, by)
    assert list(ours) == list(theirs)  # groups come in the order of their first rows
    assert_same(ours, theirs)


@settings(max_examples=100)
@given(tables())
def test_whole_columns(case):
    table, _ = case
    v, w = (table[name].to_pylist() for name in "vw")
    for name in ORDERED + NUMERIC:
        assert same(getattr(vask, name)(table["v"]), answer(name, v)), name
    for name in PAIRS:
        assert same(getattr(vask, name)(table["v"], table["w"]), answer(name, v, w)), name
    qs = [0, 0.3, 1]
    theirs = [answer("quantile", v, parameter=q) for q in qs]
    assert all(map(same, vask.quantile(table["v"], qs), theirs))


@settings(max_examples=100)
@given(tables(), st.sampled_from(["numpy", "arrow"]))
def test_pandas(case, backend):
    """pandas takes NaN for null, in keys too, and so does this package of pandas frames."""
    table, by = case
    if backend == "numpy":
        frame = table.to_pandas(date_as_object=False)
    else:
        # pandas gives the key of null views as an empty text.
        plain_texts = {
            name: table[name].cast(pa.string())
            if pa.types.is_string_view(table[name].type)
            else table[name]
            for name in table.column_names
        }
        frame = pa.table(plain_texts).to_pandas(types_mapper=pd.ArrowDtype)
        if any(pa.types.is_dictionary(field.type) for field in table.schema):
            frame = table.to_pandas(date_as_object=False)
    if frame["v"].dtype == object:
        frame["v"] = frame["v"].astype("float64")  # nothing but nulls
    if (
        any(
            pa.types.is_uint64(table.schema.field(k).type)
            or pa.types.is_int64(table.schema.field(k).type)
            for k in by
        )
        and backend == "numpy"
    ):
        frame = frame.drop(columns=by).assign(
            **{
                k: pd.array(
                    table[k].to_pylist(),
                    "Int64" if pa.types.is_int64(table.schema.field(k).type) else "UInt64",
                )
                if pa.types.is_integer(table.schema.field(k).type)
                else frame[k]
                for k in by
            }
        )  # no rounding to floats
    ours = asked_of(table, by, frame)
    if backend == "arrow":
        # Of these columns alone, pandas takes -0.0 for another key than 0.0.
        zeros = {k: frame[k] + 0.0 for k in by if pa.types.is_floating(table.schema.field(k).type)}
        frame = frame.assign(**zeros)
    # It would compute moments of float32 in 24 bits.
    frame = frame.assign(
        v=frame["v"].astype(
            str(frame["v"].dtype).replace("float32", "float64").replace("float[", "double[")
        )
    )
    groups = frame.groupby(by, dropna=False, sort=False, observed=True)["v"]
    theirs = {
        "size": groups.size(),
        "count": groups.count(),
        "sum": groups.sum(min_count=1),  # without it, 0 for no values
        "mean": groups.mean(),
        "min": groups.min(),
        "max": groups.max(),
        "median": groups.median(),
        "q": groups.quantile(0.3),
        "std": groups.std(),
        "var": groups.var(),
        "skew": groups.skew(),
        "nunique": groups.nunique(),
        "first": groups.first(),
        "last": groups.last(),
    }
    answers = {}
    for name, series in theirs.items():
        for key, value in zip(series.index, series.tolist()):
            key = key if isinstance(key, tuple) else (key,)
            key = tuple(None if pd.isna(part) else plain(part) for part in key)
            answers.setdefault(key, {})[name] = None if pd.isna(value) else value
    assert_same(
        {tuple(map(plain, key)): one for key, one in ours.items()},
        answers,
        # 0 of a group without spread, where it has no meaning
        lambda name, mine: name == "skew" and mine is None,
    )


def plain(part):
    if isinstance(part, dt.datetime):
        return part.date()
    return None if part == "NaN" else canonical(part)


@settings(max_examples=100)
@given(tables())
def test_polars(case):
    table, by = case
    frame = pl.DataFrame(table)
    ours = asked_of(table, by, frame)
    v, w = pl.col("v"), pl.col("w")
    there = v.drop_nulls()
    both = v.is_not_null() & w.is_not_null()
    wide = v.cast(pl.Float64), w.cast(pl.Float64)
    result = frame.group_by(by, maintain_order=True).agg(
        size=pl.len(),
        count=v.count(),
        # 0 of no values; and small integers are summed in 64 bits
        sum=pl.when(v.count() > 0).then(
            v.cast(pl.Float64 if frame["v"].dtype.is_float() else pl.Int64).sum()
        ),
        mean=wide[0].mean(),
        min=v.min(),
        max=v.max(),
        median=wide[0].median(),
        q=wide[0].quantile(0.3, "linear"),
        std=wide[0].std(),
        var=wide[0].var(),
        skew=wide[0].skew(bias=False),
        nunique=there.n_unique(),  # a null is a value otherwise
        first=there.first(),  # nulls are not passed over otherwise
        last=there.last(),
        corr=pl.corr(wide[0].filter(both), wide[1].filter(both)),
        cov=pl.cov(wide[0].filter(both), wide[1].filter(both)),
    )
    names = [name for name in result.columns if name not in by]
    assert_same(
        ours,
        by_key(result.to_dict(as_series=False), by, names),
        # of a group without spread
        lambda name, mine: name in ("skew", "corr") and mine is None,
    )


@settings(max_examples=100)
@given(tables(), st.booleans())
def test_duckdb(case, as_relation):
    table, by = case
    session = duckdb.connect()
    session.execute("SET threads = 1")
    session.register("t", table)
    ours = asked_of(table, by, session.table("t") if as_relation else table)
    keys = ", ".join(by)
    rows = session.execute(f"""
        SELECT {keys}, count(*) AS size, count(v) AS count, sum(v) AS sum, avg(v) AS mean,
               min(v) AS min, max(v) AS max, median(v::DOUBLE) AS median,
               quantile_cont(v::DOUBLE, 0.3) AS q, stddev_samp(v) AS std, var_samp(v) AS var,
               skewness(v) AS skew, count(DISTINCT v) AS nunique, corr(v, w) AS corr,
               covar_samp(v, w) AS cov, regr_slope(v, w) AS slope,
               regr_intercept(v, w) AS intercept, max(v, 2)[2] AS l_2
        FROM t GROUP BY {keys}""").to_arrow_table()
    names = [name for name in rows.column_names if name not in by]
    assert_same(
        ours,
        by_key(rows.to_pydict(), by, names),
        # of a group without spread
        lambda name, mine: name in ("skew", "corr", "slope", "intercept") and mine is None,
    )


@pytest.mark.parametrize("rows", [1, 2, 1000, 70_000])
def test_many_keys(rows):
    """A group for each row, and two for most: past the tables of few groups."""
    table = pa.table(
        {
            "k": pa.array([(i * 7919) % 2**40 for i in range(rows)]),
            "t": pa.array([f"text {i % (rows // 2 + 1)}" for i in range(rows)]),
            "v": pa.array([None if i % 11 == 0 else i % 1000 for i in range(rows)], pa.int32()),
        }
    )
    frame = pl.DataFrame(table)
    for by in (["k"], ["t"], ["k", "t"]):
        ours = vask.aggregate(
            table, by, n="size", s=("v", "sum"), m=("v", "median"), u=("v", "nunique")
        ).to_polars()
        theirs = frame.group_by(by, maintain_order=True).agg(
            n=pl.len().cast(pl.Int64),
            s=pl.when(pl.col("v").count() > 0).then(pl.col("v").cast(pl.Int64).sum()),
            m=pl.col("v").median(),
            u=pl.col("v").drop_nulls().n_unique().cast(pl.Int64),
        )
        assert ours.equals(theirs)


def test_distinct_values_of_more_than_a_million_groups():
    """So many are counted in another way than fewer."""
    rows = 1_900_000
    keys = np.random.default_rng(3).integers(0, 1_500_000, rows)
    drawn = np.arange(rows) % 5
    values = {
        "float": pa.array(np.array([0.0, -0.0, math.nan, 1.5, 2.5])[drawn], mask=drawn == 4),
        "wide": pa.array(np.array([0, 2**64 - 1, 2**63, 0, 7], "u8")[drawn], mask=drawn == 4),
        "text": pa.array(["a", "", "b", "b", "z"]).take(pa.array(drawn)),
    }
    classes = {  # which of the five drawn ones are the same value; the last is none
        "float": [0, 0, 1, 2, None],
        "wide": [0, 1, 2, 0, None],
        "text": [0, 1, 2, 2, 3],
    }
    asked = {name: (name, "nunique") for name in values}
    ours = vask.aggregate({"k": keys, **values}, "k", **asked)
    assert len(ours) > 1_000_000
    for name, numbers in classes.items():
        there = np.array([number is not None for number in numbers])[drawn]
        number = np.array([number or 0 for number in numbers])[drawn]
        pairs = np.unique((keys * 8 + number)[there]) // 8
        expected = np.bincount(pairs, minlength=1_500_000)[ours["k"].to_numpy()]
        assert (ours[name].to_numpy() == expected).all(), name


def test_nan_is_a_value_unless_told_otherwise():
    nan = math.nan
    table = pa.table({"k": [1, 1, 2, 2], "v": [nan, 1.0, 2.0, None], "f": [nan, nan, None, 0.0]})
    result = vask.aggregate(table, "k", s=("v", "sum"), n=("v", "count"), u=("f", "nunique"))
    assert math.isnan(result["s"][0])
    assert result["s"][1] == 2.0
    assert result["n"].to_pylist() == [2, 1]
    assert result["u"].to_pylist() == [1, 1]
    with pytest.raises(vask.DataError, match="NaN"):
        vask.aggregate(table, "k", m=("v", "median"))
    result = vask.aggregate(table, "k", nan_is_null=True, s=("v", "sum"), m=("v", "median"))
    assert result.to_pydict() == {"k": [1, 2], "s": [1.0, 2.0], "m": [1.0, 2.0]}

    by_float = vask.aggregate(table, "f", n="size")
    assert [canonical(key) for key in by_float["f"]] == ["NaN", None, 0.0]
    assert by_float["n"].to_pylist() == [2, 1, 1]
    assert vask.aggregate(table, "f", dropna=True, n="size").to_pydict() == {"f": [0.0], "n": [1]}
    # Values stay what they are.
    dropped = vask.aggregate(table, "k", dropna=True, s=("v", "sum"))
    assert math.isnan(dropped["s"][0])
