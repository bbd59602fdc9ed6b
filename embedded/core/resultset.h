#pragma once

#include <string>
#include <utility>
#include <vector>

#include "values/cell.h"
#include "values/column.h"

namespace embedded {

/// What a look at the next row found.
enum class Ahead {
    Unknown,  ///< nothing was done, and the current row stays
    Row,
    End,  ///< no row, or a failure: the statement is no longer used
};

/// The rows of an executed statement, read once from first to last.
class ResultSet {
  public:
    ResultSet() = default;
    ResultSet(const ResultSet&) = delete;
    ResultSet& operator=(const ResultSet&) = delete;
    virtual ~ResultSet() = default;

    virtual int columnCount() { return static_cast<int>(columns().size()); }

    /// What the 0-based column is delivered as, an expression as what the first row has.
    virtual const ColumnType& type(int column) {
        return columns()[static_cast<size_t>(column)].type;
    }

    /// All that describes the columns, which may cost more than the count and the types. Can be
    /// asked for as long as the program is there.
    virtual const std::vector<Column>& columns() = 0;

    /// Moves to the next row; false at the end. Throws an `Error` when the engine fails, which ends
    /// the rows.
    virtual bool next() = 0;

    /// Leaves the current row, whose values nobody needs any more, to find out whether another one
    /// follows: rows that are used up let go of the database at once. What it finds, a failure too,
    /// `next` answers.
    virtual Ahead lookAhead() { return Ahead::Unknown; }

    /// The value in the 0-based column of the current row; valid until the next `next`.
    virtual Cell cell(int column) = 0;
};

/// Rows kept in memory.
class StoredRows final : public ResultSet {
  public:
    explicit StoredRows(std::vector<Column> columns) : m_columns(std::move(columns)) {}

    /// Appends a row, in the order of the columns, with copies of its texts. No dates and times.
    void append(const std::vector<Cell>& row);

    const std::vector<Column>& columns() override { return m_columns; }
    bool next() override;
    Cell cell(int column) override;

  private:
    struct Value {
        Cell::Kind kind;
        std::int64_t integer;
        double real;
        size_t begin;  ///< of its bytes, which end where the next value's begin
    };

    std::vector<Column> m_columns;
    std::vector<Value> m_values;  ///< of all rows
    std::string m_bytes;          ///< of all values
    size_t m_rows = 0;
    size_t m_current = 0;  ///< 1-based; 0 before the first row
};

}  // namespace embedded
