"""vask.dask on real clusters: the same as one machine, whatever happens to the workers."""

import os
import signal
import time

import pytest

dask = pytest.importorskip("dask")
distributed = pytest.importorskip("distributed")
dd = pytest.importorskip("dask.dataframe")

import numpy
import pandas
import pyarrow
import pyarrow.parquet
from engines import ALL, EXACT, ORDERED, compare, of_pandas, rows_of, single, table

import vask
import vask.dask

KEYS = ["key", "kind"]


@pytest.fixture(scope="module")
def client():
    with (
        dask.config.set({"distributed.comm.timeouts.connect": "60s"}),
        distributed.LocalCluster(
            n_workers=2, threads_per_worker=1, processes=True, dashboard_address=None
        ) as cluster,
        distributed.Client(cluster) as client,
    ):
        yield client


def cut(frame, at):
    """A Dask frame whose partitions end at these rows."""
    parts = [frame.iloc[a:b] for a, b in zip([0, *at], [*at, len(frame)])]
    return dd.from_delayed([dask.delayed(part) for part in parts], meta=frame.iloc[:0])


@pytest.fixture(scope="module")
def frame():
    return table().to_pandas()


def uneven(frame):
    """Empty partitions at both ends and in the middle, one of a row, one of nearly all rows."""
    return cut(frame, [0, 1, 1, 3000, 3000, len(frame) - 7, len(frame)])


