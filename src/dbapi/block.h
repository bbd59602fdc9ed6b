// Rows that are fetched and not yet handed out.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "dbapi/values.h"

// A result column as the driver describes it.
struct ColumnInfo {
    std::string name;
    SQLSMALLINT sqlType = SQL_WVARCHAR;
    SQLULEN size = 0;
    SQLSMALLINT digits = 0;
    SQLSMALLINT nullable = SQL_NULLABLE_UNKNOWN;
    Meaning meaning = Meaning::Plain;
};

class Block {
  public:
    // Before the first row of a result.
    void Begin();
    // Fetches; false when the rows are over. Needs no interpreter lock.
    bool Load(SQLHSTMT statement, const std::vector<ColumnInfo>& columns);
    bool HasRow() const { return m_hasRow; }
    // The next of the rows; throws for one that cannot be told, which then is passed over.
    PyRef Take(const std::vector<ColumnInfo>& columns);

  private:
    // A cell that is read on its own.
    struct OwnCell {
        CellKind kind = CellKind::Null;
        std::string bytes;
    };

    static void Read(SQLHSTMT statement, SQLUSMALLINT number, SQLSMALLINT sqlType, OwnCell& cell);

    bool m_hasRow = false;
    unsigned long long m_rowNumber = 0;
    std::vector<OwnCell> m_cells;
    std::optional<Failure> m_failed;  // the row cannot be told
};
