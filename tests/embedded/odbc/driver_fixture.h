// What the tests of the ODBC engine share: the tests' own driver behind the real driver manager.
#pragma once

#include <dlfcn.h>

#include <algorithm>
#include <initializer_list>
#include <string_view>

#include "fixture.h"
#include "odbc_driver/driver.h"

namespace embedded_test {

using odbc_driver::Call;
using odbc_driver::Cell;
using odbc_driver::kUsual;
using odbc_driver::Result;
using odbc_driver::Script;

inline Script& driverScript() {
    // Open for good, so that the script outlives the driver manager's use of it.
    static void* const library = dlopen(VORDA_ODBC_DRIVER, RTLD_NOW | RTLD_LOCAL);
    if (!library) throw std::runtime_error(dlerror());
    static auto* const function =
        reinterpret_cast<odbc_driver::ScriptFunction*>(dlsym(library, "odbc_driver_script"));
    return *function();
}

/// A text as the driver delivers it.
inline Cell wide(const std::u16string& text) {
    return {{reinterpret_cast<const char*>(text.data()), 2 * text.size()}};
}

/// A number or structure as the driver delivers it.
template <class T>
Cell raw(const T& value) {
    return {{reinterpret_cast<const char*>(&value), sizeof value}};
}
inline Cell number(SQLBIGINT value) {
    return raw(value);
}

inline Cell claiming(Cell cell, SQLLEN length) {
    cell.claimed = length;
    return cell;
}

/// An answer to the calls from one to another.
inline auto failing(int from = 1, int to = 100000, SQLRETURN result = SQL_ERROR) {
    return [=](const Call& call) {
        return call.number >= from && call.number <= to ? result : kUsual;
    };
}

inline const std::string kDriverText = "Driver=" VORDA_ODBC_DRIVER ";Server=here";

/// A test with the driver, which answers like a plain one, and a place for a connection to it.
class DriverTest : public ::testing::Test {
  protected:
    DriverTest() {
        script = {};
        script.texts = {{SQL_DRIVER_NAME, u"tests.so"},
                        {SQL_DRIVER_ODBC_VER, u"03.52"},
                        {SQL_DBMS_NAME, u"Plain"},
                        {SQL_DATABASE_NAME, u"main"},
                        {SQL_SEARCH_PATTERN_ESCAPE, u"\\"},
                        {SQL_SCHEMA_TERM, u"schema"},
                        {SQL_PROCEDURES, u"Y"}};
        script.numbers = {{SQL_GETDATA_EXTENSIONS, SQL_GD_BOUND},
                          {SQL_IDENTIFIER_CASE, SQL_IC_LOWER}};
    }
    ~DriverTest() override { EXPECT_EQ(0, script.handles) << "handles were left"; }

    void dialect(const char16_t* name) { script.texts[SQL_DBMS_NAME] = name; }

    void executions(const std::function<SQLRETURN(const Call&)>& answer) {
        script.answers["SQLExecDirectW"] = script.answers["SQLExecute"] = answer;
    }
    /// From now on every execution gives one column of `type` with one row for each of `cells`.
    void give(SQLSMALLINT type, const std::vector<Cell>& cells) {
        Result result;
        result.columns = {{u"c", type}};
        for (const Cell& cell : cells) result.rows.push_back({cell});
        script.results = {result};
    }

    /// Calls of the functions whose names begin in one of these ways, since the last look.
    Rows calls(std::initializer_list<std::string_view> wanted) {
        Rows found;
        for (const std::string& line : script.log) {
            const auto begins = [&line](std::string_view name) { return line.starts_with(name); };
            if (std::any_of(wanted.begin(), wanted.end(), begins)) found.push_back(line);
        }
        script.log.clear();
        return found;
    }

    Script& script = driverScript();
};

}  // namespace embedded_test