def quarters(frame):
    return [frame.iloc[a : a + len(frame) // 4] for a in range(0, len(frame), len(frame) // 4)]


@pytest.mark.parametrize("pieces", [0, 4096], ids=["shuffle", "pieces"])
@pytest.mark.parametrize("by", [[], KEYS, ["part"]])
def test_equals_one_machine(client, frame, monkeypatch, by, pieces):
    monkeypatch.setattr(vask.dask, "_MOST_PIECES", pieces)
    found = vask.dask.aggregate(uneven(frame), by, results=ALL, split_every=2).compute()
    compare(rows_of(of_pandas(found), by), single(frame, by, ALL))


def test_result_types_do_not_depend_on_partitions(client, frame):
    for wanted in (ALL, ORDERED):
        result = vask.dask.aggregate(uneven(frame), KEYS, results=wanted)
        for part in dask.compute(*result.to_delayed()):
            assert dict(part.dtypes) == dict(result.dtypes)


def test_bits_depend_on_the_partitions_alone(client, frame):
    data = uneven(frame)
    first = vask.dask.aggregate(data, KEYS, results=ALL).compute()
    for scheduler in ("synchronous", "threads"):
        again = vask.dask.aggregate(data, KEYS, results=ALL).compute(scheduler=scheduler)
        pandas.testing.assert_frame_equal(first, again, check_exact=True)


def test_the_order_of_groups(client, frame):
    data = uneven(frame)
    unsorted = vask.dask.aggregate(data, "key", rows="size", mid=("x", "median")).compute()
    assert unsorted["key"].tolist() == frame["key"].unique().tolist()
    for wanted in ({"rows": "size"}, {"mid": ("x", "median")}):
        ascending = vask.dask.aggregate(data, "key", results=wanted, sort=True).compute()
        assert ascending["key"].tolist() == sorted(frame["key"].unique())


def test_equals_dask(client, frame):
    data = dd.from_pandas(frame, npartitions=5)
    own = data.groupby("key").agg({"v": ["sum", "min", "max", "count"]}).compute().sort_index()
    found = vask.dask.aggregate(
        data,
        "key",
        a=("v", "sum"),
        b=("v", "min"),
        c=("v", "max"),
        d=("v", "count"),
        mid=("x", "median"),
        sort=True,
    ).compute()
    assert found[list("abcd")].to_numpy().tolist() == own.to_numpy().tolist()
    medians = data.groupby("key")["x"].median().compute().sort_index()
    numpy.testing.assert_allclose(found["mid"], medians, rtol=1e-15)


def test_partitions_with_different_dictionaries_and_chunks(client, frame):
    pieces = []
    for i, piece in enumerate(quarters(frame)):
        piece = piece.copy()
        if i == 2:
            piece["kind"] = None
        categories = sorted(piece["kind"].dropna().unique(), reverse=bool(i % 2))
        piece["kind"] = pandas.Categorical(piece["kind"], categories=categories)
        type_ = pyarrow.string() if i % 2 else pyarrow.large_string()
        text = pyarrow.array(piece["text"], type_, from_pandas=True)
        chunks = pyarrow.chunked_array([text[:i], text[i:i], text[i:]])
        piece["text"] = pandas.arrays.ArrowExtensionArray(chunks)
        pieces.append(piece)
    whole = pandas.concat([p.astype({"kind": object, "text": object}) for p in pieces])
    meta = dd.utils.clear_known_categories(pieces[0].iloc[:0])
    data = dd.from_delayed([dask.delayed(p) for p in pieces], meta=meta, verify_meta=False)
    assert not data["kind"].cat.known
    found = vask.dask.aggregate(data, ["kind"], results=ALL).compute()
    compare(rows_of(of_pandas(found), ["kind"]), single(whole, ["kind"], ALL))


def test_options(client, frame):
    for options in ({"dropna": True}, {"skipna": False}, {"ddof": 0}, {"wide_sums": True}):
        wanted = {**EXACT, "std_x": ("x", "std"), "mid": ("x", "median")}
        found = vask.dask.aggregate(uneven(frame), KEYS, results=wanted, **options).compute()
        compare(rows_of(of_pandas(found), KEYS), single(frame, KEYS, wanted, **options))


def test_a_parquet_folder(client, frame, tmp_path):
    for i, piece in enumerate(quarters(frame)):
        groups = pyarrow.Table.from_pandas(piece, preserve_index=False)
        pyarrow.parquet.write_table(groups, tmp_path / f"part-{i}.parquet", row_group_size=1000)
    data = dd.read_parquet(tmp_path)
    found = vask.dask.aggregate(data, KEYS, results=ALL).compute()
    compare(rows_of(of_pandas(found), KEYS), single(frame, KEYS, ALL))


@pytest.mark.parametrize(
    ("wanted", "pieces"),
    [(EXACT, 0), (ORDERED, 0), (ORDERED, 4096)],
    ids=["states", "shuffle", "pieces"],
)
def test_a_worker_is_killed(client, frame, monkeypatch, wanted, pieces):
    monkeypatch.setattr(vask.dask, "_MOST_PIECES", pieces)

    def slowly(part):
        time.sleep(0.1)
        return part

    data = dd.from_pandas(frame, npartitions=16).map_partitions(slowly, meta=frame.iloc[:0])
    before = client.run(os.getpid)
    future = client.compute(vask.dask.aggregate(data, KEYS, results=wanted))
    time.sleep(0.6)
    assert not future.done(), "the run was over before the worker was killed"
    os.kill(next(iter(before.values())), signal.SIGKILL)
    found = future.result(timeout=120)
    compare(rows_of(of_pandas(found), KEYS), single(frame, KEYS, wanted))
    client.wait_for_workers(2, timeout=60)
    assert set(client.run(os.getpid).values()) != set(before.values())


def test_containment(client, frame):
    data = uneven(frame)
    found = vask.dask.is_in(data["text"], data["kind"][data["v"] > 990]).compute()
    among = set(frame["kind"][frame["v"] > 990].dropna())
    assert found.isna().tolist() == frame["text"].isna().tolist()
    for text, contained in zip(frame["text"], found):
        assert pandas.isna(text) or contained == (text in among)
    numbers = vask.dask.is_in(data["v"], [3, 5]).compute()
    assert numbers.tolist() == frame["v"].isin([3, 5]).tolist()


def test_errors_are_told_at_once(frame):
    data = dd.from_pandas(frame, npartitions=2)
    with pytest.raises(vask.UnknownNameError, match="'kex'; did you mean 'key'"):
        vask.dask.aggregate(data, "kex", rows="size")
    with pytest.raises(vask.InvalidTypeError, match="text"):
        vask.dask.aggregate(data, "key", total=("text", "sum"))
    with pytest.raises(vask.InvalidValueError, match="no numbers"):
        vask.dask.aggregate(data, "key", at=("first_row"))
    with pytest.raises(vask.InvalidTypeError, match="no Dask data frame"):
        vask.dask.aggregate(frame, "key", rows="size")


def test_errors_of_values_come_from_the_workers(client):
    data = dd.from_pandas(pandas.DataFrame({"v": [2**62] * 4}), npartitions=2)
    with pytest.raises(vask.SumOverflowError, match="64 bits"):
        vask.dask.aggregate(data, total=("v", "sum")).compute()
