"""What is asked and how: names, aggregations, options, and the errors that help."""

import decimal
import math

import numpy as np
import pandas as pd
import polars as pl
import pyarrow as pa
import pytest

import vask

TABLE = pa.table(
    {
        "k": ["x", "y", "x", None, "y", "x"],
        "j": [1, 1, 2, 2, None, 1],
        "v": [1, 2, 3, 4, 5, 6],
        "w": [0.5, None, 2.5, 1.0, 1.0, 0.5],
    }
)


def answer(*arguments, **named):
    result = vask.aggregate(TABLE, *arguments, **named)
    return {name: result[name].to_pylist() for name in result}


def test_call_shapes():
    assert answer("k", s=("v", "sum"))["s"] == [10, 7, 4]
    assert answer(["k", "j"], n="size") == {
        "k": ["x", "y", "x", None, "y"],
        "j": [1, 1, 2, 2, None],
        "n": [2, 1, 1, 1, 1],
    }
    assert answer(by=None, p=("v", "quantile", 0.25))["p"] == [2.25]
    both = np.corrcoef([1, 3, 4, 5, 6], [0.5, 2.5, 1.0, 1.0, 0.5])
    assert answer(r=(("v", "w"), "corr"))["r"][0] == pytest.approx(both[0, 1])
    assert answer("k") == {"k": ["x", "y", None]}
    assert answer(n=("size",)) == answer(n=("v", "size")) == {"n": [6]}
    assert answer(results={"sort": ("v", "sum"), "a b": ("v", "min")}) == {"sort": [21], "a b": [1]}
    assert answer("k", s=pd.NamedAgg("v", "sum"))["s"] == [10, 7, 4]


def test_several_columns_and_parameters():
    assert answer(t=(["v", "w"], "sum")) == {"t_v": [21], "t_w": [5.5]}
    assert answer("k", t=(vask.all(), "max")) == {
        "k": ["x", "y", None],
        "t_j": [2, 1, 2],
        "t_v": [6, 5, 4],
        "t_w": [2.5, 1.0, 1.0],
    }
    assert list(answer("k", t=(vask.all(exclude="v"), "max"))) == ["k", "t_j", "t_w"]
    assert list(answer("j", t=(vask.all(numeric=True), "mean"))) == ["j", "t_v", "t_w"]
    assert answer(q=("v", "quantile", [0, 0.5, 1])) == {"q_0": [1.0], "q_0.5": [3.5], "q_1": [6.0]}
    assert answer(q=("v", "quantile", np.array([0.5]))) == {"q_0.5": [3.5]}
    assert answer(l=("v", "nlargest", 2)) == {"l_1": [6], "l_2": [5]}
    assert answer(c=([("v", "w"), ("v", "j")], "cov")).keys() == {"c_v_w", "c_v_j"}


def test_options():
    assert answer("k", sort=True, n="size")["k"] == ["x", "y", None]
    assert answer("j", sort=True, n="size") == {"j": [1, 2, None], "n": [3, 2, 1]}
    assert answer("k", dropna=True, n="size") == {"k": ["x", "y"], "n": [3, 2]}
    assert answer("k", skipna=False, s=("w", "sum"), c=("w", "count")) == {
        "k": ["x", "y", None],
        "s": [3.5, None, 1.0],
        "c": [3, 1, 1],
    }
    two = vask.aggregate(TABLE, a=("v", "std"), b=("v", "std", 0), ddof=1)
    assert two["a"][0] == pytest.approx(np.std([1, 2, 3, 4, 5, 6], ddof=1))
    assert two["b"][0] == pytest.approx(np.std([1, 2, 3, 4, 5, 6]))
    assert answer(a=("v", "var"), ddof=0)["a"][0] == pytest.approx(np.var([1, 2, 3, 4, 5, 6]))
    big = {"v": [2**62] * 4}
    assert vask.aggregate(big, wide_sums=True, s=("v", "sum"))["s"][0] == decimal.Decimal(2**64)


def test_partitions_do_not_depend_on_the_machine():
    rng = np.random.default_rng(1)
    data = {"k": rng.integers(0, 10, 100_000), "v": rng.normal(size=100_000)}
    first = vask.aggregate(data, "k", s=("v", "sum"), m=("v", "std")).to_pydict()
    for _ in range(3):
        assert vask.aggregate(data, "k", s=("v", "sum"), m=("v", "std")).to_pydict() == first
    one = vask.aggregate(data, "k", partitions=1, s=("v", "sum"))
    in_order = dict.fromkeys(one["k"], 0.0)
    for key, value in zip(data["k"].tolist(), data["v"].tolist()):
        in_order[key] += value
    assert dict(zip(one["k"], one["s"])) == in_order


