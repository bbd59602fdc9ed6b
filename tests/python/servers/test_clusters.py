"""Clusters of real servers: conflicts between connections and nodes, and the soak's ledger while
nodes and writers are killed and come back."""

import contextlib
import itertools
import json
import os
import random
import signal
import subprocess
import sys
import threading
import time

import pytest

import cluster_writer
import clusters
import engines
import servers
from ledger import TABLE, Ledger, differences, rows_of
from test_docs_servers import docs
from vorda import dbapi


@pytest.fixture(scope="module", params=[clusters.Galera, clusters.Standby])
def cluster(request):
    if request.param.missing():
        pytest.skip(request.param.missing())
    with request.param() as running:
        yield running


# --- conflicts ------------------------------------------------------------------------------------


@pytest.mark.parametrize("many", [False, True])
@pytest.mark.parametrize("begin", [False, True])
@pytest.mark.parametrize("engine", engines.SERVERS, indirect=True)
def test_deadlock(engine, begin, many):
    setup = dbapi.connect(engine.string, autocommit=True)
    setup.execute("DROP TABLE IF EXISTS t")
    setup.execute("CREATE TABLE t (a INTEGER PRIMARY KEY, b INTEGER)")
    setup.executemany("INSERT INTO t VALUES (?, 0)", [(row,) for row in range(1, 7)])
    both = {row: dbapi.connect(engine.string, autocommit=begin) for row in (1, 2)}
    update, states, meeting = "UPDATE t SET b = b + ? WHERE a = ?", [], threading.Barrier(2)

    def change(own):
        connection = both[own]
        if begin:
            connection.execute("BEGIN")
        connection.execute(update, (1, own))
        if not states:
            meeting.wait(10)
        try:
            if many:
                connection.executemany(update, [(1, own + 2), (1, 3 - own), (1, own + 4)])
            else:
                connection.execute(update, (1, 3 - own))
        except dbapi.OperationalError as error:
            states.append(error.sqlstate)
            if engine.name == "mariadb":
                # Nothing is left of the transaction, so that its other half is not to be stored.
                with pytest.raises(dbapi.InternalError, match="rolled back"):
                    connection.execute("UPDATE t SET b = 100 WHERE a = 3")
            connection.rollback()
            return change(own)
        connection.commit()

    other = threading.Thread(target=change, args=(1,))
    other.start()
    change(2)
    other.join()
    assert set(states) == {{"mariadb": "40001", "postgresql": "40P01"}[engine.name]}
    rows = setup.execute("SELECT a, b FROM t ORDER BY a").fetchall()
    assert rows == [(1, 2), (2, 2), *((row, int(many)) for row in range(3, 7))]


@pytest.fixture
def make(cluster):
    """Makes tables, with autocommit on, which are known to all nodes then and gone afterwards."""
    made = []

    def make(*statements):
        with contextlib.closing(dbapi.connect(cluster.together, autocommit=True)) as connection:
            for statement in statements:
                connection.execute(statement.replace("TIMESTAMP", cluster.timestamp))
                made.extend(statement.split()[2:3] if statement.startswith("CREATE") else [])
        for string in cluster.strings:
            dbapi.connect(string + cluster.causal).execute("SELECT count(*) FROM " + made[-1])

    yield make
    with contextlib.closing(dbapi.connect(cluster.together, autocommit=True)) as connection:
        for table in made:
            connection.execute("DROP TABLE " + table)


