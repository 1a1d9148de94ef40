"""Memory that runs out at any allocation of the library: a MemoryError, and everything works on."""

import os
import shutil
import subprocess
import sys
import textwrap
from pathlib import Path

import pytest

PROGRAM = textwrap.dedent(
    """
    import ctypes, gc, sys, weakref
    import numpy as np
    import vask

    fail_after = ctypes.CDLL(None).fail_after
    fail_after.argtypes, fail_after.restype = [ctypes.c_int64], ctypes.c_int64
    never = 2**63 - 1

    class Numbers(np.ndarray):  # that can be told to be gone
        pass

    rng = np.random.default_rng(1)
    keys = [f"key {i % 7}" for i in range(300)]
    codes = rng.integers(0, 9, 300)
    values = rng.standard_normal(300).view(Numbers)
    table = {"k": keys, "c": codes, "v": values}

    calls = {
        "aggregate": lambda: vask.aggregate(
            table, ["k", "c"], s=("v", "sum"), m=("v", "median"), d=("v", "std"),
            u=("k", "nunique"), r=(("v", "c"), "corr"), q=("v", "quantile", [0.1, 0.9]),
            sort=True, validate=True,
        ).to_pydict(),
        "whole": lambda: (vask.median(values), vask.corr(values, codes), vask.mode(codes)),
        "codes": lambda: vask.group_by(table, ["k", "c"]).codes.tolist(),
        "is_in": lambda: vask.is_in(keys, ["key 1", "key 5"]).to_pylist(),
        "progress": lambda: vask.aggregate(table, "k", s=("v", "sum"), progress=lambda done: None)
        .to_pydict(),
    }
    total = 0
    for name, call in calls.items():
        expected = call()
        at = 0
        while True:
            fail_after(at)
            told = None
            try:
                given = call()
            except MemoryError as failure:
                told = str(failure)
            finally:
                left = fail_after(-1)
            assert left != never, "the library was not found"
            if left >= 0:
                assert told is None and given == expected, name
                break
            assert told or given == expected, (name, at)
            assert told is None or "memory" in told or "NO_MEMORY" in told or "code 3" in told, told
            total += told is not None
            if at % 16 == 0:
                assert call() == expected, (name, at)
            at += 1
        print(name, at)
        assert at > 5, (name, at)
    # Nothing of a call that failed still holds the caller's memory.
    gone = weakref.ref(values)
    del values, table, calls, call
    gc.collect()
    assert gone() is None
    print("failures", total)
    """
)


@pytest.mark.skipif(
    shutil.which("c++") is None or not sys.platform.startswith("linux"),
    reason="what makes allocations fail is compiled, and preloaded",
)
def test_each_allocation_of_a_call_fails_once(tmp_path):
    preloaded = tmp_path / "failing_memory.so"
    source = Path(__file__).with_name("failing_memory.cpp")
    subprocess.run(
        ["c++", "-std=c++17", "-O1", "-shared", "-fPIC", source, "-o", preloaded], check=True
    )
    done = subprocess.run(
        [sys.executable, "-c", PROGRAM],
        env={**os.environ, "LD_PRELOAD": str(preloaded)},
        capture_output=True,
        text=True,
        timeout=900,
    )
    assert done.returncode == 0, f"ended with {done.returncode}\n{done.stdout}\n{done.stderr}"
