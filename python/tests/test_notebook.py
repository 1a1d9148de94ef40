"""The notebook runs from its first cell to its last and shows pictures."""

from pathlib import Path

import nbformat
from nbclient import NotebookClient

ROOT = Path(__file__).resolve().parents[2]


def test_notebook():
    notebook = nbformat.read(ROOT / "docs/penguins.ipynb", as_version=4)
    NotebookClient(
        notebook,
        timeout=600,
        startup_timeout=300,
        resources={"metadata": {"path": str(ROOT / "docs")}},
    ).execute()
    shown = [
        kind
        for cell in notebook.cells
        for output in cell.get("outputs", [])
        for kind in output.get("data", {})
    ]
    assert shown.count("image/png") >= 2
    assert "text/html" in shown