@pytest.mark.parametrize("many", [False, True])
def test_conflict(cluster, make, driver, many):
    """A row that another connection has changed since, at another node where all take changes."""
    is_galera = isinstance(cluster, clusters.Galera)
    make("CREATE TABLE contested (a INTEGER PRIMARY KEY, b INTEGER)",
         "INSERT INTO contested VALUES (1, 0)", "INSERT INTO contested VALUES (2, 0)")
    # What is done again waits for the other node's change.
    first, second = [driver.connect(string + cluster.causal).cursor()
                     for string in (cluster.strings[:2] if is_galera else [cluster.together] * 2)]

    def begin(cursor):
        cursor.execute("BEGIN" if is_galera else "BEGIN ISOLATION LEVEL REPEATABLE READ")
        cursor.execute("SELECT b FROM contested WHERE a = 2").fetchall()

    def change(cursor):
        update = "UPDATE contested SET b = b + ? WHERE a = ?"
        if many:
            cursor.executemany(update, [(1, 1), (1, 2)])
        else:
            cursor.execute(update, (1, 2))

    begin(first)
    begin(second)
    if is_galera:
        change(second)  # nodes know of each other's changes at the end only
    change(first)
    first.execute("COMMIT")
    failure = driver.OperationalError if driver is dbapi else driver.DatabaseError
    with pytest.raises(failure, match="40001"):
        if not is_galera:
            change(second)
        second.execute("COMMIT")
    second.execute("ROLLBACK")
    begin(second)
    change(second)
    second.execute("COMMIT")
    assert [tuple(row) for row in second.execute("SELECT a, b FROM contested ORDER BY a")] == [
        (1, 2 * many), (2, 2)]


# --- the ledger -----------------------------------------------------------------------------------


def kill_and_return(cluster, number, pause):
    """One round: a server is gone for some seconds. One comes back without its files."""
    cluster.nodes[number].kill()
    if isinstance(cluster, clusters.Galera):
        pause(3)
        cluster.nodes[number].restart(["sh", "-ec", "rm -r data; mkdir data"] * (number == 1))
    else:
        pause(1)
        cluster.promote(1 - number)


