#include <cstdio>

#include "fixture.h"

namespace embedded_test {
namespace {

class FetchTest : public DatabaseTest {
  protected:
    /// A bound value as text.
    static std::string shown(int cType, const char* value, SQLLEN length) {
        double number = 0;
        SQLBIGINT integer = 0;
        char text[64] = "";
        if (cType == SQL_C_WCHAR) return {value, static_cast<size_t>(length)};
        std::memcpy(cType == SQL_C_DOUBLE ? static_cast<void*>(&number) : &integer, value,
                    static_cast<size_t>(length));
        if (cType == SQL_C_FLOAT)
            number = static_cast<double>(*reinterpret_cast<const float*>(value));
        else if (cType != SQL_C_DOUBLE)
            return std::to_string(integer);
        std::snprintf(text, sizeof text, "%.17g", number);
        return text;
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
                      sizeof value, &length);
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

// What the fuzz target convert has no second opinion on. A failed row does not stop the next.
TEST_F(FetchTest, ValuesAreDeliveredExactlyOrRefused) {
    const struct {
        int cType;
        const char* type;
        const char* values;
        std::string expected;
    } cases[] = {
        {SQL_C_SBIGINT, "", "(2.0), ('-7'), ('abc'), (''), ('1.5'), (1.5), (9.3e18), (x'31')",
         "2, -7, 22018, 22018, 22018, 22003, 22003, 22018"},
        // The first row decides what an undeclared column is: a text behind it is no number unless
        // it is written as one.
        {SQL_C_SBIGINT, "", "(1), ('2'), ('00501'), (' 3'), (4)", "1, 2, 22018, 22018, 4"},
        {SQL_C_DOUBLE, "", "(1.5), ('2.5'), ('2.50'), (4)", "1.5, 2.5, 22018, 4"},
        {SQL_C_BIT, "", "(0), (1), (2), ('true')", "0, 1, 22003, 22018"},
        {SQL_C_BINARY, "", "(1)", "22018"},
        {SQL_C_DOUBLE, "", "(9007199254740992), (9007199254740993), ('0.25'), ('1e999'), ('1,5')",
         "9007199254740992, 22003, 0.25, 22003, 22018"},
        {SQL_C_DOUBLE, "REAL", "(0.1), (9e999)", "0.10000000000000001, inf"},
        {SQL_C_FLOAT, "REAL", "(0.25), (1e39)", "0.25, 22003"},
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
    char byte;
    EXPECT_EQ("22018", statement.stateOf(RT_SQLGetData(kDriver, statement.handle, 3, SQL_C_BINARY,
                                                       &byte, 1, nullptr)));
    EXPECT_TRUE(statement.error().says("Column 3 "));
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
    connection.must("CREATE TABLE t AS VALUES (1), (2)");
    Connection other("Database=" + path + ";Timeout=0");
    for (const bool prepared : {false, true}) {
        Statement statement(connection.handle);
        SQLBIGINT value = 0;
        const char* const sql = "SELECT column1 AS v FROM t WHERE v < 3";
        const auto begin = [&] { return prepared ? statement.execute() : statement.run(sql); };
        if (prepared) statement.prepare(sql);
        RT_SQLBindCol(kDriver, statement.handle, 1, SQL_C_SBIGINT, &value, 0, nullptr);
        for (int execution = 0; execution < 2; ++execution) {
            ASSERT_EQ(SQL_SUCCESS, begin());
            EXPECT_EQ(SQL_SUCCESS, statement.fetch());
            other.expect("DELETE FROM t WHERE column1 > 2 => !HYT00 5");  // a row is to come
            EXPECT_EQ(SQL_SUCCESS, statement.fetch());
            EXPECT_EQ(2, value);
            other.must("DELETE FROM t WHERE column1 > 2");
            SQLULEN row = 0;
            RT_SQLGetStmtAttr(kDriver, statement.handle, SQL_ATTR_ROW_NUMBER, &row, 0, nullptr);
            EXPECT_EQ(2U, row);
            EXPECT_EQ("!07009", statement.get(1));
            EXPECT_EQ("v", statement.text(1, SQL_DESC_NAME));
            for (int i = 0; i < 2; ++i) EXPECT_EQ(SQL_NO_DATA, statement.fetch());
            EXPECT_EQ(SQL_SUCCESS, statement.close());
        }
        // A column unbound in between is there to be asked for again.
        ASSERT_EQ(SQL_SUCCESS, begin());
        EXPECT_EQ(SQL_SUCCESS, statement.fetch());
        RT_SQLFreeStmt(kDriver, statement.handle, SQL_UNBIND);
        EXPECT_EQ(Rows{"2"}, statement.rows());
    }
}

// Four rows at a time, of which the third fails and the second's text is cut.
TEST_F(FetchTest, BlocksDeliverAllRowsButThoseThatFail) {
    struct Row {
        char text[8];
        SQLLEN textLength;
        SQLBIGINT number;
        SQLLEN numberLength;
    };
    struct Columns {
        char text[4][8];
        SQLLEN textLength[4];
        SQLBIGINT number[4];
        SQLLEN numberLength[4];
    };
    connection.must("CREATE TABLE t (a TEXT, b INTEGER, c BLOB)");
    connection.must(
        "INSERT INTO t VALUES ('one', 1, x'01'), ('longer than eight', 2, NULL), ('three', 'bad', "
        "''), (NULL, 4, x'0404'), ('five', 5, NULL)");
    for (int way = 0; way < 4; ++way) {
        const bool byRow = way % 2 != 0;
        const bool allBound = way > 1;
        Statement statement(connection.handle);
        Row rows[5] = {};
        Columns columns = {};
        const auto row = [&](int i) {
            return byRow ? rows[i + 1] : Row{{}, columns.textLength[i], columns.number[i], 0};
        };
        SQLUSMALLINT status[4] = {};
        SQLULEN fetched = 99;
        SQLULEN offset = byRow ? sizeof(Row) : 0;
        statement.set(SQL_ATTR_ROW_ARRAY_SIZE, 4);
        statement.set(SQL_ATTR_ROW_BIND_TYPE, byRow ? sizeof(Row) : SQL_BIND_BY_COLUMN);
        statement.set(SQL_ATTR_ROW_STATUS_PTR, reinterpret_cast<SQLULEN>(status));
        statement.set(SQL_ATTR_ROWS_FETCHED_PTR, reinterpret_cast<SQLULEN>(&fetched));
        statement.set(SQL_ATTR_ROW_BIND_OFFSET_PTR, reinterpret_cast<SQLULEN>(&offset));
        RT_SQLBindCol(kDriver, statement.handle, 1, SQL_C_CHAR,
                      byRow ? rows[0].text : columns.text[0], 8,
                      byRow ? &rows[0].textLength : columns.textLength);
        RT_SQLBindCol(kDriver, statement.handle, 2, SQL_C_SBIGINT,
                      byRow ? &rows[0].number : columns.number, 8,
                      byRow ? &rows[0].numberLength : columns.numberLength);
        ASSERT_EQ(SQL_SUCCESS,
                  statement.run(allBound ? "SELECT a, b FROM t" : "SELECT a, b, c FROM t"));
        ASSERT_EQ(SQL_SUCCESS_WITH_INFO, statement.fetch());
        EXPECT_EQ((std::vector<SQLUSMALLINT>{SQL_ROW_SUCCESS, SQL_ROW_SUCCESS_WITH_INFO,
                                             SQL_ROW_ERROR, SQL_ROW_SUCCESS}),
                  std::vector<SQLUSMALLINT>(status, status + 4));
        EXPECT_EQ(4U, fetched);
        EXPECT_STREQ("longer ", byRow ? rows[2].text : columns.text[1]);
        EXPECT_EQ(17, row(1).textLength);
        EXPECT_EQ(SQL_NULL_DATA, row(3).textLength);
        EXPECT_EQ(4, row(3).number);
        // The failure stands in front of the warning, with the number of its row.
        EXPECT_TRUE(statement.error().says("\"b\", row 3: the text 'bad'"));
        SQLLEN number = 0;
        RT_SQLGetDiagField(kDriver, SQL_HANDLE_STMT, statement.handle, 1, SQL_DIAG_ROW_NUMBER,
                           &number, 0, nullptr);
        EXPECT_EQ(3, number);
        EXPECT_EQ("01004", statement.error(2).state);
        // What was cut is there whole, in parts too, and so is what was not bound.
        const auto position = [&](SQLSETPOSIROW at) {
            return statement.stateOf(
                RT_SQLSetPos(kDriver, statement.handle, at, SQL_POSITION, SQL_LOCK_NO_CHANGE));
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
        EXPECT_EQ(5, row(0).number);
        EXPECT_EQ(SQL_NO_DATA, statement.fetch());
        EXPECT_EQ(0U, fetched);
    }
}

TEST_F(FetchTest, AFailureBehindRowsIsReportedByTheNextFetch) {
    for (const SQLULEN block : {1U, 5U}) {
        Statement statement(connection.handle);
        SQLBIGINT values[5] = {};
        statement.set(SQL_ATTR_ROW_ARRAY_SIZE, block);
        RT_SQLBindCol(kDriver, statement.handle, 1, SQL_C_SBIGINT, values, 0, nullptr);
        ASSERT_EQ(SQL_SUCCESS, statement.run("SELECT abs(column1) FROM"
                                             " (VALUES (-2), (-9223372036854775808))"));
        EXPECT_EQ(SQL_SUCCESS, statement.fetch());
        EXPECT_EQ(2, values[0]);
        EXPECT_EQ("22003", statement.stateOf(statement.fetch()));
        EXPECT_EQ("24000", statement.stateOf(statement.fetch()));  // the cursor is closed
    }
}

}  // namespace
}  // namespace embedded_test
