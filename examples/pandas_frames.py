"""A query into a pandas frame, and a frame into a table.

Run as:  python pandas_frames.py [DATABASE_FILE]
"""

import sys
import warnings
from contextlib import closing

import pandas

from vorda import zelqa


def write_frame(connection: zelqa.Connection, frame: pandas.DataFrame, table: str) -> None:
    """Appends all rows of a frame in one batch, stored whole or not at all; missing values become
    NULL."""
    columns = ", ".join('"%s"' % name.replace('"', '""') for name in frame.columns)
    markers = ", ".join("NULLIF(?, '')" if frame[name].isna().any() else "?"
                        for name in frame.columns)
    # Objects instead of NumPy's numbers, and texts where values are missing, since None travels as
    # an empty text.
    plain = frame.astype(object)
    for name in frame.columns:
        if frame[name].isna().any():
            plain[name] = ["" if missing else str(value)
                           for value, missing in zip(plain[name], frame[name].isna())]
    statement = 'INSERT INTO "%s" (%s) VALUES (%s)' % (table, columns, markers)
    connection.cursor().executemany(statement, plain.values.tolist())


def main() -> None:
    path = sys.argv[1] if len(sys.argv) > 1 else ":memory:"
    with closing(zelqa.connect("Database={%s}" % path)) as connection:
        connection.execute("CREATE TABLE reading (station TEXT, day DATE, celsius REAL)")
        frame = pandas.DataFrame({
            "station": ["north", "north", "south"],
            "day": [zelqa.Date(2026, 11, 19), zelqa.Date(2026, 11, 20), zelqa.Date(2026, 11, 20)],
            "celsius": [-1.5, None, 11.25],
        })
        write_frame(connection, frame, "reading")
        # pandas warns about every DB-API connection that it has no adapter of its own for.
        warnings.filterwarnings("ignore", message="pandas only supports SQLAlchemy",
                                category=UserWarning)
        print(pandas.read_sql("SELECT * FROM reading WHERE day > ? ORDER BY station", connection,
                              params=[zelqa.Date(2026, 11, 19)]))


if __name__ == "__main__":
    main()
