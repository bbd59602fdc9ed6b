#include "core/describe.h"
#include "core/callertext.h"

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>

#include "core/error.h"
#include "extensions.h"

namespace embedded {
namespace {

// A UTF-8 character takes up to four bytes.
constexpr SQLLEN kBytesPerCharacter = 4;

// Callers narrow a precision to 16 bits; one that would come out wrong is better unknown.
SQLLEN precisionOf(const ColumnType& type) noexcept {
    constexpr SQLULEN kMost = 32767;
    return type.size <= kMost ? static_cast<SQLLEN>(type.size) : 0;
}

bool hasFraction(const ColumnType& type) noexcept {
    return type.sqlType == SQL_TYPE_TIME || type.sqlType == SQL_TYPE_TIMESTAMP;
}

SQLLEN displaySize(const ColumnType& type) noexcept {
    const SQLLEN size = static_cast<SQLLEN>(type.size);
    switch (type.sqlType) {
        case SQL_DECIMAL:
            return size ? size + 2 : 0;  // sign and point
        case SQL_VARBINARY:
            return 2 * size;
        case SQL_WVARCHAR:
        case SQL_TYPE_TIME:
        case SQL_TYPE_TIMESTAMP:
            return size;
        default:
            return traitsOf(type.sqlType).display;
    }
}

bool isNumber(const ColumnType& type) noexcept {
    return traitsOf(type.sqlType).radix != 0;
}

std::optional<std::string_view> textAttribute(const Column& column, SQLUSMALLINT field) {
    switch (field) {
        case SQL_COLUMN_NAME:
        case SQL_DESC_NAME:
        case SQL_DESC_LABEL:
            return column.name;
        case SQL_DESC_TYPE_NAME:
            return column.typeName.empty() ? traitsOf(column.type.sqlType).name
                                           : std::string_view(column.typeName);
        case SQL_DESC_LOCAL_TYPE_NAME:
            return traitsOf(column.type.sqlType).name;
        case SQL_DESC_TABLE_NAME:
        case SQL_DESC_BASE_TABLE_NAME:
            return column.origin.table;
        case SQL_DESC_SCHEMA_NAME:
            return column.origin.schema;
        case SQL_DESC_BASE_COLUMN_NAME:
            return column.origin.column;
        case SQL_DESC_CATALOG_NAME:
            return "";
        case SQL_DESC_LITERAL_PREFIX:
        case SQL_DESC_LITERAL_SUFFIX:
            return traitsOf(column.type.sqlType).quote;
        default:
            return std::nullopt;
    }
}

std::optional<SQLLEN> numberAttribute(const Column& column, SQLUSMALLINT field) noexcept {
    const ColumnType& type = column.type;
    const TypeTraits& traits = traitsOf(type.sqlType);
    switch (field) {
        case SQL_DESC_CONCISE_TYPE:
            return type.sqlType;
        case kAssumedField:
            return type.assumed;
        case SQL_DESC_TYPE:
            return traits.verboseType;
        case SQL_DESC_DATETIME_INTERVAL_CODE:
            return traits.subcode;
        case SQL_COLUMN_LENGTH:
        case SQL_DESC_OCTET_LENGTH:
            return octetLength(type);
        case SQL_DESC_LENGTH:
            return static_cast<SQLLEN>(type.size);
        case SQL_COLUMN_PRECISION:
            return precisionOf(type);
        case SQL_DESC_PRECISION:
            return hasFraction(type) ? type.scale : precisionOf(type);
        case SQL_COLUMN_SCALE:
        case SQL_DESC_SCALE:
            return type.scale;
        case SQL_DESC_DISPLAY_SIZE:
            return displaySize(type);
        case SQL_DESC_UNSIGNED:
            return isNumber(type) ? SQL_FALSE : SQL_TRUE;
        case SQL_DESC_FIXED_PREC_SCALE:
        case SQL_DESC_AUTO_UNIQUE_VALUE:
            return SQL_FALSE;
        case SQL_DESC_UPDATABLE:
            return SQL_ATTR_READWRITE_UNKNOWN;
        case SQL_DESC_CASE_SENSITIVE:
            return type.sqlType == SQL_WVARCHAR ? SQL_TRUE : SQL_FALSE;
        case SQL_DESC_SEARCHABLE:
            return SQL_PRED_SEARCHABLE;
        case SQL_DESC_NUM_PREC_RADIX:
            return traits.radix;
        case SQL_DESC_UNNAMED:
            return column.name.empty() ? SQL_UNNAMED : SQL_NAMED;
        default:
            return std::nullopt;
    }
}

}  // namespace

SQLLEN octetLength(const ColumnType& type) noexcept {
    const SQLLEN size = static_cast<SQLLEN>(type.size);
    switch (type.sqlType) {
        case SQL_WVARCHAR:
            return size * kBytesPerCharacter;
        case SQL_VARBINARY:
            return size;
        case SQL_DECIMAL:
            return displaySize(type);
        default:
            return traitsOf(type.sqlType).octets;
    }
}

const Column& describedColumn(Statement& statement, SQLUSMALLINT column) {
    const std::vector<Column>& columns = statement.columns();
    if (columns.empty()) throw Error("07005", "The statement has no result columns.");
    if (column == 0 || column > columns.size()) {
        throw Error("07009", "There is no column " + std::to_string(column) + ".");
    }
    return columns[column - 1U];
}

void columnAttribute(Statement& statement, SQLUSMALLINT column, SQLUSMALLINT field,
                     const AttributeOutput& output) {
    if (field == SQL_COLUMN_COUNT || field == SQL_DESC_COUNT) {
        if (output.number) *output.number = statement.columnCount();
        return;
    }
    const Column& described = describedColumn(statement, column);
    if (const auto text = textAttribute(described, field)) {
        answerText(statement.diagnostics, *text, output.text, output.capacity, output.length);
        return;
    }
    const bool asksNullable = field == SQL_COLUMN_NULLABLE || field == SQL_DESC_NULLABLE;
    const std::optional<SQLLEN> number =
        asksNullable ? statement.connection().database().nullability(described)
                     : numberAttribute(described, field);
    if (!number) throw Error("HY091", "Unknown column attribute " + std::to_string(field) + ".");
    if (output.number) *output.number = *number;
}

}  // namespace embedded
