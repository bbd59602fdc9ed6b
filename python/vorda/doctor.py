"""python -m vorda doctor: everything that decides whether a connection comes about, in order."""

import argparse
import ctypes
import glob
import importlib.machinery
import os
import platform
import signal
import struct
import sys
import textwrap
import time
import warnings
from typing import TYPE_CHECKING, List, Optional, Tuple

from . import sources
from .display import printable
from .masking import Mask

if TYPE_CHECKING:
    from . import dbapi

PLACES = ("by the loader's own search (LD_LIBRARY_PATH, ldconfig)", "in the fixed folder",
          "beside the module")
ENVIRONMENT = ("LD_LIBRARY_PATH", "LD_PRELOAD", "VORDA_UNLOAD_RUNTIME", "ODBCSYSINI", "ODBCINSTINI",
               "ODBCINI")
POSTGRESQL = """SELECT coalesce(host(inet_server_addr()) || ':' || inet_server_port(), 'here'),
    CASE WHEN pg_is_in_recovery() THEN 'it is a standby'
        WHEN current_setting('transaction_read_only') = 'on' THEN 'it is read-only' END"""
TEXT_SIZE = 4096
SQL_HANDLE_ENV = 1


class Report:
    """Prints at once, masked: what follows may end the process."""

    def __init__(self, mask: Mask) -> None:
        self.mask = mask

    def line(self, text: str, indent: int = 0) -> None:
        print(" " * indent + printable(self.mask(text), sys.stdout.encoding.lower(), "\n"),
              flush=True)

    def fact(self, name: str, value: str) -> None:
        self.line("%-12s %s" % (name, value))


class Module:
    """The extension module's functions for tools. It opens the libraries itself, by the very calls
    of a connect, so what the loader says here is what it says there."""

    def __init__(self, path: str) -> None:
        self.exports = ctypes.CDLL(path)
        self.exports.VordaRuntimeFunction.restype = ctypes.c_char_p

    def path(self, attempt: int, companion: int) -> Optional[str]:
        text = ctypes.create_string_buffer(TEXT_SIZE)
        found = self.exports.VordaRuntimePath(attempt, companion, text, TEXT_SIZE)
        return os.fsdecode(text.value) if found else None

    def open(self, path: str) -> Tuple[bool, str]:
        """Whether it could be opened, and the full path or the loader's words."""
        text = ctypes.create_string_buffer(TEXT_SIZE)
        opened = self.exports.VordaOpenRuntime(os.fsencode(path), text, TEXT_SIZE)
        return bool(opened), os.fsdecode(text.value)

    def version(self, path: str) -> int:
        return int(self.exports["_Z17GetRuntimeVersionPc"](os.fsencode(path)))

    def functions(self) -> List[str]:
        names: List[str] = []
        while True:
            name = self.exports.VordaRuntimeFunction(len(names))
            if name is None:
                return names
            names.append(name.decode())

    def allocates_environment(self) -> bool:
        handle = ctypes.c_void_p()
        done = self.exports.SQLAllocHandle(SQL_HANDLE_ENV, None, ctypes.byref(handle)) in (0, 1)
        if done:
            self.exports.SQLFreeHandle(SQL_HANDLE_ENV, handle)
        return done


def describe_interpreter(report: Report) -> None:
    report.fact("interpreter", "%s %s, %d bits, %s" % (
        platform.python_implementation(), platform.python_version(), struct.calcsize("P") * 8,
        sys.executable))
    report.fact("system", "%s, %s" % (platform.platform(), " ".join(platform.libc_ver())))
    for name in ENVIRONMENT:
        if name in os.environ:
            report.fact("environment", "%s=%s" % (name, os.environ[name]))


def load_module(report: Report) -> Optional[str]:
    """The path of the module, or None when it cannot be imported."""
    try:
        from . import zelqa
    except ImportError as error:
        report.fact("module", "cannot be imported: %s" % error)
        folder = os.path.dirname(os.path.abspath(__file__))
        files = [os.path.basename(path) for path in glob.glob(os.path.join(folder, "zelqa.*so"))]
        report.line("In %s there is %s; this interpreter looks for zelqa%s. Install the package for"
                    " this interpreter (python -m pip install)." % (
                        folder, ", ".join(files) or "no module",
                        importlib.machinery.EXTENSION_SUFFIXES[0]), 13)
        return None
    report.fact("module", str(zelqa.__file__))
    try:
        from . import _statement, dbapi  # noqa: F401
        report.fact("dbapi", str(_statement.__file__))
    except ImportError as error:
        report.fact("dbapi", "cannot be imported: %s" % error)
    try:
        from ._version import version
    except ImportError:
        version = "not known"
    report.fact("version", version)
    return zelqa.__file__


def search(report: Report, module: Module) -> Optional[str]:
    """Goes the way of the module's own search; the path of the library that is used in the end."""
    report.line("\nThe search for a runtime, a pair of libraries:")
    used: Optional[str] = None
    attempt, complete = 0, False
    while not complete and module.path(attempt, 0) is not None:
        report.line("%d. %s" % (attempt + 1, PLACES[attempt] if attempt < len(PLACES) else ""), 2)
        complete, used = True, None
        for companion in (0, 1):
            path = module.path(attempt, companion) or ""
            opened, words = module.open(path)
            report.line("%-7s %s" % ("found" if opened else "failed", words or path), 5)
            complete = complete and opened
            if opened and not companion:
                used = words
        attempt += 1
    if complete and module.path(attempt, 0) is not None:
        report.line("The pair is complete: the other places are not looked at.", 2)
    elif used is not None and not complete:
        report.line("The companion is missing everywhere; the runtime is used without it.", 2)
    return used


