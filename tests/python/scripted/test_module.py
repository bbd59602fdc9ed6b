"""The module object: exceptions, types, constructors, docstrings."""

import copy
import datetime
import importlib.util
import operator
import re

import pytest

from vorda import zelqa


ENDS = {  # of their texts; the stub's test looks at the rest
    "Warning": "while inserting.", "Error": "one single except statement.",
    "InterfaceError": "the database itself.", "DatabaseError": "related to the database.",
    "DataError": "value out of range, etc.", "IntegrityError": "check fails.",
    "OperationalError": "a memory allocation error occurred during processing, etc.",
    "InternalError": "the cursor is not valid anymore, the transaction is out of sync, etc.",
    "ProgrammingError": "wrong number of parameters specified, etc.",
    "NotSupportedError": "which is not supported by the database."}


def test_exceptions():
    for name, end in ENDS.items():
        exception = getattr(zelqa, name)
        assert str(exception) == "<class 'vorda.zelqa.%s'>" % name
        assert re.match(r"Exception (raised (for|when|in)|that is) \S(?!.*(\s\s|\n))",
                        exception.__doc__)
        assert exception.__doc__.endswith(end)


def test_a_second_name_for_the_module():
    """Programs that know it by either catch the same exceptions."""
    spec = importlib.util.spec_from_file_location("zelqa", zelqa.__file__)
    second = importlib.util.module_from_spec(spec)
    assert second is not zelqa
    assert [getattr(second, name) for name in ENDS] == [getattr(zelqa, name) for name in ENDS]
    with pytest.raises(second.ProgrammingError):
        zelqa.connect()


def test_module_attributes():
    assert zelqa.__name__ == "vorda.zelqa"
    assert zelqa.__doc__ == "A data module for accessing Zelqa Data Provider."
    assert (zelqa.threadsafety, zelqa.apilevel, zelqa.paramstyle) == (1, "2.0", "qmark")
    expected = {"Date": datetime.date, "Time": datetime.time, "Timestamp": datetime.datetime,
                "DATETIME": datetime.datetime, "STRING": str, "NUMBER": float, "ROWID": int,
                "BINARY": bytearray, "Binary": bytearray}
    assert {name: getattr(zelqa, name) for name in expected} == expected
    assert not [name for name in dir(zelqa) if name.endswith("FromTicks")]


@pytest.mark.parametrize("name, doc", [
    ("Connection", "Connection objects manage connections to the database. "),
    ("Cursor", "Cursor objects represent a database cursor, which is used to manage the context "
               "of a fetch operation. "),
    ("Row", "Row Object to fetch data."),
])
def test_type_is_made_by_the_module_only(runtime, connection, name, doc):
    made = getattr(zelqa, name)
    assert (made.__name__, made.__module__, made.__doc__) == (name, "vorda.zelqa", doc)
    runtime.result("a", rows=[[1]])
    cursor = connection.execute("SELECT 1")
    example = {"Connection": connection, "Cursor": cursor, "Row": cursor.fetchone()}[name]
    for way in (made, lambda: object.__new__(made), lambda: type("Derived", (made,), {}),
                lambda: copy.copy(example), lambda: setattr(example, "__class__", zelqa.Row)):
        with pytest.raises(TypeError):
            way()


# What is odd in them, or easily lost.
DOCS = {
    "connect": "\n\nReturns a Connection Object.",
    "Connection.execute": "of the DB API.  Since a new\nCursor is allocated by each call",
    "Cursor.execute": "  cursor.execute(sql, (param1, param2))\n\n    or\n\n"
                      "  cursor.execute(sql, param1, param2)",
    "Cursor.fetchone": "fetchone() --> Row | None\n\n", "Cursor.next": "next() --> Row | None\n\n",
    "Cursor.rowcount": "The attribute is - 1 in case no.execute* () has been performed on the "
                       "cursor or\nthe rowcount of the last operation is cannot be",
    "Cursor.description": "optionaland", "Cursor.arraysize": "the.fetchmany()",
    "Row.description": "This read-only attribute is a sequence of 7-item sequences.\n",
}


def test_docstrings():
    for name, text in DOCS.items():
        assert text in operator.attrgetter(name)(zelqa).__doc__
    for made in (zelqa.Connection, zelqa.Cursor):
        for name, member in vars(made).items():
            if callable(member) and not name.startswith("_"):
                assert re.match(r"%s\([^\n]*\) --> \w+" % name, member.__doc__)
