"""The examples of the documentation, as they are printed there."""

import doctest
import importlib
import importlib.util
import os
import pkgutil
import shutil
from pathlib import Path

import pytest
from run_examples import run

import vask

ROOT = Path(__file__).resolve().parents[2]


@pytest.mark.parametrize(
    "page", ["README.md", "docs/start/python.md", "docs/python.md", "python/README.md"]
)
def test_pages(page):
    assert run(ROOT / page) > 0


def test_page_of_the_engines():
    pytest.importorskip("distributed")
    pytest.importorskip("pyspark")
    if not (shutil.which("java") or os.environ.get("JAVA_HOME")):
        pytest.skip("Spark needs a Java")
    assert run(ROOT / "docs" / "engines.md") == 2


#: Modules that need what they are called after.
ENGINES = {"vask.dask": "distributed", "vask.spark": "pyspark"}


def test_docstrings():
    attempted = 0
    for module in pkgutil.iter_modules(vask.__path__, "vask."):
        if module.name == "vask.__main__":
            continue
        if not importlib.util.find_spec(ENGINES.get(module.name, "vask")):
            continue
        outcome = doctest.testmod(importlib.import_module(module.name))
        assert outcome.failed == 0, module.name
        attempted += outcome.attempted
    assert attempted > 5
    assert doctest.testmod(vask).failed == 0


def test_everything_public_is_described():
    for name in vask.__all__:
        described = getattr(vask, name)
        assert described.__doc__, name
        if isinstance(described, type):
            for member, value in vars(described).items():
                if not member.startswith("_") and callable(value):
                    assert value.__doc__, f"{name}.{member}"
