"""Python code that runs inside our calls closes the cursor or the connection, or executes: what comes
of it is an error or a right result, never a crash, and never a handle that stays."""

import codecs
import datetime
import decimal
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


@each_intrusion
@pytest.mark.parametrize("use", ["in", "repr", "index", "name", "assign"])
def test_rows(opened, intrude, use):
    """The code of the values and keys changes the row as well."""
    cursor = opened.cursor
    row = cursor.fetchone()

    def meddle():
        intrude()
        row[0], row[1], row[2] = 0, "new", "new"

    class Value:
        def __eq__(self, other):
            return meddle()

        def __repr__(self):
            return str(meddle())

        def __index__(self):
            meddle()
            return 1

        def __del__(self):
            meddle()

    class Name(str):
        __hash__ = str.__hash__

        def __eq__(self, other):
            meddle()
            return str(other) == "t"
    if use == "in":
        assert Value() not in row
    elif use == "index":
        assert row[Value()] == "new"
    elif use == "name":
        assert row[Name("?")] == "new"
    else:
        row[0] = Value()
        if use == "repr":
            assert repr(row) == "(None, 'new', 'new')"
        row[0] = 0
    assert tuple(row)[1:] == ("new", "new")


@each_intrusion
@pytest.mark.parametrize("method", ["__len__", "__getitem__"])
@pytest.mark.parametrize("call", ["execute", "callproc", "executemany"])
def test_length_and_items_of_a_subclass(runtime, opened, intrude, intrusion, method, call):
    def length(self):
        if method == "__len__":
            intrude()
        return 2

    def item(self, index):
        if method == "__getitem__":
            intrude()
        return (5, "text") if call == "executemany" else "text"

    evil = type("Evil", (list,), {"__len__": length, "__getitem__": item})([0, 0])
    cursor = opened.cursor
    runtime.result(Column("ColumnName", WVARCHAR), rows=[["pa"], ["pb"]])
    result = outcome(lambda: getattr(cursor, call)("P" if call == "callproc" else UPDATE, evil),
                     intrusion)
    if not isinstance(result, Exception):  # then what was asked for has run last
        assert executed_last(runtime) == (
            ["5, 5", '"text", "text"'] if call == "executemany" else ['"text"'] * 2)


@each_intrusion
@pytest.mark.parametrize("where", ["generator", "row length", "row item", "str"])
def test_rows_of_executemany(runtime, opened, intrude, intrusion, where):
    def at(place):
        if where == place:
            intrude()

    class Day(datetime.date):
        def __str__(self):
            at("str")
            return "a day"

    class Row:
        def __len__(self):
            at("row length")
            return 2

        def __getitem__(self, index):
            at("row item")
            return (5, Day(2024, 1, 2))[index]

    def generate():
        yield Row()
        at("generator")
        yield Row()

    cursor = opened.cursor
    result = outcome(lambda: cursor.executemany(UPDATE + ", b = ?", generate()), intrusion)
    if not isinstance(result, Exception):
        assert executed_last(runtime) == ["5, 5", '"a day", "a day"']


@each_intrusion
@pytest.mark.parametrize("where", ["index", "hash"])
def test_keys_and_sizes(runtime, opened, intrude, intrusion, where):
    class Size:
        def __index__(self):
            intrude()
            return 2
        __int__ = __index__

    class Key(str):
        def __hash__(self):
            return hash("a")

        def __eq__(self, other):
            intrude()
            return other == "a"
    cursor = opened.cursor
    outcome(lambda: cursor.fetchmany(Size()) if where == "index" else
            cursor.execute("UPDATE t SET a = @a", {Key("?"): 5}), intrusion)


