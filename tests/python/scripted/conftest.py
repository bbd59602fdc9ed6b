"""Fixtures of the tests on the scripted runtime: the runtime itself, and connections to it.

The runtime is the very library that the module finds by its bare name. Here its control functions
are called through ctypes: a test tells it what to answer and reads what the module called.
"""

import collections
import contextlib
import ctypes
import gc
import os
import struct

import pytest

from vorda import zelqa

SUCCESS, INFO, ERROR, NO_DATA = 0, 1, -1, 100

NO_DIAGNOSTIC = "Unable to retrieve the error"

# The sanitizers make everything many times slower: what is repeated is repeated less.
SANITIZED = "libasan" in os.environ.get("LD_PRELOAD", "")

# Column types as the provider reports them.
(CHAR, NUMERIC, DECIMAL, INTEGER, SMALLINT, FLOAT, REAL, DOUBLE, DATE, TIME, TIMESTAMP, VARCHAR) = (
    1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12)
WVARCHAR, BIT, TINYINT, BIGINT, VARBINARY, GUID = -9, -7, -6, -5, -3, -11
TYPE_DATE, TYPE_TIME, TYPE_TIMESTAMP = 91, 92, 93


# A result column as the provider describes it.
Column = collections.namedtuple("Column", "name sqltype length precision scale nullable",
                                defaults=(INTEGER, 0, 0, 0, 1))
# A cell whose length is reported as `indicator`, whatever it holds.
Cell = collections.namedtuple("Cell", "value indicator")
Timestamp = collections.namedtuple("Timestamp", "year month day hour minute second nanoseconds",
                                   defaults=(1, 1, 1, 0, 0, 0, 0))
# By their types, the C type of a cell and its layout; all others are texts.
CELLS = {type(None): (0, None), int: (-25, "q"), float: (8, "d"), Timestamp: (11, "h5HI")}


def encoded(text):
    return text if isinstance(text, bytes) else text.encode()


def pytest_configure(config):
    """No warning unless a test asks for it."""
    config.addinivalue_line("filterwarnings", "error::RuntimeWarning")


class Runtime:
    """The control functions of the scripted runtime."""

    HANDLER = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_char_p, ctypes.POINTER(ctypes.c_longlong),
                               ctypes.c_int, ctypes.POINTER(ctypes.c_int))

    def __init__(self, path):
        self._library = ctypes.CDLL(path)
        self._library.scripted_log.restype = ctypes.c_char_p
        self._library.scripted_last_path.restype = ctypes.c_char_p
        self._handler = None

    def reset(self):
        self._library.scripted_reset()

    # What was called.

    def take_log(self):
        """The lines of the log, which is empty afterwards."""
        log = self._library.scripted_log().decode("utf-8", "surrogateescape")
        self._library.scripted_log_clear()
        return log.split("\n") if log else []

    def take_calls(self):
        """The names of the functions called, in order; the log is empty afterwards."""
        return [line.split("(")[0] for line in self.take_log() if not line.startswith("  ")]

    def count(self, function=None):
        return self._library.scripted_call_count(function.encode() if function else None)

    def last_path(self):
        return os.fsdecode(self._library.scripted_last_path())

    def live_handles(self, kind=0):
        return self._library.scripted_live_handles(kind)

    def errors(self):
        return self._library.scripted_errors()

    # What it answers.

    def answer(self, function, status, nth=0):
        """Instead of acting, the nth call of a function since the reset (0: each) returns this."""
        self._library.scripted_answer(function.encode(), nth, status)

    def answer_after(self, function, status, nth=0):
        """The same, but the call acts first."""
        self._library.scripted_answer_after(function.encode(), nth, status)

    def fail_next(self, function, text=None, native=7, nth=1):
        """The next (or nth) call of a function from now on fails, with this diagnostic."""
        self.answer(function, ERROR, self.count(function) + nth)
        if text is not None:
            self.diag(text, native)

    def clear_answers(self):
        self._library.scripted_answers_clear()

    def diag(self, text, native=7):
        self._library.scripted_diag(b"HY000", native, encoded(text), -1, SUCCESS)

    def handler(self, function):
        """`function(name, arguments)` sees each call first; a status that it returns is the
        answer."""
        def call(name, arguments, count, status):
            result = function(name.decode(), arguments[:count])
            if result is None:
                return 0
            status[0] = result
            return 1
        self._handler = self.HANDLER(call) if function else None
        self._library.scripted_handler(self._handler)

    def result(self, *columns, **given):
        """What the next execution that has none yet yields: columns, rows=[...], row_count=n."""
        self._library.scripted_result()
        self._library.scripted_row_count(ctypes.c_longlong(given.get("row_count", 0)))
        for column in columns:
            column = column if isinstance(column, Column) else Column(column)
            self._library.scripted_column(encoded(column.name), *column[1:])
        for row in given.get("rows", ()):
            self._library.scripted_row()
            for value in row:
                self._cell(value)

    def _cell(self, value):
        if isinstance(value, Cell):
            self._cell(value.value)
            self._library.scripted_cell_indicator(ctypes.c_longlong(value.indicator))
            return
        c_type, layout = CELLS.get(type(value), (1, None))
        if layout is not None:
            value = struct.pack(layout, *(value if isinstance(value, tuple) else (value,)))
        value = b"" if value is None else encoded(value)
        self._library.scripted_cell(c_type, value, len(value))


@pytest.fixture(scope="session", autouse=True)
def quick_collections():
    """The tests collect garbage thousands of times: what stands before the first one is left
    out."""
    gc.collect()
    gc.freeze()
    yield
    gc.unfreeze()


@pytest.fixture(scope="session")
def scripted_library():
    return Runtime(os.path.join(os.environ["VORDA_BUILD"], "scripted", "libvordart.x64.so.6"))


@pytest.fixture
def runtime(scripted_library):
    """The runtime at its start. Every test leaves it without a handle and without a misuse."""
    scripted_library.reset()
    yield scripted_library
    scripted_library.handler(None)
    if scripted_library.live_handles():
        gc.collect()
    misuses = [line for line in scripted_library.take_log() if line.startswith("ERROR:")]
    assert scripted_library.live_handles() == 0
    assert scripted_library.errors() == 0, misuses


@pytest.fixture
def connection(runtime):
    connection = zelqa.connect("Server=there")
    runtime.take_log()
    yield connection
    runtime.clear_answers()
    close(connection)


@pytest.fixture
def cursor(connection):
    return connection.cursor()


def close(*objects):
    """Closes what is not closed yet."""
    for opened in objects:
        try:
            opened.close()
        except zelqa.ProgrammingError:
            pass


@contextlib.contextmanager
def raises(exception, message):
    """pytest.raises for exactly this class and this whole message."""
    with pytest.raises(exception) as caught:
        yield caught
    assert caught.type is exception
    assert str(caught.value) == message


def bound(runtime):
    """The parameters as the runtime found them in memory at the executions; empties the log."""
    return [line.strip() for line in runtime.take_log() if line.startswith("  ")]


def sent(runtime):
    """The texts of the statements and, as texts, the values bound; empties the log."""
    log = runtime.take_log()
    texts = [line.split(", ", 1)[1].rsplit(", ", 1)[0][1:-1] for line in log
             if line.startswith(("SQLPrepareW", "SQLExecDirectW"))]
    return texts, [line.split("[")[1].split("]")[0] for line in log if line.startswith("  ")]
