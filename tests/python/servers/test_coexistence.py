"""This module and pyodbc in one program, on one database: two users of ODBC that must not meet by
accident."""

import json
import os
import subprocess
import sys

import pytest

pyodbc = pytest.importorskip("pyodbc", reason="pyodbc is not installed")

# Each library writes, and each reads what the other wrote while both have connections open.
PROGRAM = """
import json, os, sys
ours, theirs, order, flags = json.loads(sys.argv[1])

def module():
    global zelqa
    usual = sys.getdlopenflags()
    if flags == "global":
        sys.setdlopenflags(os.RTLD_NOW | os.RTLD_GLOBAL)
    from vorda import zelqa
    sys.setdlopenflags(usual)

def other():
    global pyodbc
    import pyodbc

for step in (module, other) if order == "module first" else (other, module):
    step()
text = "é€ ?"
for _ in range(3):
    a = zelqa.connect(ours)
    b = pyodbc.connect(theirs, autocommit=True)
    a.execute("DROP TABLE IF EXISTS t")
    a.execute("CREATE TABLE t (a INTEGER, b VARCHAR(50))")
    cursor = a.cursor()
    cursor.executemany("INSERT INTO t VALUES (?, ?)", [(1, text), (2, "zwei")])
    b.cursor().executemany("INSERT INTO t VALUES (?, ?)", [(3, text), (4, "vier")])
    mine, yours = a.cursor(), b.cursor()
    mine.execute("SELECT a, b FROM t ORDER BY a")
    yours.execute("SELECT a, b FROM t ORDER BY a")
    rows = [(tuple(mine.fetchone()), tuple(yours.fetchone())) for _ in range(4)]
    assert rows == [(row, row) for row in [(1, text), (2, "zwei"), (3, text), (4, "vier")]], rows
    for call, error in [(mine.execute, zelqa.Error), (yours.execute, pyodbc.Error)]:
        try:
            call("SELECT * FROM nowhere")
        except error as caught:
            assert "nowhere" in str(caught)
    assert yours.execute("SELECT count(*) FROM t WHERE b = ?", text).fetchone()[0] == 2
    assert mine.execute("SELECT count(*) FROM t WHERE b = ?", text).fetchone()[0] == 2
    a.close()
    assert yours.execute("SELECT 1").fetchone()[0] == 1
    b.close()
print("both")
"""


@pytest.mark.parametrize("flags", ["local", "global"])
@pytest.mark.parametrize("order", ["module first", "pyodbc first"])
def test_both_in_one_program(engine, databases, order, flags):
    # The embedded engine's file is read by pyodbc through the SQLite driver.
    theirs = engine.string
    if engine.name == "sqlite":
        if "sqliteodbc" not in databases:
            pytest.skip("there is no ODBC driver for SQLite")
        theirs = databases["sqliteodbc"].string.replace(databases["sqliteodbc"].path, engine.path)
    done = subprocess.run([sys.executable, "-c", PROGRAM,
                           json.dumps([engine.string, theirs, order, flags])],
                          env=os.environ, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True, timeout=60)
    if (order, flags) == ("module first", "global"):
        # Who makes our ODBC functions global puts them in the place of the driver manager's for all
        # that is loaded later: pyodbc finds another ODBC than it was built for. That is an error,
        # not a crash.
        assert done.returncode == 1 and "Unable to set SQL_ATTR" in done.stdout
    else:
        assert (done.returncode, done.stdout) == (0, "both\n")
