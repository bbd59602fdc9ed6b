"""What the Tab key offers: keywords, tables, columns, commands, files."""

import os
import re
from typing import TYPE_CHECKING, Dict, Iterable, List, Tuple

from .. import dbapi
from .browse import Catalogue
from .commands import COMMANDS
from ..dialects import POSTGRESQL
from .failure import Failure

if TYPE_CHECKING:
    from .session import Session

KEYWORDS = """ALL ALTER ANALYZE AND AS ASC BEGIN BETWEEN BY CASCADE CASE CAST CHECK COALESCE COLLATE
COLUMN COMMIT CONSTRAINT COUNT CREATE CROSS CURRENT_DATE CURRENT_TIMESTAMP DATE DECIMAL DEFAULT
DELETE DESC DISTINCT DROP ELSE END EXCEPT EXECUTE EXISTS EXPLAIN FALSE FOREIGN FROM FULL FUNCTION
GRANT GROUP HAVING IN INDEX INNER INSERT INTEGER INTERSECT INTO IS JOIN KEY LEFT LIKE LIMIT NATURAL
NOT NULL OFFSET ON OR ORDER OUTER OVER PARTITION PRIMARY PROCEDURE RECURSIVE REFERENCES RELEASE
RENAME REPLACE RETURNING REVOKE RIGHT ROLLBACK ROW_NUMBER SAVEPOINT SELECT SET SUM TABLE TEMPORARY
TEXT THEN TIME TIMESTAMP TO TRANSACTION TRIGGER TRUE TRUNCATE UNION UNIQUE UPDATE USING VALUES
VARCHAR VIEW WHEN WHERE WINDOW WITH""".split()

DELIMITERS = " \t\n(),;=<>+*'\""  # what ends the word in front of the cursor
_WORD = re.compile("[^%s]*$" % re.escape(DELIMITERS))
_WANTS_TABLE = re.compile(r"\b(FROM|JOIN|INTO|UPDATE|TABLE|REFERENCES|VIEW)\s+$", re.IGNORECASE)
_MENTIONED = re.compile(r"\b(?:FROM|JOIN|INTO|UPDATE)\s+([\w.]+)(?:\s+(?:AS\s+)?(\w+))?",
                        re.IGNORECASE)
_PLAIN = re.compile(r"[^\W\d]\w*")
_TAKE_FILES = (".read", ".output", ".once", ".import", ".export")
_TAKE_TABLES = (".describe", ".schema", ".indexes", ".tables", ".import", ".export")


class Completer:
    """Asks the database when a name is first wanted, and again when something may have changed;
    inside a transaction, which a failure could end, never."""

    def __init__(self, session: "Session") -> None:
        self.session = session
        self.generation = -1
        self.tables: List[str] = []
        self.columns: Dict[str, List[str]] = {}

    def candidates(self, before: str, after: str = "") -> Tuple[str, List[str]]:
        """The word in front of the cursor, and what may stand there instead."""
        match = _WORD.search(before)
        word = match.group() if match else ""
        front = before[:len(before) - len(word)]
        if before.lstrip().startswith("."):
            found = self.of_command(front, word)
        else:
            splitter = self.session.splitter()
            for _ in splitter.feed(front):
                pass
            found = [] if splitter.closing else self.of_statement(front, word, before + after)
        return word, [text for text in found if text.lower().startswith(word.lower())]

    def of_command(self, front: str, word: str) -> List[str]:
        command = (front.split() or [""])[0]
        if not command:
            return [command.name for command in COMMANDS]
        found = self.table_names() if command in _TAKE_TABLES else []
        return found + (files(word) if command in _TAKE_FILES else
                        ["table", "record", "csv", "json", "markdown"] if command == ".mode" else
                        [])

    def of_statement(self, front: str, word: str, text: str) -> List[str]:
        mentioned = _MENTIONED.findall(text)
        qualifier, dot, _ = word.rpartition(".")
        if dot:
            names = dict([(alias.lower(), table) for table, alias in mentioned if alias])
            table = names.get(qualifier.lower(), qualifier)
            return ([qualifier + "." + name for name in self.column_names(table)]
                    + [name for name in self.table_names() if "." in name])
        if _WANTS_TABLE.search(front):
            return self.table_names()
        columns = [name for table, _ in mentioned for name in self.column_names(table)]
        keywords = KEYWORDS if word else []
        if not word.isupper():
            keywords = [keyword.lower() for keyword in keywords]
        return unique(columns + self.table_names() + keywords)

    # --- names

    def is_known(self) -> bool:
        """Whether what is known is what there is to know."""
        session = self.session
        if session.connection.in_transaction:
            return True
        if self.generation != session.generation:
            self.generation, self.tables, self.columns = session.generation, [], {}
        return False

    def quoted(self, name: str) -> str:
        dialect = self.session.dialect
        is_plain = (_PLAIN.fullmatch(name) and name.upper() not in KEYWORDS
                    and (dialect is not POSTGRESQL or name == name.lower()))
        return name if is_plain else dialect.quoted(name)

    def table_names(self) -> List[str]:
        try:
            if not self.is_known() and not self.tables:
                self.tables = [".".join(map(self.quoted, relation.path))
                               for relation in Catalogue(self.session).relations()]
        except dbapi.Error:
            pass
        return self.tables

    def column_names(self, table: str) -> List[str]:
        try:
            if not self.is_known() and table not in self.columns:
                catalogue = Catalogue(self.session)
                self.columns[table] = [self.quoted(column.name)
                                       for column in catalogue.columns(catalogue.find(table))]
        except (Failure, dbapi.Error):
            self.columns[table] = []
        return self.columns.get(table, [])


def unique(names: Iterable[str]) -> List[str]:
    return list(dict.fromkeys(names))


def files(word: str) -> List[str]:
    folder, slash, _ = word.rpartition("/")
    try:
        entries = sorted(os.scandir(os.path.expanduser(folder + slash) or "."),
                         key=lambda entry: entry.name)
        return [folder + slash + entry.name + "/" * entry.is_dir() for entry in entries
                if not any(char in DELIMITERS for char in entry.name)]
    except OSError:
        return []
