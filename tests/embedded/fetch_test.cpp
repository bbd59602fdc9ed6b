#include <algorithm>
#include <cmath>
#include <optional>

#include "extensions.h"
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

struct BoundRow {
    char text[8];
    SQLLEN textLength;
    SQLBIGINT number;
    SQLLEN numberLength;
};

// Four rows at a time, of which the third fails and the second's text is cut.
TEST_F(FetchTest, BlocksDeliverAllRowsButThoseThatFail) {
    connection.must("CREATE TABLE t (a TEXT, b INTEGER, c BLOB)");
    connection.must(
        "INSERT INTO t VALUES ('one', 1, x'01'), ('longer than eight', 2, NULL), ('three', 'bad', "
        "''), (NULL, 4, x'0404'), ('five', 5, NULL)");
    for (const bool byRow : {false, true}) {
        for (const bool allBound : {false, true}) {
            Statement statement(connection.handle);
            BoundRow rows[5] = {};
            char texts[4][8];
            SQLLEN lengths[4] = {};
            SQLBIGINT numbers[4] = {};
            SQLLEN numberLengths[4] = {};
            SQLUSMALLINT status[4] = {};
            SQLULEN fetched = 99;
            SQLULEN offset = sizeof(BoundRow);
            const auto pointer = [&](SQLINTEGER attribute, void* value) {
                statement.set(attribute, reinterpret_cast<SQLULEN>(value));
            };
            const auto bind = [&](SQLUSMALLINT number, SQLSMALLINT cType, void* value,
                                  SQLLEN* length) {
                RT_SQLBindCol(kDriver, statement.handle, number, cType, value, 8, length);
            };
            statement.set(SQL_ATTR_ROW_ARRAY_SIZE, 4);
            pointer(SQL_ATTR_ROW_STATUS_PTR, status);
            pointer(SQL_ATTR_ROWS_FETCHED_PTR, &fetched);
            if (byRow) {
                statement.set(SQL_ATTR_ROW_BIND_TYPE, sizeof(BoundRow));
                pointer(SQL_ATTR_ROW_BIND_OFFSET_PTR, &offset);
                bind(1, SQL_C_CHAR, rows[0].text, &rows[0].textLength);
                bind(2, SQL_C_SBIGINT, &rows[0].number, &rows[0].numberLength);
            } else {
                bind(1, SQL_C_CHAR, texts, lengths);
                bind(2, SQL_C_SBIGINT, numbers, numberLengths);
            }
            ASSERT_EQ(SQL_SUCCESS,
                      statement.run(allBound ? "SELECT a, b FROM t" : "SELECT a, b, c FROM t"));
            ASSERT_EQ(SQL_SUCCESS_WITH_INFO, statement.fetch());
            const std::vector<SQLUSMALLINT> expected{SQL_ROW_SUCCESS, SQL_ROW_SUCCESS_WITH_INFO,
                                                     SQL_ROW_ERROR, SQL_ROW_SUCCESS};
            EXPECT_EQ(expected, std::vector<SQLUSMALLINT>(status, status + 4));
            EXPECT_EQ(4U, fetched);
            EXPECT_STREQ("longer ", byRow ? rows[2].text : texts[1]);
            EXPECT_EQ(17, byRow ? rows[2].textLength : lengths[1]);
            EXPECT_EQ(SQL_NULL_DATA, byRow ? rows[4].textLength : lengths[3]);
            EXPECT_EQ(4, byRow ? rows[4].number : numbers[3]);
            // The failure stands in front of the warning, with the number of its row.
            EXPECT_TRUE(statement.error().says("\"b\", row 3: the text 'bad'"));
            SQLLEN row = 0;
            RT_SQLGetDiagField(kDriver, SQL_HANDLE_STMT, statement.handle, 1, SQL_DIAG_ROW_NUMBER,
                               &row, 0, nullptr);
            EXPECT_EQ(3, row);
            EXPECT_EQ("01004", statement.error(2).state);
            // What was cut is there whole, in parts too, and so is what was not bound.
            const auto position = [&](SQLSETPOSIROW number) {
                return statement.stateOf(RT_SQLSetPos(kDriver, statement.handle, number,
                                                      SQL_POSITION, SQL_LOCK_NO_CHANGE));
            };
            EXPECT_EQ("HY107", position(5));
            EXPECT_EQ("", position(4));
            EXPECT_EQ(allBound ? "!07009" : "0404", statement.get(3));
            EXPECT_EQ("", position(2));
            EXPECT_EQ(allBound ? "!07009" : "NULL", statement.get(3));
            char part[10];
            RT_SQLGetData(kDriver, statement.handle, 1, SQL_C_CHAR, part, sizeof part, nullptr);
            EXPECT_EQ("longer than eight", part + statement.get(1));
            EXPECT_EQ("!07009", statement.get(2));
            ASSERT_EQ(SQL_SUCCESS, statement.fetch());
            EXPECT_EQ(1U, fetched);
            EXPECT_EQ(SQL_ROW_NOROW, status[1]);
            EXPECT_EQ(5, byRow ? rows[1].number : numbers[0]);
            EXPECT_EQ(SQL_NO_DATA, statement.fetch());
        }
    }
}

