"""Texts from the driver: names and messages never fail, values are exact or an error."""

import warnings

import pytest

from vorda import zelqa

from conftest import DECIMAL, GUID, WVARCHAR, Cell, Column, raises

BAD = [b"\xff", b"caf\xe9", b"\xc3", b"\xed\xa0\x80", b"\xf4\x90\x80\x80", b"ok\x80", b"\xc0\xaf"]


def fetch(runtime, cursor, value, sqltype=WVARCHAR):
    runtime.result(Column("the name", sqltype), rows=[[value]])
    return cursor.execute("SELECT a").fetchone()[0]


@pytest.mark.parametrize("data", BAD)
def test_what_is_no_text(runtime, cursor, data):
    for sqltype in (WVARCHAR, DECIMAL, GUID):
        with raises(zelqa.DatabaseError,
                    "The text of column 'the name' is not valid UTF-8.") as failure:
            fetch(runtime, cursor, data, sqltype)
        assert isinstance(failure.value.__cause__, UnicodeDecodeError)
        assert failure.value.__cause__.object == data
        assert fetch(runtime, cursor, "good") == "good"
    for step, run in (("SQLExecDirectW", lambda: cursor.execute("SELECT 1")),
                      ("SQLPrepareW", lambda: cursor.execute("SELECT ?", 1)),
                      ("SQLExecute", lambda: cursor.executemany("SELECT ?", [(1,)]))):
        runtime.fail_next(step, data)
        with raises(zelqa.DatabaseError, data.decode("utf-8", "replace")):
            run()


@pytest.mark.parametrize("unit, kept", [("x", 2047), ("\u00e9", 2046), ("\u20ac", 2046),
                                        ("\U0001f600", 2044)])
def test_cut_text_is_told(runtime, cursor, unit, kept):
    """Cut at a whole character, with a warning that names the column and both lengths; what fits is
    not."""
    def check(cell, told):
        message = "The text of column 'the name' is truncated " + told
        with pytest.warns(RuntimeWarning) as caught:
            assert fetch(runtime, cursor, cell) == unit * (kept // width)
        assert [str(warning.message) for warning in caught] == [message]
        with warnings.catch_warnings():
            warnings.simplefilter("error")
            with raises(RuntimeWarning, message):
                fetch(runtime, cursor, cell)
    width = len(unit.encode())
    assert fetch(runtime, cursor, unit * (2047 // width)) == unit * (2047 // width)
    for extra in (0 if 2048 % width == 0 else 1, 1000):
        text = unit * (2048 // width + extra)
        check(text, "from %d bytes to %d." % (len(text.encode()), kept))
        check(Cell(text, -4), "to %d bytes; the provider does not tell its whole length." % kept)
