"""Python code that runs inside our calls closes the cursor or the connection, or executes: what
comes of it is an error or a right result, never a crash, and never a handle that stays."""

import codecs
import contextlib
import datetime
import decimal
import functools
import gc
import os
import signal
import sys
import threading
import types
import warnings
import weakref

import pytest

from vorda import zelqa

from conftest import DECIMAL, WVARCHAR, Column, close

ROWS = [["1.5", "text", 1], ["2.5", "more", 2], ["3.5", "last", 3]]
COLUMNS = [Column("d", DECIMAL), Column("t", WVARCHAR), Column("n")]
UPDATE = "UPDATE t SET a = ?"


@pytest.fixture
def opened(runtime):
    """A connection for an intrusion to work on, and a cursor with rows to read."""
    runtime.result(*COLUMNS, rows=ROWS)
    connection = zelqa.connect("Server=there")
    yield types.SimpleNamespace(connection=connection, cursor=connection.execute("SELECT *"))
    close(connection)


def let_go(opened):
    """The program's own references go; those that our call holds must last."""
    opened.connection = opened.cursor = None
    gc.collect()


INTRUSIONS = {
    "close cursor": lambda opened: opened.cursor.close(),
    "close connection": lambda opened: opened.connection.close(),
    "execute": lambda opened: opened.connection.execute("SELECT nothing"),
    "prepare": lambda opened: opened.cursor.execute(UPDATE, 1),
    "batch": lambda opened: opened.connection.cursor().executemany(UPDATE, [("a",), ("b",)]),
    "fetch": lambda opened: opened.cursor.fetchone(),
    "let go": let_go,
}
each_intrusion = pytest.mark.parametrize("intrusion", INTRUSIONS)


@pytest.fixture
def intrude(intrusion, opened):
    """Does the work once, whenever it is called first."""
    times = []

    def work():
        times.append(1)
        if len(times) == 1:
            INTRUSIONS[intrusion](opened)
    yield work
    assert times


def outcome(operation, intrusion):
    """The result, or the error. A call that needs what was closed under it says so."""
    try:
        result = operation()
    except (zelqa.Error, StopIteration) as error:
        result = error
    if intrusion.startswith("close"):
        assert str(result) == "Attempt to use a closed " + intrusion[6:]
    return result


def executed_last(runtime):
    """The values of the last execution of a prepared statement."""
    log = runtime.take_log()
    at = max(i for i, line in enumerate(log) if line.startswith("SQLExecute("))
    return [line.split("[")[1].split("]")[0] for line in log[at + 1:] if line.startswith("  ")]


def evil(hook, method, base, *arguments):
    """An object like one of `base`, whose `method` runs the hook first."""
    def run(self, *given):
        hook()
        return getattr(base, method)(self, *given)
    return type("Evil", (base,), {"__hash__": base.__hash__, method: run})(*arguments)


@each_intrusion
@pytest.mark.parametrize("use", ["in", "repr", "index", "name", "assign"])
def test_rows(opened, intrude, use):
    """The code of the values and keys changes the row as well."""
    row, stale = opened.cursor.fetchone(), []

    def meddle(*given):
        intrude()
        row[0], row[1], row[2] = 0, "new", "new"

    class Value:
        __eq__ = meddle

        def __del__(self):
            stale.append(row[0] is self)
            meddle()

        def __repr__(self):
            return str(meddle())

        def __index__(self):
            return meddle() or 1
    if use == "in":
        assert Value() not in row
    elif use in ("index", "name"):
        assert row[Value() if use == "index" else evil(meddle, "__eq__", str, "t")] == "new"
    else:
        row[0] = Value()
        if use == "repr":
            assert repr(row) == "(None, 'new', 'new')"
        row[0] = 0
    assert tuple(row)[1:] == ("new", "new") and not any(stale)


READERS = {"fetchall": lambda cursor: cursor.fetchall(),
           "fetchmany": lambda cursor: cursor.fetchmany(2),
           "iteration": list}


@each_intrusion
@pytest.mark.parametrize("read", READERS)
@pytest.mark.parametrize("how", ["class", "import"])
def test_fake_decimal_module(runtime, opened, intrude, intrusion, read, how, monkeypatch):
    class Decimal(decimal.Decimal):
        def __new__(cls, text):
            intrude()
            return decimal.Decimal(text)

    class Module(types.ModuleType):
        def __getattr__(self, name):
            if name != "Decimal":
                raise AttributeError(name)
            if how == "class":
                return Decimal
            intrude()
            return decimal.Decimal

    monkeypatch.setitem(sys.modules, "decimal", Module("decimal"))
    cursor, got = opened.cursor, []
    runtime.result(*COLUMNS, rows=ROWS)

    def run():
        # The description of the new statement needs the class before the rows do.
        return READERS[read](cursor.execute("SELECT *") if how == "import" else cursor)
    # Classes are looked up once a thread.
    thread = threading.Thread(target=lambda: got.append(outcome(run, intrusion)))
    thread.start()
    thread.join()
    if isinstance(got[0], list):
        whole = [(decimal.Decimal(row[0]), row[1], row[2]) for row in ROWS]
        assert all(tuple(row) in whole for row in got[0])
    if intrusion == "close cursor":
        assert (cursor.rowcount, hasattr(cursor, "description")) == (-1, False)


