// What the tests of the embedded runtime share: a database file in a folder of its own, a
// connection to it through the RT_ functions, and SQLite itself to look at the file from outside.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "entry/runtime.h"

namespace embedded_test {

inline constexpr const char* kDriver = "caller.so";

inline SQLCHAR* chars(const char* text) {
    return reinterpret_cast<SQLCHAR*>(const_cast<char*>(text));
}
inline SQLCHAR* chars(const std::string& text) {
    return chars(text.c_str());
}

/// One diagnostic record.
struct Diagnostic {
    std::string state;
    int native = 0;
    std::string message;

    bool says(const std::string& part) const { return message.find(part) != std::string::npos; }
};

inline Diagnostic diagnosticOf(SQLSMALLINT type, SQLHANDLE handle, SQLSMALLINT number = 1) {
    SQLCHAR state[7] = "######";  // one more than is needed
    SQLCHAR message[1024] = "";
    SQLINTEGER native = 0;
    SQLSMALLINT length = 0;
    Diagnostic result;
    if (RT_SQLGetDiagRec(kDriver, type, handle, number, state, &native, message, sizeof message,
                         &length) == SQL_SUCCESS) {
        result = {reinterpret_cast<char*>(state), native, reinterpret_cast<char*>(message)};
    }
    return result;
}

/// A folder that vanishes with its contents.
class TemporaryFolder {
  public:
    TemporaryFolder() {
        std::string name = (std::filesystem::temp_directory_path() / "vorda-XXXXXX").string();
        if (!mkdtemp(name.data())) throw std::runtime_error("no temporary folder");
        m_path = name;
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    std::string file(const std::string& name) const { return (m_path / name).string(); }

  private:
    std::filesystem::path m_path;
};

/// A statement handle, freed at the end.
class Statement {
  public:
    explicit Statement(SQLHDBC connection) {
        EXPECT_EQ(SQL_SUCCESS, RT_SQLAllocHandle(kDriver, SQL_HANDLE_STMT, connection, &handle));
    }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    ~Statement() { RT_SQLFreeHandle(kDriver, SQL_HANDLE_STMT, handle); }

    SQLRETURN prepare(const std::string& sql) {
        return RT_SQLPrepareW(kDriver, handle, chars(sql), static_cast<SQLINTEGER>(sql.size()));
    }
    SQLRETURN execute() { return RT_SQLExecute(kDriver, handle); }
    SQLRETURN run(const std::string& sql) {
        return RT_SQLExecDirectW(kDriver, handle, chars(sql), static_cast<SQLINTEGER>(sql.size()));
    }
    SQLRETURN fetch() { return RT_SQLFetch(kDriver, handle); }
    SQLRETURN close() { return RT_SQLFreeStmt(kDriver, handle, SQL_CLOSE); }

    template <class T>
    SQLRETURN bind(SQLUSMALLINT number, SQLSMALLINT cType, const T* value, SQLLEN* indicator) {
        return RT_SQLBindParameter(kDriver, handle, number, SQL_PARAM_INPUT, cType, SQL_WVARCHAR,
                                   sizeof(T), 0, const_cast<T*>(value), sizeof(T), indicator);
    }
    SQLRETURN bindText(SQLUSMALLINT number, const char* text, SQLLEN* length, SQLLEN slot = 0) {
        return RT_SQLBindParameter(kDriver, handle, number, SQL_PARAM_INPUT, SQL_C_WCHAR,
                                   SQL_WVARCHAR, 0, 0, const_cast<char*>(text), slot, length);
    }
    SQLRETURN set(SQLINTEGER attribute, SQLULEN value) {
        return RT_SQLSetStmtAttr(kDriver, handle, attribute, reinterpret_cast<SQLPOINTER>(value),
                                 0);
    }

    /// The state of a call that failed; "" for any other.
    std::string stateOf(SQLRETURN result) { return result == SQL_ERROR ? error().state : ""; }

