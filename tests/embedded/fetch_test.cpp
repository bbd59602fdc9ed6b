#include <cmath>
#include <optional>

#include "fixture.h"

namespace embedded_test {
namespace {

class FetchTest : public DatabaseTest {
  protected:
    /// Stores `literal` in a column declared as `type`, fetches it through a bound column and
    /// answers whether it was delivered whole.
    bool fetchInto(const std::string& type, const std::string& literal, SQLSMALLINT cType,
                   void* value, SQLLEN capacity, SQLLEN* indicator) {
        connection.must("DROP TABLE IF EXISTS t");
        connection.must("CREATE TABLE t (v " + type + ")");
        connection.must("INSERT INTO t VALUES (" + literal + ")");
        Statement statement(connection.handle);
        EXPECT_EQ(SQL_SUCCESS, statement.run("SELECT v FROM t"));
        RT_SQLBindCol(kDriver, statement.handle, 1, cType, value, capacity, indicator);
        const SQLRETURN result = statement.fetch();
        last = statement.error();
        return result == SQL_SUCCESS;
    }

    template <class T>
    std::optional<T> fetchAs(const std::string& type, const std::string& literal,
                             SQLSMALLINT cType) {
        T value{};
        SQLLEN indicator = -77;
        if (!fetchInto(type, literal, cType, &value, sizeof value, &indicator)) return std::nullopt;
        EXPECT_EQ(static_cast<SQLLEN>(sizeof value), indicator);
        return value;
    }

    std::string textOf(const std::string& type, const std::string& literal) {
        char value[600];
        SQLLEN length = -77;
        if (!fetchInto(type, literal, SQL_C_WCHAR, value, sizeof value, &length))
            return "!" + last.state;
        return {value, static_cast<size_t>(length)};
    }

    std::string stamp(const std::string& type, const std::string& literal) {
        const auto v = fetchAs<SQL_TIMESTAMP_STRUCT>(type, literal, SQL_C_TIMESTAMP);
        if (!v) return "!" + last.state;
        char text[64];
        std::snprintf(text, sizeof text, "%d-%d-%d %d:%d:%d.%u", v->year, v->month, v->day, v->hour,
                      v->minute, v->second, v->fraction);
        return text;
    }

