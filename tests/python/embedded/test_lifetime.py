"""Connections that meet the end of a process, or a second one: exits with live objects, forks,
interpreters beside the main one. What is written is there whole, and nobody's file comes to
harm."""

import sqlite3
import subprocess
import sys
import textwrap

import pytest

PRELUDE = """
import gc, os, subprocess, sys
from vorda import dbapi, zelqa
path, driver = sys.argv[1], {"zelqa": zelqa, "dbapi": dbapi}[sys.argv[2]]
connect_string = "Database={%s};Timeout=0" % path

def connect(connect=driver.connect, string=connect_string,
            options={"autocommit": True} if driver is dbapi else {}):
    return connect(string, **options)

def write(connection):
    connection.execute("INSERT INTO t VALUES (0, 'intruder')")

def refused(operation, text="forked"):
    try:
        operation()
    except driver.DatabaseError as error:
        assert text in str(error), error
    else:
        raise AssertionError("not refused")
"""


def run(path, *pieces, driver="zelqa", status=0):
    """Runs a program made of pieces in a process of its own, which ends with `status`; what it
    printed."""
    program = PRELUDE + "\n".join(textwrap.dedent(piece) for piece in pieces)
    # CPython 3.12 warns of forks beside threads, such as those that wait to connect.
    done = subprocess.run([sys.executable, "-W", "ignore:This process:DeprecationWarning",
                           "-c", program, path, driver], stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, universal_newlines=True, timeout=60)
    assert done.returncode == status, (done.returncode, done.stderr)
    assert status or not done.stderr, done.stderr
    return done.stdout


both = pytest.mark.parametrize("driver", ["zelqa", "dbapi"])

# The little cache spills: the file holds half a transaction, and the journal the way back.
PARENT = """
connection = connect()
connection.execute("CREATE TABLE t (n INT, filler TEXT)")
connection.execute("PRAGMA journal_mode=%(journal)s")
connection.execute("PRAGMA cache_size=5")
connection.execute("ATTACH '" + path + "-attached' AS attached")
connection.execute("CREATE TABLE attached.t (n INT)")
connection.execute("BEGIN")
cursor = connection.cursor()
cursor.executemany("INSERT INTO t VALUES (?, ?)", [(n, "x" * 500) for n in range(1000)])
connection.execute("INSERT INTO attached.t VALUES (5)")
cursor.execute("SELECT n FROM t")
assert cursor.fetchone()[0] == 0

def child():
%(child)s

pid = os.fork()
if pid == 0:
    child()
    sys.exit()
status = os.waitpid(pid, 0)[1]
assert status == 0, status
probe = subprocess.run([sys.executable, "-c", "import sqlite3, sys\\n"
    "sqlite3.connect(sys.argv[1], 0).execute('BEGIN IMMEDIATE')", path], stderr=subprocess.PIPE)
assert b"database is locked" in probe.stderr
assert cursor.fetchone()[0] == 1
connection.execute("COMMIT")
"""

CHILDREN = {
    "exit": "pass",
    "exit at once": "os._exit(0)",
    "close": "connection.close(); refused(lambda: write(connection), 'closed')",
    "let go": "global connection, cursor; connection = cursor = None; gc.collect()",
    "use": """
        for operation in (cursor.fetchone, cursor.fetchall, lambda: write(connection),
                          lambda: connection.execute("ROLLBACK"),
                          lambda: cursor.execute("SELECT ?", (1,)),
                          lambda: cursor.executemany("INSERT INTO t VALUES (?, ?)", [(0, "")]),
                          lambda: cursor.callproc("p", (1,))):
            refused(operation)""",
    "close and connect": """
        connection.close()
        refused(lambda: write(connect()), "database is locked")""",
    "fork": """
        pid = os.fork()
        if pid: assert os.waitpid(pid, 0)[1] == 0
        refused(lambda: write(connection))""",
}


@both
@pytest.mark.parametrize("journal", ["delete", "wal"])
@pytest.mark.parametrize("ending", CHILDREN)
def test_fork_within_a_transaction(path, driver, journal, ending):
    child = textwrap.indent(textwrap.dedent(CHILDREN[ending]), "    ")
    run(path, PARENT % {"journal": journal, "child": child}, driver=driver)
    other = sqlite3.connect(path)
    assert other.execute("PRAGMA integrity_check").fetchall() == [("ok",)]
    assert other.execute("SELECT count(*), max(filler) FROM t").fetchall() == [(1000, "x" * 500)]
    assert sqlite3.connect(path + "-attached").execute("SELECT n FROM t").fetchall() == [(5,)]


