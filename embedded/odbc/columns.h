#pragma once

#include <vector>

#include "odbc/statement.h"
#include "values/column.h"

namespace embedded {

/// In which form a column is read from the driver.
enum class Form {
    Integer,
    Bit,
    Real,
    Wide,   ///< text
    Utf8,   ///< text that comes as bytes
    Ascii,  ///< text of digits and signs: exact decimals, times with their fraction
    Binary,
    Date,
    Timestamp,
};

/// A result column as the driver describes it, and how it is read.
struct OdbcColumn {
    Column column;
    Form form;
};

/// The columns of a statement that is executed, or prepared; without the names of columns and
/// types, which take drivers longer than all else, and somebody has to ask for.
std::vector<OdbcColumn> describeColumns(const OdbcStatement& statement);
/// Adds these names.
void nameColumns(const OdbcStatement& statement, std::vector<Column>& columns);
/// Both.
std::vector<Column> describeAndName(const OdbcStatement& statement);

}  // namespace embedded
