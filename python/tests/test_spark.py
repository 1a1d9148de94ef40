"""vask.spark on a real cluster of executors: the same as one machine, whatever happens to them."""

import os
import shutil
import signal
import sys
import threading
import time
from pathlib import Path

import pytest

pyspark = pytest.importorskip("pyspark")
if not (shutil.which("java") or os.environ.get("JAVA_HOME")):
    pytest.skip("Spark needs a Java", allow_module_level=True)

import pyarrow
import pyarrow.parquet
from engines import ALL, EXACT, ORDERED, compare, rows_of, single, table
from pyspark.sql import SparkSession, functions

import vask
import vask.spark

KEYS = ["key", "kind"]


@pytest.fixture(scope="module")
def spark(tmp_path_factory):
    os.environ["PYSPARK_PYTHON"] = sys.executable
    os.environ.setdefault("SPARK_LOCAL_IP", "127.0.0.1")
    package = Path(vask.__file__).resolve().parents[1]
    session = (
        SparkSession.builder.master("local-cluster[2,1,1024]")
        .config("spark.ui.enabled", "false")
        .config("spark.sql.shuffle.partitions", "3")
        .config("spark.executorEnv.PYTHONPATH", os.pathsep.join([str(package), *sys.path]))
        .config("spark.executorEnv.VASK_LIBRARY", os.environ.get("VASK_LIBRARY", ""))
        .config("spark.local.dir", str(tmp_path_factory.mktemp("spark")))
        .config("spark.worker.cleanup.enabled", "false")
        .getOrCreate()
    )
    yield session
    session.stop()


@pytest.fixture(scope="module")
def whole():
    return table()


@pytest.fixture(scope="module")
def uneven(spark, whole, tmp_path_factory):
    """Files of many and of few rows, with and without a dictionary; some partitions are empty."""
    folder = tmp_path_factory.mktemp("parquet")
    for i, (a, b) in enumerate([(0, 1), (1, 3000), (3000, 19_000), (19_000, 20_000)]):
        pyarrow.parquet.write_table(
            whole[a:b], folder / f"{i}.parquet", use_dictionary=bool(i % 2), row_group_size=700
        )
    data = spark.read.parquet(str(folder))
    empty = spark.createDataFrame(data.limit(0).rdd, data.schema)
    return empty.union(data).union(empty)


def found(result, by):
    return rows_of(result.toArrow(), by)


@pytest.mark.parametrize("by", [[], KEYS, ["part"]])
def test_equals_one_machine(uneven, whole, by):
    # The first and the last row are those of the parts' order, which Spark makes of the files.
    wanted = {k: v for k, v in ALL.items() if k not in ("start", "end")}
    compare(found(vask.spark.aggregate(uneven, by, results=wanted), by), single(whole, by, wanted))


def test_only_values_in_order(uneven, whole):
    compare(
        found(vask.spark.aggregate(uneven, ["key"], results=ORDERED), ["key"]),
        single(whole, ["key"], ORDERED),
    )


def test_no_rows(spark, uneven, whole):
    nothing = uneven.limit(0)
    for by in ([], KEYS):
        wanted = {"rows": "size", "total": ("v", "sum"), "mid": ("x", "median")}
        compare(
            found(vask.spark.aggregate(nothing, by, results=wanted), by),
            single(whole[:0], by, wanted),
        )


def test_bits_depend_on_the_partitions_alone(uneven):
    tables = [
        vask.spark.aggregate(uneven, KEYS, results=ALL, sort=True).toArrow() for _ in range(2)
    ]
    assert tables[0].equals(tables[1])


def test_equals_spark(uneven):
    own = uneven.groupBy("key").agg(
        functions.sum("v").alias("a"),
        functions.min("x").alias("b"),
        functions.countDistinct("text").alias("c"),
        functions.median("x").alias("mid"),
    )
    ours = vask.spark.aggregate(
        uneven, "key", a=("v", "sum"), b=("x", "min"), c=("text", "nunique"), mid=("x", "median")
    )
    expected = rows_of(own.toArrow(), ["key"])
    for key, row in found(ours, ["key"]).items():
        assert row.pop("mid") == pytest.approx(expected[key].pop("mid"), rel=1e-15)
        assert row == expected[key]


