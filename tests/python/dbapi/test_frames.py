"""Results as Arrow's columns: the same values, or an error that names the cell."""

import contextlib
import datetime
import threading
from decimal import Decimal

import pytest

from arrow_streams import Data, numbers
from vorda import dbapi

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
    pyarrow = pytest.importorskip("pyarrow")
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
    pyarrow = pytest.importorskip("pyarrow")
    cursor = table_of(connection, declared, [first] * 300 + [later])
    with pytest.raises(OSError, match='Column 1 "x", ' + words):
        pyarrow.table(cursor.fetch_arrow(batch_rows=300))
    if declared in ("TEXT", "INTEGER", "DATE"):
        with pytest.raises(dbapi.DataError, match='Column 1 "x", ' + words):
            connection.execute("SELECT x FROM t").fetch_arrow_all()


def test_a_stream_lives_as_long_as_it_is_wanted(connection):
    pyarrow = pytest.importorskip("pyarrow")
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


def test_what_ends_a_stream_is_told_by_it(connection, tmp_path):
    cursor = table_of(connection, "INTEGER", range(1000))
    connection.commit()
    with contextlib.closing(dbapi.connect(":memory:")) as other:
        other.execute("CREATE TABLE t (x INTEGER)")

        def read(stream):
            return other.executemany("INSERT INTO t VALUES (?)", stream).rowcount

        for end, words in ((connection.rollback, "gone with the rollback"),
                           (connection.cancel, None), (cursor.close, None),
                           (connection.close, "connection is closed")):
            kept = connection.execute("SELECT x FROM t").fetch_arrow(batch_rows=100)
            connection.execute("SELECT x FROM t").fetch_arrow().__arrow_c_stream__()  # not read
            end()
            if words:
                with pytest.raises(dbapi.DatabaseError, match="stream has failed: .*" + words):
                    read(kept)
            else:
                assert read(kept) == 1000
        kept = dbapi.connect(tmp_path / "data.db").execute("SELECT x FROM t").fetch_arrow(100)
        assert read(kept) == 1000
        with pytest.raises(dbapi.ProgrammingError, match="handed over"):
            read(kept)


def test_a_table_is_given_to_many(connection):
    pyarrow = pytest.importorskip("pyarrow")
    cursor = table_of(connection, "INTEGER", range(70000))
    table = cursor.fetch_arrow_all()
    connection.close()
    assert len(table) == table.num_rows == 70000 and table.column_names == ("x",)
    assert pyarrow.table(table) == pyarrow.table(table)
    assert pyarrow.schema(table).names == ["x"]


@pytest.mark.parametrize("declared, values", [(declared, values) for declared, _, values in VALUES
                                              if declared not in ("", "DECIMAL(50,2)")])
def test_what_comes_out_goes_in_again(connection, declared, values):
    connection.execute("CREATE TABLE t (x %s, \"a \"\"b?\" INTEGER)" % declared)
    rows = [(value, i) for i, value in enumerate(values * 50 + [None])]
    connection.executemany("INSERT INTO t VALUES (?, ?)", rows)
    cursor = connection.execute("SELECT * FROM t ORDER BY 2")
    rows = cursor.fetchall()
    with contextlib.closing(dbapi.connect(":memory:", autocommit=True)) as other:
        for _ in range(2):
            stream = cursor.execute("SELECT * FROM t ORDER BY 2").fetch_arrow(batch_rows=7)
            assert dbapi.ingest(other, "t'\"?", stream) == len(rows)
        assert not other.in_transaction
        back = other.execute("SELECT * FROM \"t'\"\"?\" ORDER BY 2").fetchall()
        assert back == [row for row in rows for _ in range(2)]
        assert list(map(type, back[0])) == list(map(type, rows[0]))


def test_a_stream_is_stored_whole_or_not_at_all(connection):
    connection.execute("CREATE TABLE t (x INTEGER CHECK (x < 5))")
    good = Data(b"s", 5, None, numbers("h", *range(5)), batches=1000)
    cursor = connection.executemany("INSERT INTO t VALUES (?)", good)
    assert cursor.rowcount == 5000 and good.released == good.made == 1002
    connection.commit()
    for autocommit in (False, True):
        connection.autocommit = autocommit
        bad = Data(b"s", 6, None, numbers("h", *range(6)), batches=1000)
        with pytest.raises(dbapi.IntegrityError):
            dbapi.ingest(connection, "t", bad)
        assert connection.execute("SELECT count(*) FROM t").fetchall() == [(5000,)]
        connection.rollback()


GOOD = [
    (b"n", 2, [], [None, None]),
    (b"c", 2, [None, numbers("b", -1, 1)], [-1, 1]),
    (b"L", 2, [b"\2", numbers("Q", 2**64 - 1, 2**63 - 1)], [None, 2**63 - 1]),
    (b"f", 1, [None, numbers("f", 0.5)], [0.5]),
    (b"U", 2, [None, numbers("q", 1, 1, 3), "xé".encode()], ["", "é"]),
    (b"vu", 2, [None, numbers("i", 3) + b"abc" + bytes(9)
                + numbers("i", 13) + b"2345" + numbers("i", 0, 2),
                b"0123456789ABCDEF", numbers("q", 16)], ["abc", "23456789ABCDE"]),
    (b"w:2", 2, [None, b"abcd"], [b"ab", b"cd"]),
    (b"tdm", 1, [None, numbers("q", -86400000)], ["1969-12-31"]),
    (b"ttn", 1, [None, numbers("q", 86399999999000)], ["23:59:59.999999"]),
    (b"tss:", 1, [None, numbers("q", -1)], ["1969-12-31 23:59:59"]),
    (b"d:5,2", 1, [None, numbers("q", -5, -1)], [-0.05]),
    (b"d:5,2,32", 1, [None, numbers("i", 12345)], [123.45]),
]