READERS = {"fetchall": lambda cursor: cursor.fetchall(), "fetchmany": lambda cursor: cursor.fetchmany(2),
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
            if how == "import":
                intrude()
                return decimal.Decimal
            return Decimal

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


class Hooked(str):
    """Runs a hook wherever code can ask it something."""

    def run(self, *arguments):
        self.hook()
        return self.answer
    __index__ = __int__ = match = utcoffset = __length_hint__ = run


def hooked(hook, answer=None, *bases):
    return type("Hooked", bases or (Hooked,), dict(Hooked.__dict__, hook=staticmethod(hook), answer=answer))()


def raise_signal(hook):
    before = signal.signal(signal.SIGUSR1, lambda *arguments: hook())
    os.kill(os.getpid(), signal.SIGUSR1)
    signal.signal(signal.SIGUSR1, before)
    yield (1,)


def profiled(hook, cursor):
    sys.setprofile(lambda *arguments: hook())
    try:
        return cursor.fetchall()
    finally:
        sys.setprofile(None)


def warned(hook, cursor):
    with warnings.catch_warnings():
        warnings.filters.insert(0, ("ignore", hooked(hook, True), RuntimeWarning, None, 0))
        return cursor.execute("SELECT 1\0")


def decoded(hook, cursor):
    """Twice the text that is no UTF-8: it is given up at the first."""
    codecs.register_error("strict", lambda error: (hook(), ("?", error.end))[1])
    try:
        with pytest.raises(zelqa.DatabaseError, match="not valid UTF-8"):
            cursor.execute("SELECT *").fetchall()
        with pytest.raises(zelqa.ProgrammingError):  # never asks the handler
            cursor.execute(UPDATE, "\ud800")
        with pytest.raises(zelqa.ProgrammingError):
            cursor.executemany(UPDATE, [("\ud800",)])
    finally:
        codecs.register_error("strict", codecs.strict_errors)


def released(hook, cursor):
    row, value = cursor.fetchone(), Hooked()
    watch = weakref.ref(value, lambda watched: hook())
    row[0] = value
    del value
    row[0] = watch


def collected(hook, cursor):
    gc.callbacks.append(lambda phase, info: hook())
    before = gc.get_threshold()
    gc.set_threshold(1)
    try:
        cursor.fetchall()
        gc.collect()
    finally:
        gc.set_threshold(*before)
        gc.callbacks.pop()


@each_intrusion
@pytest.mark.parametrize("call", [
    profiled, warned, decoded, released, collected,
    lambda hook, cursor: setattr(cursor, "arraysize", hooked(hook, 5)),
    lambda hook, cursor: cursor.executemany(UPDATE, raise_signal(hook)),
    lambda hook, cursor: cursor.executemany(
        UPDATE, [(datetime.datetime(2024, 1, 2, tzinfo=hooked(hook, None, datetime.tzinfo)),)])])
def test_other_call_backs(runtime, opened, intrude, call):
    runtime.result(Column("t", WVARCHAR), Column("u", WVARCHAR), rows=[[b"\xff", "text"]] * 2)
    try:
        call(intrude, opened.cursor)
    except zelqa.Error as error:
        assert any(text in str(error) for text in ("closed", "No results", "not valid UTF-8"))


def test_rows_released_in_two_threads(runtime, connection):
    """The finaliser in one row waits for that in another thread's row."""
    runtime.result("n", rows=[[1], [2]])
    first, second = connection.execute("SELECT *").fetchall()
    started, done = threading.Event(), threading.Event()

    class Value:
        def __init__(self, finalise):
            self.finalise = finalise

        def __del__(self):
            self.finalise()

    first[0] = Value(lambda: (started.set(), waited.append(done.wait(20))))
    second[0] = Value(done.set)
    rows, waited = [first], []
    del first
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
    lambda cursor: cursor.executemany(UPDATE, [(None,), (2,)]), *READERS.values()])
def test_warnings(runtime, opened, intrude, intrusion, call, monkeypatch):
    runtime.result(Column("t", WVARCHAR), Column("d", DECIMAL), rows=[["x" * 3000, "1.5"]] * 3)
    cursor = opened.cursor.execute("SELECT *")
    monkeypatch.setattr(warnings, "showwarning", lambda *arguments, **more: intrude())
    with warnings.catch_warnings():
        warnings.simplefilter("always")
        result = outcome(lambda: call(cursor), intrusion)
    if isinstance(result, list):
        assert tuple(result[0]) == ("x" * 2047, decimal.Decimal("1.5"))


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
        before = gc.get_threshold()
        gc.collect()
        del circle
        gc.set_threshold(threshold)
        try:
            call(cursor)
        except zelqa.Error:
            pass
        finally:
            gc.set_threshold(*before)
        gc.collect()
        assert runtime.live_handles() == 0
        runtime.reset()


def test_sequences_that_shrink_or_lie(runtime, cursor):
    class Shrinking(list):
        def __getitem__(self, index):
            del self[1:]
            return list.__getitem__(self, index)

    class Liar(list):
        def __len__(self):
            return -1
    for call in (cursor.execute, cursor.executemany):
        with pytest.raises(IndexError):
            call(UPDATE, Shrinking([(1,), (2,), (3,)]))
    for call in (cursor.execute, cursor.executemany, cursor.callproc):
        with pytest.raises(ValueError):
            call(UPDATE, Liar())
    with pytest.raises(ValueError):
        cursor.executemany(UPDATE, [Liar()])
    assert runtime.take_log() == []


@pytest.mark.parametrize("exception", [KeyboardInterrupt, MemoryError, LookupError])
def test_errors_of_the_program_pass_through(runtime, cursor, exception):
    class Angry(list):
        def __len__(self):
            raise exception("mine")

    class Key(str):
        def __hash__(self):
            return hash("a")

        def __eq__(self, other):
            raise exception("mine")
    for call in (lambda: cursor.execute("UPDATE t", Angry()), lambda: cursor.callproc("P", Angry()),
                 lambda: cursor.executemany("UPDATE t", [Angry()]),
                 lambda: cursor.execute("UPDATE t SET a = @a", {Key("?"): 5})):
        with pytest.raises(exception, match="mine"):
            call()
    assert runtime.take_log() == []
