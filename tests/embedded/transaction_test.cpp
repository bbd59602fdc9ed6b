#include <atomic>
#include <filesystem>
#include <thread>

#include "fixture.h"

namespace embedded_test {
namespace {

class TransactionTest : public DatabaseTest {
  protected:
    TransactionTest() { connection.must("CREATE TABLE t (a INTEGER PRIMARY KEY, b TEXT)"); }
    Rows count() { return stored("SELECT count(*) FROM t"); }
};

TEST_F(TransactionTest, UncommittedChangesAreNotLostUnseen) {
    connection.autocommit(false);
    connection.must("INSERT INTO t VALUES (1, 'x')");
    EXPECT_EQ(SQL_ERROR, RT_SQLDisconnect(kDriver, connection.handle));
    EXPECT_EQ("25000", connection.error().state);
    EXPECT_EQ(Rows{"0"}, count());
    EXPECT_EQ(SQL_SUCCESS,
              RT_SQLEndTran(kDriver, SQL_HANDLE_ENV, connection.environment, SQL_COMMIT));
    EXPECT_EQ(Rows{"1"}, count());
    connection.must("INSERT INTO t VALUES (2, 'y')");
    for (int i = 0; i < 2; ++i) EXPECT_EQ(SQL_SUCCESS, connection.end(SQL_ROLLBACK));
    connection.must("INSERT INTO t VALUES (3, 'z')");
    EXPECT_EQ(SQL_SUCCESS, connection.autocommit(true));  // commits
    EXPECT_EQ(Rows{"2"}, count());
    connection.autocommit(false);
    connection.query("SELECT * FROM t");
    EXPECT_EQ(SQL_SUCCESS, RT_SQLDisconnect(kDriver, connection.handle));
}

TEST_F(TransactionTest, RollingBackClosesCursorsAndCommittingKeepsThem) {
    connection.must("INSERT INTO t VALUES (1, 'x'), (2, 'y')");
    connection.autocommit(false);
    Statement statement(connection.handle);
    ASSERT_EQ(SQL_SUCCESS, statement.run("SELECT a FROM t"));
    ASSERT_EQ(SQL_SUCCESS, statement.fetch());
    EXPECT_EQ(SQL_SUCCESS, connection.end(SQL_COMMIT));
    EXPECT_EQ(SQL_SUCCESS, statement.fetch());
    EXPECT_EQ("2", statement.get(1));
    EXPECT_EQ(SQL_SUCCESS, connection.end(SQL_ROLLBACK));
    statement.close();

    ASSERT_EQ(SQL_SUCCESS, statement.run("SELECT a FROM t"));
    ASSERT_EQ(SQL_SUCCESS, statement.fetch());
    EXPECT_EQ(SQL_SUCCESS, connection.end(SQL_ROLLBACK));
    EXPECT_EQ("24000", statement.stateOf(statement.fetch()));
    // What was compiled against a schema that is rolled back is forgotten.
    connection.must("CREATE TABLE gone (a)");
    connection.query("SELECT * FROM gone");
    connection.end(SQL_ROLLBACK);
    EXPECT_EQ(SQL_ERROR, statement.prepare("SELECT * FROM gone"));
}

TEST_F(TransactionTest, PragmasAndVacuumDoNotOpenOne) {
    connection.autocommit(false);
    connection.expect(R"(
PRAGMA user_version = 7
PRAGMA foreign_keys = ON
PRAGMA foreign_keys => 1
VACUUM
BEGIN IMMEDIATE
INSERT INTO t VALUES (1, 'x')
)");
    connection.end(SQL_COMMIT);
    EXPECT_EQ(Rows{"1"}, count());
}

class BatchTest : public TransactionTest {
  protected:
    static constexpr SQLULEN kSets = 3;

    BatchTest() : statement(connection.handle) {
        EXPECT_EQ(SQL_SUCCESS, statement.prepare("INSERT INTO t VALUES (@1 , @2 )"));
        statement.set(SQL_ATTR_PARAMSET_SIZE, kSets);
        statement.set(SQL_ATTR_PARAMS_PROCESSED_PTR, reinterpret_cast<SQLULEN>(&processed));
        statement.set(SQL_ATTR_PARAM_STATUS_PTR, reinterpret_cast<SQLULEN>(status));
        statement.bind(1, SQL_C_SBIGINT, numbers, numberLengths);
        statement.bindText(2, texts, textLengths, 4);
    }

