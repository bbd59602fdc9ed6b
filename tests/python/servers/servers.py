"""Database servers of the tests' own, and the driver manager's configuration that knows them.

Each server keeps its data in a temporary folder, listens on a free local port, and ends with the
process that started it, however that ends. Nothing of the machine's own servers and ODBC
configuration is used or touched.
"""

import ctypes
import glob
import os
import pwd
import random
import shutil
import signal
import socket
import subprocess
import tempfile
import time

PR_SET_PDEATHSIG = 1


def program(name):
    """The path of a server's program, or None. Debian keeps PostgreSQL's apart from PATH, by
    version."""
    found = sorted(glob.glob("/usr/lib/postgresql/*/bin/" + name))
    path = os.pathsep.join([os.environ.get("PATH", os.defpath), "/usr/sbin"])
    return found[-1] if found else shutil.which(name, path=path)


def driver(name):
    """The path of an ODBC driver, or None."""
    found = glob.glob("/usr/lib/*/odbc/" + name) + glob.glob("/usr/lib*/odbc/" + name)
    return found[0] if found else None


def free_port():
    """One that nobody listens on, below those that connections are given: such a one may be taken
    before its server starts, or while it is down."""
    while True:
        port = random.randrange(15000, 32000)
        with socket.socket() as probe:
            try:
                probe.bind(("127.0.0.1", port))
                return port
            except OSError:
                pass


def free_ports(count):
    ports = set()
    while len(ports) < count:
        ports.add(free_port())
    return sorted(ports)


def status(process):
    """The state and the parent of a process, or None where it has ended."""
    try:
        with open("/proc/%d/stat" % process) as file:
            state, parent = file.read().rpartition(")")[2].split()[:2]
    except OSError:
        return None
    return (state, int(parent)) if state not in "ZX" else None


def children(parent):
    found = [(int(name), status(int(name))) for name in os.listdir("/proc") if name.isdigit()]
    return [process for process, known in found if known and known[1] == parent]


class Server:
    """A server; `start` returns when its log has all words of `ready`. The signals are those for an
    orderly and a sudden end; in commands `{folder}`, `{port}` and `names` are replaced."""

    def __init__(self, create, run, ready, end=signal.SIGTERM, orphaned=signal.SIGKILL, **names):
        self.folder = tempfile.mkdtemp(prefix="vorda-server-")
        self.port = names.get("port") or free_port()
        self.process, self._killer, self._dying = None, None, []
        self._ready, self._end, self._orphaned = ready, end, orphaned
        # Servers refuse to run as root, or should.
        self._user = pwd.getpwnam("nobody") if os.geteuid() == 0 else None
        if self._user:
            os.chown(self.folder, self._user.pw_uid, self._user.pw_gid)
        self._names = {"folder": self.folder, "port": self.port, **names}
        self._command = run
        self._log = open(os.path.join(self.folder, "log"), "a+b")
        try:
            self.run(create)
            self.start()
        except BaseException:
            self._log.seek(0)
            print(self._log.read().decode(errors="replace"))
            self.stop()
            raise

    def _options(self):
        libc = ctypes.CDLL(None)

        def become_a_child():
            if self._user:
                os.setgroups([])
                os.setgid(self._user.pw_gid)
                os.setuid(self._user.pw_uid)
            # last: another user's process has none
            libc.prctl(PR_SET_PDEATHSIG, int(self._orphaned))

        # In a session of its own: Ctrl-C is for the tests, which then stop the server.
        return {"preexec_fn": become_a_child, "cwd": self.folder, "stdin": subprocess.DEVNULL,
                "stdout": self._log, "stderr": self._log, "start_new_session": True,
                "env": {"PATH": os.environ.get("PATH", os.defpath), "LC_ALL": "C",
                        "HOME": self.folder}}

    def _named(self, command):
        return [word.format(**self._names) for word in command]

    def run(self, command):
        """Runs a program as the server's user, in its folder."""
        subprocess.run(self._named(command), **self._options(), check=True, timeout=120)

    def start(self):
        size = os.path.getsize(self._log.name)
        self.process = subprocess.Popen(self._named(self._command), **self._options())
        limit = time.monotonic() + 60
        while True:
            self._log.seek(size)
            written = self._log.read()
            if all(word.encode() in written for word in self._ready):
                return
            if self.process.poll() is not None or time.monotonic() > limit:
                raise RuntimeError("the server does not start: " + self._command[0])
            time.sleep(0.02)

    def kill(self, after=0):
        """Ends the server as a loss of power would: nobody is told anything. A number of seconds
        later, it may be in the middle of a call that keeps this process busy."""
        self._dying = [self.process.pid, *children(self.process.pid)]
        command = "sleep %g; kill -KILL %s" % (after, " ".join(map(str, self._dying)))
        self._killer = subprocess.Popen(["sh", "-c", command], stderr=subprocess.DEVNULL)
        if not after:
            self._killer.wait()

    def restart(self, prepare=None):
        """Starts the server again if it was killed, or will be; in between runs a command."""
        if self._dying:
            self._killer.wait()
            self.process.wait()
            while any(map(status, self._dying)):  # who is left would keep the server from starting
                time.sleep(0.01)
            self._dying = []
            if prepare:
                self.run(prepare)
            self.start()

    def end(self):
        """Ends the server in order; it can be started again."""
        if self.process and self.process.poll() is None:
            self.process.send_signal(self._end)
            try:
                self.process.wait(20)
            except subprocess.TimeoutExpired:
                self.kill()
                self.process.wait()

    def stop(self):
        self.end()
        self._log.close()
        shutil.rmtree(self.folder, ignore_errors=True)


