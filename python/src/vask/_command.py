"""The command ``vask``, which the wheel carries as a program of its own."""

from __future__ import annotations

import os
import sys
from pathlib import Path

__all__ = ["main"]


def main() -> None:
    """Becomes the program, with the same arguments."""
    program = Path(__file__).resolve().parent / "bin" / "vask"
    if not os.access(program, os.X_OK):
        sys.exit(f"vask: the program is not at {program}; install the package's wheel")
    os.execv(program, ["vask", *sys.argv[1:]])
