"""SQLAlchemy, with Alembic and pandas, on the dialects of vorda.dbapi: what its own suite for
dialects does not ask."""

import datetime
import decimal
import pathlib
import shutil
import threading
import time

import pytest

sa = pytest.importorskip("sqlalchemy")
from sqlalchemy import orm  # noqa: E402
from sqlalchemy.dialects import mysql, postgresql  # noqa: E402

pytestmark = pytest.mark.parametrize("engine", ["sqlite", "postgresql", "mariadb"],
                                     indirect=True)
UTC = datetime.timezone.utc
AT = datetime.datetime(2024, 10, 27, 0, 30, 0, 5, tzinfo=UTC)  # in Berlin, as an hour later
HOURS = [AT, AT + datetime.timedelta(hours=1)]


@pytest.fixture
def db(engine):
    if engine.name == "sqlite":
        made = sa.create_engine("sqlite+vorda:///" + engine.path)
    else:
        made = sa.create_engine("%s+vorda:///?dsn=%s" % (engine.name, engine.name))
    with made.begin() as connection:
        connection.execute(sa.text("DROP TABLE IF EXISTS t"))
    yield made
    made.dispose()


def ranges():
    return [(postgresql.INT4RANGE(), postgresql.Range(1, 5)),
            (postgresql.TSTZRANGE(), postgresql.Range(*HOURS, bounds="[]")),
            (postgresql.NUMRANGE(), postgresql.Range(empty=True)),
            (postgresql.DATEMULTIRANGE(), [postgresql.Range(None, AT.date()),
                                           postgresql.Range(datetime.date(2025, 1, 1))])]


VALUES = {
    "sqlite": lambda: [],
    "postgresql": lambda: [
        (sa.DateTime(timezone=True), HOURS[0]), (sa.DateTime(timezone=True), HOURS[1]),
        (sa.Time(timezone=True), AT.timetz()),
        (sa.Interval(), datetime.timedelta(-40, 5, 6)),
        (postgresql.JSONB(), {"a": [None, "é?"]}), (sa.Enum("a", "b c", name="kind"), "b c"),
        (sa.ARRAY(sa.Text), ["", "NULL", None, "a,\"b\"\\{}", " "]),
        (sa.ARRAY(sa.Integer, dimensions=2), [[1, 2], [3, None]]), (sa.ARRAY(sa.Integer), []),
        (sa.ARRAY(sa.LargeBinary), [b"\0\xff", b""]), (sa.ARRAY(sa.Boolean), [True, False]),
        (sa.ARRAY(sa.Numeric), [decimal.Decimal("1.50")]), (sa.ARRAY(sa.Date), [AT.date()]),
        (sa.ARRAY(sa.DateTime(timezone=True)), HOURS),
        (sa.ARRAY(sa.Interval), [datetime.timedelta(1, 2)]),
        *(ranges() if hasattr(postgresql, "Range") else [])],
    "mariadb": lambda: [
        (mysql.BIGINT(unsigned=True), 2**64 - 1), (mysql.BIT(1), 1), (mysql.BIT(12), 4095),
        (mysql.TIME(fsp=6), AT.time()), (mysql.DATETIME(fsp=6), AT.replace(tzinfo=None)),
        (mysql.SET("a", "b"), {"a", "b"}), (mysql.DOUBLE(), decimal.Decimal("0.5"))],
}


def test_values_come_back(engine, db):
    pairs = [(sa.Numeric(12, 4), decimal.Decimal("12.5000")), (sa.Float(), 0.5),
             (sa.Date(), AT.date()), (sa.DateTime(), datetime.datetime(2024, 1, 2)),
             (sa.Boolean(), True), (sa.BigInteger(), 2**63 - 1), (sa.String(9), "é?"),
             (sa.LargeBinary(), b"\0\xff"), (sa.JSON(), [1, None]), *VALUES[engine.name]()]
    columns = [sa.Column("c%d" % i, kind) for i, (kind, _) in enumerate(pairs)]
    table = sa.Table("t", sa.MetaData(), sa.Column("id", sa.Integer, primary_key=True), *columns)
    row = {"c%d" % i: value for i, (_, value) in enumerate(pairs)}
    with db.begin() as connection:
        if engine.name == "postgresql":
            connection.execute(sa.text("SET LOCAL TIME ZONE 'Europe/Berlin'"))
        table.create(connection)
        connection.execute(table.insert(), [row, dict.fromkeys(row), row])
        rows = connection.execute(sa.select(*columns).order_by(table.c.id)).all()
        assert [tuple(found) for found in rows[::2]] == [tuple(row.values())] * 2
        assert set(rows[1]) == {None}
        finer = sa.select(table.c.id).where(table.c.c0 == decimal.Decimal("12.50001"))
        assert connection.scalar(finer) is None
        for column, value in zip(columns, row.values()):
            if not isinstance(column.type, (sa.JSON, mysql.SET)):
                found = connection.scalar(sa.select(sa.func.count()).where(column == value))
                assert found == 2, column.type
            if isinstance(column.type, sa.DateTime):
                query = sa.select(column.label("x")).distinct().order_by(column.desc())
                assert len(connection.execute(query).all()) == 2
        table.drop(connection)