class Plain:
    def answer(self, *given):
        return 1
    __index__ = __int__ = answer


class Zone(datetime.tzinfo):
    def utcoffset(self, moment):
        return datetime.timedelta(0)


def generate(hook):
    yield 5, "text"
    hook()
    yield 5, "text"


@contextlib.contextmanager
def changed(setter, value, before):
    setter(value)
    try:
        yield
    finally:
        setter(before)


def signalled():
    os.kill(os.getpid(), signal.SIGUSR1)
    yield (1,)


def handle_signal(hook, cursor):
    with changed(functools.partial(signal.signal, signal.SIGUSR1), lambda *arguments: hook(),
                 signal.SIG_DFL):
        cursor.executemany(UPDATE, signalled())


def profile(hook, cursor):
    with changed(sys.setprofile, lambda *arguments: hook(), None):
        cursor.fetchall()


def decode(hook, cursor):
    with changed(functools.partial(codecs.register_error, "strict"),
                 lambda error: (hook(), ("?", error.end))[1], codecs.strict_errors):
        with pytest.raises(zelqa.DatabaseError, match="not valid UTF-8"):
            cursor.execute("SELECT *").fetchall()
        for call, values in ((cursor.execute, "\ud800"), (cursor.executemany, [("\ud800",)])):
            with pytest.raises(zelqa.ProgrammingError):  # without asking the handler
                call(UPDATE, values)


def release(hook, cursor):
    row, value = cursor.fetchone(), Plain()
    watch = weakref.ref(value, lambda watched: hook())
    row[0] = value
    del value
    row[0] = watch


PAIR = UPDATE + ", b = ?"
TEXTS, PAIRS = ['"text"'] * 2, ["5, 5", '"text", "text"']
CALLS = {  # with the values that are to be executed last
    "generator": (lambda hook, cursor: cursor.executemany(PAIR, generate(hook)), PAIRS),
    "str": (lambda hook, cursor: cursor.executemany(
        UPDATE, [(evil(hook, "__str__", datetime.date, 2024, 1, 2),)]), ['"2024-01-02"']),
    "time zone": (lambda hook, cursor: cursor.executemany(
        UPDATE, [(datetime.time(1, 2, 3, tzinfo=evil(hook, "utcoffset", Zone)),)]),
        ['"01:02:03+00:00"']),
    "key": (lambda hook, cursor: cursor.execute(
        "UPDATE t SET a = @a", {evil(hook, "__eq__", str, "a"): 5}), ["5"]),
    "size": (lambda hook, cursor: cursor.fetchmany(evil(hook, "__index__", Plain)), None),
    "arraysize": (lambda hook, cursor: setattr(cursor, "arraysize", evil(hook, "__index__", Plain)),
                  None)}
CALLS.update((call.__name__, (call, None)) for call in (
    handle_signal, profile, decode, release))
for method in "__len__", "__getitem__":
    CALLS.update({
        "execute" + method: (lambda hook, cursor, method=method: cursor.execute(
            PAIR, evil(hook, method, list, ["text"] * 2)), TEXTS),
        "callproc" + method: (lambda hook, cursor, method=method: cursor.callproc(
            "P", evil(hook, method, list, ["text"] * 2)), TEXTS),
        "executemany" + method: (lambda hook, cursor, method=method: cursor.executemany(
            PAIR, evil(hook, method, list, [(5, "text")] * 2)), PAIRS),
        "row" + method: (lambda hook, cursor, method=method: cursor.executemany(
            PAIR, [evil(hook, method, list, (5, "text")), (5, "text")]), PAIRS)})


@pytest.mark.filterwarnings("ignore:The time at row")
@each_intrusion
@pytest.mark.parametrize("call", CALLS)
def test_call_backs(runtime, opened, intrude, intrusion, call):
    operation, expected = CALLS[call]
    cursor = opened.cursor
    runtime.result(Column("ColumnName", WVARCHAR),
                   rows=[[b"\xff"]] if call == "decode" else [["pa"], ["pb"]])
    if expected:  # then what was asked for has run last
        result = outcome(lambda: operation(intrude, cursor), intrusion)
        assert isinstance(result, Exception) or executed_last(runtime) == expected
        return
    try:
        operation(intrude, cursor)
    except zelqa.ProgrammingError as error:
        assert "closed" in str(error) or "No results" in str(error)


