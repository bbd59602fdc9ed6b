// Batches and transactions: all or nothing, whatever the driver does.
#include <array>

#include "driver_fixture.h"

namespace embedded_test {
namespace {

using odbc_driver::Execution;

constexpr const char* kInsert = "INSERT INTO t VALUES (@1 )";

struct DriverBatches : DriverTest {
    DriverBatches() { script.diagnostics = {{u"23505", 7, u"there already"}}; }

    /// The state of a batch of three sets; "" when it succeeds. `report` has what was reported.
    std::string batch(Connection& connection) {
        Statement statement(connection.handle);
        const std::array<SQLINTEGER, 3> values{1, 2, 3};
        std::array<SQLLEN, 3> lengths{4, 4, 4};
        statement.set(SQL_ATTR_PARAMSET_SIZE, values.size());
        statement.prepare(kInsert);
        statement.bind(1, SQL_C_LONG, values.data(), lengths.data());
        const SQLRETURN result = statement.execute();
        report = result == SQL_ERROR ? statement.error() : Diagnostic{};
        changed = result == SQL_ERROR ? -1 : statement.rowCount();
        return report.state;
    }
    Rows transactions() { return calls({"SQLSetConnectAttrW", "SQLExec", "SQLEndTran"}); }

    Diagnostic report;
    SQLLEN changed = 0;
};

/// An answer to the calls from one to another.
auto failing(int from, int to = 1000, SQLRETURN result = SQL_ERROR) {
    return [=](int call) { return call >= from && call <= to ? result : kUsual; };
}

/// An execution that reports so about its sets.
auto reporting(SQLRETURN result, SQLULEN processed, std::array<SQLUSMALLINT, 3> statuses) {
    return [=](const Execution& execution) {
        if (execution.sets == 1) return kUsual;
        if (execution.processed) *execution.processed = processed;
        if (execution.status) std::copy(statuses.begin(), statuses.end(), execution.status);
        return result;
    };
}

constexpr SQLUSMALLINT kGood = SQL_PARAM_SUCCESS;
constexpr SQLUSMALLINT kBad = SQL_PARAM_ERROR;
constexpr SQLUSMALLINT kUnused = SQL_PARAM_UNUSED;

TEST_F(DriverBatches, AreDoneWholeOrUndone) {
    const std::string off = "SQLSetConnectAttrW 102=0";
    const std::string on = "SQLSetConnectAttrW 102=1";
    const std::string text = "SQLExecDirectW INSERT INTO t VALUES (? )";
    const std::string array = text + " sets=3";
    const std::string commit = "SQLEndTran commit";
    const std::string rollback = "SQLEndTran rollback";
    const Rows undone{off, array, rollback, on};
    const Rows single{off, text, "SQLExecute", "SQLExecute", commit, on};
    const struct {
        const char* what;
        std::string function;
        std::function<SQLRETURN(int)> answer;
        std::function<SQLRETURN(const Execution&)> execute;
        std::string state;
        std::string says;
        Rows calls;
        bool lost = false;
    } kCases[] = {
        {"good", "", {}, {}, "", "", {off, array, commit, on}},
        {"no arrays", "SQLSetStmtAttrW", failing(1, 1), {}, "", "", single},
        {"shorter arrays",
         "SQLSetStmtAttrW",
         failing(1, 1, SQL_SUCCESS_WITH_INFO),
         {},
         "",
         "",
         single},
        {"no diagnosis of sets",
         "",
         {},
         reporting(SQL_SUCCESS, 3, {1, 1, 1}),
         "",
         "",
         {off, array, commit, on}},
        {"a bad set",
         "",
         {},
         reporting(SQL_ERROR, 3, {kGood, kBad, kGood}),
         "23505",
         "there already (parameter set 2 of 3)",
         undone},
        {"a bad set that is a warning",
         "",
         {},
         reporting(SQL_SUCCESS_WITH_INFO, 3, {kGood, kGood, kBad}),
         "23505",
         "there already (parameter set 3 of 3)",
         undone},
        {"two of three",
         "",
         {},
         reporting(SQL_SUCCESS, 2, {kGood, kGood, kUnused}),
         "HY000",
         "not executed every",
         undone},
        {"a set that was left out",
         "",
         {},
         reporting(SQL_SUCCESS, 3, {kGood, kUnused, kGood}),
         "HY000",
         "not executed every",
         undone},
        {"a failing commit",
         "SQLEndTran",
         failing(1, 1),
         {},
         "23505",
         "there already",
         {off, array, commit, rollback, on}},
        {"a commit of nothing",
         "SQLEndTran",
         failing(1, 1, SQL_NO_DATA),
         {},
         "HY000",
         "does not say why",
         {off, array, commit, rollback, on}},
        {"autocommit stays on", "SQLSetConnectAttrW", failing(1), {}, "23505", "", {off}},
        {"no rollback",
         "SQLEndTran",
         failing(1, 1),
         reporting(SQL_ERROR, 1, {kBad, kUnused, kUnused}),
         "23505",
         "set 1 of 3",
         {off, array, rollback},
         true},
        {"autocommit stays off after a rollback", "SQLSetConnectAttrW", failing(2),
         reporting(SQL_ERROR, 1, {kUnused, kUnused, kUnused}), "23505", "", undone, true},
        // The batch is there; what comes later would never be.
        {"autocommit stays off after a commit",
         "SQLSetConnectAttrW",
         failing(2),
         {},
         "",
         "",
         {off, array, commit, on},
         true},
    };
    for (const auto& given : kCases) {
        SCOPED_TRACE(given.what);
        script.calls.clear();
        script.answers.clear();
        script.results = {{{}, {}, 3}};
        Connection connection(kDriverText);
        if (given.answer) script.answers[given.function] = given.answer;
        script.execute = given.execute;
        script.calls.clear();
        script.log.clear();
        EXPECT_EQ(given.state, batch(connection));
        EXPECT_TRUE(report.says(given.says)) << report.message;
        EXPECT_EQ(given.calls, transactions());
        const SQLLEN expected = given.calls == single ? 9 : 3;
        EXPECT_EQ(given.state.empty() ? expected : -1, changed);
        script.execute = {};
        script.answers.clear();
        EXPECT_EQ(given.lost ? SQL_ERROR : SQL_SUCCESS, connection.run("SELECT 1"));
        EXPECT_EQ(given.lost ? "08S01" : "", connection.last.state);
        EXPECT_EQ(given.lost ? 0U : 1U, transactions().size());
        SQLUINTEGER dead = 9;
        RT_SQLGetConnectAttr(kDriver, connection.handle, SQL_ATTR_CONNECTION_DEAD, &dead, 0,
                             nullptr);
        EXPECT_EQ(given.lost ? SQLUINTEGER{SQL_CD_TRUE} : SQLUINTEGER{SQL_CD_FALSE}, dead);
        EXPECT_EQ(SQL_SUCCESS, RT_SQLDisconnect(kDriver, connection.handle));
        EXPECT_EQ(given.lost ? Rows{rollback} : Rows{}, transactions());
    }
}

TEST_F(DriverBatches, InATransactionOfTheApplicationAreUndoneAlone) {
    const std::string array = "SQLExecDirectW INSERT INTO t VALUES (? ) sets=3";
    Connection connection(kDriverText);
    connection.autocommit(false);
    transactions();
    EXPECT_EQ("", batch(connection));
    EXPECT_EQ(Rows({"SQLExecDirectW SAVEPOINT vorda_1", array,
                    "SQLExecDirectW RELEASE SAVEPOINT vorda_1"}),
              transactions());
    script.execute = reporting(SQL_ERROR, 3, {kGood, kBad, kGood});
    EXPECT_EQ("23505", batch(connection));
    EXPECT_EQ(Rows({"SQLExecDirectW SAVEPOINT vorda_2", "SQLExecute  sets=3",
                    "SQLExecDirectW ROLLBACK TO SAVEPOINT vorda_2",
                    "SQLExecDirectW RELEASE SAVEPOINT vorda_2"}),
              transactions());
    // The application's COMMIT would keep half a batch.
    script.calls.clear();
    script.answers["SQLExecDirectW"] = failing(2);
    EXPECT_EQ("23505", batch(connection));
    transactions();
    EXPECT_EQ(SQL_ERROR, connection.end(SQL_COMMIT));
    EXPECT_EQ("08S01", connection.error().state);
    EXPECT_EQ(Rows{}, transactions());
    EXPECT_EQ(SQL_SUCCESS, RT_SQLDisconnect(kDriver, connection.handle));
    EXPECT_EQ(Rows{"SQLEndTran rollback"}, transactions());
}

// What could not be rolled back must not be committed later, and must not keep the handle.
TEST_F(DriverBatches, AFailedRollbackGivesTheConnectionUp) {
    Connection connection(kDriverText);
    connection.autocommit(false);
    connection.must("INSERT INTO t VALUES (1)");
    script.calls.clear();
    script.answers["SQLEndTran"] = failing(1);
    EXPECT_EQ(SQL_ERROR, connection.end(SQL_COMMIT));
    EXPECT_EQ("23505", connection.error().state);
    EXPECT_EQ(SQL_ERROR, RT_SQLDisconnect(kDriver, connection.handle));
    EXPECT_EQ("25000", connection.error().state);
    EXPECT_EQ(SQL_ERROR, connection.end(SQL_ROLLBACK));
    EXPECT_EQ("23505", connection.error().state);
    script.answers.clear();
    EXPECT_EQ(SQL_ERROR, connection.end(SQL_COMMIT));
    EXPECT_EQ("08S01", connection.error().state);
    EXPECT_EQ(SQL_ERROR, connection.run("SELECT 1"));
    EXPECT_EQ(SQL_SUCCESS, RT_SQLDisconnect(kDriver, connection.handle));
}

TEST_F(DriverBatches, ThatYieldRowsAreRefused) {
    give(SQL_INTEGER, {number(1)});
    Connection connection(kDriverText);
    EXPECT_EQ("HYC00", batch(connection));
    EXPECT_EQ(1U, calls({"SQLEndTran rollback"}).size());
    EXPECT_EQ(Rows{"1"}, connection.query("SELECT 1"));
}

// A driver that cannot be told to forget an array must not read or write behind one value.
TEST_F(DriverBatches, LeaveNoArrayBehind) {
    script.results = {{{}, {}, 3}};
    Connection connection(kDriverText);
    Statement statement(connection.handle);
    const std::array<SQLINTEGER, 3> values{1, 2, 3};
    std::array<SQLLEN, 3> lengths{4, 4, 4};
    statement.prepare(kInsert);
    statement.bind(1, SQL_C_LONG, values.data(), lengths.data());
    statement.set(SQL_ATTR_PARAMSET_SIZE, 3);
    script.calls.clear();
    script.answers["SQLSetStmtAttrW"] = failing(10);
    EXPECT_EQ(SQL_SUCCESS, statement.execute());
    EXPECT_LT(9, script.calls["SQLSetStmtAttrW"]) << "the reset is not what failed";
    script.answers.clear();
    statement.set(SQL_ATTR_PARAMSET_SIZE, 1);
    transactions();
    EXPECT_EQ(SQL_SUCCESS, statement.execute());
    EXPECT_EQ(Rows{"SQLExecDirectW INSERT INTO t VALUES (? )"}, transactions());
}

}  // namespace
}  // namespace embedded_test
