"""callproc: the parameter names are read first, then a statement that names them is executed."""

import pytest

from vorda import zelqa

from conftest import ERROR, WVARCHAR, Column, assert_no_growth, raises

NAME = Column("ColumnName", WVARCHAR)
METADATA = "SELECT ColumnName FROM sys_procedureparameters WHERE ProcedureName='%s'"
NO_METADATA = "Could not fetch metadata of the procedure parameters or the parameters count is 0"


def names(runtime, *given):
    runtime.result(NAME, rows=[[name] for name in given])


def statements(runtime):
    """The texts that were sent, and the values bound."""
    return [line.split(", ", 1)[1].rsplit(", ", 1)[0][1:-1] if "SQL" in line else line.strip()
            for line in runtime.take_log() if line.startswith(("SQLExecDirectW", "SQLPrepareW", "  "))]


@pytest.mark.parametrize("arguments", [(), ([],), ((),)])
def test_without_parameters(runtime, cursor, arguments):
    runtime.result("a", rows=[[1]])
    returned = cursor.callproc("P", *arguments)
    assert returned is (arguments[0] if arguments else None)
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


def test_calls_are_those_of_the_two_statements(runtime, cursor):
    names(runtime, "pa")
    cursor.callproc("P", (1,))
    assert runtime.take_calls() == (
        ["SQLAllocHandle", "SQLExecDirectW"] + ["SQLColAttributeW"] * 7 + ["SQLBindCol",
         "SQLRowCount", "SQLFetch", "SQLFetch", "SQLAllocHandle", "SQLPrepareW", "SQLBindParameter",
         "SQLFreeStmt", "SQLExecute", "SQLColAttributeW", "SQLRowCount"])


def test_quotes_in_the_name(runtime, cursor):
    names(runtime, "pa")
    cursor.callproc("it's", ("x",))
    assert statements(runtime)[0] == METADATA % "it''s"
    cursor.callproc("\"it's\"")
    assert statements(runtime) == ['EXECUTE \\"it\'s\\"']


def test_count_of_values_is_the_providers_matter(runtime, cursor):
    names(runtime, "pa", "pb", "pc")
    cursor.callproc("P", (1,))
    assert statements(runtime)[1:] == ["EXECUTE P pa=@1 , pb=@2 , pc=@3 ", "1: values=[1], lens=[4]"]
    names(runtime, "pa")
    runtime.fail_next("SQLExecute", "there are too many values")
    with raises(zelqa.DatabaseError, "there are too many values"):
        cursor.callproc("P", (1, 2))


def test_arraysize_limits_the_names(runtime, cursor):
    cursor.arraysize = 1
    names(runtime, "pa", "pb")
    cursor.callproc("P", (1,))
    assert statements(runtime)[1] == "EXECUTE P pa=@1 "
    cursor.arraysize = 0
    names(runtime, "pa", "pb")
    with raises(zelqa.ProgrammingError, NO_METADATA):
        cursor.callproc("P", (1,))


STATEMENT = "The first argument to execute must be a string or unicode query."
SEQUENCE = "The second parameter of callproc() is expected to be a tuple or a list"


@pytest.mark.parametrize("arguments, exception, message", [
    ((), zelqa.ProgrammingError, "callproc() takes at least 1 argument (0 given)"),
    (("P", [], []), zelqa.ProgrammingError, "callproc() takes at most 2 argument"),
    (("P", 5), zelqa.ProgrammingError, SEQUENCE), (("P", None), zelqa.ProgrammingError, SEQUENCE),
    (("P", "ab"), zelqa.ProgrammingError, SEQUENCE), (("P", {}), zelqa.ProgrammingError, SEQUENCE),
    ((b"P", 5), zelqa.ProgrammingError, SEQUENCE),
    ((b"P",), TypeError, STATEMENT), ((None, [1]), TypeError, STATEMENT),
    (("\ud800", [1]), TypeError, STATEMENT),
])
def test_wrong_arguments(runtime, cursor, arguments, exception, message):
    with raises(exception, message):
        cursor.callproc(*arguments)
    assert runtime.take_log() == [] and cursor.rowcount == -1


def test_procedure_that_lists_no_parameters(runtime, cursor):
    names(runtime)
    with raises(zelqa.ProgrammingError, NO_METADATA):
        cursor.callproc("P", (1,))
    # Without columns there is no result set either.
    with raises(zelqa.ProgrammingError, "No results.  Previous SQL was not a DQL."):
        cursor.callproc("P", (1,))
    assert runtime.count("SQLPrepareW") == 0


@pytest.mark.parametrize("listed", [[[None]], [["pa"], [None]]])
def test_names_that_are_none(runtime, cursor, listed):
    runtime.result(NAME, rows=listed)
    with raises(zelqa.ProgrammingError,
                "The name of parameter %d of the procedure is not a text." % (len(listed) - 1)):
        cursor.callproc("P", (1,))
    runtime.result("ColumnName", rows=[[5]])
    with raises(zelqa.ProgrammingError, "The name of parameter 0 of the procedure is not a text."):
        cursor.callproc("P", (1,))


@pytest.mark.parametrize("step, nth", [("SQLAllocHandle", 1), ("SQLExecDirectW", 1), ("SQLFetch", 1),
                                       ("SQLFetch", 2), ("SQLAllocHandle", 2), ("SQLPrepareW", 1),
                                       ("SQLExecute", 1)])
def test_failure_at_each_step(runtime, cursor, step, nth):
    names(runtime, "pa")
    runtime.answer(step, ERROR, runtime.count(step) + nth)
    runtime.diag("it broke")
    with raises(zelqa.DatabaseError, "it broke"):
        cursor.callproc("P", (1,))
    assert cursor.rowcount in (-1, 0, 1)


def test_unsupported_value(runtime, cursor):
    names(runtime, "pa", "pb")
    with raises(zelqa.NotSupportedError, "Unsupported data type at position [1] of arguments."):
        cursor.callproc("P", (1, b"x"))
    assert runtime.count("SQLExecute") == 0


def test_name_with_nul_is_cut_with_a_warning(runtime, cursor):
    with pytest.warns(RuntimeWarning, match="procedure name .* from 4 characters to 1"):
        cursor.callproc("P\0ab")
    assert statements(runtime) == ["EXECUTE P"]


def test_nothing_is_left_by_calls(runtime, cursor):
    def good():
        names(runtime, "pa", "pb")
        runtime.result("a", rows=[[1]])
        cursor.callproc("P", [70000, "text"])

    def failing():
        names(runtime, "pa")
        with pytest.raises(zelqa.NotSupportedError):
            cursor.callproc("P", (b"x",))

    def unknown():
        names(runtime)
        with pytest.raises(zelqa.ProgrammingError):
            cursor.callproc("P", (1,))

    for operation in (good, failing, unknown):
        assert_no_growth(operation)
