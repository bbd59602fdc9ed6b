#include "fixture.h"

#include <malloc.h>

#include "core/statement.h"

namespace embedded_test {
namespace {

using StatementTest = DatabaseTest;

TEST_F(StatementTest, RowCountsAndNoData) {
    Statement statement(connection.handle);
    EXPECT_EQ(SQL_SUCCESS, statement.run("CREATE TABLE t (a INTEGER, b TEXT)"));
    EXPECT_EQ(-1, statement.rowCount());
    EXPECT_EQ(SQL_SUCCESS, statement.run("INSERT INTO t VALUES (1,'x'),(2,'y'),(3,'z')"));
    EXPECT_EQ(3, statement.rowCount());
    EXPECT_EQ(SQL_SUCCESS, statement.run("UPDATE t SET b = 'w' WHERE a > 1"));
    EXPECT_EQ(2, statement.rowCount());
    for (const char* nothing : {"UPDATE t SET b = 'w' WHERE a > 9", "DELETE FROM t WHERE a > 9",
                                "INSERT INTO t SELECT * FROM t WHERE a > 9",
                                "WITH w AS (SELECT 9) DELETE FROM t WHERE a IN w"}) {
        EXPECT_EQ(SQL_NO_DATA, statement.run(nothing)) << nothing;
        EXPECT_EQ(0, statement.rowCount());
    }
    EXPECT_EQ(SQL_SUCCESS, statement.run("/* all */ DELETE FROM t"));
    EXPECT_EQ(3, statement.rowCount());
    EXPECT_EQ(SQL_SUCCESS, statement.run("SELECT * FROM t"));
    EXPECT_EQ(-1, statement.rowCount());
    for (int i = 0; i < 2; ++i) EXPECT_EQ(SQL_NO_DATA, statement.fetch());
}

TEST_F(StatementTest, ErrorsHaveTheStateThatFits) {
    connection.must("CREATE TABLE t (a INTEGER PRIMARY KEY, b TEXT NOT NULL UNIQUE)");
    connection.must("CREATE INDEX i ON t (b)");
    connection.must("INSERT INTO t VALUES (1, 'x')");
    const struct {
        const char* sql;
        const char* state;
        int native;
    } cases[] = {
        {"SELEC 1", "42000", SQLITE_ERROR},
        {"SELECT (1", "42000", SQLITE_ERROR},
        {"SELECT nofunction(1)", "42000", SQLITE_ERROR},
        {"INSERT INTO t VALUES (1)", "42000", SQLITE_ERROR},
        {"SELECT * FROM missing", "42S02", SQLITE_ERROR},
        {"SELECT missing FROM t", "42S22", SQLITE_ERROR},
        {"INSERT INTO t (missing) VALUES (1)", "42S22", SQLITE_ERROR},
        {"CREATE TABLE t (a)", "42S01", SQLITE_ERROR},
        {"CREATE INDEX i ON t (a)", "42S11", SQLITE_ERROR},
        {"DROP INDEX missing", "42S12", SQLITE_ERROR},
        {"ALTER TABLE t ADD COLUMN b", "42S21", SQLITE_ERROR},
        {"INSERT INTO t VALUES (1, 'y')", "23000", SQLITE_CONSTRAINT_PRIMARYKEY},
        {"INSERT INTO t VALUES (2, NULL)", "23000", SQLITE_CONSTRAINT_NOTNULL},
        {"INSERT INTO t VALUES (2, 'x')", "23000", SQLITE_CONSTRAINT_UNIQUE},
        {"INSERT INTO t VALUES ('one', 'y')", "22018", SQLITE_MISMATCH},
        {"SELECT abs(-9223372036854775808)", "22003", SQLITE_ERROR},
        {"COMMIT", "25000", SQLITE_ERROR},
        {"", "42000", SQLITE_ERROR},
        {" -- nothing\n", "42000", SQLITE_ERROR},
        {"SELECT 1; SELECT 2", "42000", SQLITE_ERROR},
        {"DELETE FROM t; DROP TABLE t", "42000", SQLITE_ERROR},
    };
    for (const auto& expected : cases) {
        EXPECT_EQ(SQL_ERROR, connection.run(expected.sql)) << expected.sql;
        EXPECT_EQ(expected.state, connection.last.state) << expected.sql << connection.last.message;
        EXPECT_EQ(expected.native, connection.last.native) << expected.sql;
    }
    EXPECT_EQ(Rows{"1|x"}, stored("SELECT * FROM t"));
}

TEST_F(StatementTest, OnlyBlanksCommentsAndSemicolonsMayFollow) {
    EXPECT_EQ(Rows{"1"}, connection.query("SELECT 1 ; ; -- done\n /* really */ ;"));
    EXPECT_EQ(Rows{"1"}, connection.query("; SELECT 1"));
    Statement statement(connection.handle);
    EXPECT_EQ(SQL_ERROR, statement.run(std::string("SELECT 1\0, 2", 12)));
    EXPECT_TRUE(statement.error().says("NUL"));
    EXPECT_EQ(SQL_SUCCESS, statement.run(std::string("SELECT 1\0", 9)));
}

TEST_F(StatementTest, CallsOutOfOrderAreRefused) {
    Statement statement(connection.handle);
    SQLLEN count = 0;
    SQLSMALLINT columns = 0;
    EXPECT_EQ("HY010", statement.stateOf(statement.execute()));
    EXPECT_EQ("HY010", statement.stateOf(statement.fetch()));
    EXPECT_EQ("HY010", statement.stateOf(RT_SQLRowCount(kDriver, statement.handle, &count)));
    EXPECT_EQ(SQL_ERROR, RT_SQLNumResultCols(kDriver, statement.handle, &columns));
    EXPECT_EQ(SQL_ERROR, RT_SQLNumParams(kDriver, statement.handle, &columns));
    EXPECT_EQ(SQL_ERROR, statement.prepare("SELECT * FROM missing"));
    EXPECT_EQ("HY010", statement.stateOf(statement.execute()));

    EXPECT_EQ(SQL_SUCCESS, statement.prepare("SELECT 1"));
    EXPECT_EQ("HY010", statement.stateOf(statement.fetch()));
    EXPECT_EQ(SQL_SUCCESS, statement.execute());
    EXPECT_EQ("24000", statement.stateOf(statement.execute()));
    EXPECT_EQ("24000", statement.stateOf(statement.prepare("SELECT 2")));
    EXPECT_EQ("24000", statement.stateOf(statement.run("SELECT 2")));
    EXPECT_EQ(SQL_SUCCESS, RT_SQLCloseCursor(kDriver, statement.handle));
    EXPECT_EQ("24000", statement.stateOf(RT_SQLCloseCursor(kDriver, statement.handle)));
    EXPECT_EQ(SQL_SUCCESS, statement.close());
    EXPECT_EQ(SQL_SUCCESS, statement.execute());
    EXPECT_EQ(Rows{"1"}, statement.rows());
    EXPECT_EQ(SQL_SUCCESS, statement.close());
    EXPECT_EQ(SQL_SUCCESS, statement.run("CREATE TABLE t (a)"));
    EXPECT_EQ("24000", statement.stateOf(statement.fetch()));
}

TEST_F(StatementTest, PreparedStatementsFollowSchemaChanges) {
    connection.must("CREATE TABLE t (a INTEGER)");
    connection.must("INSERT INTO t VALUES (1)");
    Statement statement(connection.handle);
    EXPECT_EQ(SQL_SUCCESS, statement.prepare("SELECT * FROM t"));
    EXPECT_EQ(1, statement.attribute(1, SQL_COLUMN_COUNT));
    connection.must("ALTER TABLE t ADD COLUMN b DOUBLE DEFAULT 2.5");
    EXPECT_EQ(SQL_SUCCESS, statement.execute());
    EXPECT_EQ(2, statement.attribute(1, SQL_COLUMN_COUNT));
    EXPECT_EQ(SQL_DOUBLE, statement.attribute(2, SQL_COLUMN_TYPE));
    EXPECT_EQ(Rows{"1|2.5"}, statement.rows());

    statement.close();
    connection.must("DROP TABLE t");
    EXPECT_EQ("42S02", statement.stateOf(statement.execute()));
    // Nor does a compiled form from before hide the error when the text is prepared anew.
    EXPECT_EQ("42S02", statement.stateOf(statement.prepare("SELECT * FROM t")));
}

TEST_F(StatementTest, RowsNobodyAskedForBlockNothing) {
    connection.must("CREATE TABLE t (a INTEGER)");
    connection.must("INSERT INTO t VALUES (1),(2),(3)");
    Statement cte(connection.handle);
    Statement pragma(connection.handle);
    Statement asked(connection.handle);
    EXPECT_EQ(SQL_SUCCESS, cte.run("WITH w AS (SELECT * FROM t) SELECT * FROM w"));
    EXPECT_EQ(SQL_SUCCESS, pragma.run("PRAGMA table_info(t)"));
    EXPECT_EQ("24000", cte.stateOf(cte.fetch()));

    // Columns bound beforehand ask for the rows.
    SQLINTEGER value = 0;
    RT_SQLBindCol(kDriver, asked.handle, 1, SQL_C_LONG, &value, 0, nullptr);
    EXPECT_EQ(SQL_SUCCESS, asked.run("SELECT a FROM t"));
    EXPECT_EQ(Rows{"3"}, connection.query("SELECT count(*) FROM t"));
    EXPECT_EQ(SQL_SUCCESS, asked.fetch());
    EXPECT_EQ(1, value);
    asked.close();

    // One that was asked about stays open, and a table that is being read cannot be dropped.
    EXPECT_EQ(SQL_SUCCESS, asked.run("SELECT a FROM t"));
    EXPECT_EQ(SQL_SUCCESS, asked.fetch());
    EXPECT_EQ(SQL_ERROR, connection.run("DROP TABLE t"));
    EXPECT_EQ(SQLITE_LOCKED, connection.last.native & 0xFF);
    RT_SQLFreeStmt(kDriver, asked.handle, SQL_UNBIND);
    EXPECT_EQ(Rows({"2", "3"}), asked.rows());
    EXPECT_EQ(SQL_SUCCESS, connection.run("DROP TABLE t"));
}

TEST_F(StatementTest, AFinishedQueryHoldsNoLock) {
    connection.must("CREATE TABLE t (a INTEGER)");
    connection.must("INSERT INTO t VALUES (1)");
    Connection other("Database=" + path + ";Timeout=0");
    Statement statement(connection.handle);
    const std::pair<const char*, const char*> queries[] = {{"SELECT a FROM t", "a"},
                                                           {"SELECT a FROM t WHERE a > 5", "a"},
                                                           {"PRAGMA table_info(t)", "cid"}};
    for (const auto& [sql, name] : queries) {
        EXPECT_EQ(SQL_SUCCESS, statement.run(sql));
        statement.rows();
        EXPECT_EQ(SQL_SUCCESS, other.run("INSERT INTO t VALUES (1)")) << sql << other.last.message;
        EXPECT_EQ(SQL_NO_DATA, statement.fetch());
        EXPECT_EQ(name, statement.text(1, SQL_COLUMN_NAME));
        statement.close();
    }
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

TEST_F(StatementTest, EqualTextsAreCompiledOnce) {
    connection.must("CREATE TABLE t (a INTEGER)");
    connection.must("INSERT INTO t VALUES (1)");
    for (int i = 0; i < 200; ++i) {
        // More texts than are kept, and each of them twice at the same time.
        const std::string sql = "SELECT a + " + std::to_string(i) + " FROM t";
        Statement first(connection.handle);
        Statement second(connection.handle);
        ASSERT_EQ(SQL_SUCCESS, first.prepare(sql));
        ASSERT_EQ(SQL_SUCCESS, second.run(sql));
        ASSERT_EQ(1, second.attribute(1, SQL_COLUMN_COUNT));  // its rows are asked for, and stay
        ASSERT_EQ(SQL_SUCCESS, first.execute());
        EXPECT_EQ(Rows{std::to_string(i + 1)}, first.rows());
        EXPECT_EQ(Rows{std::to_string(i + 1)}, second.rows());
    }
}

TEST_F(StatementTest, AttributesTakeWhatTheyCan) {
    Statement statement(connection.handle);
    EXPECT_EQ(SQL_SUCCESS, statement.set(SQL_ATTR_CURSOR_TYPE, SQL_CURSOR_FORWARD_ONLY));
    EXPECT_EQ("HYC00", statement.stateOf(statement.set(SQL_ATTR_CURSOR_TYPE, SQL_CURSOR_STATIC)));
    EXPECT_EQ("HY024", statement.stateOf(statement.set(SQL_ATTR_PARAMSET_SIZE, 0)));
    EXPECT_EQ("HY092", statement.stateOf(statement.set(31337, 0)));

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
