#include "fixture.h"

#include <malloc.h>

#include "core/statement.h"

namespace embedded_test {
namespace {

using StatementTest = DatabaseTest;

TEST_F(StatementTest, OutcomesAreRowsCountsOrErrorsWithTheStateThatFits) {
    connection.expect(R"(
CREATE TABLE t (a INTEGER PRIMARY KEY, b TEXT NOT NULL UNIQUE) => #-1
CREATE INDEX i ON t (b)
INSERT INTO t VALUES (1, 'x'), (2, 'y'), (3, 'z') => #3
UPDATE t SET b = b || 'w' WHERE a > 1 => #2
UPDATE t SET b = 'w' WHERE a > 9 => #0
INSERT INTO t SELECT * FROM t WHERE a > 9 => #0
WITH w AS (SELECT 9) DELETE FROM t WHERE a IN w => #0
/* all */ DELETE FROM t WHERE a > 1 => #2
SELECT 1 ; ; -- done
 /* really */ ; => 1
; SELECT 1 => 1
SELEC 1 => !42000 1 [
SELECT (1 => !42000 1 [
SELECT nofunction(1) => !42000 1 [
INSERT INTO t VALUES (1) => !42000 1 [
SELECT * FROM missing => !42S02 1 [
SELECT missing FROM t => !42S22 1 [
INSERT INTO t (missing) VALUES (1) => !42S22 1 [
CREATE TABLE t (a) => !42S01 1 [
CREATE INDEX i ON t (a) => !42S11 1 [
DROP INDEX missing => !42S12 1 [
ALTER TABLE t ADD COLUMN b => !42S21 1 [
INSERT INTO t VALUES (1, 'y') => !23505 1555 [
INSERT INTO t VALUES (2, NULL) => !23502 1299 [
INSERT INTO t VALUES (2, 'x') => !23505 2067 [
INSERT INTO t VALUES ('one', 'y') => !22018 20 [
SELECT abs(-9223372036854775808) => !22003 1 [
COMMIT => !25000 1 [
-- nothing => !42000 1 [
SELECT 1; SELECT 2 => !42000 1 [
DELETE FROM t; DROP TABLE t => !42000 1 [
SELECT * FROM t => 1|x
)");
    for (const auto& [sql, outcome] : std::map<std::string, std::string>{
             {"", "!42000"}, {{"SELECT 1\0", 9}, "1"}, {{"SELECT 1\0, 2", 12}, "!42000"}}) {
        Statement statement(connection.handle);
        EXPECT_TRUE(statement.outcome(statement.run(sql)).starts_with(outcome));
    }
}

TEST_F(StatementTest, CallsOutOfOrderAreRefused) {
    Statement statement(connection.handle);
    const auto refused = [&](const char* state, SQLRETURN result) {
        EXPECT_EQ(state, statement.stateOf(result));
    };
    refused("HY010", statement.execute());
    refused("HY010", statement.fetch());
    refused("42S02", statement.prepare("SELECT * FROM missing"));
    refused("HY010", statement.execute());
    refused("", statement.prepare("SELECT 1"));
    refused("HY010", statement.fetch());
    refused("", statement.execute());
    refused("24000", statement.execute());
    refused("24000", statement.prepare("SELECT 2"));
    refused("", RT_SQLCloseCursor(kDriver, statement.handle));
    EXPECT_EQ("1", statement.outcome(statement.execute()));
    for (int i = 0; i < 2; ++i) EXPECT_EQ(SQL_NO_DATA, statement.fetch());
    statement.close();
    refused("", statement.run("CREATE TABLE t (a)"));
    refused("24000", statement.fetch());
}

TEST_F(StatementTest, RowsNobodyAskedForBlockNothing) {
    connection.must("CREATE TABLE t AS VALUES (1),(2),(3)");
    Statement cte(connection.handle);
    Statement pragma(connection.handle);
    Statement asked(connection.handle);
    cte.run("WITH w AS (SELECT * FROM t) SELECT * FROM w");
    pragma.run("PRAGMA table_info(t)");
    EXPECT_EQ("24000", cte.stateOf(cte.fetch()));
    EXPECT_EQ(-1, cte.columns());
    EXPECT_EQ("24000", cte.error().state);

    // Columns bound beforehand ask for the rows.
    SQLINTEGER value = 0;
    RT_SQLBindCol(kDriver, asked.handle, 1, SQL_C_LONG, &value, 0, nullptr);
    asked.run("SELECT * FROM t");
    connection.expect("SELECT count(*) FROM t => 3");
    EXPECT_EQ(SQL_SUCCESS, asked.fetch());
    EXPECT_EQ(1, value);
    // One that was asked about stays open, and a table that is being read cannot be dropped.
    EXPECT_EQ(SQL_ERROR, connection.run("DROP TABLE t"));
    EXPECT_EQ(SQLITE_LOCKED, connection.last.native & 0xFF);
    RT_SQLFreeStmt(kDriver, asked.handle, SQL_UNBIND);
    EXPECT_EQ(Rows({"2", "3"}), asked.rows());
    connection.must("DROP TABLE t");
    EXPECT_EQ(SQL_ERROR, Statement(connection.handle).prepare("SELECT count(*) FROM t"));
}

TEST_F(StatementTest, ChangesThatYieldRowsAreDoneWhenExecuted) {
    connection.must("CREATE TABLE t (a INTEGER PRIMARY KEY, b TEXT)");
    Statement statement(connection.handle);
    EXPECT_EQ(SQL_SUCCESS, statement.run("INSERT INTO t (b) VALUES ('x'), (NULL) RETURNING a, b"));
    EXPECT_EQ(Rows({"1|x", "2|NULL"}), stored("SELECT * FROM t"));
    EXPECT_EQ(2, statement.rowCount());
    EXPECT_EQ(SQL_BIGINT, statement.attribute(1, SQL_COLUMN_TYPE));
    EXPECT_EQ(Rows({"1|x", "2|NULL"}), statement.rows());
    EXPECT_EQ(SQL_NO_DATA, statement.fetch());
    EXPECT_EQ(Rows{"wal"}, connection.query("PRAGMA journal_mode = WAL"));
}

TEST_F(StatementTest, AbandonedStatementsCostNextToNothing) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer's allocator counts otherwise";
#endif
    constexpr int kCount = 20000;
    connection.must("CREATE TABLE t (a INTEGER, b TEXT)");
    connection.must("INSERT INTO t VALUES (1, 'some text that does not fit a short string')");
    const auto used = [] { return mallinfo2().uordblks; };
    const auto runAll = [&](int count) {
        for (int i = 0; i < count; ++i) {
            SQLHANDLE statement = nullptr;
            RT_SQLAllocHandle(kDriver, SQL_HANDLE_STMT, connection.handle, &statement);
            const char* sql = i % 3 == 0   ? "UPDATE t SET a = a + 1"
                              : i % 3 == 1 ? "WITH w AS (SELECT * FROM t) SELECT * FROM w"
                                           : "PRAGMA table_info(t)";
            ASSERT_EQ(SQL_SUCCESS, RT_SQLExecDirect(kDriver, statement, chars(sql), SQL_NTS));
        }
    };
    connection.must("BEGIN");
    runAll(100);
    const size_t before = used();
    runAll(kCount);
    const size_t each = (used() - before) / kCount;
    EXPECT_LT(each, 256U);
    connection.must("COMMIT");
}

TEST_F(StatementTest, EqualTextsMayRunAtTheSameTime) {
    for (int i = 0; i < 200; ++i) {  // more texts than are kept
        const std::string number = std::to_string(i);
        Statement first(connection.handle);
        Statement second(connection.handle);
        ASSERT_EQ(SQL_SUCCESS, first.prepare("SELECT " + number));
        ASSERT_EQ(SQL_SUCCESS, second.run("SELECT " + number));
        ASSERT_EQ(1, second.columns());  // its rows are asked for, and stay
        EXPECT_EQ(number, first.outcome(first.execute()));
        EXPECT_EQ(Rows{number}, second.rows());
    }
}

}  // namespace
}  // namespace embedded_test
