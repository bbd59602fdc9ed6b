// An ODBC driver for tests, loaded by the real driver manager. It answers as `script()` says, lies
// included, and otherwise like a plain driver: every execution gives the results of the script.
#pragma once

#include <sql.h>
#include <sqlext.h>

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace odbc_driver {

struct Diagnostic {
    std::u16string state;
    SQLINTEGER native = 0;
    std::u16string text;
    std::optional<SQLSMALLINT> claimed{};  ///< in place of the text's length
};

/// A value as its bytes in the C type that is asked for.
struct Cell {
    std::string bytes;
    std::optional<SQLLEN> claimed{};  ///< the indicator, in place of the true one
};

struct Column {
    std::u16string name;
    SQLSMALLINT type = SQL_WVARCHAR;
    std::optional<SQLSMALLINT> claimed{};  ///< in place of the name's length
};

struct Result {
    std::vector<Column> columns;
    std::vector<std::vector<Cell>> rows;
    SQLLEN changed = 0;
    std::optional<SQLSMALLINT> claimed{};  ///< in place of the number of columns
};

struct Call {
    int number = 0;  ///< of the calls of the function, counted from 1
    // Of an execution.
    SQLULEN sets = 0;
    SQLUSMALLINT* status = nullptr;
    SQLULEN* processed = nullptr;
    // Of SQLGetData.
    char* target = nullptr;
    SQLLEN capacity = 0;
    SQLLEN* indicator = nullptr;
};

/// Says that the driver goes on as if there were no answer.
inline constexpr SQLRETURN kUsual = -1000;

struct Script {
    /// By the function's name: what its calls return.
    std::map<std::string, std::function<SQLRETURN(const Call&)>> answers;
    std::vector<Result> results;
    Result catalog;
    std::vector<Diagnostic> diagnostics;  ///< of every handle, whenever they are asked for
    std::map<SQLUSMALLINT, std::u16string> texts;
    std::map<SQLUSMALLINT, SQLUINTEGER> numbers;

    // Written by the driver; to be read while nobody calls it.
    std::map<std::string, int> calls;
    std::vector<std::string> log;  ///< the calls with what matters of their arguments
    int handles = 0;               ///< that are not freed
};

/// Of the tests; the library shows it as "odbc_driver_script".
using ScriptFunction = Script*();

}  // namespace odbc_driver
