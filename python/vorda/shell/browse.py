"""Commands that show what a database holds, asked in one way of every engine."""

import contextlib
import sys
from typing import TYPE_CHECKING, Any, Callable, Dict, Iterator, List, NamedTuple, Optional, Tuple

from .. import dbapi
from ..display import printable
from ..dialects import SQLITE
from .failure import Failure

if TYPE_CHECKING:
    from .session import Session

# Where SQLite keeps the statements that made things, the text, the order, what ends a text.
SQLITE_TEXTS = (
    ("tbl_name", "sql", "sqlite_master", "rowid", ";"),
    ("tbl_name", "sql", "sqlite_temp_master", "rowid", ";"),
    ("ProcedureName", "Definition", "sys_procedures", "ProcedureName", "\n/"),
)
DEFAULT_SCHEMAS = ("", "main", "public")  # which need not be named
SYSTEM_SCHEMAS = ("information_schema", "pg_catalog", "pg_toast")
# ODBC's numbers of types whose size belongs to a declaration, and of those with digits behind it.
WITH_SIZE, WITH_DIGITS = (1, 12, -8, -9, -2, -3), (2, 3)
RULES = {0: "CASCADE", 1: "RESTRICT", 2: "SET NULL", 4: "SET DEFAULT"}

Rows = List[Tuple[Any, ...]]


class Relation(NamedTuple):
    """A table or view."""

    catalog: Optional[str]
    schema: Optional[str]
    name: str
    kind: str

    @property
    def path(self) -> List[str]:
        schema = self.schema or ""
        return [self.name] if schema in DEFAULT_SCHEMAS else [schema, self.name]

    @property
    def shown(self) -> str:
        return ".".join(self.path)


class Column(NamedTuple):
    name: str
    type: str
    is_nullable: bool
    default: Optional[str]


class Key(NamedTuple):
    """A foreign key."""

    columns: List[str]
    table: Relation
    foreign_columns: List[str]
    rules: str


class Index(NamedTuple):
    name: str
    is_unique: bool
    columns: List[Tuple[str, str]]  # name, or nothing for an expression, and direction

    @property
    def shown(self) -> str:
        return ", ".join((name or "(expression)") + direction for name, direction in self.columns)


class Catalogue:
    """What there is. Names given are those of tables and views as a user types them."""

    def __init__(self, session: "Session") -> None:
        self.session = session

    def ask(self, function: Callable[..., dbapi.Cursor], *names: Any) -> Rows:
        def call() -> Rows:
            cursor = function(self.session.connection.cursor(), *names)
            with contextlib.closing(cursor):
                cursor.row_factory = None
                return cursor.fetchall()

        found: Rows = self.session.interrupts.call(call)
        return found

    def relations(self, pattern: Optional[str] = None) -> List[Relation]:
        """Without those of the system."""
        found = [Relation(row[0], row[1], row[2], str(row[3]).lower())
                 for row in self.ask(dbapi.Cursor.tables, pattern)]
        return sorted((relation for relation in found
                       if not relation.kind.startswith("system")
                       and relation.schema not in SYSTEM_SCHEMAS),
                      key=lambda relation: relation.shown)

    def find(self, name: str) -> Relation:
        relations, names = self.relations(), (name, name.lower())
        forms: Tuple[Callable[[str], str], ...] = (str, str.lower)
        for i, form in enumerate(forms):
            for relation in relations:
                own, around = form(relation.name), relation.schema or relation.catalog or ""
                if names[i] in (own, "%s.%s" % (form(around), own)):
                    return relation
        raise Failure("there is no table or view %s; .tables lists them" % name)

    def columns(self, of: Relation) -> List[Column]:
        pattern = of.name.replace("\\", "\\\\")  # _ matches itself, too
        found = []
        for row in self.ask(dbapi.Cursor.columns, pattern, of.catalog, of.schema):
            if row[2] == of.name:
                number, text, size = int(row[4]), str(row[5]), int(row[6] or 0)
                if "(" not in text and size:
                    if number in WITH_DIGITS:
                        text += "(%d,%d)" % (size, int(row[8] or 0))
                    elif number in WITH_SIZE:
                        text += "(%d)" % size
                found.append(Column(row[3], text, int(row[10]) != 0, row[12]))
        return found

    def primary_key(self, of: Relation) -> List[str]:
        rows = self.ask(dbapi.Cursor.primaryKeys, of.name, of.catalog, of.schema)
        return [row[3] for row in sorted(rows, key=lambda row: int(row[4]))]

    def foreign_keys(self, of: Relation) -> List[Key]:
        keys: List[Key] = []
        for row in self.ask(dbapi.Cursor.foreignKeys, None, None, None, of.name, of.catalog,
                            of.schema):
            if int(row[8]) == 1 or not keys:
                schema, rules = row[1] or "", ""
                for event, rule in (("UPDATE", row[9]), ("DELETE", row[10])):
                    if rule is not None and int(rule) in RULES:
                        rules += " ON %s %s" % (event, RULES[int(rule)])
                table = Relation(row[0], schema if schema != of.schema else "", row[2], "table")
                keys.append(Key([], table, [], rules))
            keys[-1].columns.append(row[7])
            if row[3]:
                keys[-1].foreign_columns.append(row[3])
        return keys

    def indexes(self, of: Relation) -> List[Index]:
        found: Dict[str, Index] = {}
        for row in self.ask(dbapi.Cursor.statistics, of.name, of.catalog, of.schema):
            if row[5]:  # else it is about the table
                index = found.setdefault(row[5], Index(row[5], int(row[3] or 0) == 0, []))
                index.columns.append((row[8] or "", " DESC" if row[9] == "D" else ""))
        return list(found.values())


