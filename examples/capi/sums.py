"""Calls the functions of sums.cpp, built as sums.so in the current folder."""

import ctypes
import os

from vorda import zelqa  # first: the library takes its symbols from the loaded module

sums = ctypes.CDLL(os.path.abspath("sums.so"))

connection = zelqa.connect("Database=sums.db")
connection.execute("CREATE TABLE IF NOT EXISTS sale (item INTEGER, price REAL)")
connection.cursor().executemany("INSERT INTO sale VALUES (?, ?)",
                                [(n, n * 0.5) for n in range(1000)])
connection.close()

for name in ("sum_by_dbs", "sum_by_class", "sum_by_odbc"):
    for sql in (b"SELECT price FROM sale WHERE item >= ?",
                b"SELECT prize FROM sale WHERE item >= ?"):
        total, message = ctypes.c_double(), ctypes.create_string_buffer(200)
        failed = getattr(sums, name)(b"Database=sums.db", sql, 500, ctypes.byref(total), message,
                                     200)
        print(name, message.value.decode() if failed else total.value)