    SQLBIGINT numbers[kSets] = {1, 2, 3};
    SQLLEN numberLengths[kSets] = {8, 8, 8};
    char texts[kSets * 4 + 1] = "abcdxy##\xC3\xA4\xC3\xB6";
    SQLLEN textLengths[kSets] = {4, 2, 4};
    SQLULEN processed = 77;
    SQLUSMALLINT status[kSets] = {77, 77, 77};
    Statement statement;
};

TEST_F(BatchTest, RunsOncePerSetAndCountsTheSum) {
    textLengths[1] = SQL_NULL_DATA;
    EXPECT_EQ("#3", statement.outcome(statement.execute()));
    EXPECT_TRUE(processed == kSets && status[2] == SQL_PARAM_SUCCESS);
    EXPECT_EQ(Rows({"1|abcd", "2|NULL", "3|\xC3\xA4\xC3\xB6"}), stored("SELECT * FROM t"));
    // Back to one set, the first is used; and a batch that changes nothing has no data.
    statement.set(SQL_ATTR_PARAMSET_SIZE, 1);
    ASSERT_EQ(SQL_SUCCESS, statement.prepare("UPDATE t SET b = @2  WHERE a = @1 "));
    EXPECT_EQ("#1", statement.outcome(statement.execute()));
    statement.set(SQL_ATTR_PARAMSET_SIZE, kSets);
    ASSERT_EQ(SQL_SUCCESS, statement.prepare("UPDATE t SET b = @2  WHERE a = 10 * @1 "));
    EXPECT_EQ("#0", statement.outcome(statement.execute()));
}

TEST_F(BatchTest, IsAllOrNothing) {
    connection.must("INSERT INTO t VALUES (3, 'old')");
    EXPECT_EQ("!23505 1555", statement.outcome(statement.execute()).substr(0, 11));
    EXPECT_TRUE(statement.error().says("parameter set 3 of 3")) << statement.error().message;
    EXPECT_EQ(3U, processed);
    EXPECT_TRUE(status[2] == SQL_PARAM_ERROR && status[0] == SQL_PARAM_UNUSED);
    connection.must("INSERT INTO t VALUES (9, 'more')");  // nothing is left open
    // Also where the failure has ended the transaction itself.
    connection.must(
        "CREATE TRIGGER r BEFORE INSERT ON t WHEN new.a = 2"
        " BEGIN SELECT RAISE(ROLLBACK, 'no twos'); END");
    EXPECT_EQ(SQL_ERROR, statement.execute());
    EXPECT_TRUE(statement.error().says("no twos"));
    EXPECT_EQ(Rows({"3|old", "9|more"}), stored("SELECT * FROM t"));
}

TEST_F(BatchTest, WhatCannotBeExecutedStoresNothing) {
    numberLengths[1] = -7;  // of no meaning for a number
    textLengths[1] = -7;
    EXPECT_EQ("HY090", statement.stateOf(statement.execute()));
    EXPECT_TRUE(statement.error().says("Parameter 2")) << statement.error().message;
    EXPECT_TRUE(statement.error().says("parameter set 2 of 3"));
    EXPECT_EQ(Rows{"0"}, count());
    connection.must("CREATE PROCEDURE p (a, b) AS SELECT $a");
    for (const char* const sql : {"SELECT @1 , @2 ", "EXEC p @1 , @2 "}) {
        ASSERT_EQ(SQL_SUCCESS, statement.prepare(sql));
        EXPECT_EQ("HYC00", statement.stateOf(statement.execute())) << sql;
    }
}

TEST_F(BatchTest, RowsOfValuesCanLieTogether) {
    struct Row {
        SQLBIGINT number;
        SQLLEN length;
    } rows[kSets + 1] = {{0, 0}, {11, 8}, {12, SQL_NULL_DATA}, {13, 8}};
    SQLULEN offset = sizeof(Row);
    ASSERT_EQ(SQL_SUCCESS, statement.prepare("INSERT INTO t (b) VALUES (?)"));
    RT_SQLFreeStmt(kDriver, statement.handle, SQL_RESET_PARAMS);
    statement.set(SQL_ATTR_PARAM_BIND_TYPE, sizeof(Row));
    statement.set(SQL_ATTR_PARAM_BIND_OFFSET_PTR, reinterpret_cast<SQLULEN>(&offset));
    statement.bind(1, SQL_C_SBIGINT, &rows[0].number, &rows[0].length);
    EXPECT_EQ("#3", statement.outcome(statement.execute()));
    EXPECT_EQ(Rows({"11", "NULL", "13"}), stored("SELECT b FROM t"));
}

/// Calls that last; each is ended from outside.
class EndedCallTest : public DatabaseTest {
  protected:
    EndedCallTest() { connection.must("CREATE TABLE t (a)"); }