@pytest.mark.parametrize(
    ("arguments", "error", "text"),
    [
        (dict(by="kk"), KeyError, "there is no column 'kk'; did you mean 'k'?"),
        (dict(by=["k", "J"]), KeyError, "did you mean 'j'?"),
        (
            dict(s=("vv", "sum")),
            KeyError,
            r"result 's': there is no column 'vv'; did you mean 'v'\?",
        ),
        (dict(s=("v", "medain")), KeyError, "no function 'medain'; did you mean 'median'"),
        (dict(s=("k", "sum")), TypeError, "result 's'.*sum.*column 'k' is utf8"),
        (dict(s=(("v", "k"), "corr")), TypeError, "corr takes numbers.*column 'k' is utf8"),
        (dict(s=("v", "corr")), TypeError, "takes a pair of columns"),
        (dict(s=(("v", "w"), "sum")), TypeError, "takes one column"),
        (dict(s=("v", "quantile", 2)), ValueError, "from 0 to 1"),
        (dict(s=("v", "quantile", "x")), TypeError, "is a number"),
        (dict(s=("v", "quantile", math.nan)), ValueError, "from 0 to 1"),
        (dict(s=("v", "sum", 1)), TypeError, "takes no parameter"),
        (dict(s=("v", "quantile", 0, 1)), TypeError, "one parameter at most"),
        (dict(s=("v", "nlargest", 0)), ValueError, "from 1 on"),
        (dict(s=("v", "std", 2)), ValueError, "ddof is 0 or 1"),
        (dict(s=("v", "std"), ddof=3), ValueError, "ddof is 0 or 1"),
        (dict(s=7), TypeError, "is a tuple"),
        (dict(s=("v", sum)), TypeError, "named by a text"),
        (dict(s=(7, "sum")), TypeError, "7"),
        (dict(by="k", k=("v", "sum")), ValueError, "two columns of the result are called 'k'"),
        (dict(by=["k", "k"]), ValueError, "named twice"),
        (dict(by=7), TypeError, "by is a column's name"),
        (dict(by=[7]), TypeError, "named by a text"),
        (dict(sort=("v", "sum")), TypeError, r"results=\{'sort'"),
        (dict(progress=5), TypeError, "progress is True"),
        (dict(partitions=1000), ValueError, "from 1 to 256"),
        (dict(observed=False), ValueError, "observed"),
        (dict(interpolation="nearest"), ValueError, "linear"),
        (dict(s=(vask.all(exclude="q"), "max")), KeyError, "no column 'q'"),
    ],
    ids=str,
)
def test_errors_say_what_is_wrong(arguments, error, text):
    with pytest.raises(error, match=text) as failure:
        vask.aggregate(TABLE, **arguments)
    assert isinstance(failure.value, vask.Error)


def test_an_overflow_names_the_group():
    table = {"k": ["a", "b", "b"], "v": [1, 2**63 - 1, 2**63 - 1]}
    with pytest.raises(OverflowError, match="b") as failure:
        vask.aggregate(table, "k", s=("v", "sum"))
    assert isinstance(failure.value, (vask.Error, ValueError))


@pytest.mark.parametrize(("by", "aggregation"), [("k", ("h", "min")), ("h", ("v", "min"))])
def test_a_type_that_nothing_takes(by, aggregation):
    table = pa.table({"k": [1, 2], "v": [1, 2], "h": pa.array([[1], [2]])})
    with pytest.raises(TypeError, match="column 'h' is an Arrow type"):
        vask.aggregate(table, by, m=aggregation)