@pytest.fixture
def writers(cluster, tmp_path, make):
    """Processes that write until they are told to stop, each beginning at another server: `pause`
    lets time pass in which some of them are killed, and others take their places; `stop` gives the
    ledgers, and what the last ones met."""
    make(TABLE, "CREATE TABLE done (batch INTEGER, version INTEGER, PRIMARY KEY (batch, version))",
         "CREATE TABLE posting (id %s PRIMARY KEY, batch INTEGER, version INTEGER, n INTEGER)"
         % cluster.serial, "CREATE TABLE tally (id INTEGER PRIMARY KEY, steps INTEGER)",
         "INSERT INTO tally VALUES (1, 0)", "INSERT INTO tally VALUES (2, 0)")
    ledgers, in_a_step = [str(tmp_path / ("ledger-%d" % slot)) for slot in range(4)], []
    slots = itertools.cycle(MORTAL)

    def start(slot):
        # The next server has what the last one acknowledged.
        strings = [string + cluster.causal
                   for string in cluster.writable[slot // 2:] + cluster.writable[:slot // 2]]
        return subprocess.Popen(
            [sys.executable, cluster_writer.__file__, DRIVERS[slot], ledgers[slot], str(SEED),
             str(slot), *strings], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
            encoding="utf-8", preexec_fn=lambda: signal.pthread_sigmask(
                signal.SIG_BLOCK, [signal.SIGTERM]))

    processes = [start(slot) for slot in range(4)]

    def pause(seconds):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            time.sleep(random.uniform(0.4, 1))
            slot = next(slots)
            processes[slot].kill()
            assert processes[slot].wait() == -signal.SIGKILL, processes[slot].stderr.read()
            in_a_step.append(bool(Ledger(ledgers[slot]).doubt))
            processes[slot] = start(slot)

    def stop():
        for process in processes:
            process.terminate()
        met = []
        for process in processes:
            out, errors = process.communicate(timeout=100)
            assert process.returncode == 0, errors
            met.append(json.loads(out))
        assert any(in_a_step)
        return ledgers, met

    yield pause, stop
    for process in processes:
        process.kill()
        process.wait()


DRIVERS = ("zelqa", "dbapi", "zelqa", "dbapi")
MORTAL = (0, 1)
SEED = random.randrange(10**6)


def test_ledger(cluster, writers):
    pause, stop = writers
    # In the end the first server is the primary again.
    for number in range(2 if isinstance(cluster, clusters.Standby) else 3):
        pause(3)
        kill_and_return(cluster, number, pause)
    pause(2)
    paths, met = stop()
    ledgers = [Ledger(path) for path in paths]
    allowed = {}
    for ledger in ledgers:
        allowed.update(ledger.allowed(SEED))
    keys = []
    for path in paths:
        with open(path) as lines:
            noted = [line.split() for line in lines]
        keys += [(int(batch), int(version)) for word, batch, version, *_ in noted
                 if word == "is" and int(batch) % 2]
    assert len(keys) > 20
    for number, string in enumerate(cluster.writable):
        with contextlib.closing(dbapi.connect(string, autocommit=True)) as connection:
            connection.execute("INSERT INTO tally VALUES (?, ?)", (3 + number, number))
    for string in cluster.strings:
        connection = dbapi.connect(string + cluster.causal)

        def ask(sql):
            return connection.execute(sql).fetchall()

        rows = ask("SELECT * FROM entry ORDER BY batch, n")
        assert list(differences(allowed, rows)) == []
        assert ask("SELECT batch, version FROM done ORDER BY batch, version") == sorted(keys)
        assert ask("SELECT steps FROM tally ORDER BY id") == [
            (len(keys),), (len(keys),), *((number,) for number in range(len(cluster.writable)))]
        # Nothing keeps a row from coming twice, here.
        assert ask("SELECT batch, version, count(*), count(DISTINCT n) FROM posting"
                   " GROUP BY batch, version ORDER BY batch, version") == [
            (*key, *[len(rows_of(SEED, key[0], 1))] * 2) for key in sorted(keys)]
    # Every writer that lived has lost its server, and there were conflicts.
    states = [{state for state in each if not state.startswith("connect")} for each in met]
    assert all(states[slot] - set(cluster_writer.UNDONE) for slot in (2, 3))
    assert set(cluster_writer.UNDONE) & set.union(*states)


# --- what a reader and an administrator sees ------------------------------------------------------


def test_page(cluster, databases, tmp_path, monkeypatch, capfd):
    text = (docs.ROOT / "docs" / "clusters.md").read_text(encoding="utf-8")
    first, second, third = text.partition("## Galera")[0], *text[
        text.index("## Galera"):].split("## PostgreSQL")
    is_galera = isinstance(cluster, clusters.Galera)
    named = (zip(("node1", "node2", "node3"), cluster.strings) if is_galera
             else [("pair", cluster.together), ("standby", cluster.strings[1])])
    with open(os.environ["ODBCINI"], "a") as ini:
        for name, string in named:
            ini.write("\n[%s]\n%s\n" % (name, string.replace("{", "").replace("}", "").replace(
                "UID", "Username").replace(";", "\n")))
    docs.run_blocks(first + (second if is_galera else third), tmp_path, monkeypatch, capfd)


def test_doctor(cluster):
    """Behind this, the first servers are gone."""

    def changes(string):
        shown = subprocess.run([sys.executable, "-m", "vorda", "doctor", string],
                               stdout=subprocess.PIPE, encoding="utf-8").stdout
        assert ":%d\n" % cluster.ports[-1] in shown
        return shown.partition("\nchanges ")[2].partition("\n")[0].strip()

    cluster.nodes[0].kill()
    if isinstance(cluster, clusters.Galera):
        assert changes(cluster.strings[2]) == "taken"
        cluster.nodes[1].kill()
        limit = time.monotonic() + 60
        while "not ready (non-Primary" not in changes(cluster.together):
            assert time.monotonic() < limit
    else:
        assert changes(cluster.strings[1]) == "refused: it is a standby"
        cluster.nodes[1].run([servers.program("pg_ctl"), "promote", "-D", "data"])
        assert changes(cluster.together) == "taken"
