"""The module object: exceptions, types, constructors, docstrings."""

import copy
import datetime
import operator
import re

import pytest

from vorda import zelqa


@pytest.mark.parametrize("name, base, begin, end", [
    ("Warning", None, "Exception raised for important warnings", "while inserting."),
    ("Error", None, "Exception that is the base class", "one single except statement."),
    ("InterfaceError", "Error", "Exception raised for errors that", "the database itself."),
    ("DatabaseError", "Error", "Exception raised for errors that", "related to the database."),
    ("DataError", "DatabaseError", "Exception raised for errors that", "value out of range, etc."),
    ("OperationalError", "DatabaseError", "Exception raised for errors that",
     "a memory allocation error occurred during processing, etc."),
    ("IntegrityError", "DatabaseError", "Exception raised when the relational", "check fails."),
    ("InternalError", "DatabaseError", "Exception raised when the database",
     "the cursor is not valid anymore, the transaction is out of sync, etc."),
    ("ProgrammingError", "DatabaseError", "Exception raised for programming errors",
     "syntax error in the SQL statement, wrong number of parameters specified, etc."),
    ("NotSupportedError", "DatabaseError", "Exception raised in case a method",
     "which is not supported by the database."),
])
def test_exception(name, base, begin, end):
    exception = getattr(zelqa, name)
    assert exception.__base__ is (getattr(zelqa, base) if base else Exception)
    assert str(exception) == "<class 'vorda.zelqa.%s'>" % name
    assert exception.__doc__.startswith(begin) and exception.__doc__.endswith(end)
    assert not re.search(r"\s\s|\n", exception.__doc__)


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


SEQUENCE = "This read-only attribute is a sequence of 7-item sequences.\n"
# How each begins, and pieces of some, with their slips.
DOCS = {
    "connect": ["Constructor for creating a connection to the database.\n\n"
                "Returns a Connection Object."],
    "Connection.cursor": ["cursor() --> Cursor\n\n"], "Connection.close": ["close() --> None\n\n"],
    "Connection.commit": ["commit() --> None\n\n"],
    "Connection.execute": [
        "execute(sql, [params]) --> Cursor\n\n",
        "This is a convenience method that is not part of the DB API.  Since a new\n"
        "Cursor is allocated by each call, this should not be used if more than one\n"
        "SQL statement needs to be executed."],
    "Cursor.close": ["close() --> None\n\n"],
    "Cursor.execute": [
        "execute(sql, [params]) --> Cursor\n\n"
        "Prepare and execute a database operation (query or command).\n\n"
        "Parameters may be provided as a sequence (as specified by the DB API) or\n"
        "simply passed in one after another (non-standard):\n\n"
        "  cursor.execute(sql, (param1, param2))\n\n    or\n\n"
        "  cursor.execute(sql, param1, param2)"],
    "Cursor.executemany": ["executemany(sql, seq_of_params) --> Cursor\n\n"],
    "Cursor.fetchall": ["fetchall() --> list of Rows\n\n"],
    "Cursor.fetchmany": ["fetchmany(size=cursor.arraysize) --> list of Rows\n\n"],
    "Cursor.fetchone": ["fetchone() --> Row | None\n\n"], "Cursor.next": ["next() --> Row | None\n\n"],
    "Cursor.callproc": ["callproc(proc_name, [params]) --> params\n\n"],
    "Cursor.rowcount": ["This read-only attribute specifies the number of rows that the\n",
                        "The attribute is - 1 in case no.execute* () has been performed",
                        "the rowcount of the last operation is cannot be"],
    "Cursor.description": [SEQUENCE, "optionaland"], "Row.description": [SEQUENCE],
    "Cursor.arraysize": ["This read/write attribute specifies the number of rows to fetch at a time\n",
                         "the.fetchmany()"],
    "Cursor.connection": ["This read-only attribute return a reference to the Connection object on\n"],
}


def test_docstrings():
    for name, pieces in DOCS.items():
        doc = operator.attrgetter(name)(zelqa).__doc__
        assert doc.startswith(pieces[0]) and all(piece in doc for piece in pieces)
    members = {"%s.%s" % (made, member) for made in ("Connection", "Cursor", "Row")
               for member in vars(getattr(zelqa, made)) if not member.startswith("_")}
    assert members == {name for name in DOCS if "." in name}  # no rollback, among others
