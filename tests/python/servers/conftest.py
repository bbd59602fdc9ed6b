"""Fixtures of the suite that runs on every engine: the engine, and connections to it."""

import pytest

import engines
from vorda import dbapi, zelqa


def pytest_configure(config):
    """No warning unless a test asks for it."""
    config.addinivalue_line("filterwarnings", "error::RuntimeWarning")


@pytest.fixture(scope="session")
def databases():
    with engines.running() as found:
        yield found


@pytest.fixture(scope="session", params=engines.ENGINES)
def engine(request, databases):
    if request.param not in databases:
        pytest.skip(engines.ENGINES[request.param].missing())
    return databases[request.param]


@pytest.fixture(params=[zelqa, dbapi], ids=["zelqa", "dbapi"])
def driver(request):
    """The interface."""
    return request.param


@pytest.fixture
def connect(engine, driver):
    """Connects, each statement being a transaction of its own; what is not closed by a test is
    closed after it."""
    opened = []
    options = {"autocommit": True} if driver is dbapi else {}

    def connect(extra=""):
        opened.append(driver.connect(engine.string + extra, **options))
        return opened[-1]

    yield connect
    for connection in opened:
        try:
            connection.close()
        except zelqa.ProgrammingError:
            pass  # the test closed it


FAMILY = """CREATE TABLE parent (b VARCHAR(20) NOT NULL, a INTEGER NOT NULL, PRIMARY KEY (b, a));
CREATE TABLE child_ (id INTEGER NOT NULL PRIMARY KEY, a INTEGER, b VARCHAR(20) DEFAULT 'x',
    FOREIGN KEY (b, a) REFERENCES parent (b, a) ON DELETE CASCADE);
CREATE UNIQUE INDEX both_ ON child_ (b, id);
CREATE VIEW seen AS SELECT a FROM parent"""


@pytest.fixture
def family(engine):
    """Tables with keys, an index and a view, and a connection to them; gone after the test."""
    connection = dbapi.connect(engine.string, autocommit=True)
    for statement in FAMILY.split(";"):
        connection.execute(statement)
    yield connection
    for statement in ("DROP VIEW seen", "DROP TABLE child_", "DROP TABLE parent"):
        connection.execute(statement)
    connection.close()


@pytest.fixture
def cursor(connect):
    cursor = connect().cursor()
    cursor.execute("DROP TABLE IF EXISTS t")
    return cursor
