"""Clusters of the tests' own: three MariaDB nodes that all take changes (Galera), and a PostgreSQL
primary with a standby that has every commit before it is acknowledged.

    with clusters.Galera() as cluster:
        dbapi.connect(cluster.strings[0])
"""

import ctypes.util
import glob
import os
import shutil
import tempfile

import servers


class Cluster:
    """Servers in `nodes`, with their `ports` and connection `strings`, and `together`, a string for
    all of them. A node that was killed comes back with its `restart()`, where nothing else is
    said."""

    count, driver_file, key = 0, "", ""
    causal = ""  # added to a string: reads see all that was acknowledged anywhere
    timestamp, serial = "TIMESTAMP", "SERIAL"

    @property
    def writable(self):
        """Strings that connect to a server that takes changes, each to another one first."""
        return self.strings

    def __init__(self):
        self.folder = tempfile.mkdtemp(prefix="vorda-cluster-")
        os.chmod(self.folder, 0o755)
        self.ports, self.nodes = servers.free_ports(self.count), []
        self.strings = [self.string_for("127.0.0.1", port) for port in self.ports]
        try:
            self.build()
        except BaseException:
            self.stop()
            raise

    @classmethod
    def missing(cls):
        """What this cluster needs and does not find, or None."""
        if not ctypes.util.find_library("odbc") or not servers.driver(cls.driver_file):
            return "there is no ODBC driver " + cls.driver_file
        return None

    def string_for(self, host, port):
        return "Driver=%s;%s" % (servers.driver(self.driver_file),
                                 self.key.format(host=host, port=port))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()

    def stop(self):
        for node in reversed(self.nodes):
            node.stop()
        shutil.rmtree(self.folder, ignore_errors=True)


# A node that joins asks another one for what it does not have. Where the other's log of changes
# goes back far enough, only the position in it has to be told; else it sends all its files, and
# writes nothing meanwhile.
TRANSFER = """#!/bin/sh
while [ $# -gt 0 ]; do
    case $1 in
    --role) role=$2 ;;
    --address) address=$2 ;;
    --datadir) data=${2%/} ;;
    --gtid) position=$2 ;;
    --bypass) bypass=yes ;;
    esac
    shift
done
if [ "$role" = joiner ]; then
    rm -f "$data/transfer"; mkfifo "$data/transfer"
    echo "ready $data/transfer"; cat "$data/transfer"
else
    cat >/dev/null  # newer servers write a name and a password, and have to get rid of them
    if [ ! "$bypass" ]; then
        echo "flush tables"
        until [ -s "$data/tables_flushed" ]; do sleep 0.05; done
        read -r position _ <"$data/tables_flushed"; rm "$data/tables_flushed"
        rsync -a --exclude=/transfer --exclude=/grastate.dat --exclude=/gvwstate.dat \\
            --exclude=/galera.cache "$data/" "${address%/*}" >&2 || exit 1
    fi
    echo continue; echo "$position" >"$address"; echo "done $position"
fi
"""

# One that was killed looks up how far it came; the very first one begins the cluster.
WRAPPER = """PATH={tools}:$PATH; export PATH; state=data/grastate.dat
if grep -qs 'seqno: *-1' $state; then
    set -- "$@" --wsrep-start-position=$("$@" --wsrep-recover 2>&1 |
        sed -n 's/.*Recovered position: *//p')
elif [ -d data/mysql ] && ! grep -qs 'safe_to_bootstrap: 0' $state; then
    set -- "$@" --wsrep-cluster-address=gcomm://
fi
exec "$@" """

# A node that is silent is given up after two seconds, not five.
PROVIDER = ["base_host=127.0.0.1", "base_port={group}", "ist.recv_addr=127.0.0.1:{transfer}",
            "gmcast.listen_addr=tcp://127.0.0.1:{group}", "evs.keepalive_period=PT0.3S",
            "evs.inactive_check_period=PT0.3S", "evs.suspect_timeout=PT2S",
            "evs.inactive_timeout=PT4S", "evs.install_timeout=PT4S"]


