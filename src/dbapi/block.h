// Rows that are fetched and not yet handed out.
#pragma once

#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "dbapi/cells.h"
#include "dbapi/values.h"

// A result column as the driver describes it.
struct ColumnInfo {
    std::string name;
    SQLSMALLINT sqlType = SQL_WVARCHAR;
    SQLULEN size = 0;
    SQLSMALLINT digits = 0;
    SQLSMALLINT nullable = SQL_NULLABLE_UNKNOWN;
    Meaning meaning = Meaning::Plain;
    bool isOpen = false;  // its values may be of any type
};

// A value that cannot be told, of a column and a row, both counted from 0.
struct CellFailure {
    size_t column;
    unsigned long long row;
    Failure reason;

    Failure Named(const std::string& name) const;
};

// The rows of one statement's results, fetched some at a time into memory that is bound to it, in
// cells that are what they are. Short values lie in their cells; what does not fit is read on its
// own, and a column with many such values gets wider cells. A runtime without such cells is asked
// for each value.
//
// What takes a statement calls the runtime, and needs no interpreter lock.
class Block {
  public:
    // Before the first row of a result of so many columns. What describes them must stay; where
    // cells tell what they are, it may be empty.
    void Begin(SQLHSTMT statement, const std::vector<ColumnInfo>& columns, size_t count,
               bool& hasCells);
    // What comes next is not like what came before: no more memory is kept than for a single row.
    void Renew() { m_isBound = m_isBound && m_size <= kFirstRows; }
    // Fetches; false when the rows are over.
    bool Load(SQLHSTMT statement);
    bool HasRow() const { return m_next < m_count; }
    // Whether the last fetch has told already that these are the last rows: it found fewer than it
    // had room for.
    bool KnowsEnd() const { return !m_cellByCell && m_count > 0 && m_count < m_size; }
    // The next of the rows; throws for one that cannot be told, which then is passed over.
    PyRef Take();
    // For who reads the rows at hand column by column: how many come before one that cannot be
    // told, which is thrown and passed over when it is the next; the cells of these; passing them.
    size_t Ready();
    Cell CellOf(size_t row, size_t column) const { return CellAt(m_next + row, column); }
    void Pass(size_t rows) { m_next += rows; }
    // The number of the next row in the result.
    unsigned long long Position() const { return m_rowsBefore + m_next; }
    // Forgets rows, even in the middle of taking one.
    void Drop() { m_next = m_count; }
    // The same, and gives back memory that is worth it.
    void End(SQLHSTMT statement);

  private:
    // The indicator and the cell's tag, in front of the value.
    static constexpr size_t kHead = sizeof(SQLLEN) + kCellTag;

    // A single row is told from several by fetching two.
    static constexpr size_t kFirstRows = 2;

    // Where a column's part of a row lies: the indicator, and the cell behind it.
    struct Place {
        size_t offset = 0;
        size_t width = 0;  // of the value in the cell
        size_t wanted = 0;
        size_t longValues = 0;  // in the block at hand
        size_t longest = 0;     // of these
    };
    // A value that did not fit its cell.
    struct LongValue {
        size_t row;
        size_t column;
        std::string bytes;
    };

    void Bind(SQLHSTMT statement);
    void Resize(SQLHSTMT statement, size_t rows);
    void Grow(SQLHSTMT statement);
    void ReadLong(SQLHSTMT statement);
    void NoteFailures(SQLHSTMT statement, SQLRETURN status);
    bool LoadCellByCell(SQLHSTMT statement);
    bool HasFailed(size_t row) const;
    void CheckRow(size_t row);
    const char* At(size_t row, size_t column) const {
        return m_memory.get() + row * m_rowSize + m_places[column].offset;
    }
    Cell CellAt(size_t row, size_t column) const;
    const std::string& LongCell(size_t row, size_t column) const;

    const std::vector<ColumnInfo>* m_columns = nullptr;
    bool m_cellByCell = false;
    bool m_isBound = false;
    bool m_widen = false;
    std::vector<Place> m_places;
    size_t m_rowSize = 0;
    size_t m_size = 0;       // rows that a fetch brings at most
    size_t m_longBytes = 0;  // of the rows at hand
    std::unique_ptr<char[]> m_memory;
    std::vector<SQLUSMALLINT> m_status;
    SQLULEN m_fetched = 0;

    size_t m_count = 0;
    size_t m_next = 0;
    unsigned long long m_rowsBefore = 0;
    std::vector<LongValue> m_long;                       // by row and column
    std::vector<std::pair<size_t, Failure>> m_failures;  // of rows, in their order
    size_t m_nextFailure = 0;
};

inline Cell Block::CellAt(size_t row, size_t column) const {
    const char* const place = At(row, column);
    SQLLEN length = 0;
    Cell cell{};
    std::memcpy(&length, place, sizeof length);
    std::memcpy(&cell.kind, place + sizeof length, sizeof cell.kind);
    if (static_cast<size_t>(length) <= m_places[column].width) {
        cell.bytes = {place + kHead, static_cast<size_t>(length)};
    } else if (length == SQL_NULL_DATA) {
        cell.kind = CellKind::Null;
    } else if (length < 0) {
        throw Failure("HY000", "the driver tells a length that is none");
    } else {
        cell.bytes = LongCell(row, column);
    }
    return cell;
}
