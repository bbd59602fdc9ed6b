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
    const std::pair<std::string, std::string> texts[] = {
        {"", "!42000"},
        {std::string("SELECT 1\0", 9), "1"},
        {std::string("SELECT 1\0, 2", 12), "!42000"},
    };
    for (const auto& [sql, outcome] : texts) {
        Statement statement(connection.handle);
        EXPECT_EQ(outcome, statement.outcome(statement.run(sql)).substr(0, outcome.size()));
    }
}

TEST_F(StatementTest, TheLastRowOfAnInsertIsToldByNumber) {
    connection.must("CREATE TABLE t (a INTEGER PRIMARY KEY, b)");
    const std::pair<const char*, SQLBIGINT> cases[] = {
        {"INSERT INTO t (b) VALUES (1), (2)", 2},
        {"INSERT INTO t VALUES (9000000000, 1)", 9000000000},
        {"REPLACE INTO t VALUES (-4, 1) RETURNING a", -4},
        {"INSERT OR IGNORE INTO t VALUES (-4, 1)", 0},
        {"UPDATE t SET b = 3", 0},
        {"SELECT 1", 0}};
    for (const auto& [sql, expected] : cases) {
        Statement statement(connection.handle);
        statement.run(sql);
        SQLBIGINT number = 0;
        SQLINTEGER length = 0;
        const SQLRETURN result = RT_SQLGetStmtAttr(kDriver, statement.handle,
                                                   SQL_ATTR_VORDA_LAST_ROWID, &number, 0, &length);
        EXPECT_EQ(expected == 0 ? SQL_NO_DATA : SQL_SUCCESS, result) << sql;
        EXPECT_EQ(expected, number) << sql;
    }
}