class Galera(Cluster):
    count, driver_file = 3, "libmaodbc.so"
    key = "Server={host};Port={port};Database=vorda;User=root"
    causal = ";InitStmt={SET wsrep_sync_wait = 15}"
    timestamp, serial = "DATETIME(6)", "BIGINT AUTO_INCREMENT"

    @staticmethod
    def provider():
        return next(iter(glob.glob("/usr/lib*/galera*/libgalera_smm.so")), None)

    @classmethod
    def missing(cls):
        if not servers.program("mariadbd") or not cls.provider():
            return "there is no MariaDB with Galera (mariadb-server-core, galera-4)"
        if not servers.program("rsync"):
            return "there is no rsync"
        return super().missing()

    @property
    def together(self):
        hosts = ",".join("127.0.0.1:%d" % port for port in self.ports)
        return self.string_for(hosts, self.ports[0])

    def stop(self):
        for node in self.nodes:
            node.kill()  # nobody waits for it to take its leave of the others
        super().stop()

    def build(self):
        tool = os.path.join(self.folder, "wsrep_sst_position")
        with open(tool, "w") as file:
            file.write(TRANSFER)
        os.chmod(tool, 0o755)
        inner = servers.free_ports(2 * self.count)
        self.groups, self.transfers = inner[::2], inner[1::2]
        self.add()
        first = self.nodes[0]
        first.end()
        first.run(["cp", "-r", "data", "image"])
        first.start()
        for _ in self.ports[1:]:
            self.add(["sh", "-ec", "cp -r {first}/image data; cp {first}/init.sql .;"
                      " sed -i 's/^safe_to.*/safe_to_bootstrap: 0/' data/grastate.dat"],
                     first=first.folder)

    def add(self, create=None, **names):
        index = len(self.nodes)
        self.nodes.append(servers.mariadb(
            create, ["sh", "-ec", WRAPPER, "sh"],
            ["--wsrep-on=ON", "--binlog-format=ROW", "--innodb-autoinc-lock-mode=2",
             "--wsrep-provider=" + self.provider(), "--wsrep-sst-method=position",
             "--wsrep-cluster-address=gcomm://"
             + ",".join("127.0.0.1:%d" % port for port in self.groups),
             "--wsrep-node-address=127.0.0.1", "--wsrep-provider-options=" + ";".join(PROVIDER)],
            ["Synchronized with group", "mariadbd: ready for connections"], tools=self.folder,
            port=self.ports[index], group=self.groups[index], transfer=self.transfers[index],
            **names))


class Standby(Cluster):
    """Either server is the primary first or later; without the other one no commit ends."""

    count, driver_file = 2, "psqlodbcw.so"
    key = "Servername={host};Port={port};Database=postgres;UID=vorda"

    @classmethod
    def missing(cls):
        if not servers.program("pg_basebackup"):
            return "there is no PostgreSQL"
        return super().missing()

    @property
    def together(self):
        # Of a list in Port the driver keeps nine characters.
        return (self.string_for("127.0.0.1,127.0.0.1", "")
                + ";pqopt={port=%d,%d target_session_attrs=read-write}" % tuple(self.ports))

    @property
    def writable(self):
        return [self.together]

    def copy_of(self, port):
        return ["sh", "-ec", "rm -rf data; exec %s -D data -R -h 127.0.0.1 -p %d -U vorda"
                " --checkpoint=fast --no-sync" % (servers.program("pg_basebackup"), port)]

    def build(self):
        for create, port in [(None, self.ports[0]), (self.copy_of(self.ports[0]), self.ports[1])]:
            self.nodes.append(servers.postgresql(
                create, ["-c", "synchronous_standby_names=*", "-c", "deadlock_timeout=100ms"],
                port=port))

    def promote(self, index):
        """Makes the standby the primary, of which the other one, if killed, becomes the standby."""
        self.nodes[index].run([servers.program("pg_ctl"), "promote", "-D", "data"])
        self.nodes[1 - index].restart(self.copy_of(self.ports[index]))
