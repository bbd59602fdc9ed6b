"""Asking the catalogue, on every engine."""

import pytest

from vorda import dbapi


def test_all_are_asked_in_one_way(engine, family):
    cursor = family.cursor()

    def found(*columns):
        names = [column[0].upper() for column in cursor.description]
        return [tuple(int(row[i]) if str(row[i]).isdigit() else row[i]  # texts of SQLite's
                      for i in map(names.index, columns)) for row in cursor.fetchall()]

    cursor.tables("seen")
    assert found("TABLE_NAME", "TABLE_TYPE") == [("seen", "VIEW")]
    assert cursor.tables(tableType="TABLE").fetchmany(2) and cursor.execute("SELECT 1")
    cursor.columns("child\\_" if engine.name != "sqliteodbc" else "child_", column="%")
    assert found("COLUMN_NAME", "ORDINAL_POSITION") == [("id", 1), ("a", 2), ("b", 3)]
    cursor.primaryKeys("parent")
    assert sorted(found("KEY_SEQ", "COLUMN_NAME")) == [(1, "b"), (2, "a")]
    cursor.statistics("child_", unique=True)
    assert [row[1:] for row in found("INDEX_NAME", "COLUMN_NAME", "NON_UNIQUE")
            if row[0] == "both_"] == [("b", 0), ("id", 0)]
    columns = ("FKCOLUMN_NAME", "PKTABLE_NAME", "PKCOLUMN_NAME", "KEY_SEQ", "DELETE_RULE")
    cursor.foreignKeys(foreignTable="child_")
    keys = found(*columns)
    assert keys == [("b", "parent", "b", 1, 0), ("a", "parent", "a", 2, 0)]
    if engine.name != "sqliteodbc":  # which asks for all keys of its tables
        cursor.foreignKeys("parent")
        assert found(*columns) == keys
    cursor.getTypeInfo(-5)
    assert {"-5"} == {str(row[0]) for row in found("DATA_TYPE")}
    cursor.procedures("no such").fetchall()
    with pytest.raises(dbapi.Error):
        cursor.primaryKeys("x" * 40000)
    with pytest.raises(dbapi.Error):
        cursor.foreignKeys()
    assert cursor.execute("SELECT 'x'").fetchall() == [("x",)]