def test_the_orm_sees_that_another_was_faster(engine, db):
    """With a default of the server's, the update comes with RETURNING where there is that."""
    class Row:
        pass

    table = sa.Table("t", sa.MetaData(), sa.Column("id", sa.Integer, primary_key=True),
                     sa.Column("version", sa.Integer, nullable=False), sa.Column("x", sa.Integer),
                     sa.Column("y", sa.Integer, server_onupdate=sa.FetchedValue()))
    registry = orm.registry(metadata=table.metadata)
    registry.map_imperatively(Row, table, version_id_col=table.c.version, eager_defaults=True)
    table.create(db)
    with orm.Session(db, expire_on_commit=False) as session:
        mine = Row(id=1, x=0)
        session.add(mine)
        session.commit()
        with db.begin() as other:
            other.execute(table.update().values(version=9))
        mine.x = 1
        with pytest.raises(orm.exc.StaleDataError):
            session.flush()
        session.rollback()
    table.drop(db)


KILL = {"postgresql": "SELECT pg_terminate_backend(pg_backend_pid())",
        "mariadb": "KILL CONNECTION_ID()"}
LONG = {"sqlite": "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 2e8)"
                  " SELECT count(*) FROM n",
        "postgresql": "SELECT pg_sleep(60)", "mariadb": "SELECT sleep(60)"}


def test_a_connection_that_is_gone_leaves_the_pool(engine, db):
    if engine.name == "sqlite":
        pytest.skip("a file is not gone")
    with db.connect() as connection:
        with pytest.raises(sa.exc.DBAPIError) as caught:
            connection.execute(sa.text(KILL[engine.name]))
            connection.execute(sa.text("SELECT 1"))
        assert caught.value.connection_invalidated
    with db.connect() as connection:
        assert connection.scalar(sa.text("SELECT 1")) == 1


def test_what_comes_back_to_the_pool_is_cancelled(engine, db):
    raw, errors = db.raw_connection(), []

    def run():
        try:
            raw.cursor().execute(LONG[engine.name])
        except Exception as error:
            errors.append(error)

    thread = threading.Thread(target=run)
    thread.start()
    time.sleep(0.5)
    begin = time.monotonic()
    raw.close()
    thread.join()
    assert time.monotonic() - begin < 10 and errors[0].sqlstate in ("HY008", "57014", "HY018")
    with db.connect() as connection:
        assert connection.scalar(sa.text("SELECT 1")) == 1


ENV = """
from alembic import context
given = context.config.attributes
context.configure(connection=given["connection"], target_metadata=given["metadata"],
                  include_name=lambda name, kind, parents: kind != "table" or name == "t")
with context.begin_transaction():
    context.run_migrations()
"""


def test_alembic_finds_what_changed_and_goes_there(db, tmp_path):
    alembic = pytest.importorskip("alembic")
    from alembic import command, config

    (tmp_path / "versions").mkdir()
    (tmp_path / "env.py").write_text(ENV)
    template = pathlib.Path(alembic.__file__).parent / "templates" / "generic" / "script.py.mako"
    shutil.copy(str(template), str(tmp_path))
    history = config.Config()
    history.set_main_option("script_location", str(tmp_path))

    def columns(number):
        every = [sa.Column("id", sa.Integer, primary_key=True), sa.Column("a", sa.String(9)),
                 sa.Column("at", sa.DateTime(), index=True), sa.Column("n", sa.Numeric(8, 2))]
        return every[:number]

    def run(number, call, *args, **keywords):
        metadata = sa.MetaData()
        sa.Table("t", metadata, *columns(number))
        with db.begin() as connection:
            history.attributes.update(connection=connection, metadata=metadata)
            return call(history, *args, **keywords)

    for number in (2, 4, 4):
        revision = run(number, command.revision, autogenerate=True)
        run(number, command.upgrade, "head")
        assert [column["name"] for column in sa.inspect(db).get_columns("t")] == [
            column.name for column in columns(number)]
    assert "op." not in pathlib.Path(revision.path).read_text()
    run(2, command.downgrade, "base")
    assert not sa.inspect(db).has_table("t")
    with db.begin() as connection:
        connection.execute(sa.text("DROP TABLE alembic_version"))


def test_pandas_writes_and_reads(db):
    pandas = pytest.importorskip("pandas")
    frame = pandas.DataFrame({"id": [1, 2], "name": ["é", None], "price": [0.5, float("nan")],
                              "at": pandas.to_datetime(["2024-02-29 01:02:03", None]),
                              "ok": [True, False]})
    assert frame.to_sql("t", db, index=False) in (None, 2)
    read = pandas.read_sql("t", db)
    assert read.astype(object).where(read.notna(), None).values.tolist() == [
        [1, "é", 0.5, pandas.Timestamp("2024-02-29 01:02:03"), True], [2, None, None, None, False]]
    name, id_ = sa.column("name"), sa.column("id")
    query = sa.select(name).select_from(sa.table("t")).where(id_ == 1)
    assert pandas.read_sql(query, db).values.tolist() == [["é"]]
