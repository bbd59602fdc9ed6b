"""Results as Arrow's columns: the same values, or an error that names the cell."""

import datetime
import threading
from decimal import Decimal

import pytest

from vorda import dbapi

pyarrow = pytest.importorskip("pyarrow")

VALUES = [
    ("INTEGER", "int64", [0, 2**63 - 1, -(2**63)]),
    ("DOUBLE", "double", [0.5, -0.0, float("inf")]),
    ("BOOLEAN", "bool", [True, False] * 5),
    ("TEXT", "string", ["", "é\0\U0001F600", "x" * 5000]),
    ("BLOB", "binary", [b"", b"\0\xff" * 5000]),
    ("DATE", "date32[day]", [datetime.date(1, 1, 1), datetime.date(1969, 12, 31),
                             datetime.date(2000, 2, 29), datetime.date(9999, 12, 31)]),
    ("TIME", "time64[us]", [datetime.time(0), datetime.time(23, 59, 59, 999999)]),
    ("TIMESTAMP", "timestamp[us]", [datetime.datetime(1, 1, 1, 0, 0, 0, 1),
                                    datetime.datetime(9999, 12, 31, 23, 59, 59, 999999)]),
    ("DECIMAL(12,4)", "decimal128(12, 4)", [Decimal("-99999999.9999"), Decimal("0.5"), Decimal(0)]),
    ("DECIMAL", "decimal128(38, 3)", [Decimal(-7), Decimal("12.345"), Decimal(10) ** 20]),
    ("DECIMAL(8,1)", "decimal128(38, 2)", [Decimal("12.25"), Decimal("-1")]),
    ("DECIMAL(50,2)", "decimal256(50, 2)", [Decimal("-12345678901.25"), Decimal(10) ** 40]),
    ("", "double", [1, 0.5, 2**53]),
    ("", "string", ["x", "y"]),
    ("NUMBER", "int64", [1, 2]),
]


def table_of(connection, declared, values):
    connection.execute("DROP TABLE IF EXISTS t")
    connection.execute("CREATE TABLE t (x %s)" % declared)
    connection.executemany("INSERT INTO t VALUES (?)", [(value,) for value in values])
    return connection.execute("SELECT x FROM t ORDER BY rowid")


@pytest.mark.parametrize("declared, kind, values", VALUES)
@pytest.mark.parametrize("nulls", [0, 1, 9])
def test_columns_hold_the_values_of_the_rows(connection, declared, kind, values, nulls):
    values = [None] * nulls + values * 20 + [None] * nulls
    cursor = table_of(connection, declared, values)
    table = pyarrow.table(cursor.fetch_arrow(batch_rows=50))
    table.validate(full=True)
    assert str(table.schema.field("x").type) == kind and table["x"].null_count == 2 * nulls
    assert table["x"].to_pylist() == [value for value, in cursor.execute("SELECT x FROM t")]
    assert max(map(len, table["x"].chunks)) == min(50, len(values))


@pytest.mark.parametrize("declared, first, later, words", [
    ("", 1, 0.5, "row 301: .*doubles.*column of integers"),
    ("", 0.5, 2**53 + 1, "row 301: .*integers.*column of doubles"),
    ("TEXT", "x", b"x", "row 301: .*binary data.*column of texts"),
    ("INTEGER", None, "x", "row 301: .*texts.*column of integers"),
    ("", None, 1, "row 301: .*integers.*column of texts"),
    ("DECIMAL", Decimal("0.5"), Decimal("0.25"), r"row 301: .*decimal\(38, 1\)"),
    ("DATE", None, "x", "row 301"),
])
def test_a_later_value_of_another_type_is_an_error_by_its_place(
        connection, declared, first, later, words):
    cursor = table_of(connection, declared, [first] * 300 + [later])
    with pytest.raises(OSError, match='Column 1 "x", ' + words):
        pyarrow.table(cursor.fetch_arrow(batch_rows=300))
    if declared in ("TEXT", "INTEGER", "DATE"):
        with pytest.raises(dbapi.DataError, match='Column 1 "x", ' + words):
            connection.execute("SELECT x FROM t").fetch_arrow_all()


def test_a_stream_lives_as_long_as_it_is_wanted(connection):
    cursor = table_of(connection, "INTEGER", range(1000))
    assert cursor.fetchone() == (0,)
    stream = cursor.fetch_arrow(batch_rows=100)
    assert cursor.execute("SELECT 'other'").fetchone() == ("other",)
    cursor.close()
    reader = pyarrow.RecordBatchReader.from_stream(stream)
    with pytest.raises(dbapi.ProgrammingError, match="handed over"):
        stream.__arrow_c_stream__()
    found = []
    thread = threading.Thread(target=lambda: found.extend(reader.read_next_batch()[0].to_pylist()))
    thread.start()
    thread.join()
    assert found == list(range(1, 101))
    connection.close()
    with pytest.raises(OSError, match="connection is closed"):
        reader.read_next_batch()


def test_a_table_is_given_to_many(connection):
    cursor = table_of(connection, "INTEGER", range(70000))
    table = cursor.fetch_arrow_all()
    connection.close()
    assert len(table) == table.num_rows == 70000 and table.column_names == ("x",)
    assert pyarrow.table(table) == pyarrow.table(table)
    assert pyarrow.schema(table).names == ["x"]
