"""Files, read by parts."""

import gzip
import subprocess
import sys
import textwrap

import numpy as np
import pyarrow as pa
import pyarrow.csv
import pyarrow.feather
import pyarrow.parquet as pq
import pytest

import vask
from vask import _files

RNG = np.random.default_rng(5)
ROWS = 10_000
TABLE = pa.table(
    {
        "k": pa.array([None if i % 97 == 0 else f"key {i % 53}" for i in range(ROWS)]),
        "i": RNG.integers(-1000, 1000, ROWS),
        "e": RNG.integers(-8000, 8000, ROWS) / 8,  # exact in every order of additions
        "f": RNG.normal(1e9, 1, ROWS),
    }
)
ASKED = {
    "n": "size",
    "s": ("i", "sum"),
    "m": ("e", "mean"),
    "lo": ("i", "min"),
    "hi": ("e", "max"),
    "first": ("i", "first"),
    "last": ("i", "last"),
    "any": ("i", "any"),
    "all": ("i", "all"),
    "u": ("i", "nunique"),
    "mode": ("i", "mode"),
}


def write(tmp_path, ending):
    path = tmp_path / f"table{ending}"
    if ending == ".parquet":
        pq.write_table(TABLE, path, row_group_size=777)
    elif ending == ".arrow":
        pyarrow.feather.write_feather(TABLE, path, chunksize=999)
    elif ending == ".csv.gz":
        pyarrow.csv.write_csv(TABLE, tmp_path / "plain.csv")
        path.write_bytes(gzip.compress((tmp_path / "plain.csv").read_bytes()))
    elif ending == ".tsv":
        pyarrow.csv.write_csv(TABLE, path, write_options=pyarrow.csv.WriteOptions(delimiter="\t"))
    elif ending == "":
        path.mkdir()
        for i in range(3):
            pq.write_table(TABLE[i * 4000 : (i + 1) * 4000], path / f"part-{i}.parquet")
    else:
        pyarrow.csv.write_csv(TABLE, path)
    return path


@pytest.mark.parametrize("ending", [".parquet", ".csv", ".csv.gz", ".tsv", ".arrow", ""])
@pytest.mark.parametrize("rows", [1000, 1 << 22])
def test_a_file_gives_what_its_table_gives(tmp_path, monkeypatch, ending, rows):
    monkeypatch.setattr(_files, "ROWS_OF_A_PART", rows)
    path = write(tmp_path, ending)
    for by in (None, "k"):
        ours = vask.aggregate(path, by, **ASKED)
        assert ours.to_pydict() == vask.aggregate(TABLE, by, **ASKED).to_pydict()
    assert vask.aggregate(str(path), "k", sort=True, dropna=True, n="size").to_pydict() == (
        vask.aggregate(TABLE, "k", sort=True, dropna=True, n="size").to_pydict()
    )
    # All rows of a group at once.
    assert vask.aggregate(path, "k", m=("f", "median")).to_pydict() == (
        vask.aggregate(TABLE, "k", m=("f", "median")).to_pydict()
    )


def test_moments_of_parts_are_those_of_the_whole(tmp_path, monkeypatch):
    monkeypatch.setattr(_files, "ROWS_OF_A_PART", 1000)
    path = write(tmp_path, ".parquet")
    asked = {
        "sd": ("f", "std"), "sk": ("f", "skew"), "r": (("f", "e"), "corr"),
        "c": (("f", "e"), "cov"), "b": (("f", "e"), "slope"), "a": (("f", "e"), "intercept"),
    }  # fmt: skip
    parts = vask.aggregate(path, "k", **asked)
    whole = vask.aggregate(TABLE, "k", **asked)
    for name in asked:
        assert parts[name].to_numpy() == pytest.approx(whole[name].to_numpy(), rel=1e-9), name
    # The same parts in the same order give the same digits.
    assert vask.aggregate(path, "k", **asked).to_pydict() == parts.to_pydict()


LARGE = """
    import resource, sys
    import numpy as np
    import pyarrow as pa
    import pyarrow.parquet as pq
    import vask

    path, rows = sys.argv[1], 30_000_000
    schema = pa.schema([("k", pa.int32()), ("v", pa.int64()), ("w", pa.float64())])
    with pq.ParquetWriter(path, schema, compression="snappy") as writer:
        for part in range(30):
            i = np.arange(part * 1_000_000, (part + 1) * 1_000_000)
            writer.write_table(pa.table({"k": (i % 1000).astype("i4"), "v": i, "w": i / 8}, schema))
    before = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
    r = vask.aggregate(path, "k", n="size", s=("v", "sum"), m=("w", "mean"))
    more = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss - before
    assert r["n"].to_pylist() == [30_000] * 1000
    assert r["s"][7] == sum(range(7, rows, 1000))
    print(more // 1024)
"""


def test_a_file_need_not_fit_in_memory(tmp_path):
    """30 million rows of 20 bytes are 572 MiB; a part of them is 80."""
    done = subprocess.run(
        [sys.executable, "-c", textwrap.dedent(LARGE), str(tmp_path / "large.parquet")],
        capture_output=True,
        text=True,
        timeout=300,
        check=False,
    )
    assert done.returncode == 0, done.stderr
    assert int(done.stdout) < 400


def test_a_file_without_rows(tmp_path):
    path = tmp_path / "empty.parquet"
    pq.write_table(TABLE[:0], path)
    assert len(vask.aggregate(path, "k", s=("i", "sum"))) == 0
    assert vask.aggregate(path, s=("i", "sum"), n="size").to_pydict() == {"s": [None], "n": [0]}


def test_files_that_cannot_be_read(tmp_path):
    with pytest.raises(FileNotFoundError, match=r"nothing\.parquet"):
        vask.aggregate(tmp_path / "nothing.parquet", n="size")
    odd = tmp_path / "table.xlsx"
    odd.write_bytes(b"x")
    with pytest.raises(ValueError, match="by its ending"):
        vask.aggregate(odd, n="size")
    broken = tmp_path / "table.parquet"
    broken.write_bytes(b"PAR1 and no more")
    with pytest.raises(vask.DataError, match=r"table\.parquet"):
        vask.aggregate(broken, n="size")
    changing = tmp_path / "table.csv"
    changing.write_text("a\n" + "1\n" * 3_000_000 + "x\n")
    with pytest.raises(vask.DataError, match=r"table\.csv"):
        vask.aggregate(changing, s=("a", "sum"))
    with pytest.raises(KeyError, match="did you mean 'a'"):
        vask.aggregate(changing, s=("A", "sum"))
