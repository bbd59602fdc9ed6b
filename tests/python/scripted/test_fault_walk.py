"""Each provider call on the road from connect to close fails in turn, in every way that it can.

What has to come of it is derived from what the call is for, in `expected`. Afterwards the
connection works, and closing it leaves no handle.
"""

import ctypes
import datetime
import decimal
import gc
import os
import re
import sys

import pytest

from vorda import dbapi, zelqa

from conftest import (BIT, DECIMAL, DOUBLE, ERROR, INFO, NO_DATA, NO_DIAGNOSTIC, SANITIZED,
                      TIMESTAMP, WVARCHAR, Column, Timestamp, close)

MODULE = ctypes.CDLL(zelqa.__file__)
INVALID_HANDLE = -2
SAID = "what the provider said"
VALUES = ("text", 5, 2 ** 40, 0.5, True, None, datetime.date(2024, 2, 29), datetime.time(1, 2),
          datetime.datetime(2024, 2, 29, 1))
INSERT = "INSERT" + " ?" * len(VALUES)
COLUMNS = [Column("t", WVARCHAR), Column("n"), Column("b", BIT), Column("f", DOUBLE),
           Column("d", DECIMAL), Column("s", TIMESTAMP)]
ROWS = [["x", 1, 1, 0.5, "1.5", Timestamp(2024, 2, 29)], [None] * 6]

# Status, whether there is a diagnostic, whether the call acts before it says so.
FAULTS = [(ERROR, True, False), (ERROR, False, False), (INFO, True, True), (INFO, False, True),
          (NO_DATA, False, False), (INVALID_HANDLE, False, False)]


def connect(world):
    world.connection = zelqa.connect("Server=there")
    world.cursor = world.connection.cursor()


def fetch(world):
    return [tuple(row) for row in world.cursor.fetchall()]


STEPS = {
    "connect": connect,
    "insert": lambda w: w.cursor.execute(INSERT, VALUES).rowcount,
    "query": lambda w: w.cursor.execute("SELECT ?", 1).description,
    "fetch": fetch,
    "direct query": lambda w: [tuple(row) for row in w.cursor.execute("SELECT 1")],
    "direct": lambda w: w.cursor.execute("UPDATE t SET a = 1").rowcount,
    "batch": lambda w: w.cursor.executemany(INSERT, [VALUES] * 3).rowcount,
    "call": lambda w: w.cursor.callproc("P", [1]),
    "fetch call": fetch,
    "close": lambda w: w.connection.close(),
}


class World:
    """The road on a fresh runtime: what each step gave, an exception or a result."""

    def __init__(self, runtime):
        self.runtime, self.connection = runtime, None
        runtime.reset()
        for row_count in (1, None, None, 2, 3):
            runtime.result(*([] if row_count else COLUMNS), rows=[] if row_count else ROWS,
                           row_count=row_count or 0)
        runtime.result(Column("ColumnName", WVARCHAR), rows=[["a"]])
        runtime.result(*COLUMNS, rows=ROWS)

    def walk(self, last="close"):
        """To the step `last` or the first exception, which comes with its step."""
        given = {}
        for name, step in STEPS.items():
            try:
                given[name] = step(self)
            except (zelqa.Error, MemoryError) as error:
                return given, (type(error), str(error), name)
            if name == last:
                break
        return given, None


def kind_of(line):
    """The function, and with those that serve several purposes what this call is for."""
    function, arguments = line[:-1].split("(", 1)
    given = arguments.split(", ")
    if function in ("SQLAllocHandle", "SQLFreeHandle"):
        return function + {"1": " env", "2": " dbc", "3": " stmt"}[given[0]]
    if function == "SQLSetStmtAttr":
        return function + (" back" if given[2] == "1" else "")
    return function + (" count" if function == "SQLColAttributeW" and given[2] == "0" else "")


