"""Calls of the library: off the interpreter's lock, interruptible, and never across a fork."""

from __future__ import annotations

import os
import threading
from collections.abc import Iterator
from contextlib import contextmanager
from typing import Any, Callable, Optional, Union

from . import _library
from ._progress import Progress, show_progress
from .errors import CancelledError

__all__ = ["call", "run_query"]

#: Below this many rows a call is over long before a key is let go of.
_ROWS_OF_A_LONG_CALL = 1 << 18
#: Seconds between two looks at how far a call is.
_TICK = 0.1


class _ForkGate:
    """Counts the calls that are under way; a fork waits until there are none.

    A fork copies memory but only one thread: locks that other threads hold at that moment stay
    locked in the child for ever.
    """

    def __init__(self) -> None:
        self._own = threading.local()
        self._reset()
        if hasattr(os, "register_at_fork"):
            os.register_at_fork(
                before=self._close, after_in_parent=self._open, after_in_child=self._reset
            )

    def _reset(self) -> None:
        self._changed = threading.Condition()
        self._calls = self._depth
        self._forking = False

    @property
    def _depth(self) -> int:
        """Calls on this thread's own stack, as in a callback, which no wait would end."""
        return getattr(self._own, "depth", 0)

    def _close(self) -> None:
        with self._changed:
            self._forking = True
            self._changed.wait_for(lambda: self._calls <= self._depth)

    def _open(self) -> None:
        with self._changed:
            self._forking = False
            self._changed.notify_all()

    @contextmanager
    def call(self) -> Iterator[None]:
        with self._changed:
            self._changed.wait_for(lambda: not self._forking or self._depth > 0)
            self._calls += 1
        self._own.depth = self._depth + 1
        try:
            yield
        finally:
            self._own.depth = self._depth - 1
            with self._changed:
                self._calls -= 1
                self._changed.notify_all()


_gate = _ForkGate()


def call(function: Callable[..., int], *arguments: Any) -> None:
    """A short call: raises what the library reports."""
    with _gate.call():
        _library.checked(function, *arguments)


class _Job:
    """A call on a thread of its own, and what it and the waiting thread tell each other."""

    def __init__(self, work: Callable[[], None]) -> None:
        self.cancelled = False
        self.done = 0.0
        self.failure: Optional[BaseException] = None
        self.finished = threading.Event()
        self._work = work
        self.thread = threading.Thread(target=self._run, name="vask", daemon=True)

    def _run(self) -> None:
        try:
            self._work()
        except BaseException as failure:  # raised again where the call was made
            self.failure = failure
        finally:
            self.finished.set()

    def tell(self, _context: Optional[int], done: float) -> int:
        self.done = done
        return int(self.cancelled)

    def stop(self) -> None:
        """Waits for the end also when the user loses patience: the call works on lent memory."""
        self.cancelled = True
        while self.thread.is_alive():
            try:
                self.thread.join()
            except KeyboardInterrupt:
                continue


def run_query(
    function: Callable[..., int],
    query: _library.Query,
    rows: int,
    progress: Union[bool, Progress],
    *arguments: Any,
) -> None:
    """A call with a query, whose progress function it sets.

    Signals are handled on the main thread alone, and there only while it runs Python code. So a
    long call of the main thread goes to another thread and the main thread waits for it: Ctrl-C
    ends the wait, and the progress function the call.
    """
    on_main = threading.current_thread() is threading.main_thread()
    if not progress and (not on_main or rows < _ROWS_OF_A_LONG_CALL):
        call(function, *arguments)
        return

    job = _Job(lambda: call(function, *arguments))
    query.progress = _library.PROGRESS(job.tell)
    try:
        with show_progress(progress) as show:
            try:
                job.thread.start()
                while not job.finished.wait(_TICK if show else None):
                    if show:
                        show(job.done)
            except BaseException:
                job.stop()
                raise
            if show and job.failure is None:
                show(1.0)
    finally:
        query.progress = _library.PROGRESS()
    if job.failure is not None:
        failure, job.failure = job.failure, None
        if isinstance(failure, CancelledError) and not job.cancelled:
            raise CancelledError("the call was stopped")
        raise failure
