"""Fixtures of the tests on the embedded runtime: a database file, and two views of it."""

import os
import shutil
import sqlite3

import pytest

import vorda
from vorda import zelqa


# Leaks are looked for in this process. Those that tests start are other programs, compilers among
# them, or end without tidying up on purpose.
os.environ["ASAN_OPTIONS"] = os.environ.get("ASAN_OPTIONS", "").replace("detect_leaks=1",
                                                                        "detect_leaks=0")


def pytest_configure(config):
    """No warning unless a test asks for it."""
    config.addinivalue_line("filterwarnings", "error::RuntimeWarning")


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


@pytest.fixture
def package(tmp_path):
    """A copy of the package without its runtime."""
    target = tmp_path / "python" / "vorda"
    shutil.copytree(os.path.dirname(vorda.__file__), target,
                    ignore=shutil.ignore_patterns("libvordart*"))
    return target
