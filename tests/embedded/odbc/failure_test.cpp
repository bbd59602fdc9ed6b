// What fails, dies, waits or is inherited behind the driver manager.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <thread>
#include <tuple>
#include <utility>

#include "driver_fixture.h"
#include "extensions.h"

namespace embedded_test {
namespace {

struct DriverFailures : DriverTest {
    DriverFailures() {
        give(SQL_INTEGER, {number(1), number(2)});
        script.diagnostics = {{u"42S02", 5, u"no such thing"}};
    }
};

struct DriverConnections : DriverFailures {};

/// All that a program does; the rows it got in the end, or "!" and the state.
Rows session() {
    const auto failed = [](const Diagnostic& error) {
        EXPECT_EQ(5U, error.state.size()) << error.message;
        EXPECT_NE(0, error.native);
        EXPECT_FALSE(error.message.empty());
        return Rows{"!" + error.state};
    };
    Connection connection;
    if (!SQL_SUCCEEDED(connection.open(kDriverText))) return failed(connection.error());
    Rows rows;
    {
        Statement statement(connection.handle);
        const SQLINTEGER value = 1;
        SQLLEN length = 4;
        for (int round = 0; round < 2; ++round) {
            rows.clear();
            if (statement.prepare("SELECT c FROM t WHERE a = @1 ") != SQL_SUCCESS)
                return failed(statement.error());
            statement.bind(1, SQL_C_LONG, &value, &length);
            if (statement.execute() != SQL_SUCCESS) return failed(statement.error());
            SQLRETURN result = SQL_SUCCESS;
            while ((result = statement.fetch()) == SQL_SUCCESS) rows.push_back(statement.get(1));
            if (result != SQL_NO_DATA) return failed(statement.error());
            statement.close();
        }
    }
    if (connection.autocommit(false) != SQL_SUCCESS) return failed(connection.error());
    for (int round = 0; round < 2; ++round) {
        if (connection.run("DELETE FROM t") == SQL_ERROR) return failed(connection.last);
        if (connection.end(SQL_COMMIT) != SQL_SUCCESS) return failed(connection.error());
    }
    return rows;
}

TEST_F(DriverFailures, OfEveryCallAreToldAndLeaveNothingBehind) {
    const Rows all{"1", "2"};
    ASSERT_EQ(all, session());
    const std::map<std::string, int> calls = script.calls;
    for (const auto& [function, count] : calls) {
        // Without these nothing can be given back.
        if (function == "SQLFreeHandle" || function == "SQLDisconnect") continue;
        const bool executes = function.starts_with("SQLExec");
        const bool mayEnd = executes || function == "SQLFetch";
        for (int bad = 1; bad <= count; ++bad) {
            for (const int result :
                 {SQL_ERROR, SQL_INVALID_HANDLE, SQL_NEED_DATA, SQL_NO_DATA, -12345, SHRT_MAX}) {
                // The driver manager lets go of no statement that awaits data for another reason.
                if (result == SQL_NEED_DATA && !executes) continue;
                SCOPED_TRACE(function + " " + std::to_string(bad) + " " + std::to_string(result));
                script.calls.clear();
                script.answers[function] = failing(bad, bad, static_cast<SQLRETURN>(result));
                const Rows rows = session();
                const bool told = rows.size() == 1 && rows[0].starts_with('!');
                EXPECT_TRUE(told || rows == all || (mayEnd && result == SQL_NO_DATA))
                    << ::testing::PrintToString(rows);
                script.answers.clear();
                ASSERT_EQ(0, script.handles);
            }
        }
    }
}

TEST_F(DriverConnections, MayBeUsedByManyThreads) {
    std::vector<std::thread> threads;
    for (int n = 0; n < 4; ++n) {
        threads.emplace_back([] {
            for (int round = 0; round < 10; ++round) EXPECT_EQ(Rows({"1", "2"}), session());
        });
    }
    for (std::thread& thread : threads) thread.join();
}

TEST_F(DriverFailures, ComeInTheDriversWords) {
    const std::string known = "no such thing";
    const struct {
        std::vector<odbc_driver::Diagnostic> records;
        std::string state;
        int native;
        std::string says;
    } kCases[] = {
        {{}, "HY000", 1, ""},
        {{{u"42S02", 5, u"no such thing"}}, "42S02", 5, "[42S02] no such thing"},
        {{{u"42S02", 0, u"no such thing"}}, "42S02", 1, known},
        {{{u"42S02", -7, u"n\u00f6\U0001F600"}}, "42S02", -7, "n\u00f6\U0001F600"},
        {{{u"HY000", 5, u"one"}, {u"01000", 0, u"two"}}, "HY000", 5, "one; [01000] two"},
        {{{u"42S02", 5, {u'x', 0xD83D}}}, "42S02", 5, "x\uFFFD"},
        {{{u"42S02", 5, u""}}, "42S02", 5, "[42S02]"},
        {{{u"42S02", 5, u"no such thing", SQLSMALLINT{-9}}}, "42S02", 5, ""},
        {{{u"42S02", 5, u"no such thing", SQLSMALLINT{32767}}}, "42S02", 5, known},
        {{{u"42S02", 5, std::u16string(5000, u'y')}}, "42S02", 5, std::string(800, 'y')},
        {{{u"", 5, u"no such thing"}}, "HY000", 5, known},
        {{{u"42", 5, u"no such thing"}}, "HY000", 5, known},
        {{{u"\u00e4\u00e4\u00e4\u00e4\u00e4", 5, u"no such thing"}}, "HY000", 5, known},
        {{{u"4 S;2", 5, u"no such thing"}}, "HY000", 5, known},
    };
    Connection connection(kDriverText);
    script.answers["SQLExecDirectW"] = failing();
    for (const auto& given : kCases) {
        script.diagnostics = given.records;
        EXPECT_EQ(SQL_ERROR, connection.run("SELECT 1"));
        EXPECT_EQ(given.state, connection.last.state) << &given - kCases;
        EXPECT_EQ(given.native, connection.last.native) << &given - kCases;
        EXPECT_TRUE(connection.last.says(given.says)) << connection.last.message;
        EXPECT_LT(connection.last.message.size(), 1000U);
    }
}

TEST_F(DriverFailures, OfWhatFollowsInATextAreSeen) {
    Connection connection(kDriverText);
    const Result change{{}, {}, 2};
    const Result rows = script.results[0];
    const auto expect = [&](const std::vector<Result>& results, const char* outcome) {
        script.results = results;
        connection.expect(outcome);
    };
    expect({change, rows, change}, "UPDATE t; SELECT 1; UPDATE t => 1, 2");
    expect({change, change}, "UPDATE t; UPDATE t => #4");
    // The first statement finds no row.
    executions(failing(1, 100000, SQL_NO_DATA));
    expect({{}, change}, "UPDATE t; UPDATE t  => #2");
    expect({{}}, "UPDATE t => #0");
    script.answers.clear();
    script.answers["SQLMoreResults"] = failing();
    expect({change}, "UPDATE t; UPDATE nowhere => !42S02");
    script.results = {rows, change};
    Statement statement(connection.handle);
    EXPECT_EQ(SQL_SUCCESS, statement.run("SELECT 1; UPDATE nowhere"));
    for (int row = 0; row < 2; ++row) EXPECT_EQ(SQL_SUCCESS, statement.fetch());
    EXPECT_EQ("42S02", statement.stateOf(statement.fetch()));
}

struct DriverResults : DriverFailures {};

TEST_F(DriverResults, ComeOneAfterTheOtherIfAllAreAskedFor) {
    Connection connection(kDriverText);
    Statement statement(connection.handle);
    const Result rows = script.results[0];
    give(SQL_INTEGER, {number(3)});
    script.results = {rows, Result{{}, {}, 2}, script.results[0]};
    statement.set(embedded::kAllResultsAttribute, 1);
    for (const bool unread : {false, true}) {
        ASSERT_EQ(SQL_SUCCESS, statement.run("SELECT 1; UPDATE t; SELECT 3"));
        const Rows first = unread ? Rows{"1", "2"} : statement.rows();
        EXPECT_EQ(Rows({"1", "2"}), first);
        EXPECT_EQ(SQL_SUCCESS, RT_SQLMoreResults(kDriver, statement.handle));
        EXPECT_EQ(Rows{"3"}, statement.rows());
        EXPECT_EQ(SQL_NO_DATA, RT_SQLMoreResults(kDriver, statement.handle));
    }
}

TEST_F(DriverResults, ComeFromANewPlanWhereTheOldOneIsStale) {
    dialect(u"PostgreSQL");
    Connection connection(kDriverText);
    script.diagnostics = {{u"0A000", 1, u"cached plan must not change result type"}};
    script.answers["SQLExecute"] = failing();
    Statement statement(connection.handle);
    statement.prepare("SELECT c FROM t");
    for (int execution = 0; execution < 3; ++execution) {
        EXPECT_EQ("1, 2", statement.outcome(statement.execute()));
        statement.close();
    }
    EXPECT_LT(0, script.calls["SQLExecute"]);
}

TEST_F(DriverResults, OfManyRowsComeInBlocksWhateverTheirLengths) {
    script.texts[SQL_DRIVER_NAME] = u"psqlodbcw.so";
    Connection connection(kDriverText);
    std::vector<Cell> cells;
    Rows expected;
    for (size_t row = 0; row < 300; ++row) {
        // Now and then a longer one than cells are wide, and then more often.
        const size_t length = row % 40 == 7 || (row > 200 && row % 3 == 0) ? 500 + row : row % 9;
        cells.push_back(wide(std::u16string(length, u'x')));
        expected.push_back(std::string(length, 'x'));
    }
    give(SQL_WVARCHAR, cells);
    Statement statement(connection.handle);
    statement.prepare("SELECT c FROM t");
    EXPECT_EQ(SQL_SUCCESS, statement.execute());
    EXPECT_EQ(expected, statement.rows());
    EXPECT_GT(40, script.calls["SQLFetch"]);
    EXPECT_LT(0, script.calls["SQLSetPos"]);
}

TEST_F(DriverResults, OfManyRowsAreNotPreparedWhereThatCopiesThem) {
    script.texts[SQL_DRIVER_NAME] = u"psqlodbcw.so";
    Connection connection(kDriverText);
    for (const size_t rows : {size_t{9'999}, size_t{10'000}}) {
        give(SQL_INTEGER, std::vector<Cell>(rows, number(1)));
        Statement statement(connection.handle);
        statement.prepare("SELECT c FROM t WHERE d = " + std::to_string(rows));
        script.calls.clear();
        for (int execution = 0; execution < 3; ++execution) {
            statement.execute();
            EXPECT_EQ(rows, statement.rows().size());
            statement.close();
        }
        EXPECT_EQ(rows < 10'000 ? 1 : 3, script.calls["SQLExecDirectW"]);
    }
}

TEST_F(DriverResults, OfChangesHaveColumnsOrNone) {
    Connection connection(kDriverText);
    Statement statement(connection.handle);
    const std::vector<odbc_driver::Column> described = script.results[0].columns;
    script.results = {{{}, {}, 1}};
    ASSERT_EQ(SQL_SUCCESS, statement.prepare("INSERT INTO t VALUES (1)"));
    for (int execution = 0; execution < 2; ++execution) {
        EXPECT_EQ(SQL_SUCCESS, statement.execute());
        // Behind the last result a driver knows of no execution.
        script.answers["SQLNumResultCols"] = failing();
        EXPECT_EQ(0, statement.columns());
        script.answers.clear();
    }
    // RETURNING that finds no row: the driver manager takes it for the end of the results.
    executions(failing(1, 100000, SQL_NO_DATA));
    script.results = {{described, {}, 0}};
    EXPECT_EQ(SQL_SUCCESS, statement.run("DELETE FROM t RETURNING c"));
    EXPECT_EQ(0, statement.rowCount());
    EXPECT_EQ("c", statement.text(1, SQL_DESC_NAME));
    EXPECT_EQ(SQL_NO_DATA, statement.fetch());
}

TEST_F(DriverResults, AreWaitedForAsLongAsTheDriverIsTold) {
    Connection connection;
    RT_SQLSetConnectAttr(kDriver, connection.handle, SQL_ATTR_LOGIN_TIMEOUT,
                         reinterpret_cast<SQLPOINTER>(4), 0);
    EXPECT_EQ(SQL_SUCCESS, connection.open(kDriverText));
    EXPECT_EQ(Rows{"SQLSetConnectAttrW 103=4"}, calls({"SQLSetConnectAttrW 103"}));
    Statement statement(connection.handle);
    statement.set(SQL_ATTR_QUERY_TIMEOUT, 3);
    EXPECT_EQ(SQL_SUCCESS, statement.run("SELECT c FROM t"));
    EXPECT_EQ(Rows{"SQLSetStmtAttrW 0"}, calls({"SQLSetStmtAttrW 0"}));
    statement.close();
    script.answers["SQLSetStmtAttrW"] = failing(1, 9, SQL_SUCCESS_WITH_INFO);
    script.diagnostics = {{u"01S02", 0, u"another value"}};
    EXPECT_EQ("HYC00", statement.stateOf(statement.run("SELECT c FROM u")));
}

TEST_F(DriverResults, AreBoundOnceAndNamedForWhoAsks) {
    Connection connection(kDriverText);
    Statement statement(connection.handle);
    statement.set(0x7002, 1);  // what follows the first result is asked for
    statement.prepare("SELECT c FROM t");
    const struct {
        SQLSMALLINT type;
        Cell cell;
        Rows value;
        Rows calls;
    } kExecutions[] = {
        {SQL_INTEGER, number(1), {"1"}, {"SQLBindCol 1", "SQLFreeStmt 2"}},  // not prepared yet
        {SQL_INTEGER, number(2), {"2"}, {"SQLBindCol 1"}},
        {SQL_INTEGER, number(3), {"3"}, {}},
        {SQL_WVARCHAR, wide(u"x"), {"x"}, {"SQLFreeStmt 2", "SQLBindCol 1"}},
        {SQL_WVARCHAR, wide(u""), {""}, {}},
    };
    for (const auto& execution : kExecutions) {
        give(execution.type, {execution.cell});
        calls({});
        EXPECT_EQ(SQL_SUCCESS, statement.execute());
        EXPECT_EQ(execution.value, statement.rows());
        statement.close();
        EXPECT_EQ(execution.calls, calls({"SQLBindCol", "SQLFreeStmt 2", "SQLColAttributeW 14"}));
    }
    EXPECT_EQ(SQL_SUCCESS, statement.execute());
    EXPECT_EQ(SQL_NO_DATA, (statement.fetch(), statement.fetch()));
    EXPECT_EQ("c", statement.text(1, SQL_DESC_NAME));
}

TEST_F(DriverFailures, LeaveNoColumnsBound) {
    Result result;
    result.columns = {{u"a", SQL_INTEGER}, {u"b", SQL_INTEGER}};
    result.rows = {{number(1), number(2)}};
    script.results = {result};
    Connection connection(kDriverText);
    Statement statement(connection.handle);
    EXPECT_EQ(SQL_SUCCESS, statement.prepare("SELECT a, b FROM t"));
    script.calls.clear();
    script.answers["SQLBindCol"] = failing(2, 2);
    EXPECT_EQ("42S02", statement.stateOf(statement.execute()));
    EXPECT_EQ(Rows({"SQLFreeStmt 0", "SQLFreeStmt 2"}), calls({"SQLFreeStmt"}));
    EXPECT_EQ(SQL_SUCCESS, statement.execute());
    EXPECT_EQ(Rows{"1|2"}, statement.rows());
}

TEST_F(DriverFailures, OfTextsAndParametersAreFoundBeforeTheyAreSent) {
    Connection refused;
    const std::pair<std::string, std::string> kNotes[] = {{std::string(40000, 'x'), "HY090"},
                                                          {"\xff", "22021"}};
    for (const auto& [note, state] : kNotes) {
        EXPECT_EQ(SQL_ERROR, refused.open(kDriverText + ";Note=" + note));
        EXPECT_EQ(state, refused.error().state);
    }
    EXPECT_TRUE(calls({"SQLDriverConnect"}).empty());
    Connection connection(kDriverText);
    Statement statement(connection.handle);
    const std::pair<std::string, std::string> kTexts[] = {
        {std::string("SELECT 1\0, 2", 12), "42000"},
        {"SELECT '\xff'", "22021"},
        {"SELECT '\xed\xa0\x80'", "22021"},
        {std::string("SELECT 1\0\0", 10), ""}};
    for (const auto& [sql, state] : kTexts) {
        script.log.clear();
        EXPECT_EQ(state, statement.stateOf(statement.run(sql)));
        EXPECT_EQ(state.empty() ? 1U : 0U, calls({"SQLExec", "SQLPrepare"}).size());
    }
    statement.close();
    // Most drivers would end the text at its NUL and say nothing.
    const char texts[2][4] = {"abc", "a\0c"};
    SQLLEN lengths[] = {3, 3};
    EXPECT_EQ(SQL_SUCCESS, statement.prepare("INSERT INTO t VALUES (@1 )"));
    for (const bool batch : {false, true}) {
        statement.bindText(1, texts[batch ? 0 : 1], lengths, sizeof texts[0]);
        statement.set(SQL_ATTR_PARAMSET_SIZE, batch ? 2 : 1);
        script.log.clear();
        EXPECT_EQ("22021", statement.stateOf(statement.execute()));
        EXPECT_TRUE(statement.error().says(batch ? "(parameter set 2 of 2)" : "NUL"));
        EXPECT_EQ(Rows{}, calls({"SQLExec", "SQLEndTran commit"}));
    }
}

TEST_F(DriverFailures, OfADeadConnectionDoNotKeepIt) {
    Connection connection(kDriverText);
    connection.autocommit(false);
    connection.must("DELETE FROM t");
    Statement statement(connection.handle);
    EXPECT_EQ(SQL_SUCCESS, statement.run("SELECT 1"));
    EXPECT_EQ(SQL_SUCCESS, statement.fetch());
    script.diagnostics = {{u"08S01", 57, u"the server has gone"}};
    for (const char* function : {"SQLFetch", "SQLExecDirectW", "SQLEndTran", "SQLFreeStmt",
                                 "SQLMoreResults", "SQLSetConnectAttrW"}) {
        script.answers[function] = failing();
    }
    EXPECT_EQ("08S01", statement.stateOf(statement.fetch()));
    EXPECT_EQ("24000", statement.stateOf(statement.fetch()));
    EXPECT_EQ("08S01", statement.stateOf(statement.run("SELECT 1")));
    EXPECT_EQ(SQL_ERROR, connection.end(SQL_COMMIT));
    EXPECT_EQ(SQL_ERROR, connection.end(SQL_ROLLBACK));
    EXPECT_EQ("08S01", connection.error().state);
    EXPECT_EQ(SQL_SUCCESS, RT_SQLDisconnect(kDriver, connection.handle));
}

// PostgreSQL's driver rolls back by itself behind a text that its server cannot read, MariaDB
// itself behind a deadlock.
TEST_F(DriverConnections, KeepNothingBehindALostTransaction) {
    const std::pair<std::string, std::string> kEnds[] = {
        {"ROLLBACK", "#"}, {"ROLLBACK TO s", "!25P02"}, {"COMMIT", "!40000"}};
    const std::tuple<const char16_t*, std::u16string, int> kLosses[] = {
        {u"PostgreSQL", u"42601", 1},
        {u"PostgreSQL", u"HY000", 8},
        {u"MariaDB", u"40001", 1213},
        {u"MariaDB", u"HY000", 1243}};
    for (const auto& [end, outcome] : kEnds)
        for (const auto& [product, state, code] : kLosses) {
            dialect(product);
            Connection connection(kDriverText);
            connection.autocommit(false);
            connection.must("DELETE FROM t");
            script.diagnostics = {{state, code, u"no"}};
            script.answers["SQLExecDirectW"] = failing();
            EXPECT_EQ(SQL_ERROR, connection.run("SELEC 1"));
            script.answers.clear();
            connection.expect("INSERT INTO t VALUES (1) => !25P02");
            connection.expect(end + " => " + outcome);
            EXPECT_EQ(outcome == "!25P02" ? SQL_ERROR : SQL_SUCCESS, connection.end(SQL_COMMIT));
        }
}

// A node may undo a transaction for another node's sake without a word.
TEST_F(DriverConnections, LookForTheirTransactionOnANode) {
    dialect(u"MariaDB");
    script.diagnostics = {{u"42000", 1305, u"no such savepoint"}};
    for (const std::string next : {"COMMIT", "DELETE FROM t", ""})
        for (const bool isNode : {false, true}) {
            give(SQL_INTEGER, {number(isNode)});
            Connection connection(kDriverText);
            connection.autocommit(false);
            connection.must("SELECT 1");
            script.results = {{{}, {}, 1}};
            connection.must("DELETE FROM t");
            connection.must("SELECT 1");
            calls({});
            script.answers["SQLExecDirectW"] = failing(1, isNode ? 100000 : 0);
            const SQLRETURN result =
                next.empty() ? connection.end(SQL_COMMIT) : connection.run(next);
            EXPECT_EQ(isNode ? SQL_ERROR : SQL_SUCCESS, result);
            if (isNode) {
                EXPECT_EQ((Rows{"SQLExecDirectW RELEASE SAVEPOINT vorda_mark"}),
                          calls({"SQLExec", "SQLEnd"}));
            }
            script.answers.clear();
            connection.expect(isNode ? "INSERT INTO t VALUES (1) => !25P02"
                                     : "INSERT INTO t VALUES (1) => #1");
            EXPECT_EQ(SQL_SUCCESS, connection.end(SQL_ROLLBACK));
            connection.expect("INSERT INTO t VALUES (1) => #1");
            EXPECT_EQ(SQL_SUCCESS, connection.end(SQL_ROLLBACK));
        }
}

TEST_F(DriverConnections, AreCancelledByOtherThreads) {
    std::atomic<bool> running;
    std::atomic<bool> cancelled;
    const auto tell = [](std::atomic<bool>& what) {
        what = true;
        what.notify_all();
        return kUsual;
    };
    script.diagnostics = {{u"HY008", 1, u"cancelled"}};
    script.answers["SQLCancel"] = [&](const Call&) { return tell(cancelled); };
    Connection connection(kDriverText);
    // Runs `sql`, whose call of `function` ends with `answer` when it has been cancelled.
    const auto cancel = [&](Statement& statement, const char* sql, const char* function,
                            SQLRETURN answer) {
        running = cancelled = false;
        script.answers[function] = [&, answer](const Call&) {
            tell(running);
            cancelled.wait(false);
            return answer;
        };
        std::thread other([&] {
            running.wait(false);
            EXPECT_EQ(SQL_SUCCESS, RT_SQLCancel(kDriver, statement.handle));
        });
        SQLRETURN result = statement.run(sql);
        if (result == SQL_SUCCESS && statement.columns() > 0) result = statement.fetch();
        other.join();
        script.answers.erase(function);
        return statement.stateOf(result);
    };
    for (const char* function : {"SQLExecDirectW", "SQLFetch", "SQLExecDirectW"}) {
        Statement statement(connection.handle);
        EXPECT_EQ("HY008", cancel(statement, "SELECT 1", function, SQL_ERROR)) << function;
        script.diagnostics.clear();  // a driver may say nothing
    }
    // A change that had ended well is done, even if its count is lost. If it has rows, they are.
    const std::vector<Result> rows = std::exchange(script.results, {Result{}});
    script.diagnostics = {{u"HY010", 1, u"out of order"}};
    script.answers["SQLRowCount"] = failing();
    {
        Statement statement(connection.handle);
        EXPECT_EQ("", cancel(statement, "DELETE FROM t", "SQLExecDirectW", kUsual));
        EXPECT_EQ(-1, statement.rowCount());
    }
    script.results = rows;
    {
        Statement statement(connection.handle);
        EXPECT_EQ("HY008", cancel(statement, "DELETE FROM t", "SQLExecDirectW", kUsual));
    }
    script.answers.clear();
    // A statement that does not run is not disturbed.
    Statement statement(connection.handle);
    EXPECT_EQ(SQL_SUCCESS, statement.run("SELECT 1"));
    calls({});
    EXPECT_EQ(SQL_SUCCESS, RT_SQLCancel(kDriver, statement.handle));
    EXPECT_EQ(Rows{}, calls({"SQLCancel"}));
    EXPECT_EQ(Rows({"1", "2"}), statement.rows());
}

TEST_F(DriverConnections, AreNotReachedByForkedProcesses) {
    Connection connection(kDriverText);
    connection.autocommit(false);
    connection.must("DELETE FROM t");
    Statement statement(connection.handle);
    EXPECT_EQ(SQL_SUCCESS, statement.run("SELECT 1"));
    EXPECT_EQ(SQL_SUCCESS, statement.fetch());
    const pid_t child = fork();
    if (child == 0) {
        const size_t before = script.log.size();
        SQLHANDLE none = nullptr;
        const bool refused =
            RT_SQLAllocHandle(kDriver, SQL_HANDLE_STMT, connection.handle, &none) == SQL_ERROR &&
            statement.stateOf(statement.fetch()) == "08S01" &&
            connection.end(SQL_ROLLBACK) == SQL_ERROR && connection.error().state == "08S01";
        statement.close();
        const bool freed =
            RT_SQLFreeHandle(kDriver, SQL_HANDLE_STMT, statement.handle) == SQL_SUCCESS &&
            RT_SQLDisconnect(kDriver, connection.handle) == SQL_SUCCESS &&
            RT_SQLFreeHandle(kDriver, SQL_HANDLE_DBC, connection.handle) == SQL_SUCCESS;
        const bool quiet = script.log.size() == before;
        // The child's own connection goes through the same driver manager.
        const bool own = Connection(kDriverText).query("SELECT 1") == Rows({"1", "2"});
        _exit(refused && freed && quiet && own ? 0 : 1 + refused + 2 * freed + 4 * quiet);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(0, status);
    EXPECT_EQ(SQL_SUCCESS, statement.fetch());
    EXPECT_EQ("2", statement.get(1));
    EXPECT_EQ(SQL_SUCCESS, connection.end(SQL_COMMIT));
}

}  // namespace
}  // namespace embedded_test
