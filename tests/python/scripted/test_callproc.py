"""callproc: the parameter names are read first, then a statement that names them is executed."""

import pytest

from vorda import zelqa

from conftest import ERROR, WVARCHAR, Column, raises

METADATA = "SELECT ColumnName FROM sys_procedureparameters WHERE ProcedureName='%s'"
NO_METADATA = "Could not fetch metadata of the procedure parameters or the parameters count is 0"
STATEMENT = "The first argument to execute must be a string or unicode query."
SEQUENCE = "The second parameter of callproc() is expected to be a tuple or a list"


def names(runtime, *given):
    runtime.result(Column("ColumnName", WVARCHAR), rows=[[name] for name in given])


def statements(runtime):
    """The texts that were sent, and the values bound."""
    return [line.split(", ", 1)[1].rsplit(", ", 1)[0][1:-1] if "SQL" in line else line.strip()
            for line in runtime.take_log() if line.startswith(("SQLExecDirectW", "SQLPrepareW", "  "))]


@pytest.mark.parametrize("arguments", [(), ([],), ((),)])
def test_without_parameters(runtime, cursor, arguments):
    runtime.result("a", rows=[[1]])
    assert cursor.callproc("P", *arguments) is (arguments[0] if arguments else None)
    assert statements(runtime) == ["EXECUTE P"]
    assert cursor.fetchall()[0]["a"] == 1


@pytest.mark.parametrize("parameters", [(1, "x"), [1, "x"], type("List", (list,), {})([1, "x"])])
def test_with_parameters(runtime, cursor, parameters):
    names(runtime, "pa", "p\u00fc")
    runtime.result("a", rows=[[1], [2]])
    assert cursor.callproc("MyProc", parameters) is parameters
    assert statements(runtime) == [METADATA % "MyProc", "EXECUTE MyProc pa=@1 , p\u00fc=@2 ",
                                   "1: values=[1], lens=[4]", '2: values=["x"], lens=[1]']
    assert (cursor.rowcount, cursor.description[0][0]) == (0, "a")
    assert [row["a"] for row in cursor] == [1, 2]


def test_odd_names(runtime, cursor):
    names(runtime, "pa")
    cursor.callproc("it's", ("x",))
    assert statements(runtime)[0] == METADATA % "it''s"
    with pytest.warns(RuntimeWarning, match="procedure name .* from 4 characters to 1"):
        cursor.callproc("P\0ab")
    assert statements(runtime) == ["EXECUTE P"]


def test_count_of_values_is_the_providers_matter(runtime, cursor):
    names(runtime, "pa", "pb", "pc")
    cursor.callproc("P", (1,))
    assert statements(runtime)[1:] == ["EXECUTE P pa=@1 , pb=@2 , pc=@3 ", "1: values=[1], lens=[4]"]
    cursor.arraysize = 1
    names(runtime, "pa", "pb")
    runtime.fail_next("SQLExecute", "there are too many values")
    with raises(zelqa.DatabaseError, "there are too many values"):
        cursor.callproc("P", (1, 2))
    assert statements(runtime)[1] == "EXECUTE P pa=@1 "
    cursor.arraysize = 0
    names(runtime, "pa", "pb")
    with raises(zelqa.ProgrammingError, NO_METADATA):
        cursor.callproc("P", (1,))


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


@pytest.mark.parametrize("listed, message", [
    ([], NO_METADATA), ([[None]], "The name of parameter 0 of the procedure is not a text."),
    ([["pa"], [None]], "The name of parameter 1 of the procedure is not a text."),
    (None, "No results.  Previous SQL was not a DQL.")])
def test_metadata_that_is_of_no_use(runtime, cursor, listed, message):
    if listed is not None:
        runtime.result(Column("ColumnName", WVARCHAR), rows=listed)
    with raises(zelqa.ProgrammingError, message):
        cursor.callproc("P", (1,))
    assert runtime.count("SQLPrepareW") == 0


@pytest.mark.parametrize("step, nth", [("SQLAllocHandle", 1), ("SQLExecDirectW", 1), ("SQLFetch", 1),
                                       ("SQLFetch", 2), ("SQLAllocHandle", 2), ("SQLPrepareW", 1),
                                       ("SQLExecute", 1)])
def test_failure_at_each_step(runtime, cursor, step, nth):
    names(runtime, "pa")
    runtime.answer(step, ERROR, runtime.count(step) + nth)
    runtime.diag("it broke")
    with raises(zelqa.DatabaseError, "it broke"):
        cursor.callproc("P", (1,))
