"""Values come back as they went in, or are refused."""

import collections
import datetime
import enum
import sys
import uuid
from decimal import Decimal

import pytest

from vorda import dbapi


class Colour(enum.Enum):
    RED = "red"


class Size(enum.IntEnum):
    BIG = 3


VALUES = [
    ("INTEGER", [0, 1, -1, 2**31, 2**63 - 1, -(2**63)]),
    ("TEXT", ["", "x", "\0", "é\0\U0001F600" * 5000, "x" * 4095, "é" * 2048, "a" * 256, "a" * 257]),
    ("REAL", [0.5, -0.0, 1e308, float("inf")]),
    ("BLOB", [b"", b"\0\xff" * 40000]),
    ("BOOLEAN", [True, False]),
    ("DECIMAL(20,4)", [Decimal("0.02"), Decimal("-12345678901.2345"), Decimal(0)]),
    ("DATE", [datetime.date(1, 1, 1), datetime.date(9999, 12, 31)]),
    ("TIME", [datetime.time(23, 59, 59, 999999), datetime.time(0)]),
    ("TIMESTAMP", [datetime.datetime(2024, 2, 29, 1, 2, 3, 456789)]),
]


@pytest.mark.parametrize("declared, values", VALUES, ids=[declared for declared, _ in VALUES])
def test_values_come_back_as_they_went_in(connection, declared, values):
    connection.execute("CREATE TABLE t (i INTEGER, x %s)" % declared)
    values = [*values, None]
    for pair in enumerate(values):
        connection.execute("INSERT INTO t VALUES (?, ?)", pair)
    cursor = connection.execute("SELECT x FROM t ORDER BY i")
    back = [row[0] for row in cursor]
    assert back == values and list(map(type, back)) == list(map(type, values))
    assert cursor.description[0][0] == "x" and type(values[0]) is cursor.description[0][1]
    assert connection.execute("SELECT count(*) FROM t WHERE x = ?", values[:1]).fetchone() >= (1,)


