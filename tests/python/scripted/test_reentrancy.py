"""Python code that runs inside our calls closes the cursor or the connection, or executes: what comes
of it is an error or a right result, never a crash, and never a handle that stays."""

import datetime
import decimal
import gc
import sys
import threading
import types
import warnings

import pytest

from vorda import zelqa

from conftest import DECIMAL, WVARCHAR, Column, assert_no_growth, close

ROWS = [["1.5", "text", 1], ["2.5", "more", 2], ["3.5", "last", 3]]
COLUMNS = [Column("d", DECIMAL), Column("t", WVARCHAR), Column("n")]


@pytest.fixture
def opened(runtime):
    """A connection of its own for each intrusion, and a cursor with rows to read."""
    runtime.result(*COLUMNS, rows=ROWS)
    connection = zelqa.connect("Server=there")
    cursor = connection.cursor()
    cursor.execute("SELECT *")
    yield types.SimpleNamespace(connection=connection, cursor=cursor)
    close(connection)


def close_cursor(opened, runtime):
    close(opened.cursor)


def close_connection(opened, runtime):
    close(opened.connection)


def close_both(opened, runtime):
    close(opened.cursor, opened.connection)


def execute_other(opened, runtime):
    runtime.result("x", rows=[[9]])
    opened.connection.execute("SELECT x")


def execute_same(opened, runtime):
    opened.cursor.execute("UPDATE t SET a = ?", 1)


def prepare_batch(opened, runtime):
    opened.connection.cursor().executemany("UPDATE t SET a = ?", [("a",), ("b",), ("c",)])


def read_on(opened, runtime):
    opened.cursor.fetchone()


def let_go(opened, runtime):
    """The caller's own references go; those that our call holds must last."""
    opened.connection = opened.cursor = None
    gc.collect()


INTRUSIONS = [close_cursor, close_connection, close_both, execute_other, execute_same, prepare_batch,
              read_on, let_go]
each_intrusion = pytest.mark.parametrize("intrusion", INTRUSIONS, ids=lambda f: f.__name__)


class Intruder:
    """Does its work once, and keeps quiet about an object that is closed already."""

    def __init__(self, intrusion, opened, runtime):
        self.work = lambda: intrusion(opened, runtime)
        self.done = False

    def __call__(self):
        if not self.done:
            self.done = True
            try:
                self.work()
            except (zelqa.Error, AttributeError):
                pass


@pytest.fixture
def intrude(intrusion, opened, runtime):
    intruder = Intruder(intrusion, opened, runtime)
    yield intruder
    assert intruder.done


def outcome(operation):
    """The result, or the error, which is one of ours or StopIteration."""
    try:
        return operation()
    except (zelqa.Error, StopIteration) as error:
        return error


def check_closed(result, intrusion):
    """After the cursor or the connection has gone a call that needs it answers so."""
    texts = {close_cursor: "cursor", close_connection: "connection", close_both: "cursor"}
    if intrusion in texts:
        assert str(result) == "Attempt to use a closed " + texts[intrusion]


@each_intrusion
def test_comparison_in_a_row(opened, intrude):
    row = opened.cursor.fetchone()

    class Value:
        def __eq__(self, other):
            intrude()
            row[0] = row[1] = row[2] = None
            return False
    assert (Value() in row) is False
    assert tuple(row) == (None, None, None)


@each_intrusion
def test_comparison_with_a_column_name(opened, intrude):
    row = opened.cursor.fetchone()

    class Name(str):
        __hash__ = str.__hash__

        def __eq__(self, other):
            intrude()
            row[1] = "new"
            return str(other) == "t"
    assert row[Name("?")] == "new"


@each_intrusion
def test_repr_of_a_row(opened, intrude):
    row = opened.cursor.fetchone()

    class Value:
        def __repr__(self):
            intrude()
            row[0] = row[1] = row[2] = 0
            return "value"
    row[0] = Value()
    assert repr(row) == "(value, 0, 0)"


