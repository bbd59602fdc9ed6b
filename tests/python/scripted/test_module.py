"""The module object: exceptions, types, constructors, docstrings."""

import copy
import datetime
import pickle
import re

import pytest

from vorda import zelqa

EXCEPTIONS = [
    # name, base, beginning and end of the docstring
    ("Warning", Exception, "Exception raised for important warnings", "while inserting."),
    ("Error", Exception, "Exception that is the base class", "one single except statement."),
    ("InterfaceError", "Error", "Exception raised for errors that", "the database itself."),
    ("DatabaseError", "Error", "Exception raised for errors that", "related to the database."),
    ("DataError", "DatabaseError", "Exception raised for errors that", "value out of range, etc."),
    ("OperationalError", "DatabaseError", "Exception raised for errors that",
     "a memory allocation error occurred during processing, etc."),
    ("IntegrityError", "DatabaseError", "Exception raised when the relational",
     "e.g. a foreign key check fails."),
    ("InternalError", "DatabaseError", "Exception raised when the database",
     "the cursor is not valid anymore, the transaction is out of sync, etc."),
    ("ProgrammingError", "DatabaseError", "Exception raised for programming errors",
     "syntax error in the SQL statement, wrong number of parameters specified, etc."),
    ("NotSupportedError", "DatabaseError", "Exception raised in case a method",
     "which is not supported by the database."),
]


@pytest.mark.parametrize("name, base, begin, end", EXCEPTIONS, ids=[row[0] for row in EXCEPTIONS])
def test_exception(name, base, begin, end):
    exception = getattr(zelqa, name)
    assert exception.__base__ is (base if isinstance(base, type) else getattr(zelqa, base))
    assert str(exception) == "<class 'vorda.zelqa.%s'>" % name
    assert exception.__doc__.startswith(begin) and exception.__doc__.endswith(end)
    assert not re.search(r"\s\s|\n", exception.__doc__)
    with pytest.raises(exception, match="text"):
        raise exception("text")


def test_module_attributes():
    assert zelqa.__name__ == "vorda.zelqa"
    assert zelqa.__doc__ == "A data module for accessing Zelqa Data Provider."
    assert (zelqa.threadsafety, zelqa.apilevel, zelqa.paramstyle) == (1, "2.0", "qmark")
    assert zelqa.connect.__doc__ == ("Constructor for creating a connection to the database.\n\n"
                                     "Returns a Connection Object.")


def test_type_objects_and_constructors():
    expected = {"Date": datetime.date, "Time": datetime.time, "Timestamp": datetime.datetime,
                "DATETIME": datetime.datetime, "STRING": str, "NUMBER": float, "ROWID": int,
                "BINARY": bytearray, "Binary": bytearray}
    for name, constructor in expected.items():
        assert getattr(zelqa, name) is constructor
    assert zelqa.Binary(b"ab") == bytearray(b"ab")
    for name in ("DateFromTicks", "TimeFromTicks", "TimestampFromTicks"):
        assert not hasattr(zelqa, name)


@pytest.mark.parametrize("name, doc", [
    ("Connection", "Connection objects manage connections to the database. "),
    ("Cursor", "Cursor objects represent a database cursor, which is used to manage the context "
               "of a fetch operation. "),
    ("Row", "Row Object to fetch data."),
])
def test_type_is_made_by_the_module_only(name, doc):
    made = getattr(zelqa, name)
    assert (made.__name__, made.__module__, made.__doc__) == (name, "vorda.zelqa", doc)
    with pytest.raises(TypeError):
        made()
    with pytest.raises(TypeError):
        object.__new__(made)
    with pytest.raises(TypeError):
        type("Derived", (made,), {})
    with pytest.raises(TypeError):
        made.attribute = 1


def test_objects_cannot_be_copied(runtime, connection, cursor):
    """A copy would be an object without a connection behind it."""
    runtime.result("a", rows=[[1]])
    row = cursor.execute("SELECT 1").fetchone()
    for made in (connection, cursor, row):
        for way in (copy.copy, copy.deepcopy, pickle.dumps):
            with pytest.raises(TypeError):
                way(made)
        with pytest.raises(TypeError):
            made.__class__ = zelqa.Row


METHODS = {
    "Connection": [
        ("cursor", "cursor() --> Cursor"), ("close", "close() --> None"),
        ("execute", "execute(sql, [params]) --> Cursor"), ("commit", "commit() --> None")],
    "Cursor": [
        ("close", "close() --> None"), ("execute", "execute(sql, [params]) --> Cursor"),
        ("executemany", "executemany(sql, seq_of_params) --> Cursor"),
        ("fetchall", "fetchall() --> list of Rows"),
        ("fetchmany", "fetchmany(size=cursor.arraysize) --> list of Rows"),
        ("fetchone", "fetchone() --> Row | None"), ("next", "next() --> Row | None"),
        ("callproc", "callproc(proc_name, [params]) --> params"),
        ("rowcount", "This read-only attribute specifies the number of rows that the"),
        ("description", "This read-only attribute is a sequence of 7-item sequences."),
        ("arraysize", "This read/write attribute specifies the number of rows to fetch at a time"),
        ("connection", "This read-only attribute return a reference to the Connection object on")],
    "Row": [("description", "This read-only attribute is a sequence of 7-item sequences.")],
}


@pytest.mark.parametrize("name", METHODS)
def test_members_and_their_docstrings(name):
    made = getattr(zelqa, name)
    for member, first_line in METHODS[name]:
        doc = getattr(made, member).__doc__
        assert doc.split("\n")[0] == first_line
        if first_line.find("-->") > 0:  # methods go on after a blank line
            assert doc.split("\n")[1] == "" and len(doc.split("\n")) > 2
    public = {member for member in vars(made) if not member.startswith("_")}
    assert public == {member for member, _ in METHODS[name]}  # no rollback, among others


@pytest.mark.parametrize("attribute, pieces", [
    ("rowcount", ["The attribute is - 1 in case no.execute* () has been performed",
                  "the rowcount of the last operation is cannot be"]),
    ("description", ["optionaland"]),
    ("arraysize", ["the.fetchmany()", "It defaults to 1"]),
])
def test_docstrings_keep_their_slips(attribute, pieces):
    doc = getattr(zelqa.Cursor, attribute).__doc__
    for piece in pieces:
        assert piece in doc


def test_docstrings_that_continue():
    assert zelqa.Connection.execute.__doc__.endswith(
        "This is a convenience method that is not part of the DB API.  Since a new\n"
        "Cursor is allocated by each call, this should not be used if more than one\n"
        "SQL statement needs to be executed.")
    assert zelqa.Cursor.execute.__doc__ == (
        "execute(sql, [params]) --> Cursor\n\n"
        "Prepare and execute a database operation (query or command).\n\n"
        "Parameters may be provided as a sequence (as specified by the DB API) or\n"
        "simply passed in one after another (non-standard):\n\n"
        "  cursor.execute(sql, (param1, param2))\n\n    or\n\n"
        "  cursor.execute(sql, param1, param2)")


def test_methods_refuse_other_objects(cursor):
    for method in (zelqa.Cursor.execute, zelqa.Cursor.fetchone, zelqa.Connection.cursor):
        with pytest.raises(TypeError):
            method(object())
    with pytest.raises(TypeError):
        zelqa.Connection.close(cursor)
