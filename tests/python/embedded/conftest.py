"""Fixtures of the tests on the embedded runtime: a database file, and two views of it."""

import os
import sqlite3

import pytest

from vorda import zelqa


# Leaks are looked for in this process. Those that tests start are other programs, compilers among them, or end
# without tidying up on purpose.
os.environ["ASAN_OPTIONS"] = os.environ.get("ASAN_OPTIONS", "").replace("detect_leaks=1", "detect_leaks=0")


@pytest.fixture
def path(tmp_path):
    return str(tmp_path / "data.db")


@pytest.fixture
def connection(path):
    connection = zelqa.connect("Database={%s}" % path)
    yield connection
    try:
        connection.close()
    except zelqa.ProgrammingError:
        pass  # the test closed it


@pytest.fixture
def cursor(connection):
    return connection.cursor()


@pytest.fixture
def stdlib(path, connection):
    """The standard library's view of the same file, in autocommit mode."""
    other = sqlite3.connect(path, isolation_level=None)
    yield other
    other.close()
