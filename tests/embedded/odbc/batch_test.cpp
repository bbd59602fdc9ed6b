// Batches and transactions: all or nothing, whatever the driver does.
#include <array>
#include <thread>
#include <utility>

#include "driver_fixture.h"

namespace embedded_test {
namespace {

using Sets = std::array<SQLUSMALLINT, 3>;

constexpr SQLUSMALLINT kGood = SQL_PARAM_SUCCESS;
constexpr SQLUSMALLINT kBad = SQL_PARAM_ERROR;
constexpr SQLUSMALLINT kUnused = SQL_PARAM_UNUSED;

/// An execution that reports so about its sets.
auto reporting(SQLRETURN result, SQLULEN processed, Sets statuses) {
    return [=](const Call& execution) {
        if (execution.sets == 1) return kUsual;
        if (execution.processed) *execution.processed = processed;
        if (execution.status) std::copy(statuses.begin(), statuses.end(), execution.status);
        return result;
    };
}

struct DriverBatches : DriverTest {
    DriverBatches() {
        script.diagnostics = {{u"23505", 7, u"there already"}};
        script.results = {{{}, {}, 3}};
    }

    /// A batch of three sets: the rows changed, or the state and the end of the message.
    std::string batch(Statement& statement) {
        static const std::array<SQLINTEGER, 3> values{1, 2, 3};
        static std::array<SQLLEN, 3> lengths{4, 4, 4};
        statement.set(SQL_ATTR_PARAMSET_SIZE, values.size());
        statement.prepare(text);
        statement.bind(1, SQL_C_LONG, values.data(), lengths.data());
        if (statement.execute() != SQL_ERROR) return std::to_string(statement.rowCount());
        const std::string message = statement.error().message;
        const size_t own = message.find_last_of(']');
        return statement.error().state + message.substr(own + 1);
    }

    std::string text = "INSERT INTO t VALUES (@1 )";  ///< of the batches

    /// The calls about transactions since the last look, in short.
    std::string transactions() {
        static const std::map<std::string, std::string> kShort{
            {"SQLSetConnectAttrW 102=0", "off"},
            {"SQLSetConnectAttrW 102=1", "on"},
            {"SQLExecDirectW INSERT INTO t VALUES (? )", "one"},
            {"SQLExecDirectW UPDATE t SET a = (? )", "one"},
            {"SQLExecDirectW INSERT INTO t VALUES (? ) sets=3", "array"},
            {"SQLExecute", "again"},
            {"SQLExecute  sets=3", "array"},
            {"SQLEndTran commit", "commit"},
            {"SQLEndTran rollback", "rollback"}};
        std::string all;
        for (const std::string& call : calls({"SQLSetConnectAttrW", "SQLExec", "SQLEndTran"})) {
            const auto found = kShort.find(call);
            all += (all.empty() ? "" : ", ") + (found == kShort.end() ? call : found->second);
        }
        return all;
    }

