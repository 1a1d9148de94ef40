"""A bar for long calls: tqdm's if it is installed, else one of characters."""

from __future__ import annotations

import sys
from collections.abc import Iterator
from contextlib import contextmanager
from typing import Any, Callable, Optional, Union

__all__ = ["Progress", "show_progress"]

#: Told now and then the share of a call that is done, from 0 to 1.
Progress = Callable[[float], None]

_WIDTH = 40


@contextmanager
def show_progress(progress: Union[bool, Progress]) -> Iterator[Optional[Progress]]:
    """What to tell the share that is done: nothing, the caller's function, or a bar."""
    if not progress:
        yield None
    elif callable(progress):
        yield progress
    else:
        try:
            from tqdm.auto import tqdm
        except ImportError:
            yield _character_bar
            print(file=sys.stderr)
        else:
            with tqdm(total=100, desc="vask", unit="%", leave=False) as bar:
                yield lambda done: _advance(bar, done)


def _advance(bar: Any, done: float) -> None:
    bar.n = round(100 * done)
    bar.refresh()


def _character_bar(done: float) -> None:
    full = round(_WIDTH * done)
    print(
        f"\r[{'#' * full}{' ' * (_WIDTH - full)}] {done:4.0%}", end="", file=sys.stderr, flush=True
    )
