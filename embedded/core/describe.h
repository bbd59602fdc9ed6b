#pragma once

#include <sql.h>
#include <sqlext.h>

#include "core/statement.h"

namespace embedded {

/// Where SQLColAttribute puts its answer: a text or a number, as the field demands.
struct AttributeOutput {
    SQLPOINTER text;
    SQLSMALLINT capacity;
    SQLSMALLINT* length;
    SQLLEN* number;
};

/// Answers one SQL_DESC_… or SQL_COLUMN_… field of the 1-based `column`.
void columnAttribute(Statement& statement, SQLUSMALLINT column, SQLUSMALLINT field,
                     const AttributeOutput& output);

/// The description of the 1-based `column`; throws 07009 when there is none, 07005 when the
/// statement has no columns at all.
const Column& describedColumn(Statement& statement, SQLUSMALLINT column);

/// Bytes of a value in its default C type, as SQL_COLUMN_LENGTH says; 0 when unknown.
SQLLEN octetLength(const ColumnType& type) noexcept;

}  // namespace embedded
