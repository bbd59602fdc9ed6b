"""SQLAlchemy's own suite for dialects, run from its package, on every engine with a dialect."""

import os
import pathlib
import re
import shutil
import subprocess
import sys

import pytest

from vorda import dbapi

FOLDER = pathlib.Path(__file__).parents[1] / "sqlalchemy_suite"


def url_of(engine):
    if engine.name == "sqlite":
        return "sqlite+vorda:///suite_vorda.db"
    port, create = engine.server.port, "CREATE SCHEMA IF NOT EXISTS "
    dbapi.connect(engine.string, autocommit=True).execute(create + "test_schema")
    return {"postgresql": "postgresql+vorda://vorda@127.0.0.1:%d/postgres?driver=postgresql",
            "mariadb": "mariadb+vorda://root@127.0.0.1:%d/vorda?driver=mariadb"}[engine.name] % port


@pytest.mark.skipif("VORDA_SQLALCHEMY_SUITE" not in os.environ, reason="./dev servers fetches it")
@pytest.mark.parametrize("engine", ["sqlite", "postgresql", "mariadb"], indirect=True)
def test_sqlalchemys_own_suite_passes(engine, tmp_path):
    suite = shutil.copytree(str(FOLDER), str(tmp_path / "suite"))
    done = subprocess.run([sys.executable, "-m", "pytest", "--dburi", url_of(engine)], cwd=suite,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, encoding="utf-8")
    assert done.returncode == 0, done.stdout[-20000:]
    assert int(re.search(r"(\d+) passed", done.stdout).group(1)) > 900
