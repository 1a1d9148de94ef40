"""Calls beside others: from threads, across forks, with a bar, and stopped by Ctrl-C."""

import multiprocessing
import os
import signal
import subprocess
import sys
import textwrap
import threading
import time

import numpy as np
import pytest

import vask
from vask._progress import show_progress

ROWS = 2_000_000


@pytest.fixture(scope="module")
def data():
    rng = np.random.default_rng(7)
    return {
        "k": rng.integers(0, 50_000, ROWS),
        "t": rng.integers(0, 100, ROWS).astype("i1"),
        "v": rng.normal(size=ROWS),
    }


def medians(data):
    return vask.aggregate(data, "k", m=("v", "median"), s=("v", "sum")).to_pydict()


def test_threads_do_not_disturb_each_other(data):
    expected = medians(data)
    answers = []

    def work():
        answers.append(medians(data))

    threads = [threading.Thread(target=work) for _ in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert len(answers) == 4
    assert all(answer == expected for answer in answers)


def test_other_threads_run_meanwhile(data):
    """A thread that counts goes on while the library computes."""
    counted = 0
    over = threading.Event()

    def count():
        nonlocal counted
        while not over.is_set():
            counted += 1
            time.sleep(0.001)

    thread = threading.Thread(target=count)
    thread.start()
    try:
        counted = 0
        begin = time.monotonic()
        vask.aggregate(data, ["k", "t"], m=("v", "median"))
        took = time.monotonic() - begin
    finally:
        over.set()
        thread.join()
    # A call that kept the lock would let it count once or twice.
    assert counted > 5 + 50 * took


def child(data, queue):
    queue.put(medians(data)["s"][:5])


@pytest.mark.skipif(not hasattr(os, "fork"), reason="no fork on this system")
def test_a_forked_child_computes(data):
    expected = medians(data)["s"][:5]  # the library's threads are there now
    context = multiprocessing.get_context("fork")
    queue = context.Queue()
    processes = [context.Process(target=child, args=(data, queue)) for _ in range(2)]
    for process in processes:
        process.start()
    assert queue.get(timeout=60) == expected
    assert queue.get(timeout=60) == expected
    for process in processes:
        process.join(timeout=60)
        assert process.exitcode == 0


def test_a_fork_waits_for_calls_of_other_threads(data):
    expected = medians(data)["s"][:5]
    stop = threading.Event()

    def work():
        while not stop.is_set():
            vask.aggregate(data, "k", s=("v", "sum"))

    thread = threading.Thread(target=work)
    thread.start()
    context = multiprocessing.get_context("fork")
    try:
        for _ in range(5):
            queue = context.Queue()
            process = context.Process(target=child, args=(data, queue))
            process.start()
            assert queue.get(timeout=60) == expected
            process.join(timeout=60)
            assert process.exitcode == 0
    finally:
        stop.set()
        thread.join()


INTERRUPTED = """
    import os, signal, sys, threading, time

    dropped = []
    sys.unraisablehook = lambda told: dropped.append(told.exc_type)

    def waited(delay, ask):
        # Python drops an exception that a signal raises within a finalizer, and tells the hook.
        # Then, and only then, once more.
        while True:
            stopped = []

            def stop():
                stopped.append(time.monotonic())
                os.kill(os.getpid(), signal.SIGINT)

            threading.Timer(delay, stop).start()
            try:
                while not stopped:
                    ask()
                ask()
            except KeyboardInterrupt:
                return time.monotonic() - stopped[0]
            assert dropped and dropped.pop() is KeyboardInterrupt, "the signal was lost"
"""

SCRIPT = """
    import numpy as np
    import pyarrow as pa
    import vask

    rng = np.random.default_rng(7)
    data = pa.table({name: rng.integers(0, 10_000_000, 10_000_000) for name in "abcd"})
    vask.aggregate({"a": [1]}, s=("a", "sum"))

    arrays = {name: data[name].to_numpy() for name in "abcd"}

    def query(asked=data):
        vask.aggregate(asked, ["a", "b"], m=("c", "median"), u=("d", "nunique"),
                       l=("d", "median"), w=("c", "mode"), s=("c", "skew"))

    def lent_query():
        query(arrays)

    def codes():
        vask.group_by(data, ["a", "b"]).codes

    def is_in():
        vask.is_in(data["a"].chunk(0), data["b"].chunk(0))

    for delay, ask in ((0.2, query), (0.5, query), (1.0, query), (0.4, lent_query),
                       (2.0, lent_query), (0.2, codes), (0.5, codes), (0.2, is_in)):
        print(waited(delay, ask))
    assert vask.aggregate(data, s=("a", "count"))["s"][0] == 10_000_000
"""


def run_script(script):
    """What another interpreter prints."""
    done = subprocess.run(
        [sys.executable, "-c", textwrap.dedent(script)], capture_output=True, text=True, timeout=300
    )
    assert done.returncode == 0, done.stderr
    return done.stdout.split()


def test_ctrl_c_stops_a_long_call():
    waits = [float(line) for line in run_script(INTERRUPTED + SCRIPT)]
    assert len(waits) == 8
    assert max(waits) < 0.5, waits


WIDE = """
    import numpy as np
    import vask

    rng = np.random.default_rng(7)
    data = {f"v{i}": rng.random(200_000) for i in range(200)} | {"k": np.arange(200_000) % 1000}
    vask.aggregate({"a": [1]}, s=("a", "sum"))

    # A call of few rows and many columns.
    print(waited(0.5, lambda: vask.group_by(data, "k").median()))

    # A call that waits for those of another number of partitions, which go on all the time.
    over = threading.Event()

    def go_on():
        while not over.is_set():
            vask.aggregate(data, "k", m=("v1", "median"))

    others = [threading.Thread(target=go_on) for _ in range(3)]
    for each in others:
        each.start()
    asked = 0

    def ask():
        global asked
        vask.aggregate(data, "k", partitions=3, m=("v2", "median"), progress=lambda done: None)
        asked += 1

    print(waited(1.0, ask))
    over.set()
    print(0 if asked else 1)  # each comes to its turn
    for each in others:
        each.join()
"""


def test_ctrl_c_stops_a_wide_call_and_one_that_waits():
    waits = [float(line) for line in run_script(INTERRUPTED + WIDE)]
    assert len(waits) == 3
    assert max(waits) < 0.5, waits


LEFT = """
    import threading, time
    import numpy as np
    import vask

    data = {name: np.random.default_rng(7).integers(0, 10**6, 3_000_000) for name in "abc"}

    def work():
        while True:
            vask.aggregate(data, ["a", "b"], m=("c", "median"), progress=lambda done: None)

    threading.Thread(target=work, daemon=True).start()
    time.sleep(0.7)
"""


def test_the_interpreter_may_end_during_a_call():
    assert run_script(LEFT) == []


def test_a_function_that_fails_stops_the_call(data):
    told = []

    def progress(done):
        told.append(done)
        if len(told) > 1:
            raise RuntimeError("enough")

    big = {name: np.tile(values, 3) for name, values in data.items()}
    with pytest.raises(RuntimeError, match="enough"):
        vask.aggregate(big, ["k", "t"], progress=progress, m=("v", "median"), u=("v", "nunique"))


def test_progress_is_told_to_the_end(data):
    told = []
    vask.aggregate(data, "k", progress=told.append, m=("v", "median"))
    assert told[-1] == 1.0
    assert told == sorted(told)
    assert all(0 <= done <= 1 for done in told)


def test_bars(capsys, monkeypatch):
    small = {"v": [1, 2]}
    vask.aggregate(small, progress=True, s=("v", "sum"))
    assert "100%" in capsys.readouterr().err
    monkeypatch.setitem(sys.modules, "tqdm.auto", None)
    with show_progress(True) as show:
        show(0.5)
        show(1.0)
    assert "[####################                    ]  50%" in capsys.readouterr().err


def test_signals_of_the_program_stay_its_own(data):
    """A handler that raises something else stops the call with that."""

    class Alarm(Exception):
        pass

    def ring(_signal, _frame):
        raise Alarm

    before = signal.signal(signal.SIGALRM, ring)
    try:
        signal.setitimer(signal.ITIMER_REAL, 0.05)
        with pytest.raises(Alarm):  # noqa: PT012
            while True:
                vask.aggregate(data, ["k", "t"], m=("v", "median"))
    finally:
        signal.setitimer(signal.ITIMER_REAL, 0)
        signal.signal(signal.SIGALRM, before)
