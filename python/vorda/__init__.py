"""Python access to the Zelqa data provider; see vorda.zelqa."""

import os as _os

from vorda._version import version as __version__

__all__ = ["__version__"]


def _provide_sqlite() -> None:
    """Loads the system's SQLite, or where there is none the one in the package, where it has one.

    Two copies of SQLite in one process undo each other's file locks. So ours has the system's
    name, and whoever asks for that later gets what is already there."""
    bundled = _os.path.join(_os.path.dirname(__file__), "libsqlite3.so.0")
    if _os.path.exists(bundled):
        from _ctypes import dlopen  # ctypes itself would forget the types of other interpreters

        try:
            dlopen("libsqlite3.so.0")
        except OSError:
            dlopen(bundled)


_provide_sqlite()
