"""callproc: the parameter names are read first, then a statement that names them is executed."""

import pytest

from vorda import zelqa

from conftest import VARBINARY, WVARCHAR, Column, raises, sent

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
    assert sent(runtime) == ([METADATA % "MyProc", "EXECUTE MyProc pa=@1 , p\u00fc=@2 "],
                             ["1", '"x"'])
    assert (cursor.rowcount, cursor.description[0][0]) == (0, "a")
    assert [row["a"] for row in cursor] == [1, 2]
    names(runtime, "pa", "pb")
    cursor.callproc("[it's]", parameters)
    assert sent(runtime)[0][0] == METADATA % "[it''s]"


def test_count_of_values_is_the_providers_matter(runtime, cursor):
    for arraysize, listed in ((-1, "pa=@1 , pb=@2 , pc=@3 "), (1, "pa=@1 ")):
        cursor.arraysize = arraysize
        names(runtime, "pa", "pb", "pc")
        runtime.fail_next("SQLExecute", "there are too many values")
        with pytest.warns(RuntimeWarning, match="marker"), \
                raises(zelqa.DatabaseError, "there are too many values"):
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


NO_RESULT = zelqa.ProgrammingError("No results.  Previous SQL was not a DQL.")
NO_BINARY = zelqa.NotSupportedError("Binary type not supported yet")


@pytest.mark.parametrize("column, listed, arraysize, message, cause", [
    (WVARCHAR, [], -1, NO_METADATA, None), (WVARCHAR, ["pa"], 0, NO_METADATA, None),
    (WVARCHAR, [None], -1, NO_NAME % 0, None), (WVARCHAR, ["pa", None], -1, NO_NAME % 1, None),
    (None, [], -1, NO_METADATA, NO_RESULT), (VARBINARY, ["pa"], -1, NO_METADATA, NO_BINARY),
    (WVARCHAR, ["pa"], -1, NO_METADATA, zelqa.DatabaseError("broken"))])
def test_metadata_that_is_of_no_use(runtime, cursor, column, listed, arraysize, message, cause):
    cursor.arraysize = arraysize
    if column is not None:
        runtime.result(Column("ColumnName", column), rows=[[name] for name in listed])
    if str(cause) == "broken":
        runtime.fail_next("SQLFetch", "broken", nth=2)
    with raises(zelqa.ProgrammingError, message) as failure:
        cursor.callproc("P", (1,))
    assert repr(failure.value.__cause__) == repr(cause)
    assert runtime.count("SQLPrepareW") == 0