def test_sorted(uneven):
    result = vask.spark.aggregate(uneven, "kind", rows="size", sort=True).toArrow()
    names = result["kind"].to_pylist()
    assert names[-1] is None
    assert names[:-1] == sorted(names[:-1])


def test_options(uneven, whole):
    wanted = {k: v for k, v in EXACT.items() if k not in ("start", "end")}
    for options in ({"skipna": False}, {"ddof": 0}, {"wide_sums": True}, {"dropna": True}):
        result = vask.spark.aggregate(uneven, KEYS, results=wanted, owners=2, **options)
        compare(found(result, KEYS), single(whole, KEYS, wanted, **options))


def executor_of_a_task(spark):
    """The process of an executor: the grandparent of a task's Python."""

    def ask(batches):
        for _ in batches:
            pass
        daemon = os.getppid()
        stat = Path(f"/proc/{daemon}/stat").read_text()
        yield pyarrow.RecordBatch.from_pydict({"pid": [int(stat.rpartition(")")[2].split()[1])]})

    rows = spark.range(0, 2, 1, 2).mapInArrow(ask, "pid long").collect()
    return {row.pid for row in rows}


@pytest.mark.parametrize("wanted", ["states", "rows"])
def test_an_executor_is_killed(spark, uneven, whole, wanted):
    asked = ORDERED if wanted == "rows" else {"total": ("v", "sum"), "words": ("text", "nunique")}
    executors = executor_of_a_task(spark)
    assert all(b"java" in Path(f"/proc/{pid}/cmdline").read_bytes() for pid in executors)
    killed = []

    def kill():
        time.sleep(1.0)
        pid = executors.pop()
        os.kill(pid, signal.SIGKILL)
        killed.append(time.monotonic())

    def slowly(batches):
        for batch in batches:
            time.sleep(0.5)
            yield batch

    data = uneven.repartition(8, "v").mapInArrow(slowly, uneven.schema)
    killer = threading.Thread(target=kill)
    killer.start()
    result = vask.spark.aggregate(data, ["key"], results=asked).toArrow()
    over = time.monotonic()
    killer.join()
    assert killed[0] < over, "the run was over before the executor was killed"
    compare(rows_of(result, ["key"]), single(whole, ["key"], asked))


def test_containment(spark, uneven, whole):
    among = spark.createDataFrame([("a",), ("z",), (None,)], "other string")
    result = vask.spark.is_in(uneven, "text", among, "other").toArrow()
    for text, contained in zip(result["text"].to_pylist(), result["contained"].to_pylist()):
        assert contained == (None if text is None else text in ("a", "z"))
    assert len(result) == len(whole)


def test_errors(spark, uneven, whole):
    with pytest.raises(vask.UnknownNameError, match="'kex'; did you mean 'key'"):
        vask.spark.aggregate(uneven, "kex", rows="size")
    with pytest.raises(vask.InvalidTypeError, match="text"):
        vask.spark.aggregate(uneven, "key", total=("text", "sum"))
    with pytest.raises(vask.InvalidTypeError, match="no Spark data frame"):
        vask.spark.aggregate(whole, "key", rows="size")
    large = spark.range(4).select(functions.lit(2**62).alias("v"))
    with pytest.raises(Exception, match="64 bits"):
        vask.spark.aggregate(large, total=("v", "sum")).collect()


def test_names_that_spark_reads_as_paths(spark):
    data = spark.createDataFrame([("x", 1), ("y", 2), ("x", 4)], "`a.b` string, `c``d.e` long")
    wanted = {"t.s": ("c`d.e", "sum"), "m": ("c`d.e", "median")}
    result = vask.spark.aggregate(data, "a.b", results=wanted, sort=True).toArrow()
    assert result.to_pydict() == {"a.b": ["x", "y"], "t.s": [5, 2], "m": [2.5, 2.0]}
