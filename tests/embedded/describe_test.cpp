#include "fixture.h"

namespace embedded_test {
namespace {

class DescribeTest : public DatabaseTest {
  protected:
    /// For every column of a query the values of these fields.
    Rows described(const std::string& sql, std::initializer_list<SQLUSMALLINT> fields) {
        statement.close();
        EXPECT_EQ(SQL_SUCCESS, statement.run(sql)) << statement.error().message;
        Rows all;
        for (SQLUSMALLINT column = 1; column <= statement.columns(); ++column) {
            all.emplace_back();
            for (const SQLUSMALLINT field : fields)
                all.back() += " " + std::to_string(statement.attribute(column, field));
        }
        return all;
    }

    Statement statement{connection.handle};
};

TEST_F(DescribeTest, TableColumnsThroughBothSetsOfFields) {
    connection.must(
        "CREATE TABLE t (id INTEGER PRIMARY KEY, name VARCHAR(20) NOT NULL,"
        " price DECIMAL(10,2), at TIMESTAMP(3), big VARCHAR(100000))");
    const std::string sql = "SELECT id, name AS n, price, at, big FROM t";
    EXPECT_EQ(Rows({" -5 8 19 0 0", " -9 80 20 0 0", " 3 12 10 2 1", " 93 16 23 3 1",
                    " -9 400000 0 0 1"}),
              described(sql, {SQL_COLUMN_TYPE, SQL_COLUMN_LENGTH, SQL_COLUMN_PRECISION,
                              SQL_COLUMN_SCALE, SQL_COLUMN_NULLABLE}));
    EXPECT_EQ(Rows({" -5 0 19 0", " -9 0 20 0", " 3 0 10 1", " 9 3 3 1", " -9 0 0 1"}),
              described(sql, {SQL_DESC_TYPE, SQL_DESC_DATETIME_INTERVAL_CODE, SQL_DESC_PRECISION,
                              SQL_DESC_NULLABLE}));
    EXPECT_EQ(5, statement.attribute(1, SQL_COLUMN_COUNT));
    EXPECT_EQ(5, statement.attribute(0, SQL_DESC_COUNT));
    EXPECT_EQ(100000, statement.attribute(5, SQL_DESC_LENGTH));
    EXPECT_EQ("n", statement.text(2, SQL_COLUMN_NAME));
    EXPECT_EQ("name", statement.text(2, SQL_DESC_BASE_COLUMN_NAME));
    EXPECT_EQ("t", statement.text(2, SQL_DESC_TABLE_NAME));
    EXPECT_EQ("VARCHAR(20)", statement.text(2, SQL_DESC_TYPE_NAME));

    for (const SQLUSMALLINT column : {SQLUSMALLINT{0}, SQLUSMALLINT{6}}) {
        EXPECT_EQ("07009", statement.stateOf(RT_SQLColAttributeW(kDriver, statement.handle, column,
                                                                 SQL_DESC_NAME, nullptr, 0, nullptr,
                                                                 nullptr)));
    }
    char name[3];
    SQLSMALLINT length = 0, type = 0, digits = 0, nullable = 0;
    SQLULEN size = 0;
    EXPECT_EQ(SQL_SUCCESS_WITH_INFO,
              RT_SQLDescribeColW(kDriver, statement.handle, 3, chars(name), sizeof name, &length,
                                 &type, &size, &digits, &nullable));
    EXPECT_STREQ("pr", name);
    EXPECT_TRUE(length == 5 && type == SQL_DECIMAL && size == 10 && digits == 2 && nullable == 1);
}

TEST_F(DescribeTest, ATableThatHasChangedIsDescribedAnew) {
    connection.must("CREATE TABLE t (a INTEGER)");
    statement.prepare("SELECT * FROM t");
    EXPECT_EQ("a", statement.text(1, SQL_COLUMN_NAME));
    connection.must("ALTER TABLE t RENAME COLUMN a TO b");
    EXPECT_EQ(SQL_SUCCESS, statement.execute());
    EXPECT_TRUE(statement.rows().empty());
    statement.close();
    EXPECT_EQ("b", statement.text(1, SQL_COLUMN_NAME));
}

TEST_F(DescribeTest, ExpressionsTakeTheTypeOfTheFirstRow) {
    const auto types = {SQLUSMALLINT{SQL_COLUMN_TYPE}, SQLUSMALLINT{SQL_COLUMN_NULLABLE}};
    EXPECT_EQ(Rows({" -5 2", " 8 2", " -9 2", " -3 2", " -9 2"}),
              described("SELECT 1+1, 1.5, 'x', x'00', NULL UNION ALL SELECT 9, 9, 9, 9, 9", types));
    EXPECT_EQ(2U, statement.rows().size());  // describing reads nothing away
    EXPECT_EQ(Rows{" -9 2"}, described("SELECT count(*) AS n WHERE 0 HAVING 0", types));
    // Nor does it matter that the rows are read by then, and other statements run.
    for (const bool prepared : {true, false}) {
        statement.close();
        // A text that comes again would be kept compiled.
        const std::string sql =
            "SELECT 1 AS one UNION ALL SELECT 'x" + std::to_string(prepared) + "'";
        if (prepared) statement.prepare(sql);
        EXPECT_EQ(SQL_SUCCESS, prepared ? statement.execute() : statement.run(sql));
        EXPECT_EQ(2U, statement.rows().size());
        for (const char* other : {"SELECT 2", "SELECT 3"}) connection.must(other);
        EXPECT_EQ(SQL_BIGINT, statement.attribute(1, SQL_COLUMN_TYPE));
        EXPECT_EQ("one", statement.text(1, SQL_COLUMN_NAME));
    }
    // Nor that nobody has looked at the first row.
    statement.close();
    statement.prepare("SELECT 1 UNION ALL SELECT 'x'");
    EXPECT_EQ(SQL_SUCCESS, statement.execute());
    EXPECT_EQ(SQL_SUCCESS, (statement.fetch(), statement.fetch()));
    EXPECT_EQ(SQL_BIGINT, statement.attribute(1, SQL_COLUMN_TYPE));
}

TEST_F(DescribeTest, NullabilityIsOnlyClaimedWhereItHolds) {
    connection.must("CREATE TABLE a (x INTEGER, y INTEGER NOT NULL, PRIMARY KEY (x, y))");
    connection.must("CREATE TABLE b (k TEXT PRIMARY KEY)");
    const std::pair<const char*, Rows> cases[] = {
        {"SELECT x, y, k FROM a, b", {" 1", " 0", " 1"}},
        {"SELECT y FROM b lEFT JOIN a ON k = x", {" 2"}},
        {"SELECT y AS \"right\" FROM b JOIN a ON k <> 'left' -- full", {" 0"}}};
    for (const auto& [sql, expected] : cases)
        EXPECT_EQ(expected, described(sql, {SQL_COLUMN_NULLABLE})) << sql;
}

}  // namespace
}  // namespace embedded_test