@each_intrusion
def test_end_of_a_value(opened, intrude):
    row = opened.cursor.fetchone()

    class Value:
        def __del__(self):
            intrude()
            row[0] = "later"
    row[0] = Value()
    row[0] = "new"
    assert row[0] == "later"


@each_intrusion
@pytest.mark.parametrize("method", ["__len__", "__getitem__"])
@pytest.mark.parametrize("call", ["execute", "callproc", "executemany"])
def test_length_and_items_of_a_subclass(runtime, opened, intrude, intrusion, method, call):
    """Sequence slots of a subclass run for the sizes and items that our calls ask for."""
    def length(self):
        if method == "__len__":
            intrude()
        return 2

    def item(self, index):
        if method == "__getitem__":
            intrude()
        if index > 1:
            raise IndexError
        return (5, "text") if call == "executemany" else "text"

    evil = type("Evil", (list,), {"__len__": length, "__getitem__": item})([0, 0])
    cursor = opened.cursor
    runtime.result(Column("ColumnName", WVARCHAR), rows=[["pa"], ["pb"]])
    arguments = {"execute": ("UPDATE t SET a = ?", evil), "callproc": ("P", evil),
                 "executemany": ("UPDATE t SET a = ?", evil)}[call]
    runtime.take_log()
    result = outcome(lambda: getattr(cursor, call)(*arguments))
    log = runtime.take_log()
    if intrusion in (execute_other, execute_same, prepare_batch, read_on, let_go) and \
            not isinstance(result, Exception):
        # The statement that ran last is the one that was asked for, with its own values.
        at = max(i for i, line in enumerate(log) if line.startswith("SQLExecute("))
        values = '["text", "text"]' if call == "executemany" else '["text"]'
        assert "values=%s" % values in log[at + 2]
    if call != "callproc" or method == "__len__":
        check_closed(result, intrusion)


@each_intrusion
def test_index_of_fetchmany(opened, intrude, intrusion):
    class Size:
        def __index__(self):
            intrude()
            return 2
    cursor = opened.cursor
    if sys.version_info < (3, 10):
        Size.__int__ = Size.__index__
    check_closed(outcome(lambda: cursor.fetchmany(Size())), intrusion)


@each_intrusion
def test_index_of_a_row(opened, intrude):
    class Key:
        def __index__(self):
            intrude()
            row[1] = "new"
            return 1
    row = opened.cursor.fetchone()
    assert row[Key()] == "new"


READERS = {"fetchone": lambda cursor: [cursor.fetchone()], "fetchall": lambda cursor: cursor.fetchall(),
           "fetchmany": lambda cursor: cursor.fetchmany(2), "iteration": lambda cursor: list(cursor)}
each_reader = pytest.mark.parametrize("read", READERS)


def check_rows(rows, intrusion, read):
    """Rows read around an intrusion are whole rows of one statement or of the other."""
    if isinstance(rows, Exception):
        assert isinstance(rows, zelqa.ProgrammingError)
        if read != "fetchone":
            check_closed(rows, intrusion)
        return
    whole = [(decimal.Decimal(row[0]), row[1], row[2]) for row in ROWS] + [(9,), (None,)]
    for row in rows:
        if row is not None:
            assert tuple(row) in whole or str(row[0]) in ("1.5", "2.5", "3.5")


@each_intrusion
@each_reader
def test_class_of_a_fake_decimal_module(runtime, opened, intrude, intrusion, read, monkeypatch):
    class Decimal:
        def __init__(self, text):
            self.text = text
            intrude()

        def __str__(self):
            return self.text

    module = types.ModuleType("decimal")
    module.Decimal = Decimal
    monkeypatch.setitem(sys.modules, "decimal", module)
    cursor, got = opened.cursor, []
    # Classes are looked up once a thread.
    thread = threading.Thread(target=lambda: got.append(outcome(lambda: READERS[read](cursor))))
    thread.start()
    thread.join()
    check_rows(got[0], intrusion, read)
    if intrusion in (close_cursor, close_both):
        assert (cursor.rowcount, cursor.arraysize) == (-1, -1)


