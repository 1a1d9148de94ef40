"""States of parts: they merge to what all rows give, in this version and in those that follow.

The files in ``states`` are never written anew: each is what a version of the library wrote. Run as a
program with a folder's name, this writes those of the version that runs.
"""

import sys
from pathlib import Path

import pyarrow
import pyarrow.ipc
import pytest
from engines import EXACT, ROUNDED, compare, rows_of, single, table

import vask
from vask._plan import plan_of
from vask._query import Options

BY = ["kind", "part"]
WANTED = {
    **EXACT,
    **ROUNDED,
    "any_text": ("text", "any_value"),
    "spread": ("v", "range"),
}
#: The rows of which each file has the states: one of them has none.
PARTS = [(0, 15), (15, 15), (15, 16), (16, 40)]
STATES = Path(__file__).parent / "states"
VERSIONS = ["1"]


def rows():
    """Rows that no generator of random numbers has to repeat."""
    n = range(40)
    return pyarrow.table(
        {
            "kind": [None if i % 11 == 0 else ["", "a", "häufig"][i * i % 3] for i in n],
            "part": pyarrow.array(
                [[-0.0, 0.0, 1.5, None][i * 7 % 4] for i in n], pyarrow.float64()
            ),
            "v": [i * i - 50 * i for i in n],
            "x": [None if i % 5 == 0 else 1e6 + i * i % 17 / 8 for i in n],
            "text": [None if i % 3 == 0 else f"text {i * i % 7}" for i in n],
        }
    )


def plan(data, by=BY):
    return plan_of(data.slice(0, 0), by, WANTED, {}, Options())


def written(version, part):
    return STATES / f"version-{version}-part-{part}.arrow"


@pytest.mark.parametrize("version", VERSIONS)
def test_states_of_earlier_versions_merge(version):
    states = [pyarrow.ipc.open_file(written(version, i)).read_all() for i in range(len(PARTS))]
    asked = plan(rows())
    expected = single(rows(), BY, WANTED)
    compare(rows_of(asked.merge(states, True), BY), expected)
    # States of two versions meet where one is taken into use while states of the other are kept.
    mixed = [*states[:2], *(asked.states(rows()[a:b]) for a, b in PARTS[2:])]
    compare(rows_of(asked.merge(mixed, True), BY), expected)


def test_the_form_of_states_is_that_of_the_newest_file():
    kept = pyarrow.ipc.open_file(written(VERSIONS[-1], 0)).read_all()
    assert plan(rows()).states(rows()[: PARTS[0][1]]).schema == kept.schema


@pytest.mark.parametrize("by", [[], ["key"], ["key", "kind", "part"]])
@pytest.mark.parametrize("width", [1, 2, 5])
def test_any_cut_and_any_tree(by, width):
    data = table(3000)
    asked = plan(data, by)
    cuts = [0, 0, 1, 700, 701, 2000, 2000, 2999, 3000]
    states = [asked.states(data[a:b]) for a, b in zip(cuts, cuts[1:])]
    while width > 1 and len(states) > width:
        states = [asked.merge(states[i : i + width], False) for i in range(0, len(states), width)]
    compare(rows_of(asked.merge(states, True), by), single(data, by, WANTED))


def test_what_is_no_table_of_states_is_refused():
    data = rows()
    asked = plan(data)
    with pytest.raises(vask.DataError, match="no table of states, or one of another version"):
        asked.merge([data], True)
    other = plan_of(data.slice(0, 0), BY, {"n": "size"}, {}, Options())
    with pytest.raises(vask.DataError, match="made by the same query"):
        asked.merge([other.states(data)], True)


if __name__ == "__main__":
    for i, (a, b) in enumerate(PARTS):
        states = plan(rows()).states(rows()[a:b])
        with pyarrow.ipc.new_file(Path(sys.argv[1]) / f"part-{i}.arrow", states.schema) as out:
            out.write_table(states)
