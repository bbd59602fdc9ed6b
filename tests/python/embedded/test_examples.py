"""Each example runs and prints what it should, from another folder than its own."""

import importlib.util
import pathlib
import subprocess
import sys

import pytest

EXAMPLES = pathlib.Path(__file__).parents[3] / "examples"
PRINTED = {
    "airports.py": ["loaded 3426 rows into data.db", "Washington", "BFI  Boeing",
                    "no such column: runway"],
    "csv_load.py": [
        "name,admitted\nDelaware,1787-12-07\nPennsylvania,1787-12-12\nNew Jersey,1787-12-18\n"],
    "thread_pool.py": ["20 20 20 20 20\n"],
    "pandas_frames.py": ["0   north  2026-11-20      NaN\n1   south  2026-11-20    11.25\n"],
}


def test_all_examples_are_here():
    assert set(PRINTED) == {path.name for path in EXAMPLES.glob("*.py")}


@pytest.mark.parametrize("name", PRINTED)
def test_example(name, tmp_path):
    if name == "pandas_frames.py" and not importlib.util.find_spec("pandas"):
        # not imported here: it is no business of the process under test
        pytest.skip("there is no pandas")
    done = subprocess.run([sys.executable, str(EXAMPLES / name), "data.db"], cwd=str(tmp_path),
                          encoding="utf-8", stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          timeout=120)
    assert (done.returncode, done.stderr) == (0, "")
    for text in PRINTED[name]:
        assert text in done.stdout
