#!/usr/bin/env python3
"""Whether every file includes only what its room may include: no room above it, none that it has
to reach through another, no circle between rooms or headers. Prints what is wrong and fails, or
says nothing."""

import fnmatch
import os
import re
import sys

# A room's files, by the first pattern that fits, and the rooms that they may include, which are
# above it in the list.
ROOMS = [
    # The module, from the bottom; docs/architecture.md draws it.
    ("util", "src/util/* src/include/unicode.h", ""),
    ("odbc", "src/runtime/* src/mono/odbc* src/mono/runtimesearch* src/include/sqltypes.h", "util"),
    ("sql", "src/dbutil.* src/sqltokenizer.cpp src/include/sqltokenizer.h", "util"),
    ("values", "src/include/dbsource.h src/include/cell.h src/mono/cell.cpp "
               "src/mono/columninfo.cpp", "util"),
    ("source", "src/mono/*", "values odbc util"),
    ("dbs", "src/dbs.cpp src/dbsapi.cpp src/dbhandler.h src/statementmemory.* src/include/dbs.h "
            "src/include/dbsapi.h", "source values sql util"),
    ("cpython", "src/include/pyref.h src/include/pydatetime.h", ""),
    ("dbapi", "src/dbapi/*", "cpython odbc util"),
    ("python", "src/*", "cpython dbs values sql util"),
    # The embedded runtime.
    ("cells", "embedded/values/* embedded/extensions.h", ""),
    ("core", "embedded/core/* embedded/engine.h", "cells"),
    ("reader", "embedded/sql/*", "core cells"),
    ("sqlite", "embedded/sqlite/*", "reader core cells"),
    ("manager", "embedded/odbc/*", "reader core cells"),
    ("engines", "embedded/engines.cpp", "sqlite manager reader core cells"),
    ("entry", "embedded/entry/* embedded/compat.cpp", "core cells"),
]
# What a room must not see through the headers of others either.
HIDDEN = {"python": ["odbc", "source"]}

INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.MULTILINE)


def room_of(path):
    for name, patterns, _ in ROOMS:
        if any(fnmatch.fnmatch(path, pattern) for pattern in patterns.split()):
            return name
    return None


def includes(root):
    """Each source under src and embedded, with the files of theirs that it includes."""
    found = {}
    for top in ("src", "embedded"):
        for folder, _, names in os.walk(os.path.join(root, top)):
            for name in names:
                if not name.endswith((".h", ".cpp", ".def")):
                    continue
                path = os.path.relpath(os.path.join(folder, name), root)
                with open(os.path.join(root, path), encoding="utf-8") as file:
                    wanted = INCLUDE.findall(file.read())
                bases = (top, os.path.dirname(path))
                tried = [os.path.normpath(os.path.join(base, w)) for w in wanted for base in bases]
                there = [path for path in tried if os.path.exists(os.path.join(root, path))]
                found[path] = list(dict.fromkeys(there))
    return found


def seen(path, files, known):
    """Everything that a file includes, also through others, with the file that it comes through."""
    for wanted in files[path]:
        if wanted not in known:
            known[wanted] = path
            seen(wanted, files, known)
    return known


def problems(root):
    files = includes(root)
    may = {name: allowed.split() for name, _, allowed in ROOMS}
    order = [name for name, _, _ in ROOMS]
    for name in order:
        for other in may[name]:
            if order.index(other) >= order.index(name):
                yield "the rooms %s and %s stand in a circle" % (name, other)
    for path in sorted(files):
        room = room_of(path)
        if room is None:
            yield "%s belongs to no room" % path
            continue
        for wanted in files[path]:
            other = room_of(wanted)
            if other != room and other not in may[room]:
                yield "%s (%s) includes %s (%s)" % (path, room, wanted, other)
        known = seen(path, files, {})
        if path in known:
            yield "%s includes itself, through %s" % (path, known[path])
        for wanted, through in sorted(known.items()):
            other = room_of(wanted)
            if other in HIDDEN.get(room, []) and wanted not in files[path]:
                yield "%s (%s) sees %s (%s), through %s" % (path, room, wanted, other, through)


if __name__ == "__main__":
    wrong = list(problems(sys.argv[1] if len(sys.argv) > 1 else "."))
    print("".join(line + "\n" for line in wrong), end="", file=sys.stderr)
    sys.exit(1 if wrong else 0)