@pytest.mark.parametrize("bytes_within", [
    b"x", b"\xc2\x80", b"\xc3\xbf", b"\xc3\xa9\xc3\xa4", b"\xc4\x80", b"\xe2\x82\xac",
    b"\xf0\x9f\x98\x80", b"\xc3", b"\xc2x", b"\xc3\xc3", b"\xc1\xbf", b"\xc0\x80", b"\x80",
    b"\xff", b"\xe9\xa9", b"\xed\xa0\x80",
])
def test_texts_are_those_that_python_reads(connection, bytes_within):
    for length in (*range(20), 60):
        for place in {0, length // 2, max(length - 1, 0), length}:
            given = b"a" * place + bytes_within + b"z" * (length - place)
            cursor = connection.execute("SELECT CAST(? AS TEXT)", (given,))
            try:
                text = given.decode()
            except UnicodeDecodeError:
                with pytest.raises(dbapi.DataError, match="UTF-8"):
                    cursor.fetchone()
            else:
                back, = cursor.fetchone()
                # Alike inside, too: the interpreter relies on it.
                assert back == text and sys.getsizeof(back) == sys.getsizeof(text), given


@pytest.mark.parametrize("given, sent", [
    (Colour.RED, "red"), (Size.BIG, 3), (bytearray(b"x"), b"x"), (memoryview(b"xyz")[1:], b"yz"),
    (Decimal("1.5"), 1.5),
    (uuid.UUID(int=1), str(uuid.UUID(int=1))), (type("T", (str,), {})("t"), "t"),
    (type("B", (bytes,), {})(b"b"), b"b"),
])
def test_other_types_are_sent_as_what_they_stand_for(connection, given, sent):
    assert connection.execute("SELECT ?", (given,)).fetchone() == (sent,)


@pytest.mark.parametrize("value, error, words", [
    (2**63, dbapi.DataError, "64 bits"),
    ("\ud800", dbapi.DataError, "surrogate"),
    (float("nan"), dbapi.DataError, "NaN"),
    (Decimal("1E+400"), dbapi.DataError, "decimal"),
    (Decimal("NaN"), dbapi.DataError, "decimal"),
    (Decimal("1.2345E-320"), dbapi.DataError, "decimal"),
    (datetime.datetime(2024, 1, 1, tzinfo=datetime.timezone.utc), dbapi.DataError, "time zone"),
    (type("NaT", (datetime.datetime,), {"year": 0.5, "nanosecond": 0.5})(1, 1, 1), dbapi.DataError,
     "is no time"),
    (object(), dbapi.ProgrammingError, "type object.*register_adapter"),
    ([1], dbapi.ProgrammingError, "type list"),
])
def test_what_cannot_be_sent_exactly_is_refused_by_its_place(connection, value, error, words):
    with pytest.raises(error, match="Parameter 2: .*" + words):
        connection.execute("SELECT ?, ?", (1, value))


def test_an_adapter_serves_a_type_and_those_derived_from_it(connection, monkeypatch):
    monkeypatch.setattr(dbapi, "_adapters", dict(dbapi._adapters))

    class Money:
        amount = Decimal("1.5")

    dbapi.register_adapter(Money, lambda money: money.amount)
    assert connection.execute("SELECT ?", [type("Euro", (Money,), {})()]).fetchone() == (1.5,)
    dbapi.register_adapter(Money, lambda money: money)
    with pytest.raises(dbapi.ProgrammingError, match="Parameter 1: .*Money always"):
        connection.execute("SELECT ?", [Money()])


@pytest.mark.parametrize("parameters, row", [
    ((1, "x"), (1, ":a", "x")), ([1, "x"], (1, ":a", "x")),
    ({"a": 1, "é": "x", "c": 0}, (1, ":a", "x")),
    (collections.defaultdict(lambda: "x", a=1), (1, ":a", "x")),
])
def test_parameters_are_a_sequence_or_a_mapping(connection, parameters, row):
    markers = ":a, ':a', :é -- :c" if isinstance(parameters, dict) else "?, ':a', ? -- ?"
    assert connection.execute("SELECT " + markers, parameters).fetchone() == row


@pytest.mark.parametrize("dbms, sql, names", [
    ("SQLite", r"':a\', :b, [:c] || `:d` || :e /* :f", "be"),
    ("PostgreSQL", r"e'\':a', ARRAY[:b]::int, '\', :c, x$$, $q$:d$$:e$q$, :f /*/* */ :g */", "bcf"),
    ("MariaDB", r"""'\':a', ":b"":c", 1--:d, :e # :f""", "de"),
    ("other", r"""'\', :a, [:b], ":c" -- :d""", "ab"),
])
def test_named_markers_are_read_by_the_rules_of_the_database(dbms, sql, names):
    assert dbapi._plain_markers(sql, dbms)[1] == tuple(names)


@pytest.mark.parametrize("parameters, words", [
    ((), "1 parameter marker.*0 value"), ((1, 2), "1 parameter marker.*2 value"),
    ("x", "are a str"), ({1}, "are a set"), ({"a": 1}, "1 parameter marker.*0 value"),
])
def test_parameters_that_do_not_fit_are_refused(connection, parameters, words):
    cursor = connection.execute("SELECT 1")
    with pytest.raises(dbapi.ProgrammingError, match=words):
        cursor.execute("SELECT ?", parameters)
    assert cursor.description is None
    with pytest.raises(KeyError, match="inner"):
        cursor.execute("SELECT :a", collections.defaultdict(lambda: {}["inner"]))


def test_decimals_are_never_rounded(connection):
    connection.execute("CREATE TABLE t (d DECIMAL(30,20), x TEXT)")
    long = Decimal("1234567890.12345678901")
    with pytest.raises(dbapi.DataError, match="1234567890.12345678901"):
        connection.execute("INSERT INTO t (d) VALUES (?)", (long,))
    connection.execute("INSERT INTO t VALUES (?, ?)", (Decimal("0.1"), long))
    found = connection.execute("SELECT * FROM t WHERE d * 3 > ?", (Decimal("0.2"),)).fetchall()
    assert found == [(Decimal("0.1"), str(long))]
