"""The page on servers shows what happens: its data sources, on servers of the tests' own, and its
sessions."""

import configparser
import importlib.util
import os
import pathlib
import re

import pytest

import engines
import servers

DOCS = pathlib.Path(__file__).parents[1] / "embedded" / "test_docs.py"
SPEC = importlib.util.spec_from_file_location("docs", DOCS)
docs = importlib.util.module_from_spec(SPEC)
SPEC.loader.exec_module(docs)

TEXT = (docs.ROOT / "docs" / "servers.md").read_text(encoding="utf-8")
OWN = TEXT.index("## MariaDB and MySQL")
# What is not as on the page: the name of the source, and where the server is.
PAGES = {
    "postgresql": ("shop", TEXT[:OWN],
                   {"Servername": "127.0.0.1", "Database": "postgres", "Username": "vorda",
                                        "SSLmode": "disable"}),
    "mariadb": ("blog", TEXT[OWN:], {"Server": "127.0.0.1", "Database": "vorda", "User": "root",
                                     "Password": "", "SSLVERIFY": "0"}),
}


def sources():
    """The data sources of the page."""
    parser = configparser.ConfigParser()
    parser.optionxform = str
    parser.read_string(re.search(r"```ini\n(.*?)```", TEXT, re.DOTALL).group(1))
    return {name: dict(parser[name]) for name in parser.sections()}


@pytest.mark.parametrize("name", PAGES)
def test_page(name, databases, tmp_path, monkeypatch, capfd):
    if name not in databases:
        pytest.skip(engines.ENGINES[name].missing())
    source, text, here = PAGES[name]
    entry = {**sources()[source], **here, "Port": databases[name].server.port}
    # The driver manager has read, once, where its files are.
    library = servers.driver(engines.ENGINES[name].driver_file)
    for file, section, values in [(os.path.join(os.environ["ODBCSYSINI"], "odbcinst.ini"),
                                   entry["Driver"], {"Driver": library}),
                                  (os.environ["ODBCINI"], source, entry)]:
        with open(file, "a") as ini:
            ini.write("\n[%s]\n%s"
                      % (section, "".join("%s = %s\n" % item for item in values.items())))
    docs.run_blocks(text, tmp_path, monkeypatch, capfd)


def test_every_driver_of_the_page_is_known_here():
    assert {entry["Driver"] for entry in sources().values()} <= set(TEXT.split("`"))


def test_the_page_on_sqlalchemy(tmp_path, monkeypatch, capfd):
    pytest.importorskip("sqlalchemy")
    text = (docs.ROOT / "docs" / "sqlalchemy.md").read_text(encoding="utf-8")
    docs.run_blocks(text, tmp_path, monkeypatch, capfd)
