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
    "pandas_arrow.py": ["3 rows stored\n", "0   north  2026-11-20      NaN\n"],
    "polars_frames.py": ["[('north', -1.5), ('south', 11.25)]\n"],
    "duckdb_arrow.py": ["[('A', 24.0), ('B', 25.0), ('C', 24.5)]\n"],
    "asyncio_threads.py": ["cancelled: HY008\n[(42,)]\n"],
    "connection_pool.py": ["[(20,), (20,), (20,), (20,), (20,)]\n"],
    "sqlalchemy_orm.py": ["lamps [('2026-11-19', '149.00'), ('2026-11-20', '12.50')]\n"],
}
# Not imported here: they are no business of the process under test.
NEEDED = {"pandas_frames.py": ["pandas"], "pandas_arrow.py": ["pandas", "pyarrow"],
          "polars_frames.py": ["polars"], "duckdb_arrow.py": ["duckdb", "pyarrow"],
          "sqlalchemy_orm.py": ["sqlalchemy"]}
# What an installed package says of itself.
REGISTERED = """import runpy, sys
from sqlalchemy.dialects import registry
registry.register("sqlite.vorda", "vorda.sqlalchemy.sqlite", "dialect")
sys.argv = sys.argv[1:]
runpy.run_path(sys.argv[0], run_name="__main__")"""


def test_all_examples_are_here():
    assert set(PRINTED) == {path.name for path in EXAMPLES.glob("*.py")}


@pytest.mark.parametrize("name", PRINTED)
def test_example(name, tmp_path):
    for library in NEEDED.get(name, []):
        if not importlib.util.find_spec(library):
            pytest.skip("there is no " + library)
    start = ["-c", REGISTERED] if name == "sqlalchemy_orm.py" else []
    done = subprocess.run([sys.executable, *start, str(EXAMPLES / name), "data.db"],
                          cwd=str(tmp_path), encoding="utf-8", stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, timeout=120)
    assert (done.returncode, done.stderr) == (0, "")
    for text in PRINTED[name]:
        assert text in done.stdout