    /// The state of a prepared statement's execution, which another thread cancels: once as soon as
    /// it writes, or again and again.
    std::string cancelled(Statement& statement, bool once) {
        std::atomic<bool> ended = false;
        std::thread canceller([&] {
            const auto writes = [&] { return std::filesystem::exists(path + "-journal"); };
            while (once && !ended && !writes()) std::this_thread::yield();
            do {
                RT_SQLCancel(kDriver, statement.handle);
                std::this_thread::yield();
            } while (!once && !ended);
        });
        const std::string state = statement.stateOf(statement.execute());
        ended = true;
        canceller.join();
        return state;
    }

    inline static const std::string kNumbers =
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n) ";
    inline static const std::string kEndless = kNumbers + "SELECT max(i) FROM n";
};

TEST_F(EndedCallTest, ACancelHoldsUntilItsCallHasEndedAndNoLonger) {
    constexpr size_t kSets = 2'000'000;
    const std::vector<SQLINTEGER> values(kSets, 7);
    std::vector<SQLLEN> lengths(kSets, sizeof(SQLINTEGER));
    // Too short for a look within any of them.
    std::string steps = "CREATE PROCEDURE steps AS";
    for (int i = 0; i < 20'000; ++i) steps += " INSERT INTO t VALUES (" + std::to_string(i) + ");";
    connection.must(steps);
    connection.must("CREATE PROCEDURE many AS EXEC steps; EXEC steps");
    connection.must("CREATE PROCEDURE slow AS INSERT INTO t VALUES (1); " + kEndless);
    Statement open(connection.handle);
    ASSERT_EQ(SQL_SUCCESS, open.run("SELECT 'x' UNION ALL SELECT 'y'"));
    ASSERT_EQ(SQL_SUCCESS, open.fetch());
    for (const std::string& sql :
         {"INSERT INTO t " + kNumbers + "SELECT i FROM n", std::string("EXEC slow"),
          std::string("EXEC many"), std::string("INSERT INTO t VALUES (?)")}) {
        Statement call(connection.handle);
        ASSERT_EQ(SQL_SUCCESS, call.prepare(sql)) << call.error().message;
        if (sql.ends_with("?)")) {
            call.set(SQL_ATTR_PARAMSET_SIZE, kSets);
            call.bind(1, SQL_C_LONG, values.data(), lengths.data());
        }
        EXPECT_EQ(SQL_SUCCESS, RT_SQLCancel(kDriver, call.handle));  // nothing runs: no effect
        EXPECT_EQ("HY008", cancelled(call, true)) << sql;
        EXPECT_EQ(SQLITE_INTERRUPT, call.error().native);
        EXPECT_EQ(Rows{"0"}, connection.query("SELECT count(*) FROM t")) << sql;
    }
    EXPECT_EQ(Rows{"y"}, open.rows());
}

TEST_F(EndedCallTest, AWaitForALockEndsToo) {
    Connection other("Timeout=60;Database=" + path);
    connection.must("BEGIN IMMEDIATE");
    Statement late(other.handle);
    ASSERT_EQ(SQL_SUCCESS, late.prepare("INSERT INTO t VALUES (1)"));
    EXPECT_EQ("HY008", cancelled(late, false));
    EXPECT_EQ(SQL_SUCCESS, late.set(SQL_ATTR_QUERY_TIMEOUT, 1));
    for (const std::string& sql : {std::string("DELETE FROM t"), kEndless}) {
        EXPECT_EQ("HYT00", late.stateOf(late.run(sql)));
        EXPECT_TRUE(late.error().says("query timeout")) << late.error().message;
    }
    connection.must("COMMIT");
    EXPECT_EQ(SQL_SUCCESS, late.run("INSERT INTO t VALUES (1)"));
}

}  // namespace
}  // namespace embedded_test