    /// A batch in a connection of its own and what it calls; "lost" if the connection is given up.
    std::string alone() {
        const auto answers = std::exchange(script.answers, {});
        Connection connection(kDriverText);
        script.answers = answers;
        script.calls.clear();
        calls({});
        std::string seen;
        {
            Statement statement(connection.handle);
            seen = batch(statement) + ": ";
            seen += transactions();
        }
        script.answers.clear();
        SQLUINTEGER dead = SQL_CD_FALSE;
        RT_SQLGetConnectAttr(kDriver, connection.handle, SQL_ATTR_CONNECTION_DEAD, &dead, 0,
                             nullptr);
        const bool lost = connection.run("SELECT 1") == SQL_ERROR;
        EXPECT_EQ(lost ? "08S01" : "", connection.last.state);
        EXPECT_EQ(lost, dead == SQL_CD_TRUE);
        EXPECT_EQ(lost, transactions().empty());
        EXPECT_EQ(SQL_SUCCESS, RT_SQLDisconnect(kDriver, connection.handle));
        EXPECT_EQ(lost ? "rollback" : "", transactions());
        return seen + (lost ? " lost" : "");
    }
};

TEST_F(DriverBatches, AreDoneWholeOrUndone) {
    EXPECT_EQ("3: off, array, commit, on", alone());
    executions(reporting(SQL_SUCCESS, 3, {1, 1, 1}));  // no diagnosis of each
    EXPECT_EQ("3: off, array, commit, on", alone());
    script.answers["SQLSetStmtAttrW"] = failing(1, 1);
    EXPECT_EQ("9: off, one, again, again, commit, on", alone());
    script.answers["SQLSetStmtAttrW"] = failing(1, 1, SQL_SUCCESS_WITH_INFO);  // shorter arrays
    EXPECT_EQ("9: off, one, again, again, commit, on", alone());

    script.answers["SQLSetStmtAttrW"] = script.answers["SQLExecute"] = failing(1, 1);
    EXPECT_EQ("23505 there already (parameter set 2 of 3): off, one, again, rollback, on", alone());

    const std::string undone = ": off, array, rollback, on";
    executions(reporting(SQL_ERROR, 3, {kGood, kBad, kGood}));
    EXPECT_EQ("23505 there already (parameter set 2 of 3)" + undone, alone());
    executions(reporting(SQL_SUCCESS_WITH_INFO, 3, {kGood, kGood, kBad}));
    EXPECT_EQ("23505 there already (parameter set 3 of 3)" + undone, alone());
    const std::string incomplete =
        "HY000 The driver has not executed every parameter set of the batch." + undone;
    executions(reporting(SQL_SUCCESS, 2, {kGood, kGood, kUnused}));
    EXPECT_EQ(incomplete, alone());
    executions(reporting(SQL_SUCCESS, 3, {kGood, kUnused, kGood}));
    EXPECT_EQ(incomplete, alone());

    script.answers["SQLEndTran"] = failing(1, 1);
    EXPECT_EQ("23505 there already: off, array, commit, rollback, on", alone());
    script.answers["SQLEndTran"] = failing(1, 1, SQL_NO_DATA);
    // From 2.3.12 on unixODBC has the driver's words behind that, too.
    const std::string failed = alone();
    EXPECT_EQ(": off, array, commit, rollback, on", failed.substr(failed.rfind(": off")));
    script.answers["SQLSetConnectAttrW"] = failing(1);
    EXPECT_EQ("23505 there already: off", alone());

    const Sets bad{kBad, kUnused, kUnused};
    executions(reporting(SQL_ERROR, 1, bad));
    script.answers["SQLEndTran"] = failing(1, 1);
    const std::string first = "23505 there already (parameter set 1 of 3)";
    // The server may have been told to cancel this.
    EXPECT_EQ(first + ": off, array, rollback, rollback, on", alone());
    executions(reporting(SQL_ERROR, 1, bad));
    script.answers["SQLEndTran"] = failing(1);
    EXPECT_EQ(first + ": off, array, rollback, rollback, rollback lost", alone());
    executions(reporting(SQL_ERROR, 1, bad));
    script.answers["SQLSetConnectAttrW"] = failing(2);
    EXPECT_EQ(first + undone + ", on, on lost", alone());
    // This batch is there; what comes later would never be.
    script.answers["SQLSetConnectAttrW"] = failing(2);
    EXPECT_EQ("3: off, array, commit, on, on, on lost", alone());
}

TEST_F(DriverBatches, GoOneByOneWhereAServerEndsThemEarlyAndDoesNotSay) {
    script.texts[SQL_DRIVER_NAME] = u"libmaodbc.so";
    EXPECT_EQ("3: off, array, commit, on", alone());
    text = "UPDATE t SET a = (@1 )";
    EXPECT_EQ("9: off, again, again, again, commit, on", alone());
}

TEST_F(DriverBatches, AreUndoneWhenTheyAreCancelled) {
    for (const char* function : {"SQLNumResultCols", "SQLExecute"}) {
        Connection connection(kDriverText);
        Statement statement(connection.handle);
        transactions();
        script.calls.clear();
        script.answers["SQLSetStmtAttrW"] = failing(1, 1);
        // Between two executions, or in one that is done all the same.
        script.answers[function] = [&](const Call& call) {
            if (call.number == 2)
                std::thread([&] { RT_SQLCancel(kDriver, statement.handle); }).join();
            return kUsual;
        };
        EXPECT_EQ("HY008", batch(statement).substr(0, 5)) << function;
        const std::string calls = transactions();
        EXPECT_TRUE(calls.ends_with("again, rollback, on")) << calls;
        script.answers.clear();
    }
    // What undoes them is not.
    Connection connection(kDriverText);
    connection.autocommit(false);
    Statement statement(connection.handle);
    script.calls.clear();
    calls({});
    script.answers["SQLExecDirectW"] = [&](const Call& call) {
        if (call.number > 2) std::thread([&] { RT_SQLCancel(kDriver, statement.handle); }).join();
        return call.number == 2 ? SQLRETURN{SQL_ERROR} : kUsual;
    };
    EXPECT_EQ("23505", batch(statement).substr(0, 5));
    EXPECT_EQ(Rows{}, calls({"SQLCancel"}));
    EXPECT_EQ(4, script.calls["SQLExecDirectW"]);
    // A driver may have ended all of the transaction then.
    dialect(u"PostgreSQL");
    Connection lost(kDriverText);
    lost.autocommit(false);
    {
        Statement other(lost.handle);
        script.calls.clear();
        script.diagnostics = {{u"3B001", 1, u"no such savepoint"}};
        script.answers["SQLExecDirectW"] = failing(3, 9);
        EXPECT_EQ("3B001", batch(other).substr(0, 5));
        script.answers.clear();
    }
    lost.expect("DELETE FROM t => !25P02");
    lost.expect("ROLLBACK");
    lost.expect("DELETE FROM t => #3");
}

TEST_F(DriverBatches, InATransactionOfTheApplicationAreUndoneAlone) {
    const std::string call = "SQLExecDirectW ";
    Connection connection(kDriverText);
    connection.autocommit(false);
    transactions();
    Statement statement(connection.handle);
    EXPECT_EQ("3", batch(statement));
    EXPECT_EQ(call + "SAVEPOINT vorda_1, array, " + call + "RELEASE SAVEPOINT vorda_1",
              transactions());
    executions(reporting(SQL_ERROR, 3, {kGood, kBad, kGood}));
    EXPECT_EQ("23505 there already (parameter set 2 of 3)", batch(statement));
    EXPECT_EQ(call + "SAVEPOINT vorda_2, array, " + call + "ROLLBACK TO SAVEPOINT vorda_2, " +
                  call + "RELEASE SAVEPOINT vorda_2",
              transactions());
    // The application's COMMIT would keep half a batch.
    script.calls.clear();
    script.answers["SQLExecDirectW"] = failing(2);
    EXPECT_EQ("23505", batch(statement).substr(0, 5));
    transactions();
    EXPECT_EQ(SQL_ERROR, connection.end(SQL_COMMIT));
    EXPECT_EQ("08S01", connection.error().state);
    EXPECT_EQ("", transactions());
    EXPECT_EQ(SQL_SUCCESS, RT_SQLDisconnect(kDriver, connection.handle));
    EXPECT_EQ("rollback", transactions());
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
    EXPECT_EQ("HYC00", alone().substr(0, 5));
}

// A driver that cannot be told to forget an array must not read or write behind one value.
TEST_F(DriverBatches, LeaveNoArrayBehind) {
    Connection connection(kDriverText);
    Statement statement(connection.handle);
    script.calls.clear();
    script.answers["SQLSetStmtAttrW"] = failing(10);
    EXPECT_EQ("3", batch(statement));
    EXPECT_LT(9, script.calls["SQLSetStmtAttrW"]) << "the reset is not what failed";
    script.answers.clear();
    statement.set(SQL_ATTR_PARAMSET_SIZE, 1);
    transactions();
    EXPECT_EQ(SQL_SUCCESS, statement.execute());
    EXPECT_EQ("one", transactions());
    SQLULEN processed = 0;
    statement.set(SQL_ATTR_PARAMS_PROCESSED_PTR, reinterpret_cast<SQLULEN>(&processed));
    executions(failing());
    EXPECT_EQ(SQL_ERROR, statement.execute());
    EXPECT_EQ(1U, processed);
}

// What a node of a cluster has undone for another node's sake it may tell to nobody.
TEST_F(DriverBatches, AreNotStoredWithoutWhatCameBefore) {
    for (const bool isNode : {false, true}) {
        dialect(u"MariaDB");
        script.answers.clear();
        Connection connection(kDriverText);
        connection.must("BEGIN");
        // Whether there are other nodes, it says, and then that no transaction is open.
        give(SQL_INTEGER, {number(isNode)});
        script.answers["SQLExecute"] = [&](const Call&) {
            give(SQL_INTEGER, {number(0)});
            return kUsual;
        };
        script.answers["SQLExecDirectW"] = [&](const Call&) {
            script.results = {{{}, {}, 3}};
            return kUsual;
        };
        Statement statement(connection.handle);
        EXPECT_EQ(isNode, batch(statement).starts_with("40001"));
        script.answers.clear();
        script.results = {{{}, {}, 3}};
        connection.expect(isNode ? "DELETE FROM t => !25P02" : "DELETE FROM t => #3");
        connection.expect("ROLLBACK");
    }
}

}  // namespace
}  // namespace embedded_test
