"""The module object: exceptions, types, constructors."""

import copy
import datetime
import importlib.util

import pytest

from vorda import zelqa


EXCEPTIONS = ("Warning Error InterfaceError DatabaseError DataError IntegrityError OperationalError"
              " InternalError ProgrammingError NotSupportedError").split()


def test_a_second_name_for_the_module():
    """Programs that know it by either catch the same exceptions."""
    spec = importlib.util.spec_from_file_location("zelqa", zelqa.__file__)
    second = importlib.util.module_from_spec(spec)
    assert second is not zelqa
    for name in EXCEPTIONS:
        assert getattr(second, name) is getattr(zelqa, name)
        assert str(getattr(zelqa, name)) == "<class 'vorda.zelqa.%s'>" % name
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


@pytest.mark.parametrize("name", ["Connection", "Cursor", "Row"])
def test_type_is_made_by_the_module_only(runtime, connection, name):
    made = getattr(zelqa, name)
    assert (made.__name__, made.__module__) == (name, "vorda.zelqa")
    runtime.result("a", rows=[[1]])
    cursor = connection.execute("SELECT 1")
    example = {"Connection": connection, "Cursor": cursor, "Row": cursor.fetchone()}[name]
    for way in (made, lambda: object.__new__(made), lambda: type("Derived", (made,), {}),
                lambda: copy.copy(example), lambda: setattr(example, "__class__", zelqa.Row)):
        with pytest.raises(TypeError):
            way()
