"""The main job on real data: airports of the United States, joined with their states.

Run as:  python airports.py [DATABASE_FILE]

The airports are a public-domain extract (ourairports.com). Shown are: tables loaded in batches, a
join with parameters and its description, a stored procedure, and an error caught as DatabaseError.
"""

import csv
import datetime
import os
import sys
import tempfile
from typing import Dict, Iterator

from vorda import zelqa

HERE = os.path.dirname(os.path.abspath(__file__))


def rows_of(name: str) -> Iterator[Dict[str, str]]:
    with open(os.path.join(HERE, name), newline="", encoding="utf-8") as file:
        yield from csv.DictReader(file)


def create_tables(cursor: zelqa.Cursor) -> None:
    cursor.execute("CREATE TABLE state (code TEXT PRIMARY KEY, name TEXT NOT NULL, admitted DATE)")
    cursor.execute(
        "CREATE TABLE airport (code TEXT PRIMARY KEY, name TEXT, city TEXT,"
        " state TEXT, latitude DOUBLE, longitude DOUBLE)"
    )


def load(cursor: zelqa.Cursor) -> int:
    """Load both tables, each as one batch that is stored whole or not at all; returns the row
    count."""
    states = [(row["code"], row["name"], row["admitted"]) for row in rows_of("states.csv")]
    cursor.executemany("INSERT INTO state VALUES (?, ?, ?)", states)
    count = cursor.rowcount
    airports = (
        (row["iata"], row["name"], row["city"], row["state"], float(row["latitude"]),
         float(row["longitude"]))
        for row in rows_of("airports.csv")
    )
    cursor.executemany("INSERT INTO airport VALUES (?, ?, ?, ?, ?, ?)", airports)
    return count + cursor.rowcount


def main() -> None:
    path = sys.argv[1] if len(sys.argv) > 1 else os.path.join(tempfile.mkdtemp(), "airports.db")
    connection = zelqa.connect("Database={%s}" % path)
    cursor = connection.cursor()
    create_tables(cursor)
    print("loaded %d rows into %s" % (load(cursor), path))

    cursor.execute(
        "SELECT s.name, s.admitted, count(*) AS airports, max(a.latitude) AS northernmost"
        " FROM airport AS a JOIN state AS s ON s.code = a.state"
        " WHERE a.latitude > ? AND s.admitted < ?"
        " GROUP BY s.code ORDER BY airports DESC LIMIT 5",
        (44.0, datetime.date(1900, 1, 1)),
    )
    print("\ncolumns:")
    for column in cursor.description or ():
        print("  ", column)
    print("\nrows, by name and by index:")
    for row in cursor:
        print("   %-14s %s  %3d airports, up to %.4f north" % (
            row["name"], row["admitted"], row["airports"], row[3]))

    print("\na stored procedure, the three airports closest to 47.6 N, 122.3 W:")
    cursor.execute(
        "CREATE OR REPLACE PROCEDURE closest (lat DOUBLE, lon DOUBLE, n INTEGER) AS"
        " SELECT code, name FROM airport"
        " ORDER BY abs(latitude - $lat) + abs(longitude - $lon) LIMIT $n"
    )
    cursor.callproc("closest", (47.6, -122.3, 3))
    for code, name in cursor:
        print("   %-4s %s" % (code, name))

    print("\na mistake:")
    try:
        cursor.execute("SELECT runway FROM airport")
    except zelqa.DatabaseError as error:
        print("   DatabaseError: %s" % error)
    connection.close()


if __name__ == "__main__":
    main()