def test_rows_released_in_two_threads(runtime, connection):
    """The finaliser in one row waits for that in another thread's row."""
    runtime.result("n", rows=[[1], [2]])
    first, second = connection.execute("SELECT *").fetchall()
    started, done, waited = threading.Event(), threading.Event(), []

    for row, finalise in ((first, lambda: (started.set(), waited.append(done.wait(20)))),
                          (second, done.set)):
        row[0] = value = Plain()
        weakref.finalize(value, finalise)
    rows = [first]
    del first, row, value
    thread = threading.Thread(target=rows.clear)
    thread.start()
    started.wait()
    del second
    thread.join()
    assert waited == [True]


@each_intrusion
@pytest.mark.parametrize("call", [
    lambda cursor: cursor.execute("SELECT 1\0"), lambda cursor: cursor.execute("SELECT ?", "a\0"),
    lambda cursor: cursor.callproc("P\0", (1,)), lambda cursor: cursor.executemany("X ?\0", [(1,)]),
    lambda cursor: cursor.executemany(UPDATE, [(None,), (2,)]),
    lambda cursor: cursor.execute(UPDATE, 1, 2),
    lambda cursor: cursor.executemany(UPDATE, [("a\0",)]), *READERS.values()])
def test_warnings(runtime, opened, intrude, intrusion, call, monkeypatch):
    runtime.result(Column("t", WVARCHAR), Column("d", DECIMAL), rows=[["x" * 3000, "1.5"]] * 3)
    cursor = opened.cursor.execute("SELECT *")
    monkeypatch.setattr(warnings, "showwarning", lambda *arguments, **more: intrude())
    with warnings.catch_warnings():
        warnings.simplefilter("always")
        result = outcome(lambda: call(cursor), intrusion)
    if isinstance(result, list):
        assert tuple(result[0]) == ("x" * 2047, decimal.Decimal("1.5"))


@pytest.mark.filterwarnings("always")
def test_a_row_is_finished_by_its_own_plan(runtime, connection, monkeypatch):
    """Its code fetches from the same cursor, where other columns are decimals now."""
    decimals = [Column("d", DECIMAL), Column("e", DECIMAL)]
    runtime.result(Column("t", WVARCHAR), *decimals, rows=[["x" * 3000, "1.5", "2.5"]])
    cursor = connection.execute("SELECT *")
    runtime.result(*decimals, rows=[["3.5", "4.5"]])
    monkeypatch.setattr(warnings, "showwarning",
                        lambda *arguments, **more: cursor.execute("SELECT *").fetchone())
    assert cursor.fetchone()[2] == decimal.Decimal("2.5")


@pytest.mark.parametrize("call", [
    lambda cursor: cursor.executemany(UPDATE + ", b = ?", [("x", "y"), ("x", "\ud800")]),
    lambda cursor: cursor.executemany(UPDATE, [(1,), (2 ** 70,)]),
    lambda cursor: cursor.executemany(UPDATE, [(b"x",)]),
    lambda cursor: cursor.execute(UPDATE + ", b = ?", "x", "\ud800"),
    lambda cursor: cursor.execute(UPDATE + ", b = ?", "x", b"x"),
    lambda cursor: cursor.execute("SELECT *").fetchall()])
def test_garbage_collection_that_closes(runtime, call):
    """The collector may run wherever an object is made, and run any finaliser."""
    class Closing:
        def __del__(self):
            close(self.cursor, self.connection)

    for threshold in range(1, 30):
        runtime.result(*COLUMNS, rows=ROWS)
        circle = Closing()
        circle.itself = circle
        circle.connection = zelqa.connect("Server=there")
        circle.cursor = cursor = circle.connection.cursor()
        gc.collect()
        del circle
        with changed(gc.set_threshold, threshold,
                     gc.get_threshold()[0]), contextlib.suppress(zelqa.Error):
            call(cursor)
        gc.collect()
        assert runtime.live_handles() == 0
        runtime.reset()


@pytest.mark.parametrize("exception", [KeyboardInterrupt, MemoryError, LookupError])
def test_errors_of_the_program_pass_through(runtime, cursor, exception):
    def fail():
        raise exception("mine")

    class Liar(list):
        def __len__(self):
            return -1
    angry, key = evil(fail, "__len__", list), evil(fail, "__eq__", str, "a")
    for given, expected in (angry, exception), (Liar(), ValueError):
        for call in (lambda: cursor.execute(UPDATE, given), lambda: cursor.callproc("P", given),
                     lambda: cursor.executemany(UPDATE, given),
                     lambda: cursor.executemany(UPDATE, [given])):
            with pytest.raises(expected):
                call()
    with pytest.raises(exception, match="mine"):
        cursor.execute("UPDATE t SET a = @a", {key: 5})
    for call in (cursor.execute, cursor.executemany):
        shrinking = evil(lambda: shrinking.pop(), "__getitem__", list, [(1,), (2,), (3,)])
        with pytest.raises(IndexError):
            call(UPDATE, shrinking)
    assert runtime.take_log() == []
