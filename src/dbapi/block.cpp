#include "dbapi/block.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace {

// How a column is read without buffers bound to it.
struct Reading {
    SQLSMALLINT sqlType;
    SQLSMALLINT cType;
    CellKind kind;
    size_t size;  // 0: any length
};

constexpr Reading kReadings[] = {
    {SQL_BIT, SQL_C_SBIGINT, CellKind::Integer, sizeof(SQLBIGINT)},
    {SQL_TINYINT, SQL_C_SBIGINT, CellKind::Integer, sizeof(SQLBIGINT)},
    {SQL_SMALLINT, SQL_C_SBIGINT, CellKind::Integer, sizeof(SQLBIGINT)},
    {SQL_INTEGER, SQL_C_SBIGINT, CellKind::Integer, sizeof(SQLBIGINT)},
    {SQL_BIGINT, SQL_C_SBIGINT, CellKind::Integer, sizeof(SQLBIGINT)},
    {SQL_REAL, SQL_C_DOUBLE, CellKind::Real, sizeof(double)},
    {SQL_FLOAT, SQL_C_DOUBLE, CellKind::Real, sizeof(double)},
    {SQL_DOUBLE, SQL_C_DOUBLE, CellKind::Real, sizeof(double)},
    {SQL_DECIMAL, SQL_C_CHAR, CellKind::Decimal, 0},
    {SQL_NUMERIC, SQL_C_CHAR, CellKind::Decimal, 0},
    {SQL_BINARY, SQL_C_BINARY, CellKind::Blob, 0},
    {SQL_VARBINARY, SQL_C_BINARY, CellKind::Blob, 0},
    {SQL_LONGVARBINARY, SQL_C_BINARY, CellKind::Blob, 0},
    {SQL_TYPE_DATE, SQL_C_TYPE_DATE, CellKind::Date, sizeof(SQL_DATE_STRUCT)},
    {SQL_TYPE_TIME, SQL_C_TYPE_TIMESTAMP, CellKind::Time, sizeof(SQL_TIMESTAMP_STRUCT)},
    {SQL_TYPE_TIMESTAMP, SQL_C_TYPE_TIMESTAMP, CellKind::Timestamp, sizeof(SQL_TIMESTAMP_STRUCT)},
};
constexpr Reading kText{SQL_WVARCHAR, SQL_C_WCHAR, CellKind::Text, 0};

const Reading& ReadingOf(SQLSMALLINT sqlType) {
    const auto* const found =
        std::find_if(std::begin(kReadings), std::end(kReadings),
                     [sqlType](const Reading& reading) { return reading.sqlType == sqlType; });
    return found == std::end(kReadings) ? kText : *found;
}

// Class 22 is about data: one value cannot be delivered, and all others can.
bool IsAboutData(const Failure& failure) {
    return failure.Records().front().state.compare(0, 2, "22") == 0;
}

}  // namespace

void Block::Begin() {
    m_hasRow = false;
    m_rowNumber = 0;
    m_failed.reset();
}

bool Block::Load(SQLHSTMT statement, const std::vector<ColumnInfo>& columns) {
    const SQLRETURN status = SQLFetch(statement);
    Check(status, SQL_HANDLE_STMT, statement);
    if (status == SQL_NO_DATA) return false;
    m_hasRow = true;
    m_cells.resize(columns.size());
    try {
        for (size_t i = 0; i < columns.size(); ++i) {
            Read(statement, static_cast<SQLUSMALLINT>(i + 1), columns[i].sqlType, m_cells[i]);
        }
    } catch (const Failure& failure) {
        if (!IsAboutData(failure)) throw;
        m_failed = failure;
    }
    return true;
}

void Block::Read(SQLHSTMT statement, SQLUSMALLINT number, SQLSMALLINT sqlType, OwnCell& cell) {
    const Reading& reading = ReadingOf(sqlType);
    const size_t terminator = reading.cType == SQL_C_BINARY ? 0 : 1;
    std::string& bytes = cell.bytes;
    bytes.clear();
    cell.kind = reading.kind;
    // A piece ends with a whole character, so how long it is shows only in what is left behind it.
    SQLLEN left = SQL_NO_TOTAL;
    size_t piece = 0;
    for (size_t room = 4096;;) {
        const size_t begin = bytes.size();
        bytes.resize(begin + room);
        SQLLEN indicator = 0;
        const SQLRETURN status = SQLGetData(statement, number, reading.cType, &bytes[begin],
                                            static_cast<SQLLEN>(room), &indicator);
        Check(status, SQL_HANDLE_STMT, statement);
        if (status == SQL_NO_DATA) indicator = 0;
        if (indicator == SQL_NULL_DATA) cell.kind = CellKind::Null;
        if (reading.size > 0 || cell.kind == CellKind::Null) {
            bytes.resize(reading.size);
            return;
        }
        if (left >= 0 && indicator >= 0 && indicator <= left) {
            const auto delivered = static_cast<size_t>(left - indicator);
            if (delivered < piece) bytes.erase(begin - piece + delivered, piece - delivered);
        }
        const size_t start = bytes.size() - room;
        if (indicator >= 0 && static_cast<size_t>(indicator) + terminator <= room) {
            bytes.resize(start + static_cast<size_t>(indicator));
            return;
        }
        piece = terminator && indicator < 0 ? strnlen(&bytes[start], room - 1) : room - terminator;
        if (piece == 0) throw Failure("HY000", "The driver sends a value in pieces of nothing.");
        bytes.resize(start + piece);
        left = indicator;
        if (indicator >= 0) room = static_cast<size_t>(indicator) + terminator;
    }
}

PyRef Block::Take(const std::vector<ColumnInfo>& columns) {
    m_hasRow = false;
    ++m_rowNumber;
    if (m_failed) {
        const Failure failure = std::move(*m_failed);
        m_failed.reset();
        throw failure;
    }
    PyRef row = Checked(PyTuple_New(static_cast<Py_ssize_t>(columns.size())));
    for (size_t i = 0; i < columns.size(); ++i) {
        try {
            const Cell cell{m_cells[i].kind, m_cells[i].bytes};
            PyTuple_SET_ITEM(row.Get(), static_cast<Py_ssize_t>(i),
                             MakeValue(cell, columns[i].meaning).Release());
        } catch (const Failure& failure) {
            const Diagnostic& record = failure.Records().front();
            throw Failure(record.state.c_str(),
                          "Column " + std::to_string(i + 1) + " \"" + columns[i].name + "\", row " +
                              std::to_string(m_rowNumber) + ": " + record.words);
        }
    }
    return row;
}
