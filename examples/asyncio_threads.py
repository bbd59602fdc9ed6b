"""Queries beside other work of an event loop; one that takes too long is cancelled.

Run as:  python asyncio_threads.py [DATABASE_FILE]
"""

import asyncio
import sys
from contextlib import closing
from typing import Any, List

from vorda import dbapi

SLOW = ("WITH RECURSIVE n (i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 1000000000)"
        " SELECT count(*) FROM n")


async def query(connection: dbapi.Connection, sql: str, seconds: float) -> List[Any]:
    """Runs in a thread, since a call waits for the database, and ends it when time is over."""
    loop = asyncio.get_running_loop()
    call = loop.run_in_executor(None, lambda: connection.execute(sql).fetchall())
    done, _ = await asyncio.wait([call], timeout=seconds)
    if not done:
        connection.cancel()
    return await call


async def work(connection: dbapi.Connection) -> None:
    try:
        await query(connection, SLOW, 0.5)
    except dbapi.OperationalError as error:
        print("cancelled:", error.sqlstate)
    print(await query(connection, "SELECT 6 * 7", 60))


def main() -> None:
    with closing(dbapi.connect(sys.argv[1] if len(sys.argv) > 1 else ":memory:")) as connection:
        asyncio.run(work(connection))


if __name__ == "__main__":
    main()
