"""Fixtures of the suite that runs on every engine: the engine, and connections to it."""

import pytest

import engines
from vorda import zelqa


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


@pytest.fixture
def connect(engine):
    """Connects; what is not closed by a test is closed after it."""
    opened = []

    def connect(extra=""):
        opened.append(zelqa.connect(engine.string + extra))
        return opened[-1]

    yield connect
    for connection in opened:
        try:
            connection.close()
        except zelqa.ProgrammingError:
            pass  # the test closed it


@pytest.fixture
def cursor(connect):
    cursor = connect().cursor()
    cursor.execute("DROP TABLE IF EXISTS t")
    return cursor