def tables(session: "Session", arguments: List[str]) -> None:
    relations = Catalogue(session).relations(*arguments)
    session.show_rows(("name", "type"), [(found.shown, found.kind) for found in relations])


def describe(session: "Session", arguments: List[str]) -> None:
    catalogue = Catalogue(session)
    relation = catalogue.find(arguments[0])
    primary = catalogue.primary_key(relation)
    references: Dict[str, str] = {}
    for key in catalogue.foreign_keys(relation):
        for i, column in enumerate(key.columns):
            foreign = "".join(key.foreign_columns[i:i + 1])
            references[column] = "-> %s (%s)" % (key.table.shown, foreign)
    session.show_rows(("column", "type", "null", "default", "key"), [
        (column.name, column.type, "yes" if column.is_nullable else "no", column.default,
         " ".join(["primary"] * (column.name in primary)
                  + [references.get(column.name, "")]).strip())
        for column in catalogue.columns(relation)])


def indexes(session: "Session", arguments: List[str]) -> None:
    catalogue = Catalogue(session)
    relations = ([catalogue.find(arguments[0])] if arguments else
                 [found for found in catalogue.relations() if "view" not in found.kind])
    session.show_rows(("table", "index", "unique", "columns"), [
        (relation.shown, index.name, "yes" if index.is_unique else "no", index.shown)
        for relation in relations for index in catalogue.indexes(relation)])


def databases(session: "Session", _: List[str]) -> None:
    catalogue = Catalogue(session)
    found = [row[0] for row in catalogue.ask(dbapi.Cursor.tables, "", "%", "")]
    if not any(found):
        found = [row[1] for row in catalogue.ask(dbapi.Cursor.tables, "", "", "%")]
    session.show_rows(("name",), [(name,) for name in sorted(set(found))])


def schema(session: "Session", names: List[str]) -> None:
    if session.dialect is SQLITE:
        texts = sqlite_texts(session, names)
    else:
        texts = map(lambda relation: declaration(session, relation),
                    [Catalogue(session).find(names[0])] if names
                    else Catalogue(session).relations())
    found = False
    with session.destination.opened() as target:
        for text in texts:
            found = True
            target.write((printable(text, target.encoding, "\n\t") if target.columns else text)
                         + "\n")
    if names and not found:
        raise Failure("there is no table, view or procedure %s; .tables lists them" % names[0])
    sys.stdout.flush()


def sqlite_texts(session: "Session", names: List[str]) -> Iterator[str]:
    """What SQLite keeps to the letter."""
    for column, text, table, order, end in SQLITE_TEXTS:
        where = " AND lower(%s) = lower(?)" % column if names else ""
        try:
            found = session.connection.execute(
                "SELECT %s FROM %s WHERE length(%s) > 0%s ORDER BY %s"
                % (text, table, text, where, order), names)
        except dbapi.Error:
            if table != "sys_procedures":  # which an ODBC driver has not
                raise
            return
        with contextlib.closing(found):
            for (definition,) in found:
                yield definition + end


def declaration(session: "Session", relation: Relation) -> str:
    """A statement that says what the catalogue knows of a table, which is not all there is."""
    catalogue, quoted = Catalogue(session), session.dialect.quoted
    columns = catalogue.columns(relation)
    if "view" in relation.kind:
        return "-- view %s (%s)" % (relation.shown, ", ".join(column.name for column in columns))
    name = quoted(*relation.path)

    def listed(names: List[str]) -> str:
        return ", ".join(map(quoted, names))

    primary, lines = catalogue.primary_key(relation), []
    for column in columns:
        default = "" if column.default is None else " DEFAULT %s" % column.default
        lines.append("%s %s%s%s" % (quoted(column.name), column.type, default,
                                    "" if column.is_nullable else " NOT NULL"))
    if primary:
        lines.append("PRIMARY KEY (%s)" % listed(primary))
    for key in catalogue.foreign_keys(relation):
        lines.append("FOREIGN KEY (%s) REFERENCES %s (%s)%s" % (
            listed(key.columns), quoted(*key.table.path), listed(key.foreign_columns),
            key.rules))
    text = "CREATE TABLE %s (\n    %s\n);" % (name, ",\n    ".join(lines))
    for index in catalogue.indexes(relation):
        if [column for column, _ in index.columns] != primary:
            text += "\n%sCREATE %sINDEX %s ON %s (%s);" % (
                "" if all(column for column, _ in index.columns) else "-- ",
                "UNIQUE " * index.is_unique, quoted(index.name), name,
                ", ".join(column and quoted(column) + way for column, way in index.columns))
    return text
