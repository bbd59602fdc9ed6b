#include "dbapi/cells.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace {

constexpr size_t kMostAhead = size_t{1} << 20U;

// How a column of a type is read by the standard's means.
struct Reading {
    SQLSMALLINT sqlType;
    SQLSMALLINT cType;
    CellKind kind;
    size_t size;  // 0: any length
};

constexpr size_t kStamp = sizeof(SQL_TIMESTAMP_STRUCT);

constexpr Reading kReadings[] = {
    {SQL_BIT, SQL_C_SBIGINT, CellKind::Boolean, sizeof(SQLBIGINT)},
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
    {SQL_TYPE_DATE, SQL_C_TYPE_TIMESTAMP, CellKind::Date, kStamp},
    {SQL_TYPE_TIME, SQL_C_TYPE_TIMESTAMP, CellKind::Time, kStamp},
    {SQL_TYPE_TIMESTAMP, SQL_C_TYPE_TIMESTAMP, CellKind::Timestamp, kStamp},
};
constexpr Reading kText{SQL_WVARCHAR, SQL_C_WCHAR, CellKind::Text, 0};

const Reading& ReadingOf(SQLSMALLINT sqlType) {
    const auto* const found =
        std::find_if(std::begin(kReadings), std::end(kReadings),
                     [sqlType](const Reading& reading) { return reading.sqlType == sqlType; });
    return found == std::end(kReadings) ? kText : *found;
}

}  // namespace

bool HasAnyLength(SQLSMALLINT sqlType) {
    return ReadingOf(sqlType).size == 0;
}

CellKind KindOf(SQLSMALLINT sqlType) {
    return ReadingOf(sqlType).kind;
}

CellKind ReadStandard(SQLHSTMT statement, SQLUSMALLINT column, SQLSMALLINT sqlType,
                      std::string& bytes) {
    const Reading& reading = ReadingOf(sqlType);
    const size_t terminator = reading.cType == SQL_C_BINARY ? 0 : 1;
    bytes.clear();
    // A piece ends with a whole character, so how long it is shows only in what is left behind it.
    SQLLEN left = SQL_NO_TOTAL;
    size_t piece = 0;
    for (size_t room = 4096;;) {
        const size_t begin = bytes.size();
        bytes.resize(begin + room);
        SQLLEN indicator = 0;
        const SQLRETURN status = SQLGetData(statement, column, reading.cType, &bytes[begin],
                                            static_cast<SQLLEN>(room), &indicator);
        CheckFound(status, statement);
        if (status == SQL_NO_DATA) {
            if (begin == 0 || (left >= 0 && static_cast<size_t>(left) > piece))
                throw Failure("HY000", "The driver has less of a value than it said.");
            indicator = 0;
        }
        if (indicator == SQL_NULL_DATA) {
            bytes.clear();
            return CellKind::Null;
        }
        if (reading.size > 0) {
            bytes.resize(reading.size);
            return reading.kind;
        }
        if (left >= 0 && indicator >= 0 && indicator <= left) {
            const auto delivered = static_cast<size_t>(left - indicator);
            if (delivered < piece) bytes.erase(begin - piece + delivered, piece - delivered);
        }
        const size_t start = bytes.size() - room;
        if (indicator >= 0 && static_cast<size_t>(indicator) + terminator <= room) {
            bytes.resize(start + static_cast<size_t>(indicator));
            return reading.kind;
        }
        piece = terminator && indicator < 0 ? strnlen(&bytes[start], room - 1) : room - terminator;
        if (piece == 0) throw Failure("HY000", "The driver sends a value in pieces of nothing.");
        bytes.resize(start + piece);
        left = indicator;
        // A length is not trusted with more memory than has been filled.
        if (indicator >= 0)
            room = std::min(static_cast<size_t>(indicator) + terminator, kMostAhead + bytes.size());
    }
}

void ReadWhole(SQLHSTMT statement, SQLUSMALLINT column, size_t length, std::string& bytes) {
    size_t read = 0;
    do {
        // A length is not trusted with more memory than has been filled. A cell is no shorter than
        // a timestamp, and each piece has its tag, which lies on the end of the piece before.
        const size_t left = length - read;
        const size_t room = std::max(kStamp, std::min(left, std::max(read, kMostAhead)));
        bytes.resize(kCellTag + read + room);
        char covered[kCellTag];
        std::memcpy(covered, &bytes[read], kCellTag);
        SQLLEN indicator = 0;
        const SQLRETURN status = SQLGetData(statement, column, kCellCType, &bytes[read],
                                            static_cast<SQLLEN>(kCellTag + room), &indicator);
        Check(status, SQL_HANDLE_STMT, statement);
        if (indicator < 0 || static_cast<size_t>(indicator) != left ||
            (room < left && status == SQL_SUCCESS))
            throw Failure("HY000", "The driver tells two lengths of one value.");
        std::memcpy(&bytes[read], covered, kCellTag);
        // Growing now takes addresses, and memory as it is filled.
        if (read == 0) bytes.reserve(kCellTag + length + kStamp);
        read += room;
    } while (read < length);
    bytes.erase(0, kCellTag);
    bytes.resize(length);
}
