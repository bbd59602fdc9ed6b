import pytest

from vorda import dbapi


@pytest.fixture
def connection(tmp_path):
    made = dbapi.connect(str(tmp_path / "data.db"))
    yield made
    made.close()
