// Many rows of parameters on their way to one execution.
#pragma once

#include <limits>
#include <string>
#include <vector>

#include "dbapi/values.h"

// Rows changed, together; whatever a driver says they are, their sum is a number.
inline SQLLEN Sum(SQLLEN one, SQLLEN other) {
    SQLLEN sum = 0;
    return __builtin_add_overflow(one, other, &sum) ? std::numeric_limits<SQLLEN>::max() : sum;
}

// Arrays of values, one for each parameter, in which every value has the same C type.
class Batch {
  public:
    // Copies a row; false, with nothing done, when it does not fit what is there: because of its
    // types, or since there is enough.
    bool Add(const std::vector<Value>& row);
    size_t Count() const { return m_count; }
    void Clear();
    size_t Width() const { return m_columns.size(); }
    // Binds the arrays from a row on; they must stay as they are until the statement is executed.
    void Bind(SQLHSTMT statement, size_t row);

  private:
    struct Column {
        SQLSMALLINT cType = 0;  // 0 while there are only NULLs
        SQLSMALLINT sqlType = SQL_WVARCHAR;
        size_t width = 0;  // from value to value
        std::string data;
        std::vector<SQLLEN> indicators;
    };

    bool Fits(const std::vector<Value>& row) const;
    void Widen(Column& column, size_t width) const;

    size_t m_count = 0;
    std::vector<Column> m_columns;
};
