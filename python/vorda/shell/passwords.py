"""Passwords that come from the terminal or a file, and so stand in no list of processes."""

import getpass
import os
import re
import stat
from typing import Callable

from ..masking import pairs
from .failure import Failure

_KEY = re.compile(r"pwd|password", re.IGNORECASE)


def with_password(connection_string: str, path: str, note: Callable[[str], None]) -> str:
    """The connection string with its password, from the file if there is one; "PWD=?" is asked
    for."""
    places = [(value, start) for key, value, start in pairs(connection_string)
              if _KEY.fullmatch(key)]
    asks = [(value, start) for value, start in places if value.strip() == "?"]
    if not path and not asks:
        return connection_string
    if path and len(asks) != len(places):
        raise Failure("there is a password in the connection string and one in a file")
    if path and "=" not in connection_string:
        raise Failure("the path of a file takes no password")
    password = "{%s}" % (from_file(path, note) if path else asked()).replace("}", "}}")
    if not asks:
        return "%s;PWD=%s" % (connection_string.rstrip("; "), password)
    for value, start in reversed(asks):
        connection_string = (connection_string[:start] + password
                             + connection_string[start + len(value):])
    return connection_string


def asked() -> str:
    try:
        open("/dev/tty").close()
    except OSError:
        raise Failure("there is no terminal to ask for the password at; --password-file reads it"
                      " from a file") from None
    return getpass.getpass("Password: ")


def from_file(path: str, note: Callable[[str], None]) -> str:
    try:
        with open(os.path.expanduser(path), encoding="utf-8-sig") as file:
            mode = os.fstat(file.fileno()).st_mode
            password = file.readline().rstrip("\r\n")
    except (OSError, UnicodeError) as error:
        words = error.strerror if isinstance(error, OSError) else "not valid UTF-8"
        raise Failure("%s: %s" % (path, words)) from None
    if stat.S_ISREG(mode) and mode & 0o077:
        note("warning: others can read %s; chmod 600 keeps it yours" % path)
    if not password:
        raise Failure("%s: the first line is empty" % path)
    return password
