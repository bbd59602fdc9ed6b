"""Runs what the pages show, Python sessions and terminal screens, in one folder a page."""

import doctest
import os
import pathlib
import re
import subprocess
import sys

import pytest

ROOT = pathlib.Path(__file__).parents[3]
PAGES = ["README.md", *(str(page.relative_to(ROOT)) for page in sorted(ROOT.glob("docs/*.md")))]
BLOCK = re.compile(r"^```(pycon|python|console)\n(.*?)^```$(?:\n\n```text\n(.*?)^```$)?",
                   re.DOTALL | re.MULTILINE)


def assert_shown(expected, got):
    """'…' stands for any text in a page, as it does in what a reader takes from it."""
    pattern = ".*?".join(map(re.escape, expected.strip().split("…")))
    is_shown = re.fullmatch(pattern, got.strip(), re.DOTALL)
    assert is_shown, "the page shows\n%s\nbut it is\n%s" % (expected, got)


def run_session(text, names):
    test = doctest.DocTestParser().get_doctest(text.replace("…", "..."), names, "page", None, 0)
    runner = doctest.DocTestRunner(optionflags=doctest.ELLIPSIS | doctest.NORMALIZE_WHITESPACE)
    report = []
    runner.run(test, out=report.append, clear_globs=False)
    assert not report, "".join(report)
    names.update(test.globs)


def run_screen(text, folder):
    for command, shown in re.findall(r"^\$ (.*)\n((?:(?!\$ ).*\n)*)", text, re.MULTILINE):
        done = subprocess.run(["sh", "-c", command], cwd=folder, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, encoding="utf-8",
                              timeout=60)
        assert_shown(shown, done.stdout)


def run_blocks(text, tmp_path, monkeypatch, capfd):
    """Runs the blocks of a page, in a folder that has what they name."""
    tools = tmp_path / "bin"
    tools.mkdir()
    (tools / "python").write_text('#!/bin/sh\nexec "%s" "$@"\n' % sys.executable)
    (tools / "python").chmod(0o755)
    monkeypatch.setenv("PATH", "%s%s%s" % (tools, os.pathsep, os.environ["PATH"]))
    monkeypatch.setenv("PYTHONIOENCODING", "utf-8")
    monkeypatch.setenv("COLUMNS", "100")
    folder = tmp_path / "work"
    folder.mkdir()
    for shared in ("examples", "src"):
        (folder / shared).symlink_to(ROOT / shared)
    monkeypatch.chdir(folder)
    names = {}
    for kind, block, printed in BLOCK.findall(text):
        if kind == "pycon":
            run_session(block, names)
        elif kind == "console":
            run_screen(block, str(folder))
        else:
            exec(compile(block, "page", "exec"), names)
            assert_shown(printed, capfd.readouterr().out)


NEEDED = {"docs/frames.md": ["pyarrow", "polars", "pandas", "duckdb"]}


# These are run where there are servers.
ELSEWHERE = {"docs/servers.md", "docs/clusters.md", "docs/sqlalchemy.md"}


@pytest.mark.parametrize("page", sorted({*PAGES} - ELSEWHERE))
def test_page_shows_what_happens(page, tmp_path, monkeypatch, capfd):
    for library in NEEDED.get(page, []):
        pytest.importorskip(library)
    run_blocks((ROOT / page).read_text(encoding="utf-8"), tmp_path, monkeypatch, capfd)


def test_links_lead_somewhere():
    for page in PAGES:
        for target in re.findall(r"\]\(([^)#]+)[^)]*\)", (ROOT / page).read_text(encoding="utf-8")):
            assert (ROOT / page).parent.joinpath(target).exists(), "%s links to %s" % (page, target)
