"""DuckDB reckons with rows of a database, batch by batch; its result becomes a table there.

Run as:  python duckdb_arrow.py [DATABASE_FILE]
"""

import sys
from contextlib import closing

import duckdb

from vorda import dbapi


def main() -> None:
    with closing(dbapi.connect(sys.argv[1] if len(sys.argv) > 1 else ":memory:")) as connection:
        connection.execute("CREATE TABLE trip (stop TEXT, minutes INTEGER)")
        connection.executemany("INSERT INTO trip VALUES (?, ?)",
                               (("ABC"[n % 3], n % 50) for n in range(200000)))
        connection.commit()
        trips = connection.execute("SELECT * FROM trip").fetch_arrow()  # noqa: F841 (by its name)
        medians = duckdb.sql("SELECT stop, median(minutes) AS median FROM trips GROUP BY stop")
        with connection:
            dbapi.ingest(connection, "stop", medians.to_arrow_table())
        print(connection.execute("SELECT * FROM stop ORDER BY stop").fetchall())


if __name__ == "__main__":
    main()