def describe_runtime(report: Report, module: Module, path: str) -> bool:
    report.line("")
    report.fact("runtime", path)
    version = module.version(path)
    report.fact("version", str(version) if version >= 0 else "not told (no RT_Version)")
    library = ctypes.CDLL(path)
    names = module.functions()
    missing = [name for name in names if not hasattr(library, name)]
    report.fact("functions", "%d of %d" % (len(names) - len(missing), len(names)))
    if missing:
        report.line("It lacks the following; calls of these fail, which matters only to a program"
                    " that needs them.", 13)
        report.line(textwrap.indent(textwrap.fill(" ".join(missing), 90), " " * 13))
    if module.allocates_environment():
        return True
    report.line("It refuses an environment handle (RT_SQLAllocHandle): it cannot be used. Is it"
                " complete, and of the version that this module needs?", 13)
    return False


def describe_sources(report: Report, module: Module) -> None:
    report.line("\nODBC, for connection strings with DSN, FILEDSN or Driver:")
    for name, value in sources.description(*module.open(sources.LIBRARY)):
        report.line("%-9s %s" % (name, value), 2)


def describe_server(report: Report, connection: "dbapi.Connection") -> None:
    """Which server has answered, of several hosts perhaps, and whether it takes changes."""
    refusal = None
    if connection._dbms == "PostgreSQL":
        row = connection.execute(POSTGRESQL).fetchone()
        assert row is not None
        server, refusal = row
    elif connection._dbms in ("MariaDB", "MySQL"):
        # A node that is cut off from the others answers to SHOW, and to little else.
        known = {name: value for show in ("SHOW GLOBAL VARIABLES", "SHOW GLOBAL STATUS")
                 for name, value in connection.execute(show)}
        server = "%s:%s" % (known["hostname"], known["port"])
        if known.get("wsrep_on") == "ON" and known.get("wsrep_ready") != "ON":
            refusal = "the node is not ready (%s, %s)" % (known.get("wsrep_cluster_status"),
                                                          known.get("wsrep_local_state_comment"))
        elif known.get("read_only") != "OFF":
            refusal = "it is read-only"
    else:
        return
    report.fact("server", "%s %s" % (connection._dbms, server))
    report.fact("changes", "refused: " + refusal if refusal else "taken")


def try_connection(report: Report, connection_string: str) -> bool:
    from . import dbapi, zelqa

    report.line("")
    report.fact("connection", report.mask.shown)
    # A path alone is for dbapi.
    drivers = [dbapi, zelqa] if "=" in connection_string else [dbapi]
    for driver in drivers:
        start = time.monotonic()
        try:
            with warnings.catch_warnings(record=True) as remarks:
                warnings.simplefilter("always")
                connection = driver.connect(connection_string)
        except driver.Error as error:
            report.fact("failed", "%s: %s" % (driver.__name__, error))
            return False
        for remark in remarks:
            report.fact("warning", str(remark.message))
        report.fact("connected", "%s, in %.3f s" % (driver.__name__, time.monotonic() - start))
        if driver is dbapi:
            try:
                describe_server(report, connection)
            except dbapi.Error as error:
                report.fact("server", "does not say which: %s" % error)
        connection.close()
    return True


def examine(report: Report, connection_string: Optional[str]) -> bool:
    describe_interpreter(report)
    path = load_module(report)
    if path is None:
        return False
    module = Module(path)
    runtime = search(report, module)
    if runtime is None:
        report.line("\nNo runtime can be loaded, so nothing can be connected to. Install the"
                    " provider's runtime at one of these places,\nor this package anew: its"
                    " embedded runtime belongs beside the module.")
        return False
    usable = describe_runtime(report, module, runtime)
    # Another provider's runtime has its own ways.
    if os.path.realpath(os.path.dirname(runtime)) == os.path.realpath(os.path.dirname(path)):
        describe_sources(report, module)
    if connection_string is None:
        report.line("\nAll is well so far; with a connection string the doctor tries that too."
                    if usable else "\nNothing can be connected to.")
        return usable
    return try_connection(report, connection_string) and usable


def main(arguments: List[str]) -> int:
    parser = argparse.ArgumentParser(prog="python -m vorda doctor",
                                     description="Shows why a connection comes about, or does not.")
    parser.add_argument("connection_string", metavar="CONNECTION_STRING", nargs="?",
                        help="is tried when given")
    connection_string = parser.parse_args(arguments).connection_string
    report = Report(Mask(connection_string or ""))
    # In a process of its own: a broken library may end it, and the last step is the answer.
    sys.stdout.flush()
    child = os.fork()
    if child == 0:
        status = 1
        try:
            status = 0 if examine(report, connection_string) else 1
        except KeyboardInterrupt:
            report.line("(stopped)")
        except Exception as error:
            report.line("error: %s: %s" % (type(error).__name__, error))
        finally:
            os._exit(status)
    try:
        status = os.waitpid(child, 0)[1]
    except KeyboardInterrupt:
        status = os.waitpid(child, 0)[1]
    if os.WIFSIGNALED(status):
        number = os.WTERMSIG(status)
        report.line("\nThe process was ended by %s in the step above: the library loaded there is"
                    " broken, or does not fit." % signal.Signals(number).name)
        return 1
    return os.WEXITSTATUS(status)