def postgresql(create=None, options=(), **names):
    return Server(
        create=create or [program("initdb"), "--pgdata={folder}/data", "--username=vorda",
                          "--auth=trust", "--encoding=UTF8", "--locale=C", "--no-sync"],
        run=[program("postgres"), "-D", "{folder}/data", "-p", "{port}", "-k", "{folder}", "-h",
             "127.0.0.1", "-c", "fsync=off", "-c", "full_page_writes=off", "-c",
             "lock_timeout=10s", *options],
        ready=["database system is ready to accept"],
        end=signal.SIGINT,  # which does not wait for connections to close
        orphaned=signal.SIGQUIT, **names)  # which leaves no shared memory behind


def mariadb(create=None, wrapper=(), options=(), ready=("ready for connections",), **names):
    # Who starts deletes what others have in a shared folder for temporary tables.
    return Server(
        create=create or ["sh", "-ec", program("mariadb-install-db")
                          + " --no-defaults --datadir={folder}/data --tmpdir={folder}"
                          " --skip-test-db --skip-name-resolve"
                          " --auth-root-authentication-method=normal;"
                          "echo 'CREATE DATABASE IF NOT EXISTS vorda;' >init.sql"],
        run=[*wrapper, program("mariadbd"), "--no-defaults", "--datadir={folder}/data",
             "--tmpdir={folder}", "--port={port}", "--bind-address=127.0.0.1",
             "--socket={folder}/socket", "--pid-file={folder}/pid", "--skip-name-resolve",
             "--init-file={folder}/init.sql", "--character-set-server=utf8mb4",
             "--max-allowed-packet=64M", "--innodb-flush-log-at-trx-commit=2",
             "--lock-wait-timeout=10", "--innodb-lock-wait-timeout=10", *options],
        ready=ready, **names)


def configure(folder, sources):
    """Writes odbcinst.ini, odbc.ini and a file for each of `sources`, {name: {key: value}}, whose
    Driver is a library; names each driver as its source. Points this process and its children to
    them."""

    def write(name, sections):
        with open(os.path.join(folder, name), "w") as file:
            for section, values in sections.items():
                file.write("[%s]\n%s\n"
                           % (section, "".join("%s = %s\n" % item for item in values.items())))

    write("odbcinst.ini", {name: {"Driver": source["Driver"]} for name, source in sources.items()})
    named = {name: {**source, "Driver": name} for name, source in sources.items()}
    write("odbc.ini", named)
    for name, source in named.items():
        write(name + ".dsn", {"ODBC": source})
    os.environ.update(ODBCSYSINI=folder, ODBCINI=os.path.join(folder, "odbc.ini"))
    return named
