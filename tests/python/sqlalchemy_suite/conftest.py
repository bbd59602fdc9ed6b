"""SQLAlchemy's plugin for pytest, and what it does to set up each database."""

import importlib

import pytest

pytest.register_assert_rewrite("sqlalchemy.testing.assertions")

from sqlalchemy.testing.plugin.pytestplugin import *  # noqa: E402,F401,F403

for database in ("sqlite", "postgresql", "mysql"):
    importlib.import_module("sqlalchemy.dialects.%s.provision" % database)
