"""A query into a pandas frame and a frame into a table, as columns: needs pandas 2.2 and pyarrow.

Run as:  python pandas_arrow.py [DATABASE_FILE]
"""

import sys
from contextlib import closing
from datetime import date

import pandas
import pyarrow

from vorda import dbapi


def main() -> None:
    with closing(dbapi.connect(sys.argv[1] if len(sys.argv) > 1 else ":memory:")) as connection:
        frame = pandas.DataFrame({
            "station": pandas.Categorical(["north", "north", "south"]),
            "day": [date(2026, 11, 19), date(2026, 11, 20), date(2026, 11, 20)],
            "celsius": [-1.5, None, 11.25],
        })
        with connection:
            print(dbapi.ingest(connection, "reading", frame), "rows stored")
        cursor = connection.execute("SELECT * FROM reading WHERE day > ? ORDER BY station",
                                    (date(2026, 11, 19),))
        print(pyarrow.table(cursor.fetch_arrow()).to_pandas())


if __name__ == "__main__":
    main()