def calls_of(runtime):
    """(kind, function, number of the call among the function's, step) of the whole road."""
    world, calls, counts = World(runtime), [], {}
    for name, step in STEPS.items():
        step(world)
        for line in runtime.take_log():
            if re.match(r"SQL\w+\(", line):
                function = line.split("(")[0]
                counts[function] = counts.get(function, 0) + 1
                calls.append((kind_of(line), function, counts[function], name))
        for i in reversed(range(len(calls))):
            if calls[i][0] == "SQLFetch" and calls[i][3] == name:
                calls[i] = ("SQLFetch end", *calls[i][1:])
                break
    return calls


NOT_PREPARED = "The prepared statement is required"
NO_METADATA = (zelqa.ProgrammingError, "Could not fetch metadata of the procedure parameters or "
               "the parameters count is 0", "call")
NO_RESULT = "No results.  Previous SQL was not a DQL."
RELEASING = ("SQLFreeStmt", "SQLDisconnect", "SQLFreeHandle dbc", "SQLFreeHandle env")
QUERIES = {"query": "fetch", "direct query": "direct query", "call": "call"}


def expected(kind, status, has_diagnostic, step, is_second):
    """The exception that has to come: its class, its text, and the step in which it shows.

    A call that fails is reported in the provider's words and ends its step; information never does.
    Any other status is passed over. `is_second`: it belongs to the second statement of a callproc.
    """
    says = (zelqa.DatabaseError, SAID if has_diagnostic else NO_DIAGNOSTIC, step)
    is_metadata = step == "call" and not is_second
    fails = ["SQLFetch"] if status == NO_DATA else ["SQLFetch", "SQLFetch end"]
    if is_metadata and status != INFO and kind in fails:
        return NO_METADATA
    if status == INFO or kind in RELEASING or kind == "SQLSetStmtAttr back":
        return None  # nothing is lost by it, or nothing can be done about it
    if status == ERROR:
        if kind == "SQLAllocHandle env":
            return zelqa.DatabaseError, "Unable to alloc env handle", step  # nobody can be asked
        if kind.startswith(("SQLColAttributeW", "SQLBindCol")):
            return zelqa.DatabaseError, NO_DIAGNOSTIC, step  # known to the result set alone
        return None if kind == "SQLBindParameter" else says  # the execution tells
    # From here on the call did nothing, and the next ones meet what that left.
    if kind == "SQLAllocHandle env":
        return says  # the runtime is let go with its first environment
    if kind == "SQLAllocHandle dbc":
        return zelqa.DatabaseError, NOT_PREPARED, "insert"
    if kind == "SQLAllocHandle stmt":
        is_direct = step.startswith("direct") or (step == "call" and not is_second)
        return None if step == "direct" else (
            zelqa.DatabaseError, NO_DIAGNOSTIC if is_direct else NOT_PREPARED, step)
    if kind == "SQLPrepareW":
        return says  # of the execution
    if kind in ("SQLExecute", "SQLExecDirectW", "SQLColAttributeW count") and step in QUERIES:
        return NO_METADATA if is_metadata else (
            zelqa.ProgrammingError, NO_RESULT, "fetch call" if is_second else QUERIES[step])
    if kind.startswith("SQLFetch") and status == INVALID_HANDLE:
        return says
    if is_metadata and kind == "SQLBindCol":
        return (zelqa.ProgrammingError,
                "The name of parameter 0 of the procedure is not a text.", step)
    return None


