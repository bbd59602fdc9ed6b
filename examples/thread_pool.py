"""A pool of threads, each with a connection of its own to one file.

Run as:  python thread_pool.py [DATABASE_FILE]
"""

import os
import sys
import tempfile
import threading
from concurrent.futures import ThreadPoolExecutor
from contextlib import closing
from typing import Any, cast

from vorda import zelqa

local = threading.local()


def connection(path: str) -> zelqa.Connection:
    """The calling thread's connection; it closes with the thread."""
    if not hasattr(local, "connection"):
        local.connection = zelqa.connect("Database={%s};Timeout=30" % path)
    return cast(zelqa.Connection, local.connection)


def deposit(path: str, account: int) -> None:
    connection(path).execute("UPDATE account SET balance = balance + 1 WHERE id = ?", (account,))


def balance(path: str, account: int) -> Any:
    row = connection(path).execute("SELECT balance FROM account WHERE id = ?",
                                   (account,)).fetchone()
    return row[0] if row is not None else None


def main() -> None:
    path = sys.argv[1] if len(sys.argv) > 1 else os.path.join(tempfile.mkdtemp(), "accounts.db")
    with closing(zelqa.connect("Database={%s}" % path)) as first:
        first.execute("CREATE TABLE account (id INTEGER PRIMARY KEY, balance INTEGER)")
        first.cursor().executemany("INSERT INTO account VALUES (?, 0)", [(n,) for n in range(5)])
    with ThreadPoolExecutor(max_workers=4) as pool:
        list(pool.map(lambda n: deposit(path, n % 5), range(100)))
        print(*pool.map(lambda n: balance(path, n), range(5)))


if __name__ == "__main__":
    main()
