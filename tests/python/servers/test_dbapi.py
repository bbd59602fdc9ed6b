"""What vorda.dbapi does on servers only."""

import pytest

import engines
from vorda import dbapi

PROCEDURES = {
    "postgresql": "CREATE OR REPLACE PROCEDURE outs(a integer, INOUT b text, OUT c integer)"
                  " LANGUAGE plpgsql AS 'BEGIN b := b || a; c := a + 1; END'",
    "mariadb": "CREATE OR REPLACE PROCEDURE outs(a integer, INOUT b text, OUT c integer)"
               " BEGIN SET b = CONCAT(b, a); SET c = a + 1; END",
}


def test_output_parameters_are_replaced_or_a_row(engine):
    if engine.name not in engines.SERVERS:
        pytest.skip("no server")
    connection = dbapi.connect(engine.string, autocommit=True)
    connection.execute(PROCEDURES[engine.name])
    cursor = connection.cursor()
    cursor.row_factory = dbapi.dict_row
    given = [1, dbapi.Out("x"), dbapi.Out()]
    if engine.name == "postgresql":
        assert cursor.callproc("outs", given) == [1, "x1", 2] and given[1].value == "x"
        with pytest.raises(dbapi.ProgrammingError, match="1 output"):
            cursor.callproc("outs", (1, dbapi.Out("x"), None))
        assert cursor.row_factory is dbapi.dict_row
    else:
        with pytest.raises(dbapi.NotSupportedError, match="row"):
            cursor.callproc("outs", given)
        assert cursor.callproc("outs", (1, "x", None)) == [1, "x", None]
        assert cursor.fetchall() == [{"b": "x1", "c": 2}]
    connection.close()
