"""Texts from the driver: names and messages never fail, values are exact or an error."""

import warnings

import pytest

from vorda import zelqa

from conftest import DECIMAL, GUID, WVARCHAR, Cell, Column, raises

BAD = [b"\xff", b"caf\xe9", b"\xc3", b"\xed\xa0\x80", b"\xf4\x90\x80\x80", b"ok\x80", b"\xc0\xaf"]


def fetch(runtime, cursor, value, sqltype=WVARCHAR, name="a"):
    runtime.result(Column(name, sqltype), rows=[[value]])
    return cursor.execute("SELECT a").fetchone()[0]


@pytest.mark.parametrize("text", ["", "plain", "\u00e9", "\u20ac", "\U0001f600", "\U0010ffff",
                                  "\ufeffmark", "a\0b", "x" * 2047, "\u20ac" * 682])
def test_values_are_exact(runtime, cursor, text):
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        assert fetch(runtime, cursor, text) == text


@pytest.mark.parametrize("data", BAD)
@pytest.mark.parametrize("sqltype", [WVARCHAR, DECIMAL, GUID])
def test_values_that_are_no_text(runtime, cursor, data, sqltype):
    with raises(zelqa.DatabaseError, "The text of column 'a' is not valid UTF-8.") as failure:
        fetch(runtime, cursor, data, sqltype)
    assert isinstance(failure.value.__cause__, UnicodeDecodeError)
    assert failure.value.__cause__.object == data
    assert fetch(runtime, cursor, "good") == "good"


@pytest.mark.parametrize("data", BAD)
def test_messages_that_are_no_text(runtime, cursor, data):
    for step, run in (("SQLExecDirectW", lambda: cursor.execute("SELECT 1")),
                      ("SQLPrepareW", lambda: cursor.execute("SELECT ?", 1)),
                      ("SQLExecute", lambda: cursor.executemany("SELECT ?", [(1,)]))):
        runtime.fail_next(step, data)
        with raises(zelqa.DatabaseError, data.decode("utf-8", "replace")):
            run()


def test_message_of_any_length(runtime, cursor):
    for length in (510, 511, 512, 1022, 1023, 5000):
        runtime.fail_next("SQLExecDirectW", "x" * length)
        with raises(zelqa.DatabaseError, "x" * min(length, 511)):
            cursor.execute("SELECT 1")


@pytest.mark.parametrize("unit, kept", [("x", 2047), ("\u00e9", 2046), ("\u20ac", 2046),
                                        ("\U0001f600", 2044)])
@pytest.mark.parametrize("extra", [1, 1000])
def test_cut_text_is_told(runtime, cursor, unit, kept, extra):
    """Cut at a whole character, with a warning that names the column and both lengths."""
    width = len(unit.encode())
    text = unit * (2048 // width + extra)
    with pytest.warns(RuntimeWarning) as caught:
        got = fetch(runtime, cursor, text, name="the name")
    assert got == unit * (kept // width)
    assert [str(warning.message) for warning in caught] == [
        "The text of column 'the name' is cut from %d bytes to %d." % (len(text.encode()), kept)]


def test_cut_of_unknown_length_is_told(runtime, cursor):
    with pytest.warns(RuntimeWarning, match="column 'a' is cut to 2047 bytes; the provider does not "
                                            "tell its whole length"):
        assert fetch(runtime, cursor, Cell("x" * 3000, -4)) == "x" * 2047


def test_cut_as_an_error(runtime, cursor):
    runtime.result(Column("a", WVARCHAR), Column("b"), rows=[["x" * 3000, 1], ["good", 2]])
    cursor.execute("SELECT a, b")
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        with raises(RuntimeWarning, "The text of column 'a' is cut from 3000 bytes to 2047."):
            cursor.fetchone()
        assert tuple(cursor.fetchone()) == ("good", 2)
