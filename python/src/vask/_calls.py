"""Calls of the library: off the interpreter's lock, interruptible, and never across a fork."""

from __future__ import annotations

import _thread
import atexit
import os
import threading
import weakref
from typing import Any, Callable, Optional, Union

from . import _library
from ._progress import Progress, show_progress

__all__ = ["call", "run_query"]

#: Below this many values, rows times keys and aggregates, a call is over long before a key is let
#: go of.
_VALUES_OF_A_LONG_CALL = 1 << 18
#: Seconds between two looks at how far a call is.
_TICK = 0.1


class _ForkGate:
    """A lock for each thread, held during its calls. A fork takes those of all other threads.

    A fork copies memory but only one thread: locks of the library that other threads hold at that
    moment would stay locked in the child for ever. Locks are used, not a count of calls, as an
    exception that a signal raises can come between any two steps but those of ``with lock``.
    """

    def __init__(self) -> None:
        self._forget()
        if hasattr(os, "register_at_fork"):
            os.register_at_fork(
                before=self._close, after_in_parent=self._open, after_in_child=self._forget
            )

    def _forget(self) -> None:
        self._own = threading.local()
        self._registry = threading.Lock()
        self._locks: weakref.WeakSet[Any] = weakref.WeakSet()
        self._taken: list[Any] = []

    def _close(self) -> None:
        self._registry.acquire()
        # A fork out of a callback must not wait for its own thread's call.
        own = getattr(self._own, "lock", None)
        for lock in list(self._locks):
            if lock is not own:
                lock.acquire()
                self._taken.append(lock)

    def _open(self) -> None:
        while self._taken:
            self._taken.pop().release()
        self._registry.release()

    @property
    def lock(self) -> Any:
        """This thread's lock."""
        lock = getattr(self._own, "lock", None)
        if lock is None:
            lock = threading.RLock()  # a producer of data that is being read may call, too
            with self._registry:
                self._locks.add(lock)
            self._own.lock = lock
        return lock


_gate = _ForkGate()


def call(function: Callable[..., int], *arguments: Any) -> None:
    """A short call: raises what the library reports."""
    with _gate.lock:
        _library.checked(function, *arguments)


class _Job:
    """A call on a thread of its own, and what it and the waiting thread tell each other."""

    def __init__(self, work: Callable[[], None]) -> None:
        self.done = 0.0
        self.failure: Optional[BaseException] = None
        self.finished = threading.Event()
        self._work = work
        self._turn = threading.Lock()
        self._running = False
        self._cancelled = False

    def start(self) -> None:
        _under_way.add(self)
        # Not by threading.Thread, whose books a signal's exception leaves half written.
        _thread.start_new_thread(self._run, ())

    def _run(self) -> None:
        with self._turn:
            if self._cancelled:
                _under_way.discard(self)
                return
            self._running = True
        try:
            self._work()
        except BaseException as failure:  # raised again where the call was made
            self.failure = failure
        _under_way.discard(self)
        self.finished.set()

    def tell(self, _context: Optional[int], done: float) -> int:
        self.done = done
        return int(self._cancelled)

    def stop(self) -> None:
        """Cancels the call and waits until it has ended, also when the user loses patience: memory
        is lent to it that somebody may write to or let go of."""
        while True:
            try:
                with self._turn:
                    self._cancelled = True
                if self._running:
                    self.finished.wait()
                _under_way.discard(self)
                return
            except BaseException:
                continue


#: Calls that are under way.
_under_way: set[_Job] = set()
if hasattr(os, "register_at_fork"):
    os.register_at_fork(after_in_child=_under_way.clear)  # the child has none of the threads


@atexit.register
def _stop_all() -> None:
    """Threads that nobody waits for may be in a call, which asks for the interpreter's lock and
    must not find the interpreter gone."""
    for job in list(_under_way):
        job.stop()


def run_query(
    function: Callable[..., int],
    query: _library.Query,
    rows: int,
    progress: Union[bool, Progress],
    discard: Callable[[], None],
) -> None:
    """A long call. `function` takes the error's place; the progress function of `query` is set.

    Signals are handled on the main thread alone, and there only while it runs Python code. So a
    long call of the main thread goes to another thread and the main thread waits for it: Ctrl-C
    ends the wait, and the progress function the call. `discard` frees the result of a call that
    was over before it could be cancelled.
    """
    on_main = threading.current_thread() is threading.main_thread()
    values = rows * max(1, query.n_by + query.n_aggregates)
    if not progress and (not on_main or values < _VALUES_OF_A_LONG_CALL):
        call(function)
        return

    job = _Job(lambda: call(function))
    query.progress = _library.PROGRESS(job.tell)
    with show_progress(progress) as show:
        try:
            job.start()
            while not job.finished.wait(_TICK if show else None):
                if show:
                    show(job.done)
        except BaseException:
            job.stop()
            if job.finished.is_set() and job.failure is None:
                discard()
            raise
        finally:
            query.progress = _library.PROGRESS()  # lets go of the job and what it holds
        if show and job.failure is None:
            show(1.0)
    if job.failure is not None:
        failure, job.failure = job.failure, None
        raise failure
