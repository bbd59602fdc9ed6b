#include "fixture.h"
#include "values/columntype.h"

namespace embedded_test {
namespace {

using embedded::typeOfDeclaration;

TEST(ColumnType, FollowsTheDeclaration) {
    const struct {
        const char* declaration;
        SQLSMALLINT type;
        SQLULEN size;
        SQLSMALLINT scale;
    } cases[] = {{"INTEGER", SQL_BIGINT, 19, 0},
                 {"unsigned big int", SQL_BIGINT, 19, 0},
                 {"bool", SQL_BIT, 1, 0},
                 {"DOUBLE PRECISION", SQL_DOUBLE, 15, 0},
                 {"DECIMAL(10, 2)", SQL_DECIMAL, 10, 2},
                 {"numeric ( 18 )", SQL_DECIMAL, 18, 0},
                 {"DECIMAL(10,-2)", SQL_DECIMAL, 10, 0},
                 {"DATE", SQL_TYPE_DATE, 10, 0},
                 {"TIME", SQL_TYPE_TIME, 18, 9},
                 {"TIME(0)", SQL_TYPE_TIME, 8, 0},
                 {"TIMESTAMP", SQL_TYPE_TIMESTAMP, 29, 9},
                 {"datetime(6)", SQL_TYPE_TIMESTAMP, 26, 6},
                 {"TIMESTAMP(99)", SQL_TYPE_TIMESTAMP, 29, 9},
                 {"TIMESTAMP(3) WITHOUT TIME ZONE", SQL_TYPE_TIMESTAMP, 23, 3},
                 {"TIMESTAMP(3) WITH TIME ZONE", SQL_WVARCHAR, 0, 0},
                 {"BLOB", SQL_VARBINARY, 0, 0},
                 {"VARCHAR(20)", SQL_WVARCHAR, 20, 0},
                 {"NATIVE CHARACTER(70)", SQL_WVARCHAR, 70, 0},
                 {"GEOMETRY", SQL_WVARCHAR, 0, 0},
                 {"VARCHAR(", SQL_WVARCHAR, 0, 0},
                 {"VARCHAR(99999999999)", SQL_WVARCHAR, 0, 0}};
    for (const auto& expected : cases) {
        const auto type = typeOfDeclaration(expected.declaration);
        EXPECT_EQ(std::tuple(expected.type, expected.size, expected.scale),
                  std::tuple(type.sqlType, type.size, type.scale))
            << expected.declaration;
    }
}

class DescribeTest : public DatabaseTest {
  protected:
    DescribeTest() : statement(connection.handle) {}
    Statement statement;
};

TEST_F(DescribeTest, TableColumnsThroughBothSetsOfFields) {
    connection.must(
        "CREATE TABLE t (id INTEGER PRIMARY KEY, name VARCHAR(20) NOT NULL,"
        " price DECIMAL(10,2), at TIMESTAMP(3), big VARCHAR(100000))");
    ASSERT_EQ(SQL_SUCCESS, statement.run("SELECT id, name AS n, price, at, big FROM t"));
    EXPECT_EQ(5, statement.attribute(1, SQL_COLUMN_COUNT));
    EXPECT_EQ(5, statement.attribute(0, SQL_DESC_COUNT));
    EXPECT_EQ("n", statement.text(2, SQL_COLUMN_NAME));
    EXPECT_EQ("name", statement.text(2, SQL_DESC_BASE_COLUMN_NAME));
    EXPECT_EQ("t", statement.text(2, SQL_DESC_TABLE_NAME));
    EXPECT_EQ("VARCHAR(20)", statement.text(2, SQL_DESC_TYPE_NAME));
    // Type, length, precision, scale and nullability.
    const SQLUSMALLINT fields[] = {SQL_COLUMN_TYPE,  SQL_COLUMN_LENGTH,   SQL_COLUMN_PRECISION,
                                   SQL_COLUMN_SCALE, SQL_COLUMN_NULLABLE, SQL_DESC_NULLABLE};
    const Rows expected{"-5 8 19 0 0 0", "-9 80 20 0 0 0", "3 12 10 2 1 1", "93 16 23 3 1 1",
                        "-9 400000 0 0 1 1"};
    for (SQLUSMALLINT column = 1; column <= 5; ++column) {
        std::string seen;
        for (const SQLUSMALLINT field : fields)
            seen += (seen.empty() ? "" : " ") + std::to_string(statement.attribute(column, field));
        EXPECT_EQ(expected[column - 1U], seen);
    }
    EXPECT_EQ(SQL_DATETIME, statement.attribute(4, SQL_DESC_TYPE));
    EXPECT_EQ(SQL_CODE_TIMESTAMP, statement.attribute(4, SQL_DESC_DATETIME_INTERVAL_CODE));
    EXPECT_EQ(3, statement.attribute(4, SQL_DESC_PRECISION));
    EXPECT_EQ(100000, statement.attribute(5, SQL_DESC_LENGTH));

    char name[3];
    SQLSMALLINT length = 0, type = 0, digits = 0, nullable = 0;
    SQLULEN size = 0;
    EXPECT_EQ(SQL_SUCCESS_WITH_INFO,
              RT_SQLDescribeColW(kDriver, statement.handle, 3, chars(name), sizeof name, &length,
                                 &type, &size, &digits, &nullable));
    EXPECT_STREQ("pr", name);
    EXPECT_TRUE(length == 5 && type == SQL_DECIMAL && size == 10 && digits == 2 && nullable == 1);
}

TEST_F(DescribeTest, ExpressionsTakeTheTypeOfTheFirstRow) {
    ASSERT_EQ(SQL_SUCCESS,
              statement.run("SELECT 1+1, 1.5, 'x', x'00', NULL UNION ALL SELECT 9, 9, 9, 9, 9"));
    const SQLLEN expected[] = {SQL_BIGINT, SQL_DOUBLE, SQL_WVARCHAR, SQL_VARBINARY, SQL_WVARCHAR};
    for (SQLUSMALLINT i = 1; i <= 5; ++i) {
        EXPECT_EQ(expected[i - 1], statement.attribute(i, SQL_COLUMN_TYPE)) << i;
        EXPECT_EQ(SQL_NULLABLE_UNKNOWN, statement.attribute(i, SQL_COLUMN_NULLABLE));
    }
    // Describing reads nothing away.
    EXPECT_EQ(2U, statement.rows().size());
    statement.close();
    ASSERT_EQ(SQL_SUCCESS, statement.run("SELECT count(*) AS n WHERE 0 HAVING 0"));
    EXPECT_EQ(SQL_WVARCHAR, statement.attribute(1, SQL_COLUMN_TYPE));
}

TEST_F(DescribeTest, NullabilityIsOnlyClaimedWhereItHolds) {
    connection.must("CREATE TABLE a (x INTEGER, y INTEGER NOT NULL, PRIMARY KEY (x, y))");
    connection.must("CREATE TABLE b (k TEXT PRIMARY KEY)");
    ASSERT_EQ(SQL_SUCCESS, statement.run("SELECT x, y, k FROM a, b"));
    const SQLLEN expected[] = {SQL_NULLABLE, SQL_NO_NULLS, SQL_NULLABLE};
    for (SQLUSMALLINT i = 1; i <= 3; ++i)
        EXPECT_EQ(expected[i - 1], statement.attribute(i, SQL_COLUMN_NULLABLE)) << i;
    statement.close();
    ASSERT_EQ(SQL_SUCCESS, statement.run("SELECT y FROM b LEFT JOIN a ON k = x"));
    EXPECT_EQ(SQL_NULLABLE_UNKNOWN, statement.attribute(1, SQL_COLUMN_NULLABLE));
}

TEST_F(DescribeTest, WithoutColumnsThereIsNothingToDescribe) {
    ASSERT_EQ(SQL_SUCCESS, statement.run("CREATE TABLE t (a)"));
    EXPECT_EQ(0, statement.attribute(1, SQL_COLUMN_COUNT));
    SQLLEN value = 0;
    const auto ask = [&](SQLUSMALLINT column, SQLUSMALLINT field) {
        EXPECT_EQ(SQL_ERROR, RT_SQLColAttribute(kDriver, statement.handle, column, field, nullptr,
                                                0, nullptr, &value));
        return statement.error().state;
    };
    EXPECT_EQ("07005", ask(1, SQL_COLUMN_TYPE));
    ASSERT_EQ(SQL_SUCCESS, statement.prepare("SELECT a FROM t"));
    EXPECT_EQ("a", statement.text(1, SQL_COLUMN_NAME));
    EXPECT_EQ("07009", ask(0, SQL_COLUMN_TYPE));
    EXPECT_EQ("07009", ask(2, SQL_COLUMN_TYPE));
    EXPECT_EQ("HY091", ask(1, 4711));
}

}  // namespace
}  // namespace embedded_test
