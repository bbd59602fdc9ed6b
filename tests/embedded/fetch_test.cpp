#include <algorithm>
#include <cstdio>

#include "extensions.h"
#include "fixture.h"

namespace embedded_test {
namespace {

class FetchTest : public DatabaseTest {
  protected:
    static std::string shown(const SQL_TIMESTAMP_STRUCT& v) {
        char text[64] = "";
        std::snprintf(text, sizeof text, "%d-%d-%d %d:%d:%d.%u", v.year, v.month, v.day, v.hour,
                      v.minute, v.second, v.fraction);
        return text;
    }
    static std::string shown(double value) {
        char text[64] = "";
        std::snprintf(text, sizeof text, "%.17g", value);
        return text;
    }
    /// A cell as its kind and value.
    static std::string shown(const embedded::VordaCell& cell, SQLLEN length) {
        using enum embedded::CellKind;
        const std::string kind = std::to_string(static_cast<int>(cell.kind));
        const auto here =
            std::min(sizeof cell.bytes, static_cast<size_t>(std::max<SQLLEN>(length, 0)));
        if (cell.kind == Null) return length == SQL_NULL_DATA ? kind : "no NULL";
        if (cell.kind == Integer) return kind + " " + std::to_string(cell.integer);
        if (cell.kind == Real) return kind + " " + shown(cell.real);
        if (cell.kind >= Date) return kind + " " + shown(cell.stamp);
        return kind + " " + std::string(cell.bytes, here);
    }
    /// A bound value as text; of what has no length of its own the length first.
    static std::string shown(int cType, const char* value, SQLLEN length) {
        const std::string first = std::to_string(length) + ":";
        const auto* const time = reinterpret_cast<const SQL_TIME_STRUCT*>(value);
        SQLBIGINT integer = 0;
        char text[64] = "";
        switch (cType) {
            case embedded::kCellCType:
                return shown(*reinterpret_cast<const embedded::VordaCell*>(value), length);
            case SQL_C_WCHAR:
                return {value, static_cast<size_t>(length)};
            case SQL_C_FLOAT:
                return first + shown(static_cast<double>(*reinterpret_cast<const float*>(value)));
            case SQL_C_DOUBLE:
                return first + shown(*reinterpret_cast<const double*>(value));
            case SQL_C_TYPE_TIME:
                std::snprintf(text, sizeof text, "%d:%d:%d", time->hour, time->minute,
                              time->second);
                return first + text;
            case SQL_C_TYPE_DATE:
            case SQL_C_TYPE_TIMESTAMP:
                return first + shown(*reinterpret_cast<const SQL_TIMESTAMP_STRUCT*>(value));
            default:
                std::memcpy(&integer, value, static_cast<size_t>(length));
                return first + std::to_string(integer);
        }
    }

