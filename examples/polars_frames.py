"""A query into a polars frame and a frame into a table.

Run as:  python polars_frames.py [DATABASE_FILE]
"""

import sys
from contextlib import closing
from datetime import date

import polars

from vorda import dbapi


def main() -> None:
    with closing(dbapi.connect(sys.argv[1] if len(sys.argv) > 1 else ":memory:")) as connection:
        frame = polars.DataFrame({
            "station": ["north", "north", "south"],
            "day": [date(2026, 11, 19), date(2026, 11, 20), date(2026, 11, 20)],
            "celsius": [-1.5, None, 11.25],
        })
        with connection:
            dbapi.ingest(connection, "reading", frame)
        cursor = connection.execute("SELECT station, celsius FROM reading")
        warmest = polars.DataFrame(cursor.fetch_arrow()).group_by("station").max().sort("station")
        print(warmest.rows())


if __name__ == "__main__":
    main()
