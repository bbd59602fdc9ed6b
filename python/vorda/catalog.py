"""What a database holds, as the standard's functions of the catalogue list it."""

from typing import Optional, TypeVar

from . import _statement

_Cursor = TypeVar("_Cursor", bound="CatalogCursor")
_ALL_TYPES = 0


class CatalogCursor(_statement.Cursor):
    """Methods that ask the catalogue. Their rows are fetched as those of a query; the columns have
    the standard's names and order. None as an argument matches everything.
    """

    __slots__ = ()

    def tables(self: _Cursor, table: Optional[str] = None, catalog: Optional[str] = None,
               schema: Optional[str] = None, tableType: Optional[str] = None) -> _Cursor:
        """List tables and views whose names match, with % and _ as in LIKE; those of a list of
        types like "TABLE,VIEW"."""
        return self._ask_catalog("tables", (catalog, schema, table, tableType), 0)

    def columns(self: _Cursor, table: Optional[str] = None, catalog: Optional[str] = None,
                schema: Optional[str] = None, column: Optional[str] = None) -> _Cursor:
        """List columns whose tables' names and own match, with % and _ as in LIKE."""
        return self._ask_catalog("columns", (catalog, schema, table, column), 0)

    def primaryKeys(self: _Cursor, table: str, catalog: Optional[str] = None,
                    schema: Optional[str] = None) -> _Cursor:
        """List the columns of a table's primary key."""
        return self._ask_catalog("primaryKeys", (catalog, schema, table), 0)

    def foreignKeys(self: _Cursor, table: Optional[str] = None, catalog: Optional[str] = None,
                    schema: Optional[str] = None, foreignTable: Optional[str] = None,
                    foreignCatalog: Optional[str] = None,
                    foreignSchema: Optional[str] = None) -> _Cursor:
        """List the foreign keys that lead to `table`, or those that `foreignTable` has, or what is
        both."""
        names = (catalog, schema, table, foreignCatalog, foreignSchema, foreignTable)
        return self._ask_catalog("foreignKeys", names, 0)

    def statistics(self: _Cursor, table: str, catalog: Optional[str] = None,
                   schema: Optional[str] = None, unique: bool = False) -> _Cursor:
        """List the columns of a table's indexes, or of the unique ones."""
        return self._ask_catalog("statistics", (catalog, schema, table), bool(unique))

    def procedures(self: _Cursor, procedure: Optional[str] = None, catalog: Optional[str] = None,
                   schema: Optional[str] = None) -> _Cursor:
        """List procedures whose names match, with % and _ as in LIKE."""
        return self._ask_catalog("procedures", (catalog, schema, procedure), 0)

    def getTypeInfo(self: _Cursor, sqlType: Optional[int] = None) -> _Cursor:
        """List the types that columns may have, or one by its ODBC number."""
        return self._ask_catalog("getTypeInfo", (), _ALL_TYPES if sqlType is None else sqlType)
