"""``python -m vask`` is the command ``vask``."""

from ._command import main

main()
