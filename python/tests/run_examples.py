"""Runs the Python examples of a Markdown page, one after another in one namespace.

A fence ``` ```python ``` is run; one that is followed by a fence ``` ```text ``` has to print that.
"""

import contextlib
import io
import re
import sys
from pathlib import Path

FENCE = re.compile(r"^```(\w+)\n(.*?)^```$", re.MULTILINE | re.DOTALL)


def run(page: Path) -> int:
    """Runs a page's examples; the number of them."""
    text = page.read_text()
    blocks = [
        (m.group(1), m.group(2), text.count("\n", 0, m.start())) for m in FENCE.finditer(text)
    ]
    namespace: dict = {"__name__": "__main__"}
    count = 0
    for i, (language, code, line) in enumerate(blocks):
        if language != "python":
            continue
        count += 1
        printed = io.StringIO()
        with contextlib.redirect_stdout(printed):
            # The lines keep their numbers in the page.
            exec(compile("\n" * (line + 1) + code, str(page), "exec"), namespace)
        if i + 1 < len(blocks) and blocks[i + 1][0] == "text":
            expected = blocks[i + 1][1]
            if printed.getvalue().rstrip() != expected.rstrip():
                raise AssertionError(
                    f"{page}:{line + 1}: printed\n{printed.getvalue()}\nnot\n{expected}"
                )
    return count


if __name__ == "__main__":
    for name in sys.argv[1:]:
        print(f"{name}: {run(Path(name))} examples")
