"""callproc: the parameter names are read first, then a statement that names them is executed."""

import pytest

from vorda import zelqa

from conftest import WVARCHAR, Column, raises, sent

METADATA = "SELECT ColumnName FROM sys_procedureparameters WHERE ProcedureName='%s'"
NO_METADATA = "Could not fetch metadata of the procedure parameters or the parameters count is 0"
NO_NAME = "The name of parameter %d of the procedure is not a text."
STATEMENT = "The first argument to execute must be a string or unicode query."
SEQUENCE = "The second parameter of callproc() is expected to be a tuple or a list"


def names(runtime, *given):
    runtime.result(Column("ColumnName", WVARCHAR), rows=[[name] for name in given])


@pytest.mark.parametrize("arguments", [(), ([],), ((),)])
def test_without_parameters(runtime, cursor, arguments):
    runtime.result("a", rows=[[1]])
    assert cursor.callproc("P", *arguments) is (arguments[0] if arguments else None)
    assert sent(runtime) == (["EXECUTE P"], [])
    assert cursor.fetchall()[0]["a"] == 1


@pytest.mark.parametrize("parameters", [(1, "x"), [1, "x"], type("List", (list,), {})([1, "x"])])
def test_with_parameters(runtime, cursor, parameters):
    names(runtime, "pa", "p\u00fc")
    runtime.result("a", rows=[[1], [2]])
    assert cursor.callproc("MyProc", parameters) is parameters
    assert sent(runtime) == ([METADATA % "MyProc", "EXECUTE MyProc pa=@1 , p\u00fc=@2 "], ["1", '"x"'])
    assert (cursor.rowcount, cursor.description[0][0]) == (0, "a")
    assert [row["a"] for row in cursor] == [1, 2]
    names(runtime, "pa")
    cursor.callproc("it's", parameters)
    assert sent(runtime)[0][0] == METADATA % "it''s"


def test_count_of_values_is_the_providers_matter(runtime, cursor):
    for arraysize, listed in ((-1, "pa=@1 , pb=@2 , pc=@3 "), (1, "pa=@1 ")):
        cursor.arraysize = arraysize
        names(runtime, "pa", "pb", "pc")
        runtime.fail_next("SQLExecute", "there are too many values")
        with raises(zelqa.DatabaseError, "there are too many values"):
            cursor.callproc("P", (1, 2))
        assert sent(runtime) == ([METADATA % "P", "EXECUTE P " + listed], ["1", "2"])


@pytest.mark.parametrize("arguments, exception, message", [
    ((), zelqa.ProgrammingError, "callproc() takes at least 1 argument (0 given)"),
    (("P", [], []), zelqa.ProgrammingError, "callproc() takes at most 2 argument"),
    (("P", 5), zelqa.ProgrammingError, SEQUENCE), (("P", None), zelqa.ProgrammingError, SEQUENCE),
    (("P", "ab"), zelqa.ProgrammingError, SEQUENCE), ((b"P", {}), zelqa.ProgrammingError, SEQUENCE),
    ((b"P",), TypeError, STATEMENT), ((None, [1]), TypeError, STATEMENT),
    (("\ud800", [1]), TypeError, STATEMENT)])
def test_wrong_arguments(runtime, cursor, arguments, exception, message):
    with raises(exception, message):
        cursor.callproc(*arguments)
    assert runtime.take_log() == [] and cursor.rowcount == -1


@pytest.mark.parametrize("listed, arraysize, message", [
    ([], -1, NO_METADATA), (["pa"], 0, NO_METADATA), ([None], -1, NO_NAME % 0),
    (["pa", None], -1, NO_NAME % 1), (None, -1, "No results.  Previous SQL was not a DQL.")])
def test_metadata_that_is_of_no_use(runtime, cursor, listed, arraysize, message):
    cursor.arraysize = arraysize
    if listed is not None:
        names(runtime, *listed)
    with raises(zelqa.ProgrammingError, message):
        cursor.callproc("P", (1,))
    assert runtime.count("SQLPrepareW") == 0