    SQLLEN rowCount() {
        SQLLEN count = -99;
        RT_SQLRowCount(kDriver, handle, &count);
        return count;
    }
    SQLLEN attribute(SQLUSMALLINT column, SQLUSMALLINT field) {
        SQLLEN value = -9999;
        RT_SQLColAttributeW(kDriver, handle, column, field, nullptr, 0, nullptr, &value);
        return value;
    }
    std::string text(SQLUSMALLINT column, SQLUSMALLINT field) {
        char value[256] = "";
        EXPECT_EQ(SQL_SUCCESS, RT_SQLColAttributeW(kDriver, handle, column, field, value,
                                                   sizeof value, nullptr, nullptr));
        return value;
    }

    /// The value in a column of the current row as text; "NULL" for NULL, "!" and the state on
    /// failure.
    std::string get(SQLUSMALLINT column) {
        char value[4096];
        SQLLEN length = 0;
        const SQLRETURN result =
            RT_SQLGetData(kDriver, handle, column, SQL_C_WCHAR, value, sizeof value, &length);
        if (!SQL_SUCCEEDED(result)) return "!" + error().state;
        return length == SQL_NULL_DATA ? "NULL" : std::string(value, static_cast<size_t>(length));
    }

    SQLSMALLINT columns() {
        SQLSMALLINT count = -1;
        RT_SQLNumResultCols(kDriver, handle, &count);
        return count;
    }
    /// All rows that remain, values joined by "|".
    std::vector<std::string> rows() {
        const SQLSMALLINT count = columns();
        std::vector<std::string> all;
        while (SQL_SUCCEEDED(fetch())) {
            std::string row;
            for (SQLUSMALLINT i = 1; i <= count; ++i) row += (i > 1 ? "|" : "") + get(i);
            all.push_back(row);
        }
        return all;
    }

    /// What an execution did: its rows joined by ", ", or "#" and the number of rows changed; on a
    /// failure "!", the state, the native code and the message.
    std::string outcome(SQLRETURN result) {
        if (result == SQL_ERROR) {
            const Diagnostic why = error();
            return "!" + why.state + " " + std::to_string(why.native) + " " + why.message;
        }
        EXPECT_EQ(result == SQL_NO_DATA, columns() == 0 && rowCount() == 0);
        if (columns() == 0) return "#" + std::to_string(rowCount());
        std::string all;
        for (const std::string& row : rows()) all += (all.empty() ? "" : ", ") + row;
        return all.empty() ? "no rows" : all;
    }

    Diagnostic error(SQLSMALLINT number = 1) {
        return diagnosticOf(SQL_HANDLE_STMT, handle, number);
    }

