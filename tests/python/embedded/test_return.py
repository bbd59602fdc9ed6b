"""A data source that leads the driver manager back to this module: it ends at a file, not in
circles."""

import ctypes.util
import os
import subprocess
import sys

import pytest

from vorda import zelqa

PROGRAM = """
import sys
from vorda import zelqa
connection = zelqa.connect(sys.argv[1])
cursor = connection.cursor()
cursor.execute("CREATE TABLE t (a INTEGER)")
cursor.executemany("INSERT INTO t VALUES (?)", [(1,), (2,)])
again = zelqa.connect(sys.argv[1])
print(*again.cursor().execute("SELECT sum(a) FROM t").fetchone())
"""


@pytest.mark.skipif(not ctypes.util.find_library("odbc"), reason="no ODBC driver manager")
@pytest.mark.parametrize("source", ["Driver=" + zelqa.__file__, "DSN=back"])
def test_a_data_source_that_is_this_module(tmp_path, stdlib, path, source):
    sources = tmp_path / "odbc.ini"
    sources.write_text("[back]\nDriver=%s\n" % zelqa.__file__)
    done = subprocess.run([sys.executable, "-c", PROGRAM, "%s;Database={%s}" % (source, path)],
                          text=True, timeout=120, env=dict(os.environ, ODBCINI=str(sources)),
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    assert (done.returncode, done.stdout) == (0, "3\n")
    assert stdlib.execute("SELECT count(*) FROM t").fetchone() == (2,)
