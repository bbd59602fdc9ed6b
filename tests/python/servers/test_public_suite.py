"""The public suite of DB-API tests (dbapi-compliance of the Python index), on every engine."""

import unittest

import pytest

from vorda import dbapi

dbapi20 = pytest.importorskip("dbapi20")


# What lower(text) is as a procedure; SQLite's own driver has none.
PROCEDURES = {
    "sqlite": "CREATE OR REPLACE PROCEDURE lowered (a) AS SELECT lower($a)",
    "mariadb": "CREATE OR REPLACE PROCEDURE lowered (a VARCHAR(9)) SELECT lower(a)",
}


def left_to_the_driver(self):
    """Not a test: the suite has each driver write its own."""


def test_the_public_suite_passes(engine):
    class Suite(dbapi20.DatabaseAPI20Test):
        driver = dbapi
        connect_args = (engine.string,)
        lower_func = "lowered" if engine.name in PROCEDURES else "lower"
        test_nextset = test_setoutputsize = left_to_the_driver
        # Closing twice does nothing here, as in most drivers.
        test_non_idempotent_close = left_to_the_driver

    if engine.name == "sqliteodbc":
        Suite.test_callproc = left_to_the_driver
    connection = dbapi.connect(engine.string, autocommit=True)
    for table in ("booze", "barflys"):
        connection.execute("DROP TABLE IF EXISTS %s%s" % (Suite.table_prefix, table))
    if engine.name in PROCEDURES:
        connection.execute(PROCEDURES[engine.name])
    connection.close()
    result = unittest.TestResult()
    unittest.defaultTestLoader.loadTestsFromTestCase(Suite).run(result)
    assert result.testsRun > 30
    assert not result.errors + result.failures, "\n".join(
        text for _, text in result.errors + result.failures
    )