    SQLHSTMT handle = nullptr;
};

/// A connection in an environment of its own.
class Connection {
  public:
    Connection() {
        RT_SQLAllocHandle(kDriver, SQL_HANDLE_ENV, nullptr, &environment);
        RT_SQLSetEnvAttr(kDriver, environment, SQL_ATTR_ODBC_VERSION,
                         reinterpret_cast<SQLPOINTER>(SQL_OV_ODBC3), 0);
        RT_SQLAllocHandle(kDriver, SQL_HANDLE_DBC, environment, &handle);
    }
    explicit Connection(const std::string& text) : Connection() {
        EXPECT_EQ(SQL_SUCCESS, open(text)) << error().message;
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() {
        RT_SQLEndTran(kDriver, SQL_HANDLE_DBC, handle, SQL_ROLLBACK);
        RT_SQLDisconnect(kDriver, handle);
        EXPECT_EQ(SQL_SUCCESS, RT_SQLFreeHandle(kDriver, SQL_HANDLE_DBC, handle));
        EXPECT_EQ(SQL_SUCCESS, RT_SQLFreeHandle(kDriver, SQL_HANDLE_ENV, environment));
    }

    SQLRETURN open(const std::string& text) {
        return RT_SQLDriverConnectW(kDriver, handle, nullptr, chars(text), SQL_NTS, nullptr, 0,
                                    nullptr, SQL_DRIVER_COMPLETE);
    }
    SQLRETURN run(const std::string& sql) {
        Statement statement(handle);
        const SQLRETURN result = statement.run(sql);
        last = statement.error();
        return result;
    }
    /// Runs a statement that is to succeed.
    void must(const std::string& sql) {
        const SQLRETURN result = run(sql);
        EXPECT_TRUE(SQL_SUCCEEDED(result) || result == SQL_NO_DATA) << sql << ": " << last.message;
    }
    std::vector<std::string> query(const std::string& sql) {
        Statement statement(handle);
        EXPECT_EQ(SQL_SUCCESS, statement.run(sql)) << sql << ": " << statement.error().message;
        return statement.rows();
    }
    /// Runs a script of one statement a line, which goes on in lines that begin with a blank. Each
    /// is to succeed, or to have the outcome behind " => "; of a failure any part will do.
    void expect(const std::string& script) {
        for (size_t begin = 0, end = 0; begin < script.size(); begin = end + 1) {
            end = script.find('\n', begin);
            while (end < script.size() && script[end + 1] == ' ') end = script.find('\n', end + 1);
            end = std::min(end, script.size());
            const std::string text = script.substr(begin, end - begin);
            const size_t arrow = std::min(text.find(" => "), text.size());
            if (text.empty()) continue;
            const std::string wanted = arrow == text.size() ? "#" : text.substr(arrow + 4);
            Statement statement(handle);
            const std::string seen = statement.outcome(statement.run(text.substr(0, arrow)));
            const bool alike =
                wanted == "#" ? !seen.starts_with('!')
                : !wanted.starts_with('!')
                    ? seen == wanted
                    : seen.starts_with('!') && seen.find(wanted.substr(1)) != std::string::npos;
            EXPECT_TRUE(alike) << text << "\nbut it was: " << seen;
        }
    }
    SQLRETURN autocommit(bool on) {
        return RT_SQLSetConnectAttr(kDriver, handle, SQL_ATTR_AUTOCOMMIT,
                                    reinterpret_cast<SQLPOINTER>(SQLULEN{on}), 0);
    }
    SQLRETURN end(SQLSMALLINT completion) {
        return RT_SQLEndTran(kDriver, SQL_HANDLE_DBC, handle, completion);
    }
    Diagnostic error() { return diagnosticOf(SQL_HANDLE_DBC, handle); }

    SQLHENV environment = nullptr;
    SQLHDBC handle = nullptr;
    Diagnostic last;  ///< of the last `run`
};

using Rows = std::vector<std::string>;

/// A test with a database file, an open connection to it, and a view of it through SQLite alone.
class DatabaseTest : public ::testing::Test {
  protected:
    DatabaseTest() : path(folder.file("test.db")), connection("Database=" + path + ";Timeout=0") {}

    /// What SQLite itself reads from the file: rows with their values joined by "|".
    Rows stored(const std::string& sql) {
        sqlite3* raw = nullptr;
        sqlite3_open(path.c_str(), &raw);
        const std::unique_ptr<sqlite3, int (*)(sqlite3*)> db(raw, sqlite3_close);
        const auto add = [](void* rows, int count, char** values, char**) {
            std::string row;
            for (int i = 0; i < count; ++i)
                row += (i ? "|" : "") + std::string(values[i] ? values[i] : "NULL");
            static_cast<Rows*>(rows)->push_back(row);
            return 0;
        };
        Rows rows;
        EXPECT_EQ(SQLITE_OK, sqlite3_exec(raw, sql.c_str(), add, &rows, nullptr))
            << sqlite3_errmsg(raw);
        return rows;
    }

    TemporaryFolder folder;
    std::string path;
    Connection connection;
};

}  // namespace embedded_test
