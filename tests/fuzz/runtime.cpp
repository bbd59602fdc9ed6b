// The embedded runtime as a whole: a sequence of calls, one a line, on databases in memory.
#include "entry/runtime.h"

#include <dlfcn.h>
#include <sqlite3.h>

#include <array>
#include <cstring>

#include "fuzz.h"

namespace {

using fuzz::require;

constexpr const char* kCaller = "fuzz.so";

// Keeps every database that is opened from running on for ever, growing large or writing files.
int restrain(sqlite3* db, const char**, const void*) {
    sqlite3_limit(db, SQLITE_LIMIT_ATTACHED, 0);
    sqlite3_limit(db, SQLITE_LIMIT_LENGTH, 1'000'000);
    sqlite3_limit(db, SQLITE_LIMIT_VDBE_OP, 25'000);
    return SQLITE_OK;
}

class Session {
  public:
    Session() {
        RT_SQLAllocHandle(kCaller, SQL_HANDLE_ENV, nullptr, &m_environment);
        RT_SQLSetEnvAttr(kCaller, m_environment, SQL_ATTR_ODBC_VERSION, number(SQL_OV_ODBC3), 0);
        RT_SQLAllocHandle(kCaller, SQL_HANDLE_DBC, m_environment, &m_connection);
        char text[] = "Database=:memory:";
        RT_SQLDriverConnect(kCaller, m_connection, nullptr, chars(text), SQL_NTS, nullptr, 0,
                            nullptr, SQL_DRIVER_NOPROMPT);
        for (SQLHANDLE& statement : m_statements) {
            RT_SQLAllocHandle(kCaller, SQL_HANDLE_STMT, m_connection, &statement);
        }
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session() {
        for (SQLHANDLE& statement : m_statements) {
            if (statement) RT_SQLFreeHandle(kCaller, SQL_HANDLE_STMT, statement);
        }
        RT_SQLEndTran(kCaller, SQL_HANDLE_DBC, m_connection, SQL_ROLLBACK);
        require(RT_SQLDisconnect(kCaller, m_connection) == SQL_SUCCESS, "disconnecting");
        for (const auto& [type, handle] :
             {std::pair<SQLSMALLINT, SQLHANDLE>{SQL_HANDLE_DBC, m_connection},
              {SQL_HANDLE_ENV, m_environment}}) {
            require(RT_SQLFreeHandle(kCaller, type, handle) == SQL_SUCCESS, "freeing");
            require(RT_SQLFreeHandle(kCaller, type, handle) == SQL_INVALID_HANDLE, "twice");
        }
    }

    /// A letter that names the call, two digits or letters for its choices, and a text.
    void call(std::string_view line) {
        fuzz::Input input(reinterpret_cast<const std::uint8_t*>(line.data()), line.size());
        const char what = static_cast<char>(input.byte());
        const unsigned choice = input.byte();
        const unsigned more = input.byte();
        SQLHANDLE& statement = m_statements[choice % m_statements.size()];
        const auto column = static_cast<SQLUSMALLINT>(more % 5);
        const SQLSMALLINT cType = kTypes[(choice / 2) % kTypes.size()];
        // Room for any fixed type even where the told capacity is smaller.
        const SQLLEN capacity = more % 20;
        const auto shortCapacity = static_cast<SQLSMALLINT>(capacity);
        std::vector<char> text = fuzz::terminated(input.rest());
        const auto length = static_cast<SQLINTEGER>(text.size() - 1);
        SQLSMALLINT small = 0;
        SQLSMALLINT tiny = 0;
        SQLLEN count = 0;
        SQLULEN large = 0;
        std::vector<char> room(40);
        const auto run = [&](auto function, auto... arguments) {
            answer(statement, function(kCaller, statement, arguments...));
        };
        switch (what) {
            case 'x':
                return run(RT_SQLExecDirect, chars(text.data()), length);
            case 'p':
                return run(RT_SQLPrepare, chars(text.data()), SQL_NTS);
            case 'e':
                return run(RT_SQLExecute);
            case 'f':
                return run(RT_SQLFetch);
            case 'g':
                return run(RT_SQLGetData, column, cType, room.data(), capacity, &count);
            case 'b':
                return run(RT_SQLBindCol, column, cType, m_rooms[column].data(), capacity,
                           &m_lengths[column]);
            case 'm': {
                // Four sets of every parameter, each value in a slot of ten bytes.
                auto& value = m_values[column];
                value.fill(0);
                std::copy_n(text.data(), std::min<std::size_t>(text.size(), 40), value.data());
                m_sizes[column].fill(more % 3 == 0 ? SQL_NULL_DATA : SQLLEN{more % 10});
                return run(RT_SQLBindParameter, column, SQLSMALLINT{SQL_PARAM_INPUT}, cType,
                           SQLSMALLINT{SQL_WVARCHAR}, SQLULEN{0}, kNone, value.data(), SQLLEN{10},
                           m_sizes[column].data());
            }
            case 's':
                return run(RT_SQLSetStmtAttr, SQL_ATTR_PARAMSET_SIZE, number(more % 4), 0);
            case 'r':
                run(RT_SQLFreeStmt, column);
                return column == SQL_DROP ? reallocate(statement) : void();
            case 'd':
                RT_SQLNumResultCols(kCaller, statement, &small);
                RT_SQLNumParams(kCaller, statement, &small);
                RT_SQLRowCount(kCaller, statement, &count);
                return run(RT_SQLDescribeCol, column, chars(room.data()), shortCapacity, &small,
                           &tiny, &large, &tiny, &tiny);
            case 'a':
                return run(RT_SQLColAttribute, column, static_cast<SQLUSMALLINT>(choice * 12),
                           room.data(), shortCapacity, &small, &count);
            case 't':
                return run(RT_SQLTables, nullptr, kNone, nullptr, kNone, chars(text.data()),
                           SQLSMALLINT{SQL_NTS}, nullptr, kNone);
            case 'c':
                return run(RT_SQLColumns, nullptr, kNone, nullptr, kNone, chars(text.data()),
                           SQLSMALLINT{SQL_NTS}, nullptr, kNone);
            case 'o':
                RT_SQLSetConnectAttr(kCaller, m_connection, SQL_ATTR_AUTOCOMMIT, number(more % 2),
                                     0);
                return;
            case 'n':
                RT_SQLEndTran(kCaller, SQL_HANDLE_DBC, m_connection,
                              more % 2 == 0 ? SQL_COMMIT : SQL_ROLLBACK);
                return;
            case 'k':
                RT_SQLMoreResults(kCaller, statement);
                RT_SQLCancel(kCaller, statement);
                return run(RT_SQLCloseCursor);
            case 'z':
                RT_SQLFreeHandle(kCaller, SQL_HANDLE_STMT, statement);
                return reallocate(statement);
            default:
                return;
        }
    }

  private:
    static constexpr SQLSMALLINT kNone = 0;

    static SQLCHAR* chars(char* text) { return reinterpret_cast<SQLCHAR*>(text); }
    static SQLPOINTER number(std::uintptr_t value) { return reinterpret_cast<SQLPOINTER>(value); }

    void reallocate(SQLHANDLE& statement) {
        require(RT_SQLFetch(kCaller, statement) == SQL_INVALID_HANDLE, "it is freed");
        RT_SQLAllocHandle(kCaller, SQL_HANDLE_STMT, m_connection, &statement);
    }

    /// Every failure and every warning has a record, no success does.
    static void answer(SQLHANDLE statement, SQLRETURN result) {
        SQLCHAR state[6] = "";
        SQLINTEGER native = 0;
        std::vector<SQLCHAR> message(60);
        SQLSMALLINT length = 0;
        const SQLRETURN told =
            RT_SQLGetDiagRec(kCaller, SQL_HANDLE_STMT, statement, 1, state, &native, message.data(),
                             static_cast<SQLSMALLINT>(message.size()), &length);
        const bool expected = result == SQL_ERROR || result == SQL_SUCCESS_WITH_INFO;
        require(expected || result == SQL_SUCCESS || result == SQL_NO_DATA, "the result");
        require(SQL_SUCCEEDED(told) == expected || result == SQL_NO_DATA, "a record when needed");
        if (!expected) return;
        require(std::strlen(reinterpret_cast<char*>(state)) == 5, "the state");
        require((native == 0) == (result == SQL_SUCCESS_WITH_INFO), "the native code");
    }

    static constexpr std::array<SQLSMALLINT, 12> kTypes = {
        SQL_C_CHAR,           SQL_C_WCHAR,     SQL_C_BINARY,  SQL_C_SBIGINT,
        SQL_C_SLONG,          SQL_C_SSHORT,    SQL_C_BIT,     SQL_C_DOUBLE,
        SQL_C_TYPE_TIMESTAMP, SQL_C_TYPE_DATE, SQL_C_DEFAULT, SQL_C_TYPE_TIME};

    SQLHANDLE m_environment = nullptr;
    SQLHANDLE m_connection = nullptr;
    std::array<SQLHANDLE, 2> m_statements{};
    std::vector<std::vector<char>> m_rooms{5, std::vector<char>(40)};
    std::array<SQLLEN, 5> m_lengths{};
    std::array<std::array<char, 60>, 5> m_values{};
    std::array<std::array<SQLLEN, 4>, 5> m_sizes{};
};

}  // namespace

/// The runtime's own handler would let an endless query run on.
extern "C" void sqlite3_progress_handler(sqlite3* db, int, int (*)(void*), void*) {
    using Handler = decltype(sqlite3_progress_handler);
    static auto* const real = reinterpret_cast<Handler*>(dlsym(RTLD_NEXT, __func__));
    real(
        db, 100'000, [](void*) { return 1; }, nullptr);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const int once = sqlite3_auto_extension(reinterpret_cast<void (*)()>(restrain));
    require(once == SQLITE_OK, "the restraints are in force");
    const sqlite3_int64 before = sqlite3_memory_used();
    {
        Session session;
        fuzz::Input input(data, size);
        while (!input.empty()) session.call(input.line());
    }
    require(sqlite3_memory_used() == before, "all memory of SQLite's is given back");
    return 0;
}
