"""What SQLAlchemy's suite asks of a dialect: what it asks of its own, by the names of those."""

import importlib.util
import os

from sqlalchemy.testing.exclusions import only_on

SPEC = importlib.util.spec_from_file_location("upstream", os.environ["VORDA_SQLALCHEMY_SUITE"])
upstream = importlib.util.module_from_spec(SPEC)
SPEC.loader.exec_module(upstream)


class Requirements(upstream.DefaultRequirements):
    dbapi_lastrowid = property(lambda self: only_on(["sqlite", "mysql", "mariadb"]))
    infinity_floats = property(lambda self: only_on(["sqlite", "postgresql"]))
