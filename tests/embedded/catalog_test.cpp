#include "fixture.h"

namespace embedded_test {
namespace {

class CatalogTest : public DatabaseTest {
  protected:
    CatalogTest() {
        connection.expect(R"(
CREATE TABLE people (id INTEGER PRIMARY KEY, name VARCHAR(20) NOT NULL,
 born DATE, pay DECIMAL(10,2) DEFAULT 1.5, extra)
CREATE TABLE pe_ple (id INTEGER)
CREATE VIEW adults AS SELECT id, name FROM people
CREATE TEMP TABLE scratch (a INT)
CREATE PROCEDURE p AS SELECT 1
)");
    }

    Rows tables(const char* catalog, const char* schema, const char* table, const char* types) {
        Statement statement(connection.handle);
        EXPECT_EQ(SQL_SUCCESS,
                  RT_SQLTablesW(kDriver, statement.handle, text(catalog), SQL_NTS, text(schema),
                                SQL_NTS, text(table), SQL_NTS, text(types), SQL_NTS))
            << statement.error().message;
        return statement.rows();
    }

    static SQLCHAR* text(const char* value) { return value ? chars(value) : nullptr; }
};

TEST_F(CatalogTest, TablesByPattern) {
    EXPECT_EQ(Rows({"NULL|main|pe_ple|TABLE|NULL", "NULL|main|people|TABLE|NULL",
                    "NULL|temp|scratch|TABLE|NULL", "NULL|main|adults|VIEW|NULL"}),
              tables(nullptr, nullptr, nullptr, "'TABLE', view"));
    EXPECT_EQ(2U, tables(nullptr, "main", "PE_PLE", "%").size());
    EXPECT_EQ(Rows{"NULL|main|pe_ple|TABLE|NULL"}, tables("", "%", "pe\\_ple", "TABLE"));
    EXPECT_EQ(1U, tables(nullptr, "main", "sqlite_master", "SYSTEM TABLE").size());
    EXPECT_EQ(Rows{"NULL|main|vorda_procedures|SYSTEM TABLE|NULL"},
              tables(nullptr, nullptr, "vorda%", "SYSTEM TABLE"));
    EXPECT_TRUE(tables("some", nullptr, nullptr, nullptr).empty());
    EXPECT_TRUE(tables(nullptr, nullptr, "", nullptr).empty());
    EXPECT_EQ(Rows({"NULL|main|NULL|NULL|NULL", "NULL|temp|NULL|NULL|NULL"}),
              tables("", "%", "", nullptr));
    EXPECT_EQ(3U, tables("", "", "", "%").size());
}

TEST_F(CatalogTest, ColumnsAgreeWithWhatAQueryDescribes) {
    Statement statement(connection.handle);
    ASSERT_EQ(SQL_SUCCESS, RT_SQLColumnsW(kDriver, statement.handle, nullptr, 0, chars("main"),
                                          SQL_NTS, chars("people"), SQL_NTS, nullptr, 0));
    EXPECT_EQ(18, statement.attribute(1, SQL_COLUMN_COUNT));
    EXPECT_EQ(SQL_SMALLINT, statement.attribute(5, SQL_COLUMN_TYPE));
    Statement query(connection.handle);
    ASSERT_EQ(SQL_SUCCESS, query.run("SELECT * FROM people"));
    SQLUSMALLINT column = 0;
    while (SQL_SUCCEEDED(statement.fetch())) {
        ++column;
        EXPECT_EQ(query.text(column, SQL_COLUMN_NAME), statement.get(4));
        EXPECT_EQ(std::to_string(query.attribute(column, SQL_COLUMN_TYPE)), statement.get(5));
        EXPECT_EQ(std::to_string(query.attribute(column, SQL_COLUMN_NULLABLE)),
                  column == 5 ? "1" : statement.get(11));
        EXPECT_EQ(std::to_string(column), statement.get(17));
    }
    EXPECT_EQ(5, column);

    statement.close();
    ASSERT_EQ(SQL_SUCCESS, RT_SQLColumns(kDriver, statement.handle, nullptr, 0, nullptr, 0,
                                         chars("people"), 6, chars("pay"), 3));
    EXPECT_EQ(Rows{"NULL|main|people|pay|3|DECIMAL(10,2)|10|12|2|10|1|NULL|1.5|3|NULL|NULL|4|YES"},
              statement.rows());
}

TEST_F(CatalogTest, InformationIsDelivered) {
    const SQLHDBC handle = connection.handle;
    char text[] = "######";
    SQLSMALLINT length = 0;
    EXPECT_EQ(SQL_SUCCESS_WITH_INFO,
              RT_SQLGetInfoW(kDriver, handle, SQL_DBMS_NAME, text, 4, &length));
    EXPECT_EQ(std::string("SQL\0##", 6), std::string(text, 6));
    EXPECT_EQ(6, length);
    EXPECT_EQ(SQL_ERROR, RT_SQLGetInfo(kDriver, handle, 31337, text, 4, nullptr));
    EXPECT_EQ("HY096", connection.error().state);
    SQLUINTEGER number = 77;
    RT_SQLGetConnectAttr(kDriver, handle, SQL_ATTR_AUTOCOMMIT, &number, SQL_IS_UINTEGER, nullptr);
    EXPECT_EQ(SQL_AUTOCOMMIT_ON, number);
}

}  // namespace
}  // namespace embedded_test