def test_child_with_a_connection_of_its_own(path):
    """It holds locks of its own, and none that its parent held when it was forked."""
    for journal in ("delete", "wal"):
        run(path, """
        connection = zelqa.connect(connect_string)
        connection.execute("PRAGMA journal_mode=%(journal)s")
        connection.execute("CREATE TABLE t_%(journal)s AS"
                           " SELECT 1 AS n UNION SELECT 2 UNION SELECT 3")
        connection.execute("BEGIN")
        connection.execute("INSERT INTO t_%(journal)s VALUES (4)")
        child_reads, parent_writes = os.pipe()
        parent_reads, child_writes = os.pipe()
        pid = os.fork()
        if pid == 0:
            again = zelqa.connect(connect_string)
            cursor = again.execute("SELECT n FROM t_%(journal)s")
            assert cursor.fetchone()[0] == 1
            os.write(child_writes, b".")
            os.read(child_reads, 1)
            assert [row[0] for row in cursor] == [2, 3]
            os.write(child_writes, b".")
            os.read(child_reads, 1)
            again.execute("INSERT INTO t_%(journal)s VALUES (5)")
            sys.exit()
        os.read(parent_reads, 1)
        if "%(journal)s" == "delete":
            refused(lambda: connection.execute("COMMIT"), "database is locked")
        os.write(parent_writes, b".")
        os.read(parent_reads, 1)
        connection.execute("COMMIT")
        os.write(parent_writes, b".")
        assert os.waitpid(pid, 0)[1] == 0
        """ % {"journal": journal})
        rows = sqlite3.connect(path).execute("SELECT n FROM t_" + journal).fetchall()
        assert rows == [(1,), (2,), (3,), (4,), (5,)]


ENDINGS = {  # code, exit status, rows added
    "kept by the module": ("cursor.description", 0, 0),
    "a circle": ("circle = [connection, cursor, row]; circle.append(circle)", 0, 0),
    "an open transaction": ("connection.execute('BEGIN'); insert(2)", 0, 0),
    "an exit handler": ("atexit.register(lambda: (insert(2), connection.close()))", 0, 1),
    "a finaliser": ("""
        class Late:
            def __del__(self, connect=connect):
                insert(2)
                self.rows = connection.execute("SELECT * FROM t").fetchall()
                refused(lambda: connection.execute("SELECT"), "incomplete input")
                connect().execute("INSERT INTO t VALUES (3)")
        late = Late()""", 0, 2),
    "an exit in a call-back": ("""
        class Rows(list):
            def __len__(self):
                sys.exit(7)
            __iter__ = __len__
        cursor.executemany("INSERT INTO t VALUES (?)", Rows())""", 7, 0),
    "a thread that goes on": ("""
        def work():
            mine = connect()
            started.set()
            while True:
                mine.execute("SELECT * FROM t").fetchall()
        started = threading.Event()
        threading.Thread(target=work, daemon=True).start()
        started.wait()""", 0, 0),
    "a thread in an iterator": ("""
        def rows():
            while True:
                started.set() or time.sleep(0.0001)
            yield
        started = threading.Event()
        work = lambda: connect().cursor().executemany("INSERT INTO t VALUES (?)", rows())
        threading.Thread(target=work, daemon=True).start()
        started.wait()""", 0, 0),
    "a signal between rows": ("""
        signal.signal(signal.SIGALRM, lambda *arguments: sys.exit(7))
        signal.setitimer(signal.ITIMER_REAL, 0.05)
        while True:
            for row in connection.execute("SELECT * FROM t"):
                pass""", 7, 0),
}


@both
@pytest.mark.parametrize("ending", ENDINGS)
def test_exit_with_live_objects(path, driver, ending):
    code, status, added = ENDINGS[ending]
    run(path, """
    import atexit, signal, threading, time
    connection = connect()
    connection.execute("CREATE TABLE t AS SELECT 1 AS n UNION SELECT 10")
    cursor = connection.execute("SELECT * FROM t")
    row = cursor.fetchone()

    def insert(n, connection=connection):
        connection.execute("INSERT INTO t VALUES (?)", (n,))
    """, code, driver=driver, status=status)
    assert sqlite3.connect(path).execute("SELECT count(*) FROM t").fetchone() == (2 + added,)


def test_interpreters_beside_the_main_one(path):
    """They share the module or are refused it; the main one is as before."""
    output = run(path, """
    connection = zelqa.connect(connect_string)
    connection.execute("CREATE TABLE t (n REAL, x DATE)")
    connection.execute("INSERT INTO t VALUES (1.5, '2024-01-02')")
    code = '''if True:
        import sys
        sys.path[:] = %r
        try:
            from vorda import zelqa
        except ImportError as error:
            assert "does not support loading in subinterpreters" in str(error), error
        else:
            circle = [zelqa.connect(%r)]
            circle += circle, circle[0].execute("SELECT * FROM t").fetchall()
            try:
                circle[0].execute("SELECT")
            except zelqa.DatabaseError as error:
                circle.append(error)
    ''' % (sys.path, connect_string)
    try:
        import _interpreters as interpreters
    except ImportError:
        import _xxsubinterpreters as interpreters
    for times in range(3):
        other = interpreters.create()
        failure = interpreters.run_string(other, code)
        assert failure is None, failure
        interpreters.destroy(other)
        print(connection.execute("SELECT * FROM t").fetchall())
        refused(lambda: connection.execute("SELECT"), "incomplete input")
    """)
    assert output == "[(1.5, datetime.date(2024, 1, 2))]\n" * 3