@each_intrusion
def test_import_of_a_fake_decimal_module(runtime, opened, intrude, intrusion, monkeypatch):
    class Finder(types.ModuleType):
        def __getattr__(self, name):
            if name == "Decimal":
                intrude()
                return decimal.Decimal
            raise AttributeError(name)

    monkeypatch.setitem(sys.modules, "decimal", Finder("decimal"))
    cursor, got = opened.cursor, []
    runtime.result(*COLUMNS, rows=ROWS)

    def run():
        got.append(outcome(lambda: cursor.execute("SELECT *")))
        got.append(outcome(lambda: cursor.fetchall()))
    thread = threading.Thread(target=run)
    thread.start()
    thread.join()
    assert got[0] is cursor
    check_closed(got[1], intrusion)
    if intrusion in (close_cursor, close_both):
        assert cursor.rowcount == -1


@each_intrusion
@each_reader
def test_warning_about_a_cut_text(runtime, opened, intrude, intrusion, read, monkeypatch):
    runtime.result(Column("t", WVARCHAR), Column("d", DECIMAL), rows=[["x" * 3000, "1.5"]] * 3)
    cursor = opened.cursor
    cursor.execute("SELECT *")
    monkeypatch.setattr(warnings, "showwarning", lambda *arguments, **more: intrude())
    with warnings.catch_warnings():
        warnings.simplefilter("always")
        rows = outcome(lambda: READERS[read](cursor))
    if isinstance(rows, list) and rows[0] is not None:
        assert tuple(rows[0]) == ("x" * 2047, decimal.Decimal("1.5"))
    if read != "fetchone":
        check_closed(rows, intrusion)


@each_intrusion
@pytest.mark.parametrize("call", [
    lambda cursor: cursor.execute("SELECT 1\0"), lambda cursor: cursor.execute("SELECT ?", "a\0"),
    lambda cursor: cursor.callproc("P\0", (1,)), lambda cursor: cursor.executemany("X ?\0", [(1,)]),
    lambda cursor: cursor.executemany("UPDATE t SET a = ?", [(None,), (2,)])])
def test_warning_before_an_execution(runtime, opened, intrude, intrusion, call, monkeypatch):
    cursor = opened.cursor
    monkeypatch.setattr(warnings, "showwarning", lambda *arguments, **more: intrude())
    with warnings.catch_warnings():
        warnings.simplefilter("always")
        check_closed(outcome(lambda: call(cursor)), intrusion)


@each_intrusion
def test_warning_before_a_connection(runtime, opened, intrude, monkeypatch):
    monkeypatch.setattr(warnings, "showwarning", lambda *arguments, **more: intrude())
    with warnings.catch_warnings():
        warnings.simplefilter("always")
        zelqa.connect("A=b\0").close()


@each_intrusion
@pytest.mark.parametrize("where", ["generator", "row length", "row item", "str"])
def test_rows_of_executemany(runtime, opened, intrude, intrusion, where):
    class Day(datetime.date):
        def __str__(self):
            if where == "str":
                intrude()
            return "a day"

    class Row:
        def __len__(self):
            if where == "row length":
                intrude()
            return 2

        def __getitem__(self, index):
            if where == "row item":
                intrude()
            return (5, Day(2024, 1, 2))[index]

    def generate():
        yield Row()
        if where == "generator":
            intrude()
        yield Row()

    cursor = opened.cursor
    runtime.take_log()
    result = outcome(lambda: cursor.executemany("UPDATE t SET a = ?, b = ?", generate()))
    check_closed(result, intrusion)
    if not isinstance(result, Exception):
        log = runtime.take_log()
        at = max(i for i, line in enumerate(log) if line.startswith("SQLExecute("))
        assert log[at + 1:at + 3] == ["  1: values=[5, 5], lens=[8, 8]",
                                      '  2: values=["a day", "a day"], lens=[5, 5]']


@each_intrusion
def test_key_of_a_dictionary(runtime, opened, intrude, intrusion):
    class Key(str):
        def __hash__(self):
            return hash("a")

        def __eq__(self, other):
            intrude()
            return other == "a"
    cursor = opened.cursor
    result = outcome(lambda: cursor.execute("UPDATE t SET a = @a", {Key("?"): 5}))
    check_closed(result, intrusion)