def check(runtime, good, call, fault, is_second):
    kind, function, number, step = call
    status, has_diagnostic, acts = fault
    world = World(runtime)
    (runtime.answer_after if acts else runtime.answer)(function, status, number)
    if has_diagnostic:
        runtime.diag(SAID)
    released = []
    if kind in RELEASING and not acts:
        runtime.handler(lambda name, given: released.append((name, given))
                        if name in ("SQLDisconnect", "SQLFreeHandle") else None)
    wanted = expected(kind, status, has_diagnostic, step, is_second)
    # A call that did not act leaves its result to the statements behind it.
    given, error = world.walk("close" if acts else wanted[2] if wanted else step)
    assert error == wanted
    if acts:
        assert given == good
    # What comes after it works: on the same connection, unless that was never made.
    runtime.clear_answers()
    hollow = kind == "SQLAllocHandle dbc" and status not in (ERROR, INFO)
    if world.connection is None or "close" in given or hollow:
        close(*filter(None, [world.connection]))
        connect(world)
    for _ in range(len(STEPS)):
        world.cursor.execute("UPDATE what is left of the results")
    runtime.result(*COLUMNS, rows=ROWS)
    world.cursor.execute("SELECT ?", 1)
    assert fetch(world) == good["fetch"]
    world.connection.close()
    if not kind.startswith(("SQLAllocHandle", "SQLFreeHandle", "SQLDisconnect")):
        assert runtime.errors() == 0, runtime.take_log()
    # What the runtime would not release it still has; nothing else is left.
    runtime.handler(None)
    for name, arguments in released:
        getattr(MODULE, name)(*map(ctypes.c_void_p, arguments))
    assert runtime.live_handles() == 0


def test_every_call_fails(scripted_library):
    runtime = scripted_library
    calls = calls_of(runtime)
    assert {kind for kind, *_ in calls} > {"SQLFetch", "SQLSetStmtAttr back", "SQLColAttributeW"}
    good, error = World(runtime).walk()
    assert error is None and good["fetch"][0][0] == "x" and good["batch"] == 3
    second = max(i for i, (kind, _, _, step) in enumerate(calls)
                 if (kind, step) == ("SQLAllocHandle stmt", "call"))

    def walk():
        for i, call in enumerate(calls):
            for fault in FAULTS:
                # Information comes with a row, not with the end of them.
                if call[0] != "SQLFetch end" or fault[0] != INFO:
                    try:
                        check(runtime, good, call, fault, i >= second)
                    except BaseException as error:
                        raise AssertionError("%r, %r" % (call, fault)) from error
        gc.collect()

    grown = []
    # The interpreter's caches fill in the first rounds; what is lost is lost in each.
    while not grown or not SANITIZED and grown[-1] >= 20 and len(grown) < 12:
        before = sys.getallocatedblocks()
        walk()
        grown.append(sys.getallocatedblocks() - before)
    assert SANITIZED or min(grown) < 20, grown
    runtime.reset()


# --- the other driver -----------------------------------------------------------------------------

# What a driver may not know, or what releases: nothing is lost by it.
PASSED_OVER = {"SQLGetInfoW", "SQLNumParams", "SQLGetStmtAttrW", "SQLGetConnectAttrW",
               "SQLFreeStmt", "SQLFreeHandle", "SQLDisconnect", "SQLGetDiagRecW",
               "SQLColAttributeW", "progress", "files", "rollback"}
EXTENSIONS = {0x7003: "progress", 0x7004: "files"}
# Without blocks of rows it reads cell by cell; a batch's size is put back.
BLOCKS = {"SQLSetStmtAttrW", "SQLBindCol"}


ROW = ("text", 2 ** 40, True, 0.5, decimal.Decimal("1.5"), b"b", datetime.date(2024, 2, 29),
       datetime.time(1, 2), datetime.datetime(2024, 2, 29, 1))
LONG = ("y" * 5000,) + (None,) * 8
TABLE = ("TABLE %s (t TEXT, n BIGINT, b BOOLEAN, f DOUBLE, d DECIMAL(8, 2), x BLOB, day DATE, "
         "hour TIME, s TIMESTAMP)")
FILL = "INSERT INTO %s VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)"


def walk_dbapi(path, given):
    """Uses all that the driver calls; what it read comes into `given` as it is read."""
    connection = dbapi.connect(Database=path)
    cursor = connection.cursor()
    given["rows"] = []
    try:
        cursor.execute("CREATE TEMP " + TABLE % "u")
        given["rowcount"] = cursor.execute(FILL % "u", ROW).rowcount
        given["batch"] = cursor.executemany(FILL % "u", [ROW] * 3 + [LONG]).rowcount
        cursor.execute("SELECT * FROM t WHERE 1 = ?", (1,))
        given["description"] = cursor.description
        for row in cursor:
            given["rows"].append(row)
        given["nextset"] = cursor.nextset()
        connection.commit()
        given["end"] = True
    finally:
        connection.close()
        del cursor, connection