TEST_F(FetchTest, AFailureBehindRowsIsReportedByTheNextFetch) {
    Statement statement(connection.handle);
    SQLBIGINT values[5] = {};
    statement.set(SQL_ATTR_ROW_ARRAY_SIZE, 5);
    RT_SQLBindCol(kDriver, statement.handle, 1, SQL_C_SBIGINT, values, 0, nullptr);
    ASSERT_EQ(SQL_SUCCESS,
              statement.run("SELECT abs(column1) FROM (VALUES (1), (-2), (-9223372036854775808))"));
    EXPECT_EQ(SQL_SUCCESS, statement.fetch());
    EXPECT_EQ(2, values[1]);
    EXPECT_EQ("22003", statement.stateOf(statement.fetch()));
    EXPECT_EQ("24000", statement.stateOf(statement.fetch()));
}

// Any column takes any cell, but those of types that promise something.
TEST_F(FetchTest, CellsComeAsWhatTheyAre) {
    const struct {
        const char* type;
        const char* literal;
        const char* expected;
    } cases[] = {{"INTEGER", "-7", "1:-7"},
                 {"INTEGER", "'abc'", "3:abc"},
                 {"TEXT", "x'4142'", "4:AB"},
                 {"DOUBLE", "0.5", "2:0.5"},
                 {"", "NULL", "0:"},
                 {"TEXT", "''", "3:"},
                 {"TEXT", "'twenty bytes and more'", "3:twenty bytes and"},
                 {"DECIMAL(5,2)", "1.25", "5:1.25"},
                 {"DECIMAL(5,2)", "7", "5:7"},
                 {"BOOLEAN", "1", "1:1"},
                 {"DATE", "'2020-01-02'", "6:2020-1-2 0:0:0.0"},
                 {"TIME", "'03:04:05.006'", "7:0-0-0 3:4:5.6000000"},
                 {"TIMESTAMP", "'2020-01-02 03:04'", "8:2020-1-2 3:4:0.0"},
                 {"DECIMAL", "'abc'", "!22018"},
                 {"BOOLEAN", "2", "!22018"},
                 {"DATE", "'yesterday'", "!22018"},
                 {"TIME", "5", "!22018"},
                 {"TIMESTAMP", "x'00'", "!22018"}};
    for (const auto& [type, literal, expected] : cases) {
        embedded::VordaCell cell{};
        SQLLEN length = -77;
        const bool fetched =
            fetchInto(type, literal, embedded::kCellCType, &cell, sizeof cell, &length);
        std::string shown = fetched ? std::to_string(static_cast<int>(cell.kind)) + ":" : "!";
        const size_t here = std::min<size_t>(sizeof cell.bytes, length > 0 ? length : 0);
        char text[64] = "";
        switch (cell.kind) {
            case embedded::CellKind::Null:
                EXPECT_TRUE(!fetched || length == SQL_NULL_DATA);
                if (!fetched) shown += last.state;
                break;
            case embedded::CellKind::Integer:
                shown += std::to_string(cell.integer);
                break;
            case embedded::CellKind::Real:
                std::snprintf(text, sizeof text, "%g", cell.real);
                shown += text;
                break;
            case embedded::CellKind::Date:
            case embedded::CellKind::Time:
            case embedded::CellKind::Timestamp: {
                const auto& v = cell.stamp;
                std::snprintf(text, sizeof text, "%d-%d-%d %d:%d:%d.%u", v.year, v.month, v.day,
                              v.hour, v.minute, v.second, v.fraction);
                shown += text;
                break;
            }
            default:
                shown.append(cell.bytes, here);
        }
        EXPECT_EQ(expected, shown) << type << literal;
    }
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
    EXPECT_EQ("HY090", bind(1, embedded::kCellCType, sizeof buffer));
    EXPECT_EQ("", bind(1, SQL_C_DEFAULT, 19));
    // Not more columns are delivered than there are.
    EXPECT_EQ("", bind(40, SQL_C_WCHAR, 5));
    ASSERT_EQ(SQL_SUCCESS, statement.run("SELECT 7"));
    EXPECT_EQ(SQL_SUCCESS, statement.fetch());
    EXPECT_EQ(7, *reinterpret_cast<SQLBIGINT*>(buffer));
}

}  // namespace
}  // namespace embedded_test
