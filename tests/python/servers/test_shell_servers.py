"""The shell's own commands, and where statements end, on every engine."""

import subprocess
import sys

import pytest

import engines

BODIES = {
    "postgresql": "CREATE OR REPLACE FUNCTION twice(n integer) RETURNS integer LANGUAGE plpgsql"
                  " AS $$ BEGIN\n  RETURN 2 * n; -- it's\nEND; $$;\nSELECT twice(21) AS n;\n",
    "mariadb": "DELIMITER //\nCREATE OR REPLACE FUNCTION twice(n INTEGER) RETURNS INTEGER\n"
               "BEGIN\n  -- it's\n  RETURN 2 * n;\nEND//\ndelimiter ;\nSELECT twice(21) AS n;\n",
}


def vorda(engine, stdin, *arguments):
    done = subprocess.run([sys.executable, "-m", "vorda", "--csv", *arguments, engine.string],
                          input=stdin, encoding="utf-8", stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, timeout=60)
    assert (done.returncode, done.stderr) == (0, ""), done.stderr
    return done.stdout


def test_what_there_is_shows(engine, family):
    shown = vorda(engine, ".tables\n.describe child_\n.indexes child_\n.databases\n")
    lines = shown.lower().splitlines()
    assert {"child_,table", "parent,table", "seen,view"} <= set(lines)
    columns = [line.split(",") for line in lines[lines.index("column,type,null,default,key") + 1:]]
    assert [(line[0], line[2], line[-1]) for line in columns[:3]] == [
        ("id", "no", "primary"), ("a", "yes", "-> parent (a)"), ("b", "yes", "-> parent (b)")]
    assert 'child_,both_,yes,"b, id"' in lines and len(lines) > lines.index("name") + 1
    text = vorda(engine, ".schema child_\n")
    made = text.replace('"', "").replace("`", "")
    assert "CREATE TABLE child_" in made and "ON DELETE CASCADE" in made
    assert "CREATE UNIQUE INDEX both_ ON child_ (b, id)" in made
    if engine.name in engines.SERVERS:  # what is shown makes the same again
        assert vorda(engine, "DROP TABLE child_;\n%s\n.schema child_\n" % text) == text


def test_bodies_are_read_whole(engine):
    if engine.name not in engines.SERVERS:
        pytest.skip("no server")
    assert vorda(engine, BODIES[engine.name]) == "n\n42\n"


def test_a_failing_import_leaves_no_table(engine, tmp_path):
    good, bad = tmp_path / "good.csv", tmp_path / "bad.csv"
    good.write_text("a b,c\n1,\n,007\n")
    bad.write_text(good.read_text() + "8\n")
    vorda(engine, "DROP TABLE IF EXISTS good; DROP TABLE IF EXISTS bad;\n")
    with pytest.raises(AssertionError, match="nothing is imported"):
        vorda(engine, ".import %s bad\n" % bad)
    assert vorda(engine, ".import %s good\nSELECT * FROM good ORDER BY c DESC;\n" % good) in (
        "a b,c\n,007\n1,\n", "a b,c\n1,\n,007\n")
    names = [line.split(",")[0] for line in vorda(engine, ".tables\n").splitlines()]
    assert "good" in names and "bad" not in names
