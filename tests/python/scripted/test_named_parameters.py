"""Named parameters: the n-th value bound belongs to the marker "@n" of the text that was sent."""

import random
import re

import pytest

from vorda import zelqa

from conftest import raises, sent


def unescaped(text):
    """A text as it was before it came into the log."""
    return re.sub(r"\\(x[0-9a-f]{2}|.)", lambda m: {"n": "\n"}.get(m[1]) or (
        chr(int(m[1][1:], 16)) if len(m[1]) > 1 else m[1]), text)


@pytest.mark.parametrize("sql, parameters, text, values", [
    ("SELECT * FROM t WHERE a = @a AND b = :b", {"a": 1, "b": 2},
     "SELECT * FROM t WHERE a = @1 AND b = @2 ", ["1", "2"]),
    ("SELECT :b, @a, :b", {"a": 1, "b": 2, "c": 3}, "SELECT @1 , @2 , @3 ", ["2", "1", "2"]),
    ("SELECT ?, @a", {"": 7, "a": 8}, "SELECT @1 , @2 ", ["7", "8"]),
    ("EXECUTE p @x = @y, @z = ?", {"y": 3, "": 4}, "EXECUTE p @x = @1 , @z = @2 ", ["3", "4"]),
    ("SELECT ':a', \"a :a\", @b -- :a", {"b": 1}, "SELECT ':a', \"a :a\", @1 -- :a", ["1"]),
    # A quoted name that begins like a marker is one, in both walks.
    ("SELECT [:a], @b", {"a": 9, "b": 1}, "SELECT [:@1 , @2 ", ["9", "1"]),
    # The letters of a name are those of ASCII.
    ("SELECT @gr\u00fcn", {"gr": 5}, "SELECT @1 \u00fcn", ["5"]),
    ("SELECT 1", {"a": 1}, "SELECT 1", []),
    ("@a", {"a": 1}, "@a", []),
])
def test_values_by_name(runtime, cursor, sql, parameters, text, values):
    cursor.execute(sql, parameters)
    (got,), bound = sent(runtime)
    assert (unescaped(got), bound) == (text, values)


@pytest.mark.parametrize("sql, parameters, marker", [
    ("SELECT * FROM t WHERE a = @A", {"a": 1}, "@A"), ("SELECT ?", {}, "?"),
    ("SELECT :a, :b", {"a": 1}, ":b"), ("SELECT :a", {":a": 1, b"a": 2, 0: 3}, ":a"),
    ("SELECT @gr\u00fcn", {}, "@gr"), ("SELECT :a", {"a\0": 1}, ":a"),
])
def test_missing_name(runtime, cursor, sql, parameters, marker):
    with raises(zelqa.ProgrammingError, "Fail to bind parameters: " + marker):
        cursor.execute(sql, parameters)
    assert runtime.take_log() == []


def test_the_dictionary_is_only_read(runtime, cursor):
    class Defaulting(dict):
        def __missing__(self, key):
            raise AssertionError("only what is there counts")

        def __getitem__(self, key):
            raise AssertionError("the dictionary itself is read")

    parameters = Defaulting(a=1)
    cursor.execute("SELECT @a", parameters)
    assert sent(runtime)[1] == ["1"] and dict(parameters) == {"a": 1}
    with raises(zelqa.ProgrammingError, "Fail to bind parameters: @b"):
        cursor.execute("SELECT @b", parameters)


# Pieces of statements without a marker, some of which look as if they had one.
FILLERS = [
    "a", "t.b", "1", "2.5e3", "=", "<>", "<=", "(", ")", ",", "+", "*", "||", ";", "{", "}",
    "'text'", "'it''s ?'", "'@a :b'", "'\U0001f600 ?'", "\"quoted ?\"", "\"\"", "[in ? brackets]",
    "`back`", "-- ? @a\n", "/* :a\n? */", "--\n", "/**/", "\u00e4\u20ac", "$a", "#t", "\\", "%", "!", "^",
    "::", ": a", "@", "@ a", "''", "N'x'", "\t", "\n", "''''", "/* ' */", "-- it's\n", "\U0010ffff",
]
VERBS = ["SELECT", "select", "INSERT", "Update", "delete", "EXEC", "execute", "WITH", "(", "'EXEC'",
         "/* ? */ SELECT", "-- EXEC\nUPDATE", "[EXEC]", ""]
MARKERS = ["?", "@a", ":a", "@b1", ":B_1", "@\u00e9", ":sel", "@@x"]


def random_statement(pick):
    kinds = [MARKERS, ["= " + marker for marker in MARKERS], FILLERS]
    pieces = [pick.choice(kind) for kind in pick.choices(kinds, [35, 10, 55], k=pick.randrange(15))]
    return pick.choice([" ", "", "  "]).join([pick.choice(VERBS), *pieces])


@pytest.mark.parametrize("seed", range(20))
def test_random_statements(runtime, cursor, seed):
    pick = random.Random(seed)
    markers = 0
    for _ in range(300):
        sql, names = random_statement(pick), {}
        while True:
            try:
                cursor.execute(sql, names)
                break
            except zelqa.ProgrammingError as error:
                prefix, marker = str(error).split(": ", 1)
                assert prefix == "Fail to bind parameters" and marker in sql
                names[marker[1:]] = 1000 + len(names)
        (text,), values = sent(runtime)
        assert values_by_replacing(sql, unescaped(text), names) == values, sql
        markers += len(values)
    assert markers > 500


def values_by_replacing(sql, text, names):
    """What the values must be, from nothing but the two texts.

    Every "@n " of the text stands for a marker of the statement. Walking along both, what lies
    between the markers is equal byte for byte, and what a "@n " replaces is a marker's text and the
    whitespace after it.
    """
    values, at, rest = [], 0, sql.lstrip(" \t\n")
    while True:
        number = len(values) + 1
        mark = "@%d " % number
        where = text.find(mark, at)
        # The same letters may stand in the statement itself: then they are no replacement.
        while where >= 0 and rest.startswith(text[at:where] + mark):
            where = text.find(mark, where + 1)
        if where < 0:
            assert rest == text[at:]
            return values
        between = text[at:where]
        assert rest.startswith(between), (sql, text)
        rest = rest[len(between):]
        marker = re.match(r"\?|[@:][A-Za-z0-9#$:@_]*", rest)
        assert marker, (sql, text)
        values.append(str(names[marker[0][1:]]))
        rest = rest[marker.end():].lstrip(" \t\n\r\f\v")
        at = where + len(mark)