def test_groups():
    g = vask.group_by(TABLE, "k")
    assert len(g) == 3
    assert g.keys.to_pydict() == {"k": ["x", "y", None]}
    assert g.codes.tolist() == [0, 1, 0, 2, 1, 0]
    assert g.codes.dtype == np.int32
    assert g.first_rows.tolist() == [0, 1, 3]
    down = vask.group_by({"k": ["b", "a", "b"]}, "k", sort=True)
    assert down.codes.tolist() == [1, 0, 1]
    assert down.first_rows.tolist() == [1, 0]
    assert g.median("v").to_pydict() == {"k": ["x", "y", None], "v": [3.0, 3.5, 4.0]}
    assert g.sum().columns == ["k", "j", "v", "w"]
    assert g.sum(["v", "w"]).to_pydict()["w"] == [3.5, 1.0, 1.0]
    assert g.size().to_pydict() == {"k": ["x", "y", None], "size": [3, 2, 1]}
    assert g.agg({"v": "sum", "w": ["min", "max"]}).columns == ["k", "v", "w_min", "w_max"]
    assert g.agg("max").columns == ["k", "j", "v", "w"]
    assert g.agg(["min", "max"]).columns[:4] == ["k", "j_min", "j_max", "v_min"]
    assert g.agg(("v", "sum")).columns == ["k", "sum(v)"]
    assert g.agg("size").columns == ["k", "size"]
    assert g.agg(n="size", m=("v", "mean"))["m"].to_pylist() == [10 / 3, 3.5, 4.0]
    assert g.quantile("v", [0.25, 0.75]).columns == ["k", "v_0.25", "v_0.75"]
    assert g.nlargest("v", 2).to_pydict()["v_2"] == [3, 2, None]
    assert g.corr("v", "w").columns == ["k", "corr"]
    for name in ("count", "mean", "min", "std", "var", "skew", "nunique", "mode", "first", "last"):
        assert len(getattr(g, name)("v")) == 3, name
    for name in ("any", "all"):
        assert getattr(g, name)("v")["v"].to_pylist() == [True] * 3
    for name in ("cov", "slope", "intercept"):
        assert getattr(g, name)("v", "w").columns == ["k", name]

    dropped = vask.group_by(TABLE, ["k"], dropna=True)
    assert dropped.codes.tolist() == [0, 1, 0, -1, 1, 0]
    with pytest.raises(KeyError, match="did you mean 'k'"):
        vask.group_by(TABLE, "K")
    with pytest.raises(ValueError, match="one key at least"):
        vask.group_by(TABLE, [])
    with pytest.raises(ValueError, match=r"'k' is a key.*max"):
        g.max("k")


def test_groups_see_the_data_as_they_are():
    v = np.array([1, 2, 3])
    g = vask.group_by({"k": [1, 1, 2], "v": v}, "k")
    assert g.sum("v")["v"].to_pylist() == [3, 3]
    v[0] = 10
    assert g.sum("v")["v"].to_pylist() == [12, 3]


def test_codes_agree_with_pandas():
    rng = np.random.default_rng(3)
    frame = pd.DataFrame({"a": rng.integers(0, 300, 5000), "b": rng.choice(list("xyz"), 5000)})
    ours = vask.group_by(frame, ["a", "b"]).codes
    theirs = frame.groupby(["a", "b"], sort=False).ngroup().to_numpy()
    assert (ours == theirs).all()


def test_single_columns():
    x = [3, 1, None, 1]
    assert vask.sum(x) == 5
    assert vask.count(x) == 3
    assert vask.size(x) == 4
    assert (vask.min(x), vask.max(x), vask.median(x), vask.mode(x)) == (1, 3, 1.0, 1)
    assert vask.quantile(x, [0, 1]) == [1.0, 3.0]
    assert vask.quantile(np.array([1.0, 2.0])) == 1.5
    assert vask.nlargest(x, 5) == [3, 1, 1]
    assert vask.first([None, "b"]) == "b"
    assert vask.corr(np.arange(5), np.arange(5) * 2) == 1.0
    assert (vask.slope([1, 3, 5], [0, 1, 2]), vask.intercept([1, 3, 5], [0, 1, 2])) == (2.0, 1.0)
    assert vask.any([0, 1]) is True
    assert vask.all([0, 1]) is False
    assert vask.sum(x, skipna=False) is None
    assert vask.median(pd.Series([1.0, math.nan])) == 1.0
    assert vask.sum(pl.Series([1, 2]), wide_sums=True) == 3
    assert math.isnan(vask.sum([1.0, math.nan]))
    assert vask.sum([1.0, math.nan], nan_is_null=True) == 1.0
    with pytest.raises(ValueError, match="1 values"):
        vask.corr([1, 2], [1])
    with pytest.raises(TypeError, match="column 'x'"):
        vask.median(["a"])


def test_is_in():
    found = vask.is_in([1, 5, None, 7], np.array([7, 1], "i2"))
    assert found.to_pylist() == [True, False, None, True]
    assert np.asarray(vask.is_in(pa.array(["a", "b"]), ["b", "c"])).tolist() == [False, True]
    assert vask.is_in([2.0, 2.5], [2]).to_pylist() == [True, False]
    assert vask.is_in([], [1]).to_pylist() == []
    with pytest.raises(vask.Error):
        vask.is_in([1], ["a"])


def test_functions_are_listed():
    listed = vask.functions()
    for name in (
        "sum mean count size min max median quantile std var skew corr cov first last nunique "
        "mode nlargest slope intercept any all"
    ).split():
        assert listed[name]
