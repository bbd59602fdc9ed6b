"""The ODBC driver manager for the doctor: its version, drivers, and data sources."""

import ctypes
import os
import subprocess
import sys
from typing import Iterator, List, Tuple

LIBRARY = "libodbc.so.2"
INSTALL = "(in Debian: libodbc2, and odbc-postgresql, odbc-mariadb or another driver)"
TEXT_SIZE = 4096
MOST = 1000  # entries of a list

SQL_HANDLE_ENV, SQL_HANDLE_DBC = 1, 2
SQL_FETCH_NEXT, SQL_FETCH_FIRST = 1, 2
SQL_ATTR_ODBC_VERSION, SQL_OV_ODBC3 = 200, 3
SQL_DM_VER = 171

# A driver is loaded as the driver manager does it, but elsewhere: it may crash or hang.
LOAD = """
import ctypes, os, sys
libc = ctypes.CDLL(None)
libc.dlopen.restype, libc.dlerror.restype = ctypes.c_void_p, ctypes.c_char_p
if not libc.dlopen(os.fsencode(sys.argv[1]), os.RTLD_LAZY):
    sys.exit(os.fsdecode(libc.dlerror()))
"""


# The child is no less careful than this process about where it takes modules from.
ISOLATION = (("isolated", "-I"), ("safe_path", "-P"), ("ignore_environment", "-E"),
             ("no_user_site", "-s"))


class Manager:
    """The driver manager's own answers. OSError where it cannot be used."""

    def __init__(self, path: str) -> None:
        self.path, self.odbc, self.env = path, ctypes.CDLL(path), ctypes.c_void_p()
        if self.odbc.SQLAllocHandle(SQL_HANDLE_ENV, None, ctypes.byref(self.env)) not in (0, 1):
            raise OSError("it gives no environment handle")
        self.odbc.SQLSetEnvAttr(self.env, SQL_ATTR_ODBC_VERSION, ctypes.c_void_p(SQL_OV_ODBC3), 0)

    def version(self) -> str:
        connection, size = ctypes.c_void_p(), ctypes.c_short()
        text = ctypes.create_string_buffer(TEXT_SIZE)
        if self.odbc.SQLAllocHandle(SQL_HANDLE_DBC, self.env,
                                    ctypes.byref(connection)) not in (0, 1):
            return "not told"
        self.odbc.SQLGetInfo(connection, SQL_DM_VER, text, TEXT_SIZE, ctypes.byref(size))
        self.odbc.SQLFreeHandle(SQL_HANDLE_DBC, connection)
        return os.fsdecode(text.value) or "not told"

    def entries(self, function: str) -> Iterator[Tuple[str, bytes]]:
        """Name and attributes of each driver (SQLDrivers) or data source (SQLDataSources)."""
        name, text = ctypes.create_string_buffer(TEXT_SIZE), ctypes.create_string_buffer(TEXT_SIZE)
        sizes = ctypes.c_short(), ctypes.c_short()
        direction = SQL_FETCH_FIRST
        for _ in range(MOST):
            if getattr(self.odbc, function)(self.env, direction, name, TEXT_SIZE,
                                            ctypes.byref(sizes[0]),
                                            text, TEXT_SIZE, ctypes.byref(sizes[1])) not in (0, 1):
                return
            yield os.fsdecode(name.value), text.raw[:max(0, sizes[1].value)]
            direction = SQL_FETCH_NEXT

    def drivers(self) -> Iterator[Tuple[str, str]]:
        """Name and library. The other attributes are nobody's business: there may be passwords
        among them."""
        for name, attributes in self.entries("SQLDrivers"):
            pairs = (text.partition("=") for text in os.fsdecode(attributes).split("\0"))
            values = {key.strip().lower(): value.strip() for key, _, value in pairs}
            yield name, values.get("driver64") or values.get("driver", "")

    def load(self, library: str) -> Tuple[bool, str]:
        """Whether a driver's library can be loaded, and its path or the loader's words."""
        folder = os.path.join(os.path.dirname(os.path.realpath(self.path)), "odbc")
        beside = os.path.join(folder, library)
        path = library if os.path.isabs(library) or not os.path.exists(beside) else beside
        try:
            flags = [flag for name, flag in ISOLATION if getattr(sys.flags, name, False)]
            done = subprocess.run([sys.executable, *flags, "-c", LOAD, path],
                                  stdin=subprocess.DEVNULL, timeout=20,
                                  stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        except subprocess.TimeoutExpired:
            return False, path + ": loading it takes more than 20 s"
        if done.returncode < 0:
            return False, "%s: loading it ends the process by signal %d" % (path, -done.returncode)
        words = os.fsdecode(done.stderr).strip()
        return done.returncode == 0, path if done.returncode == 0 else words


def settings() -> List[str]:
    """The files that the driver manager reads."""
    folder = os.environ.get("ODBCSYSINI", "/etc")
    files = [os.path.join(folder, os.environ.get("ODBCINSTINI", "odbcinst.ini")),
             os.path.join(folder, "odbc.ini"),
             os.environ.get("ODBCINI", os.path.expanduser("~/.odbc.ini"))]
    return [path + ("" if os.access(path, os.R_OK) else " (missing)")
            for path in dict.fromkeys(files)]


def description(opened: bool, words: str) -> Iterator[Tuple[str, str]]:
    """Facts, name and value, about the library that was `opened`: `words` is its path, or why it
    was not."""
    if not opened:
        yield "not found", words
        yield "", ("Such connections fail. Install a driver manager and the driver of your server "
                   + INSTALL)
        return
    try:
        manager = Manager(words)
    except (OSError, AttributeError) as error:
        yield "unusable", "%s: %s" % (words, error)
        return
    yield "manager", "%s, version %s" % (words, manager.version())
    yield "settings", ", ".join(settings())
    known = dict(manager.drivers())
    for name, library in known.items():
        loads, told = manager.load(library) if library else (False, "no library is named")
        yield "driver", "%s: %s" % (name, told if loads else "cannot be loaded: " + told)
    if not known:
        yield "driver", "none. Install the driver of your server " + INSTALL
    for name, driver in manager.entries("SQLDataSources"):
        driver_name = os.fsdecode(driver)
        known_driver = driver_name in known or os.path.exists(driver_name)
        doubt = "" if known_driver else ", which is not known"
        yield "source", "%s, by the driver %s%s" % (name, driver_name, doubt)