    Diagnostic last;
};

TEST_F(FetchTest, IntegersFitOrFail) {
    EXPECT_EQ(INT64_MIN, fetchAs<SQLBIGINT>("INTEGER", "-9223372036854775808", SQL_C_SBIGINT));
    EXPECT_EQ(2, fetchAs<SQLBIGINT>("", "2.0", SQL_C_SBIGINT));
    EXPECT_EQ(-7, fetchAs<SQLBIGINT>("", "' -7 '", SQL_C_SBIGINT));
    EXPECT_EQ(32767, fetchAs<SQLSMALLINT>("INT", "32767", SQL_C_SHORT));
    EXPECT_EQ(255, fetchAs<SQLCHAR>("INT", "255", SQL_C_TINYINT));
    EXPECT_EQ(1, fetchAs<SQLCHAR>("BOOLEAN", "1", SQL_C_BIT));

    const struct {
        const char* literal;
        SQLSMALLINT cType;
        const char* state;
    } refused[] = {
        {"'abc'", SQL_C_SBIGINT, "22018"},  {"''", SQL_C_SBIGINT, "22018"},
        {"'1.5'", SQL_C_SBIGINT, "22018"},  {"1.5", SQL_C_SBIGINT, "22003"},
        {"9.3e18", SQL_C_SBIGINT, "22003"}, {"'99999999999999999999'", SQL_C_SBIGINT, "22003"},
        {"x'31'", SQL_C_SBIGINT, "22018"},  {"2147483648", SQL_C_LONG, "22003"},
        {"-1", SQL_C_UBIGINT, "22003"},     {"256", SQL_C_TINYINT, "22003"},
        {"-32769", SQL_C_SHORT, "22003"},   {"2", SQL_C_BIT, "22003"},
        {"'true'", SQL_C_BIT, "22018"},     {"9007199254740993", SQL_C_DOUBLE, "22003"},
        {"'1e999'", SQL_C_DOUBLE, "22003"}, {"'1,5'", SQL_C_DOUBLE, "22018"},
        {"1e39", SQL_C_FLOAT, "22003"},     {"1", SQL_C_BINARY, "22018"},
    };
    for (const auto& expected : refused) {
        EXPECT_FALSE(fetchAs<SQLBIGINT>("", expected.literal, expected.cType)) << expected.literal;
        EXPECT_EQ(expected.state, last.state) << expected.literal;
        EXPECT_NE(0, last.native);
        EXPECT_TRUE(last.says("\"v\", row 1")) << last.message;
    }
}

TEST_F(FetchTest, DoublesAreExact) {
    EXPECT_EQ(0.1, fetchAs<double>("DOUBLE", "0.1", SQL_C_DOUBLE));
    EXPECT_EQ(9007199254740992.0, fetchAs<double>("", "9007199254740992", SQL_C_DOUBLE));
    EXPECT_EQ(0.25, fetchAs<double>("", "'0.25'", SQL_C_DOUBLE));
    EXPECT_EQ(INFINITY, fetchAs<double>("REAL", "9e999", SQL_C_DOUBLE));
    EXPECT_EQ(0.1F, fetchAs<float>("REAL", "0.1", SQL_C_FLOAT));
}

TEST_F(FetchTest, NumbersBecomeText) {
    const struct {
        const char* type;
        const char* literal;
        std::string expected;
    } cases[] = {{"", "0.1", "0.1"},
                 {"", "1.0", "1.0"},
                 {"", "1e300", "1e+300"},
                 {"", "-42", "-42"},
                 {"TEXT", "x'00'", "!22018"},
                 {"BLOB", "x'00ff'", "00FF"},
                 {"TEXT", "'a' || char(0) || 'b'", std::string("a\0b", 3)},
                 {"DECIMAL(10,2)", "12.5", "12.5"},
                 {"DECIMAL(10,2)", "10.00", "10"},
                 {"DECIMAL", "1e22", "1" + std::string(22, '0')},
                 {"NUMERIC", "1.5e-7", "0.00000015"},
                 {"NUMERIC", "12345678901234567890.5", "12345678901234567000"},
                 {"DECIMAL", "'1.2.3'", "!22018"},
                 {"DECIMAL", "''", "!22018"},
                 {"DECIMAL", "'1e+-3'", "!22018"},
                 {"DECIMAL", "9e999", "!22018"},
                 {"DECIMAL", "x'31'", "!22018"}};
    for (const auto& [type, literal, expected] : cases) {
        EXPECT_EQ(expected, textOf(type, literal)) << type << literal;
    }
}

// What is no date at all the fuzz target convert knows.
TEST_F(FetchTest, DatesAndTimesAreReadExactlyOrNot) {
    const struct {
        const char* type;
        const char* literal;
        const char* expected;
    } cases[] = {{"DATE", "'2020-02-29'", "2020-2-29 0:0:0.0"},
                 {"DATE", "'2020-01-02 00:00:00'", "2020-1-2 0:0:0.0"},
                 {"TIMESTAMP", "'2020-01-02'", "2020-1-2 0:0:0.0"},
                 {"TIMESTAMP", "'2020-01-02T03:04:05'", "2020-1-2 3:4:5.0"},
                 {"DATETIME", "'2020-01-02 03:04'", "2020-1-2 3:4:0.0"},
                 {"DATETIME", "'2020-01-02 03:04:05.12'", "2020-1-2 3:4:5.120000000"},
                 {"TIMESTAMP(3)", "'2020-01-02 03:04:05.12345678900'", "2020-1-2 3:4:5.123456789"},
                 {"TIME", "'03:04:05.006'", "1900-1-1 3:4:5.6000000"},
                 {"DATE", "'2020-01-02 03:04:05'", "!22018"},
                 {"DATE", "'1900-02-29'", "!22018"},
                 {"DATE", "'03:04:05'", "!22018"},
                 {"DATE", "20200101", "!22018"},
                 {"TIME", "'2020-01-02 03:04:05'", "!22018"},
                 {"TIMESTAMP", "'03:04:05'", "!22018"},
                 {"TIMESTAMP", "'2020-01-02 03:04:05+01:00'", "!22018"},
                 {"TIMESTAMP", "'2020-01-02 03:04:05.1234567891'", "!22018"},
                 {"TIMESTAMP(0)", "'2020-01-02 03:04:05.1'", "!22018"}};
    for (const auto& [type, literal, expected] : cases) {
        EXPECT_EQ(expected, stamp(type, literal)) << type << literal;
    }
    const auto date = fetchAs<SQL_DATE_STRUCT>("DATE", "'2020-01-02'", SQL_C_TYPE_DATE);
    EXPECT_TRUE(date && date->day == 2);
    EXPECT_FALSE(fetchAs<SQL_DATE_STRUCT>("TIMESTAMP", "'2020-01-02 00:00:01'", SQL_C_DATE));
    const auto time = fetchAs<SQL_TIME_STRUCT>("TIME", "'03:04:05'", SQL_C_TIME);
    EXPECT_TRUE(time && time->second == 5);
    EXPECT_FALSE(fetchAs<SQL_TIME_STRUCT>("TIME", "'03:04:05.5'", SQL_C_TIME));
}

TEST_F(FetchTest, AFailedRowDoesNotStopTheNext) {
    connection.must("CREATE TABLE t (a TEXT, b INTEGER)");
    connection.must("INSERT INTO t VALUES ('x', 1), ('y', 'bad'), ('z', 3)");
    Statement statement(connection.handle);
    SQLINTEGER value = 0;
    SQLLEN indicator = 0;
    ASSERT_EQ(SQL_SUCCESS, statement.run("SELECT a, b FROM t"));
    RT_SQLBindCol(kDriver, statement.handle, 2, SQL_C_LONG, &value, 0, &indicator);
    EXPECT_EQ(SQL_SUCCESS, statement.fetch());
    EXPECT_EQ(SQL_ERROR, statement.fetch());
    EXPECT_TRUE(statement.error().says("Column 2 \"b\", row 2: the text 'bad'"));
    EXPECT_EQ("y", statement.get(1));
    EXPECT_EQ(SQL_SUCCESS, statement.fetch());
    EXPECT_EQ(3, value);
    EXPECT_EQ(SQL_NO_DATA, statement.fetch());
}

// How a value is cut and read in parts the fuzz target convert knows; here, that each call goes on.
TEST_F(FetchTest, GetDataReadsLongValuesInParts) {
    Statement statement(connection.handle);
    std::string text;
    for (int i = 0; i < 500; ++i) text += "a\xE2\x82\xAC\xF0\x9F\x98\x80";
    ASSERT_EQ(SQL_SUCCESS, statement.run("SELECT '" + text + "', '', 7"));
    ASSERT_EQ(SQL_SUCCESS, statement.fetch());
    for (const SQLLEN capacity : {2, 5, 10000}) {
        std::string read;
        char part[10000];
        SQLLEN length = 0;
        while (SQL_SUCCEEDED(
            RT_SQLGetData(kDriver, statement.handle, 1, SQL_C_WCHAR, part, capacity, &length))) {
            EXPECT_EQ(static_cast<SQLLEN>(text.size() - read.size()), length);
            read += part;
        }
        EXPECT_EQ(text, read) << capacity;
        EXPECT_EQ("7", statement.get(3));  // another column in between starts over
    }
    EXPECT_EQ("", statement.get(2));
    EXPECT_EQ("!", statement.get(2));  // read already
    EXPECT_EQ("!07009", statement.get(9));
    EXPECT_EQ(SQL_NO_DATA, statement.fetch());
    EXPECT_EQ("!24000", statement.get(1));
}

TEST_F(FetchTest, NullNeedsAnIndicator) {
    Statement statement(connection.handle);
    SQLINTEGER value = 5;
    SQLLEN indicator = 0;
    ASSERT_EQ(SQL_SUCCESS, statement.run("SELECT NULL UNION ALL SELECT NULL UNION ALL SELECT 1"));
    RT_SQLBindCol(kDriver, statement.handle, 1, SQL_C_LONG, &value, 0, nullptr);
    EXPECT_EQ("22002", statement.stateOf(statement.fetch()));
    RT_SQLBindCol(kDriver, statement.handle, 1, SQL_C_LONG, &value, 0, &indicator);
    EXPECT_EQ(SQL_SUCCESS, statement.fetch());
    EXPECT_EQ(SQL_NULL_DATA, indicator);
    EXPECT_EQ(5, value);
    RT_SQLBindCol(kDriver, statement.handle, 1, SQL_C_LONG, nullptr, 0, nullptr);
    EXPECT_EQ(SQL_SUCCESS, statement.fetch());
    EXPECT_EQ(5, value);
}

TEST_F(FetchTest, TheLastRowLetsGoOfTheDatabase) {
    connection.must("CREATE TABLE t (v INTEGER PRIMARY KEY)");
    connection.must("INSERT INTO t VALUES (1), (2)");
    Connection other("Database=" + path + ";Timeout=0");
    for (const bool prepared : {false, true}) {
        Statement statement(connection.handle);
        SQLBIGINT value = 0;
        SQLLEN indicator = 0;
        const char* const sql = "SELECT v FROM t WHERE v < 3";
        if (prepared) statement.prepare(sql);
        RT_SQLBindCol(kDriver, statement.handle, 1, SQL_C_SBIGINT, &value, 0, &indicator);
        for (int execution = 0; execution < 2; ++execution) {
            ASSERT_EQ(SQL_SUCCESS, prepared ? statement.execute() : statement.run(sql));
            EXPECT_EQ(SQL_SUCCESS, statement.fetch());
            EXPECT_EQ(SQL_ERROR, other.run("DELETE FROM t WHERE v > 2"));  // a row is to come
            EXPECT_EQ("HYT00", other.last.state);
            EXPECT_EQ(SQLITE_BUSY, other.last.native);
            EXPECT_EQ(SQL_SUCCESS, statement.fetch());
            EXPECT_EQ(2, value);
            other.must("INSERT INTO t VALUES (3)");
            other.must("DELETE FROM t WHERE v = 3");
            SQLULEN row = 0;
            RT_SQLGetStmtAttr(kDriver, statement.handle, SQL_ATTR_ROW_NUMBER, &row, 0, nullptr);
            EXPECT_EQ(2U, row);
            EXPECT_EQ("!07009", statement.get(1));
            EXPECT_EQ("v", statement.text(1, SQL_DESC_NAME));
            for (int i = 0; i < 2; ++i) EXPECT_EQ(SQL_NO_DATA, statement.fetch());
            EXPECT_EQ(SQL_SUCCESS, statement.close());
        }
        // A column unbound in between is there to be asked for again.
        ASSERT_EQ(SQL_SUCCESS, prepared ? statement.execute() : statement.run(sql));
        EXPECT_EQ(SQL_SUCCESS, statement.fetch());
        RT_SQLFreeStmt(kDriver, statement.handle, SQL_UNBIND);
        EXPECT_EQ("!07009", statement.get(1));
        EXPECT_EQ(SQL_SUCCESS, statement.fetch());
        EXPECT_EQ("2", statement.get(1));
        EXPECT_EQ(SQL_NO_DATA, statement.fetch());
    }
}

TEST_F(FetchTest, AFailureIsReportedAtItsRow) {
    Statement statement(connection.handle);
    SQLBIGINT value = 0;
    SQLLEN indicator = 0;
    RT_SQLBindCol(kDriver, statement.handle, 1, SQL_C_SBIGINT, &value, 0, &indicator);
    ASSERT_EQ(SQL_SUCCESS,
              statement.run("SELECT abs(column1) FROM (VALUES (1), (-2), (-9223372036854775808))"));
    for (const SQLBIGINT expected : {1, 2}) {
        EXPECT_EQ("", statement.stateOf(statement.fetch()));
        EXPECT_EQ(expected, value);
    }
    EXPECT_EQ("22003", statement.stateOf(statement.fetch()));
    EXPECT_EQ("24000", statement.stateOf(statement.fetch()));  // the cursor is closed
}

TEST_F(FetchTest, ImpossibleBindingsAreRefused) {
    Statement statement(connection.handle);
    char buffer[20];
    const auto bind = [&](SQLUSMALLINT column, SQLSMALLINT cType, SQLLEN capacity) {
        return statement.stateOf(
            RT_SQLBindCol(kDriver, statement.handle, column, cType, buffer, capacity, nullptr));
    };
    EXPECT_EQ("07009", bind(0, SQL_C_WCHAR, 5));
    EXPECT_EQ("HY090", bind(1, SQL_C_WCHAR, -1));
    EXPECT_EQ("HYC00", bind(1, SQL_C_NUMERIC, 19));
    EXPECT_EQ("HY003", bind(1, 4711, 19));
    EXPECT_EQ("", bind(1, SQL_C_DEFAULT, 19));
    // Not more columns are delivered than there are.
    EXPECT_EQ("", bind(40, SQL_C_WCHAR, 5));
    ASSERT_EQ(SQL_SUCCESS, statement.run("SELECT 7"));
    EXPECT_EQ(SQL_SUCCESS, statement.fetch());
    EXPECT_EQ(7, *reinterpret_cast<SQLBIGINT*>(buffer));
}

}  // namespace
}  // namespace embedded_test
