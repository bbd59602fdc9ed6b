# mypy: disable-error-code="import-not-found, misc, type-arg, no-untyped-call"
# mypy: no-disallow-subclassing-any
"""What SQLAlchemy 1.4 leaves to a driver for PostgreSQL: casts, arrays and JSON in catalogues."""

import itertools
import json
from typing import Any

from sqlalchemy import text

_UNIQUE = """
    SELECT cons.conname, a.attname
    FROM pg_catalog.pg_constraint cons
    CROSS JOIN LATERAL unnest(cons.conkey) WITH ORDINALITY AS k (number, place)
    JOIN pg_catalog.pg_attribute a ON a.attrelid = cons.conrelid AND a.attnum = k.number
    WHERE cons.conrelid = :table AND cons.contype = 'u'
    ORDER BY cons.conname, k.place
"""


class Compiler:
    """Stands before SQLAlchemy's own compiler."""

    def visit_bindparam(self, bindparam: Any, *args: Any, **kw: Any) -> Any:
        this: Any = self
        parent: Any = super()
        sql = parent.visit_bindparam(bindparam, *args, **kw)
        impl = bindparam.type.dialect_impl(this.dialect)
        is_cast = sql == "?" and getattr(impl, "render_bind_cast", False)
        return this.render_bind_cast(None, impl, sql) if is_cast else sql


class Reflection:
    """Stands before SQLAlchemy's own dialect."""

    def get_unique_constraints(
        self, connection: Any, table_name: str, schema: Any = None, **kw: Any
    ) -> Any:
        parent: Any = super()
        cache = kw.get("info_cache")
        oid = parent.get_table_oid(connection, table_name, schema, info_cache=cache)
        rows = connection.execute(text(_UNIQUE), {"table": oid}).fetchall()
        return [
            {"name": name, "column_names": [column for _, column in group]}
            for name, group in itertools.groupby(rows, lambda row: row[0])
        ]

    def _get_column_info(self, *column: Any) -> Any:
        parent: Any = super()
        *others, identity = column
        if isinstance(identity, str):
            identity = json.loads(identity)
        return parent._get_column_info(*others, identity)
