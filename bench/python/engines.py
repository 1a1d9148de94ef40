"""vask on Dask and on Spark beside the engines' own aggregates: time, and bytes between workers.

    python bench/python/engines.py dask --rows 10000000 --groups 10000 --workers 2

Rows are Parquet files that are made once. Each case runs alternately, ours and theirs, the least time
counts, and the answers are compared. Needs the engine, pandas and pyarrow beside vask. Dask's bytes
are those that pass the loopback interface, so nothing else should use it.
"""

import argparse
import os
import sys
import time
from pathlib import Path

import numpy
import pyarrow
import pyarrow.parquet

ROWS_OF_A_FILE = 2_500_000

#: What is asked of vask; of pandas' functions by Dask; of Spark.
CASES = {
    "sums": {"total": ("v", "sum"), "mean": ("x", "mean"), "std": ("x", "std")},
    "distinct": {"different": ("v", "nunique")},
    "median": {"mid": ("x", "median")},
}


def files(folder: Path, rows: int, groups: int) -> Path:
    """The Parquet files of so many rows."""
    made = folder / f"{rows}-{groups}"
    if made.exists():
        return made
    made.mkdir(parents=True)
    for i, first in enumerate(range(0, rows, ROWS_OF_A_FILE)):
        r = numpy.random.default_rng([20, i])
        n = min(ROWS_OF_A_FILE, rows - first)
        columns = {
            "key": r.integers(0, groups, n),
            "v": r.integers(0, 1000, n),
            "x": r.normal(100, 10, n),
        }
        pyarrow.parquet.write_table(pyarrow.table(columns), made / f"{i:04}.parquet")
    return made


def loopback_bytes() -> int:
    for line in Path("/proc/net/dev").read_text().splitlines():
        name, _, numbers = line.partition(":")
        if name.strip() == "lo":
            return int(numbers.split()[0])
    return 0


class OnDask:
    def __init__(self, path: Path, workers: int) -> None:
        import distributed

        self.cluster = distributed.LocalCluster(
            n_workers=workers, threads_per_worker=1, memory_limit=0, dashboard_address=None
        )
        self.client = distributed.Client(self.cluster)
        self.path = path

    def frame(self):
        import dask.dataframe as dd

        return dd.read_parquet(self.path)

    def ours(self, case: str):
        import vask.dask

        return vask.dask.aggregate(self.frame(), "key", results=CASES[case]).compute()

    def theirs(self, case: str):
        groups = self.frame().groupby("key")
        columns = {
            name: getattr(groups[column], function)()
            for name, (column, function) in CASES[case].items()
        }
        if len(columns) == 1:
            return next(iter(columns.values())).rename(next(iter(columns))).compute().reset_index()
        pairs = {"v": ["sum"], "x": ["mean", "std"]}
        table = groups.agg(pairs).compute()
        table.columns = list(columns)
        return table.reset_index()

    def moved(self) -> int:
        return loopback_bytes()

    def close(self) -> None:
        self.client.close()
        self.cluster.close()


class OnSpark:
    def __init__(self, path: Path, workers: int) -> None:
        import vask
        from pyspark.sql import SparkSession

        os.environ["PYSPARK_PYTHON"] = sys.executable
        package = str(Path(vask.__file__).resolve().parents[1])
        self.session = (
            SparkSession.builder.master(f"local-cluster[{workers},1,2048]")
            .config("spark.executor.memory", "2g")
            .config("spark.driver.memory", "2g")
            .config("spark.ui.enabled", "false")
            .config("spark.sql.shuffle.partitions", str(2 * workers))
            .config("spark.executorEnv.PYTHONPATH", os.pathsep.join([package, *sys.path]))
            .config("spark.executorEnv.VASK_LIBRARY", os.environ.get("VASK_LIBRARY", ""))
            .getOrCreate()
        )
        self.path = path

    def ours(self, case: str):
        import vask.spark

        frame = self.session.read.parquet(str(self.path))
        return vask.spark.aggregate(frame, "key", results=CASES[case]).toArrow().to_pandas()

    def theirs(self, case: str):
        from pyspark.sql import functions

        names = {"nunique": "countDistinct", "std": "stddev"}
        frame = self.session.read.parquet(str(self.path))
        columns = [
            getattr(functions, names.get(function, function))(column).alias(name)
            for name, (column, function) in CASES[case].items()
        ]
        return frame.groupBy("key").agg(*columns).toArrow().to_pandas()

    def moved(self) -> int:
        """Bytes that all stages wrote for a shuffle."""
        context = self.session.sparkContext
        none = context._gateway.jvm.java.util.ArrayList()
        quantiles = context._gateway.new_array(context._gateway.jvm.double, 0)
        stages = context._jsc.sc().statusStore().stageList(none, False, False, quantiles, none)
        return sum(stages.apply(i).shuffleWriteBytes() for i in range(stages.size()))

    def close(self) -> None:
        self.session.stop()


def check(ours, theirs, case: str) -> None:
    ours = ours.sort_values("key").reset_index(drop=True)
    theirs = theirs.sort_values("key").reset_index(drop=True)
    assert len(ours) == len(theirs)
    for name in ["key", *CASES[case]]:
        numpy.testing.assert_allclose(
            ours[name].to_numpy(float), theirs[name].to_numpy(float), rtol=1e-9
        )


def main() -> None:
    asked = argparse.ArgumentParser(description=__doc__)
    asked.add_argument("engine", choices=["dask", "spark"])
    asked.add_argument("--rows", type=int, default=10_000_000)
    asked.add_argument("--groups", type=int, default=10_000)
    asked.add_argument("--workers", type=int, default=2)
    asked.add_argument("--repeats", type=int, default=3)
    asked.add_argument("--cases", nargs="+", default=list(CASES), choices=list(CASES))
    asked.add_argument("--folder", type=Path, default=Path("build/engines-data"))
    given = asked.parse_args()
    path = files(given.folder, given.rows, given.groups).resolve()
    engine = (OnDask if given.engine == "dask" else OnSpark)(path, given.workers)
    what = f"{given.engine} rows={given.rows} groups={given.groups} workers={given.workers}"
    for case in given.cases:
        times: dict[str, list[float]] = {"vask": [], given.engine: []}
        moved, answers = {}, {}
        for _ in range(given.repeats):
            for name, run in (("vask", engine.ours), (given.engine, engine.theirs)):
                before, start = engine.moved(), time.perf_counter()
                answers[name] = run(case)
                times[name].append(time.perf_counter() - start)
                moved[name] = engine.moved() - before
        check(answers["vask"], answers[given.engine], case)
        for name, all_times in times.items():
            print(
                f"{what} {case:9} {name:6} {min(all_times):8.2f} s "
                f"(worst {max(all_times):.2f}) {moved[name] / 1e6:10.1f} MB",
                flush=True,
            )
    engine.close()


if __name__ == "__main__":
    main()
