"""SQLAlchemy's own suite for dialects, run from its package, on every engine with a dialect."""

import os
import pathlib
import re
import shutil
import subprocess
import sys

import pytest

from vorda import dbapi

sqlalchemy = pytest.importorskip("sqlalchemy")

FOLDER = pathlib.Path(__file__).parents[1] / "sqlalchemy_suite"


def url_of(engine):
    if engine.name == "sqlite":
        return "sqlite+vorda:///suite_vorda.db"
    # It lists all that is in its database: one of its own.
    dbapi.connect(engine.string, autocommit=True).execute("CREATE DATABASE suite")
    url = {"postgresql": "postgresql+vorda://vorda@127.0.0.1:%d/suite?driver=postgresql",
           "mariadb": "mariadb+vorda://root@127.0.0.1:%d/suite?driver=mariadb"}[engine.name]
    db = sqlalchemy.create_engine(url % engine.server.port, isolation_level="AUTOCOMMIT")
    with db.connect() as connection:
        connection.exec_driver_sql("CREATE SCHEMA IF NOT EXISTS test_schema")
    db.dispose()
    return url % engine.server.port


@pytest.mark.skipif("VORDA_SQLALCHEMY_SUITE" not in os.environ, reason="./dev servers fetches it")
@pytest.mark.parametrize("engine", ["sqlite", "postgresql", "mariadb"], indirect=True)
def test_sqlalchemys_own_suite_passes(engine, tmp_path):
    suite = shutil.copytree(str(FOLDER), str(tmp_path / "suite"))
    # A choice among our tests is none among these.
    environment = {key: value for key, value in os.environ.items() if key != "PYTEST_ADDOPTS"}
    done = subprocess.run([sys.executable, "-m", "pytest", "--dburi", url_of(engine)], cwd=suite,
                          env=environment, encoding="utf-8",
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    assert done.returncode == 0, done.stdout[-20000:]
    least = 450 if sqlalchemy.__version__.startswith("1.") else 900
    assert int(re.search(r"(\d+) passed", done.stdout).group(1)) > least
