"""The main job on real data: airports of the United States, joined with their states.

Run as:  python airports.py [DATABASE_FILE]

The airports are a public-domain extract (ourairports.com); three statements a loader needs, a join with
parameters, and an error caught as DatabaseError.
"""

import csv
import datetime
import os
import sys
import tempfile

from vorda import zelqa

HERE = os.path.dirname(os.path.abspath(__file__))


def rows_of(name):
    with open(os.path.join(HERE, name), newline="", encoding="utf-8") as file:
        yield from csv.DictReader(file)


def create_tables(cursor):
    cursor.execute("CREATE TABLE state (code TEXT PRIMARY KEY, name TEXT NOT NULL, admitted DATE)")
    cursor.execute(
        "CREATE TABLE airport (code TEXT PRIMARY KEY, name TEXT, city TEXT,"
        " state TEXT, latitude DOUBLE, longitude DOUBLE)"
    )


def load(cursor):
    """Load both tables in one transaction; returns the number of rows."""
    count = 0
    cursor.execute("BEGIN")
    for row in rows_of("states.csv"):
        admitted = datetime.date.fromisoformat(row["admitted"])
        cursor.execute("INSERT INTO state VALUES (?, ?, ?)", row["code"], row["name"], admitted)
        count += cursor.rowcount
    for row in rows_of("airports.csv"):
        values = (row["iata"], row["name"], row["city"], row["state"])
        place = (float(row["latitude"]), float(row["longitude"]))
        cursor.execute("INSERT INTO airport VALUES (?, ?, ?, ?, ?, ?)", values + place)
        count += cursor.rowcount
    cursor.execute("COMMIT")
    return count


def main():
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
    for column in cursor.description:
        print("  ", column)
    print("\nrows, by name and by index:")
    for row in cursor:
        print("   %-14s %s  %3d airports, up to %.4f north" % (
            row["name"], row["admitted"], row["airports"], row[3]))

    print("\na mistake:")
    try:
        cursor.execute("SELECT runway FROM airport")
    except zelqa.DatabaseError as error:
        print("   DatabaseError: %s" % error)
    connection.close()


if __name__ == "__main__":
    main()
