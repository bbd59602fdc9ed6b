#include "dbapi/batch.h"

#include <algorithm>
#include <cstring>

namespace {

// Of all arrays together, unless a single row has more.
constexpr size_t kMostBytes = size_t{1} << 20U;
constexpr size_t kMostRows = 1024;

// Integers of both sizes go into one array.
SQLSMALLINT TypeInArray(const Value& value) {
    return value.cType == SQL_C_SLONG ? SQLSMALLINT{SQL_C_SBIGINT} : value.cType;
}

// The size of a value of a fixed type; 0 for texts and binary data.
size_t SizeOf(SQLSMALLINT cType) {
    switch (cType) {
        case SQL_C_SBIGINT:
        case SQL_C_DOUBLE:
            return sizeof(SQLBIGINT);
        case SQL_C_BIT:
            return sizeof(SQLCHAR);
        case SQL_C_TYPE_DATE:
            return sizeof(SQL_DATE_STRUCT);
        case SQL_C_TYPE_TIMESTAMP:
            return sizeof(SQL_TIMESTAMP_STRUCT);
        default:
            return 0;
    }
}

bool IsZoned(SQLSMALLINT sqlType) {
    return sqlType == kZonedTime || sqlType == kZonedTimestamp;
}

size_t WidthOf(const Value& value) {
    const size_t size = SizeOf(TypeInArray(value));
    return size > 0 ? size : std::max<size_t>(value.bytes.size(), 1);
}

}  // namespace

bool Batch::Fits(const std::vector<Value>& row) const {
    size_t width = 0;
    for (size_t i = 0; i < row.size(); ++i) {
        const Column& column = m_columns[i];
        width += column.width;
        if (row[i].isNull) continue;
        const bool isZoned = IsZoned(column.sqlType) || IsZoned(row[i].sqlType);
        const bool isOther =
            column.cType != TypeInArray(row[i]) || (isZoned && column.sqlType != row[i].sqlType);
        if (column.cType != 0 && isOther) return false;
        width += std::max(WidthOf(row[i]), column.width) - column.width;
    }
    return m_count < kMostRows && width * (m_count + 1) <= kMostBytes;
}

bool Batch::Add(const std::vector<Value>& row) {
    if (m_count == 0) m_columns.resize(row.size());
    if (m_count > 0 && (row.size() != m_columns.size() || !Fits(row))) return false;
    for (size_t i = 0; i < row.size(); ++i) {
        const Value& value = row[i];
        Column& column = m_columns[i];
        if (!value.isNull) {
            if (column.cType == 0) {
                column.cType = TypeInArray(value);
                column.sqlType =
                    column.cType == SQL_C_SBIGINT ? SQLSMALLINT{SQL_BIGINT} : value.sqlType;
            }
            if (WidthOf(value) > column.width) Widen(column, WidthOf(value));
        }
        const size_t place = column.width * m_count;
        if (column.data.size() < place + column.width)
            column.data.resize(std::max(2 * column.data.size(), place + column.width));
        if (value.isNull) {
            column.indicators.push_back(SQL_NULL_DATA);
        } else if (SizeOf(column.cType) > 0) {
            std::memcpy(&column.data[place], &value.stamp, column.width);
            column.indicators.push_back(static_cast<SQLLEN>(column.width));
        } else {
            value.bytes.copy(&column.data[place], value.bytes.size());
            column.indicators.push_back(static_cast<SQLLEN>(value.bytes.size()));
        }
    }
    ++m_count;
    return true;
}

// Moves the values that are there to the places that they have with the new width.
void Batch::Widen(Column& column, size_t width) const {
    // One that grows is likely to grow on.
    if (column.width > 0) width += width / 2;
    std::string data(width * (m_count + 1), '\0');
    for (size_t row = 0; row < m_count && column.width > 0; ++row)
        std::memcpy(&data[row * width], &column.data[row * column.width], column.width);
    column.data = std::move(data);
    column.width = width;
}

void Batch::Clear() {
    m_count = 0;
    for (Column& column : m_columns) {
        column.indicators.clear();
        column.cType = 0;
        column.width = 0;
    }
}

void Batch::Bind(SQLHSTMT statement, size_t row) {
    SQLUSMALLINT number = 0;
    for (Column& column : m_columns) {
        const SQLSMALLINT cType = column.cType == 0 ? SQLSMALLINT{SQL_C_WCHAR} : column.cType;
        // An array of NULLs has an address, too.
        const size_t width = std::max<size_t>(column.width, 1);
        if (column.data.size() < m_count) column.data.resize(m_count);
        Check(SQLBindParameter(statement, ++number, SQL_PARAM_INPUT, cType, column.sqlType, width,
                               0, &column.data[row * width], static_cast<SQLLEN>(width),
                               &column.indicators[row]),
              SQL_HANDLE_STMT, statement);
    }
}