def forward(runtime):
    """Has the embedded runtime carry out what comes."""
    runtime.reset()
    runtime._library.scripted_forward(
        os.path.join(os.path.dirname(zelqa.__file__), "libvordart.x64.so.6").encode())


def test_texts_that_come_again_stay_prepared(scripted_library, tmp_path):
    runtime = scripted_library
    forward(runtime)
    connection = dbapi.connect(str(tmp_path / "t.db"))
    for texts, prepared in ((["SELECT 'a'", "SELECT 'b'"] * 9, 4),
                            (["SELECT 'c'", "SELECT 'c'", "SELECT 'd'", "SELECT 'c'"], 2),
                            (["SELECT %d" % n for n in range(300)], 300),
                            (["SELECT 'a'", "SELECT 'b'"], 0)):
        before = runtime.count("SQLPrepareW")
        for text in texts:
            connection.execute(text).fetchall()
        assert runtime.count("SQLPrepareW") - before == prepared, texts[:2]
    assert runtime.count("SQLAllocHandle") < 10  # those of texts that came once are used for others
    connection.close()


@pytest.mark.parametrize("blocks", [False, True])
def test_every_call_of_the_other_driver_fails(scripted_library, tmp_path, blocks):
    """The embedded runtime carries out what does not fail."""
    runtime, path = scripted_library, str(tmp_path / "t.db")

    def run(answer, walk=walk_dbapi):
        forward(runtime)
        runtime.handler(answer)
        given, error = {}, None
        try:
            walk(path, given)
        except (dbapi.Error, MemoryError) as caught:
            error = caught
        runtime.handler(None)
        return given, error

    def fill(path, given):
        with dbapi.connect(Database=path) as connection:
            connection.cursor().execute("CREATE " + TABLE % "t")
            connection.cursor().executemany(FILL % "t", [ROW, LONG] * 20)
        connection.close()

    calls, bound = [], []
    assert run(None, fill) == ({}, None)

    def kind_of(name, arguments):
        if name == "SQLSetConnectAttrW" and arguments[1] in EXTENSIONS:
            return EXTENSIONS[arguments[1]]
        return "rollback" if name == "SQLEndTran" and arguments[2] == 1 else name

    def watched(name, arguments):
        calls.append(kind_of(name, arguments))
        if name == "SQLBindCol" or name == "SQLFreeStmt" and bound:
            bound.append((name, *arguments[:2]))
        return None if blocks or name != "SQLGetInfoW" else ERROR

    good, error = run(watched)
    assert error is None and len(good["rows"]) == 40 and good["batch"] == 4, (good, error)
    held = set()
    for name, statement, what in bound:  # memory is forgotten before other takes its place
        if name == "SQLBindCol":
            assert (statement, what) not in held
            held.add((statement, what))
        elif what == 2:
            held.clear()
    assert bool(bound) == blocks
    assert len(set(calls)) > 15 and ("SQLSetPos" in calls) == blocks
    for number, failing in enumerate(calls):
        for status in (ERROR, INVALID_HANDLE, NO_DATA):
            seen = []

            def answer(name, arguments):
                seen.append(name)
                fails = len(seen) == number + 1
                return status if fails else None if blocks or name != "SQLGetInfoW" else ERROR

            given, error = run(answer)
            what = (number, failing, status, error)
            # It is asked for a file first, and said to have none.
            tries_again = (failing, status) == ("SQLDriverConnectW", NO_DATA)
            passed_over = failing in PASSED_OVER | BLOCKS or tries_again
            handles = runtime.count("SQLAllocHandle") - runtime.count("SQLFreeHandle")
            assert handles == 0 or failing in PASSED_OVER | {"SQLAllocHandle"}, what
            read = given.get("rows", [])
            assert read == good["rows"][:len(read)], what
            if error is None and passed_over:
                assert given == good, what
            elif status != NO_DATA and not passed_over:
                assert error is not None, what
