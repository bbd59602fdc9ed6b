"""The operator REGEXP finds what Python's re finds, in a time that no pattern makes long."""

import re

import pytest

from vorda import zelqa

PATTERNS = ["", "b+c", "^b", "b$", "a|b|", "^(ab|c)*$", "^a{2}$", "^a{2,3}$", "^a{2,}?$", "^.$",
            r"[a-c\d-]", r"[^\W_]", "^[]x]+$", "[à-ÿ]", r"\bcat\b", r"\Bats", "(?i)straSSe",
            r"a\.b", "(?:a*)*b", r"^\S+@\S+$", "a.c", r"^\w\d?\s", r"\t|\n", r"^[\D\t]+$",
            "^(?:a|b){3}c", "x*[^a-c]$", r"^[\[\]x]+$", r"\Wx|\W$", "ab*?c", "(?i)^[A-C]+$",
            "(?i)É", r"\b.\b"]
TEXTS = ["", "x", "abbbcd", "ab", "abcab", "abca", "aa", "aaa", "aaaaa", "é", "É", "-", "_-", "5 c",
         "]x]", "a cat.", "cats", "STRASSE", "axb", "a.b", "aaaac", "a@b.c", "a\nc", "a\tc",
         *"/09:@AZ[_`az{"]
WRONG = ["(", "a)", "[a", "*", "a|+", "a{3,2}", "a{x}", "a{1", "a{1001}", "((a{1000}){1000})",
         "(" * 500 + ")" * 500, r"\1", r"\q", "\\", "(?=a)", "[b-a]"]


def test_what_is_found(cursor):
    cursor.execute("CREATE TABLE patterns (p TEXT)")
    cursor.execute("CREATE TABLE texts (t TEXT)")
    cursor.executemany("INSERT INTO patterns VALUES (?)", [(pattern,) for pattern in PATTERNS])
    cursor.executemany("INSERT INTO texts VALUES (?)", [(text,) for text in TEXTS])
    # Compiled once for all texts, or anew for each row.
    for order in ("patterns.rowid", "texts.rowid"):
        cursor.execute("SELECT p, t, t REGEXP p FROM patterns, texts ORDER BY " + order)
        for pattern, text, found in cursor:
            assert found == bool(re.search(pattern, text, re.ASCII)), (pattern, text)
        assert cursor.rowcount == len(PATTERNS) * len(TEXTS)
    cursor.execute("SELECT NULL REGEXP 'a', 'a' REGEXP NULL, 12 REGEXP '^1', ? REGEXP '(a|aa)+$'",
                   ("a" * 40 + "b",))
    assert tuple(cursor.fetchone()) == (None, None, 1, 0)


@pytest.mark.parametrize("pattern", WRONG)
def test_what_is_no_pattern(cursor, pattern):
    with pytest.raises(zelqa.DatabaseError, match="REGEXP|pattern|expression"):
        cursor.execute("SELECT '' REGEXP ?", (pattern,)).fetchone()
