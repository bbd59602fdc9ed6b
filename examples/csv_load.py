"""A CSV file into a table and a query back into a CSV file, with connections that close themselves.

Run as:  python csv_load.py [DATABASE_FILE]
"""

import csv
import os
import sys
from contextlib import closing

from vorda import zelqa

HERE = os.path.dirname(os.path.abspath(__file__))


def main() -> None:
    path = sys.argv[1] if len(sys.argv) > 1 else ":memory:"
    with closing(zelqa.connect("Database={%s}" % path)) as connection:
        with closing(connection.cursor()) as cursor:
            cursor.execute(
                "CREATE TABLE state (code TEXT PRIMARY KEY, name TEXT NOT NULL, admitted DATE)")
            with open(os.path.join(HERE, "states.csv"), newline="", encoding="utf-8") as file:
                rows = csv.reader(file)
                next(rows)
                # An empty field becomes NULL: None in its place would be an empty text.
                cursor.executemany("INSERT INTO state VALUES (?, ?, NULLIF(?, ''))", rows)

            writer = csv.writer(sys.stdout)
            cursor.execute(
                "SELECT name, admitted FROM state WHERE admitted < ? ORDER BY admitted, name LIMIT "
                "3",
                           ("1788-01-01",))
            writer.writerow(column[0] for column in cursor.description or ())
            writer.writerows(cursor)


if __name__ == "__main__":
    main()
