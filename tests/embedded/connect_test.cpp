#include <fstream>
#include <thread>

#include "connectstring.h"
#include "fixture.h"
#include "handle.h"

namespace embedded_test {
namespace {

using embedded::parseConnectString;

std::string reasonAgainst(const std::string& text) {
    try {
        parseConnectString(text);
        return "";
    } catch (const embedded::Error& error) {
        return error.what();
    }
}

TEST(ConnectString, ReadsKeysInAnyCaseAndBracedValues) {
    const auto options =
        parseConnectString(" ;DATABASE = a b.db ; mode=RO;timeout=0.25; Colour=red;;");
    EXPECT_EQ("a b.db", options.database);
    EXPECT_EQ(SQLITE_OPEN_READONLY, options.openFlags);
    EXPECT_EQ(250, options.timeoutMs);
    EXPECT_EQ(std::vector<std::string>{"Colour"}, options.unknownKeys);

    EXPECT_EQ(" x;y}z ", parseConnectString("Data Source={ x;y}}z } ;Driver={any}").database);
    EXPECT_EQ("first", parseConnectString("Database=first;Data Source=second").database);
    EXPECT_EQ("a=b", parseConnectString("Database=a=b").database);
    EXPECT_EQ(5000, parseConnectString("Database=x").timeoutMs);
}

TEST(ConnectString, SaysWhatIsWrong) {
    const std::pair<const char*, const char*> cases[] = {
        {"", "Database is missing"},         {"Database=", "Database is missing"},
        {"Mode=rw", "Database is missing"},  {"Database=x;Mode=rx", "'rx'"},
        {"Database=x;Timeout=-1", "'-1'"},   {"Database=x;Timeout=5s", "'5s'"},
        {"Database=x;Timeout=nan", "'nan'"}, {"Database=x;Timeout=99999999999", "Timeout"},
        {"Database=x;word", "'word'"},       {"=x;Database=x", "no key"},
        {"Database={x", "closing }"},        {"Database={x}y", "follows"},
    };
    for (const auto& [text, reason] : cases) {
        EXPECT_NE(std::string::npos, reasonAgainst(text).find(reason)) << text;
    }
}

TEST(Connect, ReportsFailuresAndCanBeTriedAgain) {
    const TemporaryFolder folder;
    const std::string path = folder.file("x.db");
    Connection connection;
    EXPECT_EQ(SQL_ERROR, connection.open("Mode=rw"));
    EXPECT_EQ("HY000", connection.error().state);
    EXPECT_NE(0, connection.error().native);

    EXPECT_EQ(SQL_ERROR, connection.open("Database=" + path + ";Mode=rw"));
    EXPECT_EQ("08001", connection.error().state);
    EXPECT_EQ(SQLITE_CANTOPEN, connection.error().native & 0xFF);
    EXPECT_TRUE(connection.error().says("x.db"));

    std::ofstream(path)
        << "This is no database, although it is long enough to be looked at closely.";
    EXPECT_EQ(SQL_ERROR, connection.open("Database=" + path));
    EXPECT_EQ(SQLITE_NOTADB, connection.error().native);

    EXPECT_EQ(SQL_SUCCESS_WITH_INFO, connection.open("Database=:memory:;Colour=red;Size=1"));
    EXPECT_EQ("01S00", connection.error().state);
    EXPECT_EQ(0, connection.error().native);
    EXPECT_TRUE(connection.error().says("Colour, Size"));
    EXPECT_EQ(SQL_ERROR, connection.open("Database=:memory:"));
    EXPECT_EQ("08002", connection.error().state);
}

TEST(Connect, CopiesTheConnectionStringOutBounded) {
    Connection connection;
    char out[8] = "#######";
    SQLSMALLINT length = 0;
    EXPECT_EQ(SQL_SUCCESS_WITH_INFO,
              RT_SQLDriverConnect(kDriver, connection.handle, nullptr, chars("Database=:memory:"),
                                  SQL_NTS, chars(out), 6, &length, SQL_DRIVER_NOPROMPT));
    EXPECT_STREQ("Datab", out);
    EXPECT_EQ('#', out[6]);
    EXPECT_EQ(17, length);
    EXPECT_EQ("01004", connection.error().state);
}

TEST(Connect, ModesDecideWhatIsAllowed) {
    const TemporaryFolder folder;
    const std::string database = "Database=" + folder.file("m.db");
    Connection(database).must("CREATE TABLE t (a)");
    Connection reader(database + ";Mode=ro");
    EXPECT_EQ(SQL_ERROR, reader.run("INSERT INTO t VALUES (1)"));
    EXPECT_EQ("25006", reader.last.state);
    EXPECT_TRUE(reader.query("SELECT * FROM t").empty());
}

TEST(Connect, AFileNamedLikeAUriIsAFile) {
    const TemporaryFolder folder;
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path(folder.file(""));
    Connection("Database=file:u.db?mode=memory").must("CREATE TABLE t (a)");
    EXPECT_TRUE(std::filesystem::exists("file:u.db?mode=memory"));
    std::filesystem::current_path(before);
}

TEST(Handles, NullFreedAndForeignHandlesAreInvalid) {
    Connection connection("Database=:memory:");
    SQLHANDLE freed = nullptr;
    RT_SQLAllocHandle(kDriver, SQL_HANDLE_STMT, connection.handle, &freed);
    EXPECT_EQ(SQL_SUCCESS, RT_SQLFreeStmt(kDriver, freed, SQL_DROP));
    int stranger = 0;
    for (SQLHANDLE bad : {SQLHANDLE{nullptr}, freed, static_cast<SQLHANDLE>(&stranger),
                          static_cast<SQLHANDLE>(connection.handle)}) {
        EXPECT_EQ(SQL_INVALID_HANDLE, RT_SQLFetch(kDriver, bad));
        EXPECT_EQ(SQL_INVALID_HANDLE, RT_SQLExecDirect(kDriver, bad, chars("SELECT 1"), SQL_NTS));
        EXPECT_EQ(SQL_INVALID_HANDLE, RT_SQLFreeHandle(kDriver, SQL_HANDLE_STMT, bad));
        EXPECT_EQ(SQL_INVALID_HANDLE, RT_SQLCancel(kDriver, bad));
        EXPECT_EQ(SQL_INVALID_HANDLE, RT_SQLGetDiagRec(kDriver, SQL_HANDLE_STMT, bad, 1, nullptr,
                                                       nullptr, nullptr, 0, nullptr));
    }
    // A handle that was freed is never another's.
    SQLHANDLE next = nullptr;
    RT_SQLAllocHandle(kDriver, SQL_HANDLE_STMT, connection.handle, &next);
    EXPECT_NE(freed, next);
}

TEST(Handles, AreFreedInOrderAndDisconnectingFreesStatements) {
    const size_t before = embedded::HandleRegistry::instance().count();
    SQLHANDLE environment = nullptr;
    SQLHANDLE connection = nullptr;
    SQLHANDLE statement = nullptr;
    RT_SQLAllocHandle(kDriver, SQL_HANDLE_ENV, nullptr, &environment);
    RT_SQLAllocHandle(kDriver, SQL_HANDLE_DBC, environment, &connection);
    EXPECT_EQ(SQL_ERROR, RT_SQLAllocHandle(kDriver, SQL_HANDLE_STMT, connection, &statement));
    EXPECT_EQ("08003", diagnosticOf(SQL_HANDLE_DBC, connection).state);
    EXPECT_EQ(SQL_ERROR, RT_SQLFreeHandle(kDriver, SQL_HANDLE_ENV, environment));
    EXPECT_EQ("HY010", diagnosticOf(SQL_HANDLE_ENV, environment).state);

    RT_SQLDriverConnect(kDriver, connection, nullptr, chars("Database=:memory:"), SQL_NTS, nullptr,
                        0, nullptr, SQL_DRIVER_COMPLETE);
    for (int i = 0; i < 10; ++i) {
        RT_SQLAllocHandle(kDriver, SQL_HANDLE_STMT, connection, &statement);
        RT_SQLExecDirect(kDriver, statement, chars("SELECT 1 UNION SELECT 2"), SQL_NTS);
    }
    EXPECT_EQ(SQL_ERROR, RT_SQLFreeHandle(kDriver, SQL_HANDLE_DBC, connection));
    EXPECT_EQ(SQL_SUCCESS, RT_SQLDisconnect(kDriver, connection));
    EXPECT_EQ(SQL_INVALID_HANDLE, RT_SQLFetch(kDriver, statement));
    EXPECT_EQ(SQL_SUCCESS, RT_SQLFreeHandle(kDriver, SQL_HANDLE_DBC, connection));
    EXPECT_EQ(SQL_SUCCESS, RT_SQLFreeHandle(kDriver, SQL_HANDLE_ENV, environment));
    EXPECT_EQ(before, embedded::HandleRegistry::instance().count());
}

TEST(Diagnostics, AreClearedByEveryCallAndConsumedByErrorOnly) {
    Connection connection("Database=:memory:");
    Statement statement(connection.handle);
    EXPECT_EQ(SQL_ERROR, statement.run("SELECT * FROM nowhere"));
    EXPECT_EQ("42S02", statement.error().state);
    EXPECT_EQ("42S02", statement.error().state);

    SQLCHAR state[6];
    SQLCHAR message[12];
    SQLINTEGER native = 0;
    SQLSMALLINT length = 0;
    EXPECT_EQ(SQL_SUCCESS_WITH_INFO,
              RT_SQLGetDiagRec(kDriver, SQL_HANDLE_STMT, statement.handle, 1, state, &native,
                               message, sizeof message, &length));
    EXPECT_STREQ("[vorda][SQL", reinterpret_cast<char*>(message));
    const auto take = [&] {
        return RT_SQLErrorW(kDriver, nullptr, nullptr, statement.handle, state, &native, message,
                            sizeof message, &length);
    };
    EXPECT_EQ(SQL_SUCCESS_WITH_INFO, take());
    EXPECT_EQ(SQL_NO_DATA, take());
    EXPECT_EQ(0, native);

    statement.run("SELECT * FROM nowhere");
    EXPECT_EQ(SQL_SUCCESS, statement.run("SELECT 1"));
    EXPECT_EQ("", statement.error().state);
}

TEST(Diagnostics, FitTheBufferThatCallersHave) {
    Connection connection("Database=:memory:");
    const std::string monster(5000, 'x');
    EXPECT_EQ(SQL_ERROR, connection.run("SELECT 1 '" + monster + "' '" + monster + "'"));
    EXPECT_FALSE(connection.last.message.empty());
    EXPECT_LT(connection.last.message.size(), 1024U);
    EXPECT_EQ(SQL_ERROR, connection.open("Database=x;Mode=" + monster));
    EXPECT_LT(connection.error().message.size(), 200U);
}

TEST(Cancel, StopsARunningStatement) {
    Connection connection("Database=:memory:");
    Statement statement(connection.handle);
    EXPECT_EQ(SQL_SUCCESS, RT_SQLCancel(kDriver, statement.handle));  // nothing runs: no effect
    std::atomic<bool> done = false;
    std::thread canceller([&] {
        while (!done) {
            RT_SQLCancel(kDriver, statement.handle);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    EXPECT_EQ(SQL_ERROR,
              statement.run("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n)"
                            " SELECT count(*) FROM n"));
    done = true;
    canceller.join();
    EXPECT_EQ("HY008", statement.error().state);
    EXPECT_EQ(SQLITE_INTERRUPT, statement.error().native);
    EXPECT_EQ(SQL_SUCCESS, statement.run("SELECT 1"));
}

}  // namespace
}  // namespace embedded_test