    /// What a column declared as `type` delivers as `cType` of these values, joined by ", "; the
    /// state of what it does not deliver.
    std::string fetched(int cType, const std::string& type, const std::string& values) {
        connection.expect("DROP TABLE IF EXISTS t\nCREATE TABLE t (v " + type +
                          ")\nINSERT INTO t VALUES " + values);
        Statement statement(connection.handle);
        EXPECT_EQ(SQL_SUCCESS, statement.run("SELECT v FROM t"));
        alignas(8) char value[600] = "";
        SQLLEN length = -77;
        RT_SQLBindCol(kDriver, statement.handle, 1, static_cast<SQLSMALLINT>(cType), value,
                      cType == embedded::kCellCType ? embedded::kSmallestCell : sizeof value,
                      &length);
        std::string all;
        SQLRETURN result = SQL_SUCCESS;
        for (int row = 1; (result = statement.fetch()) != SQL_NO_DATA; ++row) {
            all += row > 1 ? ", " : "";
            all += result == SQL_SUCCESS ? shown(cType, value, length) : statement.error().state;
            if (result == SQL_SUCCESS) continue;
            EXPECT_NE(0, statement.error().native);
            EXPECT_TRUE(statement.error().says("Column 1 \"v\", row " + std::to_string(row)));
        }
        return all;
    }
};

// What is no number or date at all the fuzz target convert knows. A failed row does not stop the
// next.
TEST_F(FetchTest, ValuesAreDeliveredExactlyOrRefused) {
    const struct {
        int cType;
        const char* type;
        const char* values;
        std::string expected;
    } cases[] = {
        {SQL_C_SBIGINT, "INTEGER", "(-9223372036854775808)", "8:-9223372036854775808"},
        {SQL_C_SBIGINT, "", "(2.0), ('-7'), ('abc'), (''), ('1.5'), (1.5), (9.3e18), (x'31')",
         "8:2, 8:-7, 22018, 22018, 22018, 22003, 22003, 22018"},
        // The first row decides what an undeclared column is: a text behind it is no number unless
        // it is written as one.
        {SQL_C_SBIGINT, "", "(1), ('2'), ('00501'), (' 3'), (4)", "8:1, 8:2, 22018, 22018, 8:4"},
        {SQL_C_DOUBLE, "", "(1.5), ('2.5'), ('2.50'), (4)", "8:1.5, 8:2.5, 22018, 8:4"},
        {SQL_C_SHORT, "", "(32767), (-32769)", "2:32767, 22003"},
        {SQL_C_TINYINT, "", "(255), (256)", "1:255, 22003"},
        {SQL_C_BIT, "", "(0), (1), (2), ('true')", "1:0, 1:1, 22003, 22018"},
        {SQL_C_LONG, "", "(2147483647), (2147483648)", "4:2147483647, 22003"},
        {SQL_C_UBIGINT, "", "(7), (-1)", "8:7, 22003"},
        {SQL_C_BINARY, "", "(1)", "22018"},
        {SQL_C_DOUBLE, "", "(9007199254740992), (9007199254740993), ('0.25'), ('1e999'), ('1,5')",
         "8:9007199254740992, 22003, 8:0.25, 22003, 22018"},
        {SQL_C_DOUBLE, "REAL", "(0.1), (9e999)", "8:0.10000000000000001, 8:inf"},
        {SQL_C_FLOAT, "REAL", "(0.25), (1e39)", "4:0.25, 22003"},
        {SQL_C_WCHAR, "", "(0.1), (1.0), (1e300), (-42)", "0.1, 1.0, 1e+300, -42"},
        {SQL_C_WCHAR, "TEXT", "(x'00'), ('a' || char(0))", std::string("22018, a\0", 9)},
        {SQL_C_WCHAR, "BLOB", "(x'00ff')", "00FF"},
        {SQL_C_WCHAR, "DECIMAL(22,9)",
         "(12.5), (10.00), (1e21), (1.5e-7), (12345678901234567890.5)",
         "12.5, 10, 1000000000000000000000, 0.00000015, 12345678901234567000"},
        // Read from a text, one is an ulp off; two are what computations leave.
        {SQL_C_WCHAR, "DECIMAL(18,6)",
         "(CAST('4.892096' AS REAL)), (0.1 + 0.2), (4.35 * 100), (1.0 / 3)",
         "4.892096, 0.3, 435, 0.3333333333333333"},
        {SQL_C_WCHAR, "DECIMAL", "('1.2.3'), (''), ('1e+-3'), (9e999), (x'31')",
         "22018, 22018, 22018, 22018, 22018"},
        {SQL_C_TYPE_TIMESTAMP, "DATE", "('2020-02-29'), ('2020-01-02 00:00:00')",
         "16:2020-2-29 0:0:0.0, 16:2020-1-2 0:0:0.0"},
        {SQL_C_TYPE_TIMESTAMP, "DATE",
         "('2020-01-02 03:04:05'), ('1900-02-29'), ('03:04:05'), (20200101), ('0000-01-01')",
         "22018, 22018, 22018, 22018, 22018"},
        {SQL_C_TYPE_TIMESTAMP, "DATETIME", "('2020-01-02T03:04:05'), ('2020-01-02 03:04')",
         "16:2020-1-2 3:4:5.0, 16:2020-1-2 3:4:0.0"},
        {SQL_C_TYPE_TIMESTAMP, "TIMESTAMP(3)", "('2020-01-02'), ('2020-01-02 03:04:05.1234567890')",
         "16:2020-1-2 0:0:0.0, 16:2020-1-2 3:4:5.123456789"},
        {SQL_C_TYPE_TIMESTAMP, "TIMESTAMP",
         "('03:04:05'), ('2020-01-02 03:04:05+01:00'), ('2020-01-02 03:04:05.1234567891')",
         "22018, 22018, 22018"},
        {SQL_C_TYPE_TIMESTAMP, "TIMESTAMP(0)", "('2020-01-02 03:04:05.1')", "22018"},
        {SQL_C_TYPE_TIMESTAMP, "TIME", "('03:04:05.006'), ('2020-01-02 03:04:05')",
         "16:1900-1-1 3:4:5.6000000, 22018"},
        {SQL_C_TYPE_DATE, "DATE", "('2020-01-02')", "6:2020-1-2 0:0:0.0"},
        {SQL_C_TYPE_DATE, "TIMESTAMP", "('2020-01-02 00:00:01')", "22018"},
        {SQL_C_TYPE_TIME, "TIME", "('03:04:05'), ('03:04:05.5')", "6:3:4:5, 22018"},
        // Any column takes any cell, but those of types that promise something.
        {embedded::kCellCType, "",
         "(-7), ('abc'), (x'4142'), (0.5), (NULL), (''), ('twenty bytes and more')",
         "1 -7, 3 abc, 4 AB, 2 0.5, 0, 3 , 3 twenty bytes and"},
        {embedded::kCellCType, "DECIMAL(5,2)", "(1.25), (7), ('abc')", "5 1.25, 5 7, 22018"},
        {embedded::kCellCType, "BOOLEAN", "(1), (2)", "1 1, 22018"},
        {embedded::kCellCType, "DATE", "('2020-01-02'), ('yesterday')",
         "6 2020-1-2 0:0:0.0, 22018"},
        {embedded::kCellCType, "TIME", "('03:04:05.006'), (5)", "7 0-0-0 3:4:5.6000000, 22018"},
        {embedded::kCellCType, "TIMESTAMP", "('2020-01-02 03:04'), (x'00')",
         "8 2020-1-2 3:4:0.0, 22018"},
    };
    for (const auto& [cType, type, values, expected] : cases)
        EXPECT_EQ(expected, fetched(cType, type, values)) << cType << type;
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
            EXPECT_TRUE(length < capacity || statement.error().says("Column 1 "));
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
    for (const SQLULEN block : {1U, 5U}) {
        Statement statement(connection.handle);
        SQLBIGINT values[5] = {};
        statement.set(SQL_ATTR_ROW_ARRAY_SIZE, block);
        RT_SQLBindCol(kDriver, statement.handle, 1, SQL_C_SBIGINT, values, 0, nullptr);
        ASSERT_EQ(SQL_SUCCESS, statement.run("SELECT abs(column1) FROM"
                                             " (VALUES (1), (-2), (-9223372036854775808))"));
        for (SQLULEN row = 0; row < 2; row += block) EXPECT_EQ(SQL_SUCCESS, statement.fetch());
        EXPECT_EQ(2, values[block == 1 ? 0 : 1]);
        EXPECT_EQ("22003", statement.stateOf(statement.fetch()));
        EXPECT_EQ("24000", statement.stateOf(statement.fetch()));  // the cursor is closed
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
