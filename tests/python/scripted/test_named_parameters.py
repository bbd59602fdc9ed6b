"""Named parameters: the n-th value bound belongs to the marker "@n" of the text that was sent."""

import pytest

from vorda import zelqa

from conftest import raises, sent


@pytest.mark.parametrize("sql, parameters, text, values", [
    ("SELECT * FROM t WHERE a = @a AND b = :b", {"a": 1, "b": 2},
     "SELECT * FROM t WHERE a = @1 AND b = @2 ", ["1", "2"]),
    ("SELECT :b, @a, :b", {"a": 1, "b": 2, "c": 3}, "SELECT @1 , @2 , @3 ", ["2", "1", "2"]),
    ("SELECT ?, @a", {"": 7, "a": 8}, "SELECT @1 , @2 ", ["7", "8"]),
    ("EXECUTE p @x = @y, @z = ?", {"y": 3, "": 4}, "EXECUTE p @x = @1 , @z = @2 ", ["3", "4"]),
    ("SELECT ':a', @b -- :a", {"b": 1}, "SELECT ':a', @1 -- :a", ["1"]),
    # A quoted name that begins like a marker is one, in both walks.
    ("SELECT [:a], @b", {"a": 9, "b": 1}, "SELECT [:@1 , @2 ", ["9", "1"]),
    # The letters of a name are those of ASCII.
    ("SELECT @gr\u00fcn", {"gr": 5}, "SELECT @1 \u00fcn", ["5"]),
    ("SELECT 1", {"a": 1}, "SELECT 1", []),
    ("@a", {"a": 1}, "@a", []),
])
def test_values_by_name(runtime, cursor, sql, parameters, text, values):
    cursor.execute(sql, parameters)
    assert sent(runtime) == ([text], values)


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
    def fail(self, key):
        raise AssertionError("only what is in the dictionary itself counts")

    Defaulting = type("Defaulting", (dict,), {"__missing__": fail, "__getitem__": fail})
    parameters = Defaulting(a=1)
    cursor.execute("SELECT @a", parameters)
    assert sent(runtime)[1] == ["1"] and dict(parameters) == {"a": 1}
    with raises(zelqa.ProgrammingError, "Fail to bind parameters: @b"):
        cursor.execute("SELECT @b", parameters)