def test_dictionary_that_changes_and_keys_that_fail(runtime, cursor):
    parameters = {}

    class Key(str):
        def __hash__(self):
            return hash("a")

        def __eq__(self, other):
            parameters.clear()
            raise LookupError("mine")
    parameters[Key("?")] = 5
    with pytest.raises(LookupError, match="mine"):
        cursor.execute("UPDATE t SET a = @a", parameters)
    assert runtime.take_log() == []


def test_list_that_shrinks(runtime, cursor):
    class Shrinking(list):
        def __getitem__(self, index):
            del self[1:]
            return list.__getitem__(self, index)
    with pytest.raises(IndexError):
        cursor.execute("UPDATE t SET a = ?", Shrinking([1, 2, 3]))
    with pytest.raises(IndexError):
        cursor.executemany("UPDATE t SET a = ?", Shrinking([(1,), (2,), (3,)]))
    assert runtime.take_log() == []


def test_negative_length(runtime, cursor):
    liar = type("Liar", (list,), {"__len__": lambda self: -1})()
    for call in (lambda: cursor.execute("UPDATE t", liar), lambda: cursor.callproc("P", liar),
                 lambda: cursor.executemany("UPDATE t", liar),
                 lambda: cursor.executemany("UPDATE t", [liar])):
        with pytest.raises(ValueError):
            call()
    assert runtime.take_log() == []


@pytest.mark.parametrize("exception", [KeyboardInterrupt, SystemExit, MemoryError, LookupError])
def test_errors_of_the_program_pass_through(runtime, cursor, exception):
    class Angry(list):
        def __len__(self):
            raise exception("mine")
    for call in (lambda: cursor.execute("UPDATE t", Angry()),
                 lambda: cursor.callproc("P", Angry()),
                 lambda: cursor.executemany("UPDATE t", [Angry()])):
        with pytest.raises(exception, match="mine"):
            call()
    assert runtime.take_log() == []


@pytest.mark.parametrize("call", [
    lambda cursor: cursor.executemany("UPDATE t SET a = ?, b = ?", [("x", "y"), ("x", "\ud800")]),
    lambda cursor: cursor.executemany("UPDATE t SET a = ?", [(1,), (2 ** 70,)]),
    lambda cursor: cursor.executemany("UPDATE t SET a = ?", [(b"x",)]),
    lambda cursor: cursor.execute("UPDATE t SET a = ?, b = ?", "x", "\ud800"),
    lambda cursor: cursor.execute("UPDATE t SET a = ?, b = ?", "x", b"x"),
    lambda cursor: cursor.execute("SELECT *").fetchall(),
])
@pytest.mark.parametrize("threshold", range(1, 30))
def test_garbage_collection_that_closes(runtime, call, threshold):
    """The collector may run wherever an object is made, and run any finaliser."""
    connection = zelqa.connect("Server=there")
    cursor = connection.cursor()
    runtime.result(*COLUMNS, rows=ROWS)

    class Closing:
        def __init__(self):
            self.circle = self

        def __del__(self):
            close(cursor, connection)

    before = gc.get_threshold()
    gc.collect()
    Closing()
    gc.set_threshold(threshold)
    try:
        outcome(lambda: call(cursor))
    finally:
        gc.set_threshold(*before)
    gc.collect()
    close(connection)


def test_nothing_is_left_by_intrusions(runtime):
    def run():
        runtime.reset()
        runtime.result(Column("t", WVARCHAR), rows=[["text"]] * 3)
        connection = zelqa.connect("Server=there")
        cursor = connection.execute("SELECT t")

        class Closing(list):
            def __len__(self):
                close(connection)
                return 1
        row = cursor.fetchone()
        for call in (cursor.execute, cursor.executemany):
            with pytest.raises(zelqa.ProgrammingError):
                call("UPDATE t SET a = ?", Closing(["x"]))
        assert row["t"] == "text"
        assert runtime.live_handles() == 0

    assert_no_growth(run, 200)
