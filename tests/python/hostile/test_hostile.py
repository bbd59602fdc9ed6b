"""Runs of the driver program, each of some seeds; a random program on a lying runtime is one
seed."""

import glob
import os
import subprocess
import sys

import pytest

DRIVER = os.path.join(os.path.dirname(__file__), "driver.py")
SANITIZED = "libasan" in os.environ.get("LD_PRELOAD", "")
SEEDS = int(os.environ.get("VORDA_HOSTILE_SEEDS", "150" if SANITIZED else "250"))
CHUNK = 250


@pytest.mark.parametrize("driver", ["zelqa", "dbapi", "driver"])
@pytest.mark.parametrize("first", range(1, SEEDS, CHUNK))
def test_seeds(first, driver):
    # Freed memory that glibc keeps for each thread counts as used: without that the figures are
    # exact.
    environment = dict(os.environ, GLIBC_TUNABLES="glibc.malloc.tcache_count=0")
    if driver == "driver":
        if not glob.glob("/usr/lib/*/odbc/libsqlite3odbc.so"):
            pytest.skip("there is no ODBC driver for SQLite; ./dev servers installs it")
        if SANITIZED:
            pytest.skip("the driver manager itself reads what no driver has written")
    run = subprocess.run(
        [sys.executable, DRIVER, driver, str(first), str(min(CHUNK, SEEDS - first + 1))],
        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, universal_newlines=True, env=environment)
    assert run.returncode == 0, run.stdout[-6000:]