TEST_F(StatementTest, RegexpFindsAPatternAnywhere) {
    const struct {
        const char* pattern;
        const char* text;
        const char* found;
    } cases[] = {
        {"b+c", "abbbcd", "1"},
        {"^b", "ab", "0"},
        {"b$", "ab", "1"},
        {"", "", "1"},
        {"a|b|", "x", "1"},
        {"^(ab|c)*$", "abcab", "1"},
        {"^(ab|c)*$", "abca", "0"},
        {"^a{2,3}$", "aaaa", "0"},
        {"^a{2,3}$", "aaa", "1"},
        {"^a{2,}?$", "aaaaa", "1"},
        {"^.$", "\xC3\xA9", "1"},
        {"[a-c\\d-]", "-", "1"},
        {"[^\\W_]", "_-", "0"},
        {"^[]x]+$", "]x]", "1"},
        {"[\xC3\xA0-\xC3\xBF]", "\xC3\xA9", "1"},
        {"\\bcat\\b", "a cat.", "1"},
        {"\\bcat\\b", "cats", "0"},
        {"(?i)straSSe", "STRASSE", "1"},
        {"a\\.b", "axb", "0"},
        {"(?:a*)*b", "aaaac", "0"},
        {"^\\S+@\\S+$", "a@b.c", "1"},
        {"a.c", "a\nc", "0"},
        {"(a|aa)+$", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaab", "0"},
        {"(", "", "!"},
        {"a)", "", "!"},
        {"[a", "", "!"},
        {"*", "", "!"},
        {"a{3,2}", "", "!"},
        {"\\1", "", "!"},
        {"(?=a)", "", "!"},
        {"((a{1000}){1000})", "", "!"},
        {"[b-a]", "", "!"},
    };
    for (const auto& [pattern, text, found] : cases) {
        const std::string sql =
            std::string("SELECT '") + text + "' REGEXP '" + pattern + "' FROM (SELECT 1)";
        Statement statement(connection.handle);
        const bool worked = SQL_SUCCEEDED(statement.run(sql)) && SQL_SUCCEEDED(statement.fetch());
        EXPECT_EQ(found, worked ? statement.get(1) : "!") << sql << statement.error().message;
    }
    EXPECT_EQ(Rows{"NULL|NULL|1"},
              connection.query("SELECT NULL REGEXP 'a', 'a' REGEXP NULL, 12 REGEXP '^1'"));
    EXPECT_EQ(Rows{"1000"},
              connection.query(
                  "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n LIMIT 1000)"
                  " SELECT sum('x' || i REGEXP 'x' || i || '$') FROM n"));
}

TEST_F(StatementTest, CallsOutOfOrderAreRefused) {
    Statement statement(connection.handle);
    SQLSMALLINT columns = 0;
    SQLLEN count = 0;
    const auto refused = [&](const char* state, SQLRETURN result) {
        EXPECT_EQ(state, statement.stateOf(result));
    };
    refused("HY010", statement.execute());
    refused("HY010", statement.fetch());
    refused("HY010", RT_SQLRowCount(kDriver, statement.handle, &count));
    refused("HY010", RT_SQLNumResultCols(kDriver, statement.handle, &columns));
    refused("HY010", RT_SQLNumParams(kDriver, statement.handle, &columns));
    refused("42S02", statement.prepare("SELECT * FROM missing"));
    refused("HY010", statement.execute());
    EXPECT_EQ(SQL_SUCCESS, statement.prepare("SELECT 1"));
    refused("HY010", statement.fetch());
    EXPECT_EQ(SQL_SUCCESS, statement.execute());
    refused("24000", statement.execute());
    refused("24000", statement.prepare("SELECT 2"));
    refused("24000", statement.run("SELECT 2"));
    EXPECT_EQ(SQL_SUCCESS, RT_SQLCloseCursor(kDriver, statement.handle));
    refused("24000", RT_SQLCloseCursor(kDriver, statement.handle));
    EXPECT_EQ("1", statement.outcome(statement.execute()));
    for (int i = 0; i < 2; ++i) EXPECT_EQ(SQL_NO_DATA, statement.fetch());
    EXPECT_EQ(SQL_SUCCESS, statement.close());
    EXPECT_EQ(SQL_SUCCESS, statement.run("CREATE TABLE t (a)"));
    refused("24000", statement.fetch());
}

TEST_F(StatementTest, PreparedStatementsFollowSchemaChanges) {
    connection.must("CREATE TABLE t AS SELECT 1 AS a");
    Statement statement(connection.handle);
    EXPECT_EQ(SQL_SUCCESS, statement.prepare("SELECT * FROM t"));
    EXPECT_EQ(1, statement.columns());
    connection.must("ALTER TABLE t ADD COLUMN b DOUBLE DEFAULT 2.5");
    EXPECT_EQ(SQL_SUCCESS, statement.execute());
    EXPECT_EQ(2, statement.columns());
    EXPECT_EQ(SQL_DOUBLE, statement.attribute(2, SQL_COLUMN_TYPE));
    EXPECT_EQ(Rows{"1|2.5"}, statement.rows());
    statement.close();
    connection.must("DROP TABLE t");
    EXPECT_EQ("42S02", statement.stateOf(statement.execute()));
    // Nor does a compiled form from before hide the error when the text is prepared anew.
    EXPECT_EQ("42S02", statement.stateOf(statement.prepare("SELECT * FROM t")));
}

TEST_F(StatementTest, RowsNobodyAskedForBlockNothing) {
    connection.must("CREATE TABLE t AS VALUES (1),(2),(3)");
    Statement cte(connection.handle);
    Statement pragma(connection.handle);
    Statement asked(connection.handle);
    EXPECT_EQ(SQL_SUCCESS, cte.run("WITH w AS (SELECT * FROM t) SELECT * FROM w"));
    EXPECT_EQ(SQL_SUCCESS, pragma.run("PRAGMA table_info(t)"));
    EXPECT_EQ("24000", cte.stateOf(cte.fetch()));
    SQLSMALLINT columns = -1;
    EXPECT_EQ("24000", cte.stateOf(RT_SQLNumResultCols(kDriver, cte.handle, &columns)));

    // Columns bound beforehand ask for the rows.
    SQLINTEGER value = 0;
    RT_SQLBindCol(kDriver, asked.handle, 1, SQL_C_LONG, &value, 0, nullptr);
    EXPECT_EQ(SQL_SUCCESS, asked.run("SELECT * FROM t"));
    EXPECT_EQ(Rows{"3"}, connection.query("SELECT count(*) FROM t"));
    EXPECT_EQ(SQL_SUCCESS, asked.fetch());
    EXPECT_EQ(1, value);
    asked.close();

    // One that was asked about stays open, and a table that is being read cannot be dropped.
    EXPECT_EQ(SQL_SUCCESS, asked.run("SELECT * FROM t"));
    EXPECT_EQ(SQL_SUCCESS, asked.fetch());
    EXPECT_EQ(SQL_ERROR, connection.run("DROP TABLE t"));
    EXPECT_EQ(SQLITE_LOCKED, connection.last.native & 0xFF);
    RT_SQLFreeStmt(kDriver, asked.handle, SQL_UNBIND);
    EXPECT_EQ(Rows({"2", "3"}), asked.rows());
    EXPECT_EQ(SQL_SUCCESS, connection.run("DROP TABLE t"));
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

TEST_F(StatementTest, AttributesTakeWhatTheyCan) {
    Statement statement(connection.handle);
    const std::tuple<int, SQLULEN, const char*> attributes[] = {
        {SQL_ATTR_CURSOR_TYPE, SQL_CURSOR_FORWARD_ONLY, ""},
        {SQL_ATTR_CURSOR_TYPE, SQL_CURSOR_STATIC, "HYC00"},
        {SQL_ATTR_PARAMSET_SIZE, 0, "HY024"},
        {31337, 0, "HY092"},
    };
    for (const auto& [attribute, value, state] : attributes)
        EXPECT_EQ(state, statement.stateOf(statement.set(attribute, value)));

    SQLULEN fetched = 77;
    SQLUSMALLINT status = 77;
    SQLULEN row = 77;
    statement.set(SQL_ATTR_ROWS_FETCHED_PTR, reinterpret_cast<SQLULEN>(&fetched));
    statement.set(SQL_ATTR_ROW_STATUS_PTR, reinterpret_cast<SQLULEN>(&status));
    ASSERT_EQ(SQL_SUCCESS, statement.run("SELECT 1 UNION SELECT 2"));
    statement.fetch();
    statement.fetch();
    EXPECT_EQ(1U, fetched);
    EXPECT_EQ(SQL_ROW_SUCCESS, status);
    EXPECT_EQ(SQL_SUCCESS, RT_SQLGetStmtAttr(kDriver, statement.handle, SQL_ATTR_ROW_NUMBER, &row,
                                             SQL_IS_UINTEGER, nullptr));
    EXPECT_EQ(2U, row);
    statement.fetch();
    EXPECT_EQ(0U, fetched);
}

}  // namespace
}  // namespace embedded_test