@pytest.mark.parametrize("format, length, buffers, values", GOOD, ids=[str(g[0]) for g in GOOD])
def test_every_type_of_arrow_is_read(connection, format, length, buffers, values):
    connection.execute("CREATE TABLE t (x)")
    data = Data(format, length, *buffers)
    connection.executemany("INSERT INTO t VALUES (?)", data)
    assert [x for x, in connection.execute("SELECT x FROM t")] == values
    assert data.released == data.made == 3


LETTERS = Data(b"u", 2, None, numbers("i", 0, 1, 2), b"ab")


@pytest.mark.parametrize("words, data", [
    ("no table", Data(b"l", 1, None, numbers("q", 1), schema={"format": b"l"})),
    ("type \\+l of Arrow", Data(b"+l", 1, None, numbers("i", 0, 1))),
    ("time zone", Data(b"tsu:UTC", 1, None, numbers("q", 1))),
    ("type d:5,6 of", Data(b"d:5,6", 1, None, bytes(16))),
    ("type d:77,6,256 of", Data(b"d:77,6,256", 1, None, bytes(32))),
    ("type w:x of", Data(b"w:x", 1, None, bytes(16))),
    ("failed: on fire", Data(b"l", 1, error=b"on fire")),
    ("buffers", Data(b"l", 1, None)),
    ("buffers", Data(b"u", 1, None, numbers("i", 0, 1))),
    ("values", Data(b"l", 1, None, None)),
    ("which values are NULL", Data(b"l", 1, None, numbers("q", 1), array={"null_count": 1})),
    ("which values are NULL", Data(b"l", 1, b"\1", numbers("q", 1), array={"null_count": 2})),
    ("which values are NULL", Data(b"l", 1, b"\1", numbers("q", 1), array={"null_count": -2})),
    ("has not the rows", Data(b"l", 1, None, numbers("q", 1), array={"length": 0})),
    ("has not the rows", Data(b"l", 1, None, numbers("q", 1), array={"offset": -1})),
    ("has not the rows", Data(b"l", 1, None, numbers("q", 1), array={"offset": 2**62})),
    ("has not the columns", Data(b"l", 1, None, numbers("q", 1), batch={"length": -1})),
    ("has not the columns", Data(b"l", 1, None, numbers("q", 1), batch={"n_children": 0})),
    ("bytes that are not there", Data(b"u", 1, None, numbers("i", 2, 1), b"ab")),
    ("bytes that are not there", Data(b"u", 1, None, numbers("i", -1, 1), b"ab")),
    ("bytes that are not there", Data(b"u", 1, None, numbers("i", 0, 1), None)),
    ("bytes that are not there", Data(b"vu", 1, None, numbers("i", 13, 0, 1, 0), b"x" * 13,
                                      numbers("q", 13))),
    ("bytes that are not there", Data(b"vu", 1, None, numbers("i", 13, 0, 0, 1), b"x" * 13,
                                      numbers("q", 13))),
    ('Column 1 "x", row 2: .*UTF-8', Data(b"u", 2, None, numbers("i", 0, 1, 2), b"a\xff")),
    ("row 1: .*UTF-8", Data(b"u", 1, None, numbers("i", 0, 3), b"\xed\xa0\x80")),
    ("row 1: .*64 bits", Data(b"L", 1, None, numbers("Q", 2**63))),
    ("1 to 9999", Data(b"tdD", 1, None, numbers("i", 2932897))),
    ("1 to 9999", Data(b"tss:", 1, None, numbers("q", 2**62))),
    ("not one of a day", Data(b"tts", 1, None, numbers("i", 86400))),
    ("fractions of micro", Data(b"tsn:", 1, None, numbers("q", 1))),
    ("dictionary has not", Data(b"c", 1, None, numbers("b", 2), dictionary=LETTERS)),
    ("has no dictionary", Data(b"c", 1, None, numbers("b", 0), dictionary=LETTERS,
                               array={"dictionary": None})),
])
def test_a_stream_is_not_trusted(connection, words, data):
    with pytest.raises(dbapi.DatabaseError, match=words):
        dbapi.ingest(connection, "t", data)
    assert data.made == data.released > 0
    assert connection.execute("SELECT count(*) FROM sqlite_master").fetchone() == (0,)


def test_data_that_are_none_or_were_read_are_refused(connection):
    with pytest.raises(dbapi.ProgrammingError, match="list has no Arrow data"):
        dbapi.ingest(connection, "t", [])
    data = Data(b"c", 1, None, numbers("b", 1), dictionary=LETTERS)
    capsule = data.__arrow_c_stream__()
    holder = type("Holder", (), {"__arrow_c_stream__": lambda self: capsule})()
    assert dbapi.ingest(connection, "t", holder) == 1
    assert connection.execute("SELECT * FROM t").fetchall() == [("b",)]
    with pytest.raises(dbapi.ProgrammingError, match="taken already"):
        dbapi.ingest(connection, "t", holder)
