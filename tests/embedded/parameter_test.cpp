#include <cmath>
#include <cstdint>

#include "fixture.h"

namespace embedded_test {
namespace {

class ParameterTest : public DatabaseTest {
  protected:
    ParameterTest() : statement(connection.handle) {
        connection.must("CREATE TABLE t (v)");
        EXPECT_EQ(SQL_SUCCESS, statement.prepare("INSERT INTO t VALUES (@1 )"));
    }

    /// Stores one value and answers what SQLite finds: its storage class and its text.
    template <class T>
    std::string roundTrip(SQLSMALLINT cType, const T& value, SQLSMALLINT sqlType = SQL_WVARCHAR) {
        SQLLEN length = sizeof value;
        connection.must("DELETE FROM t");
        RT_SQLBindParameter(kDriver, statement.handle, 1, SQL_PARAM_INPUT, cType, sqlType, 0, 0,
                            const_cast<T*>(&value), 0, &length);
        if (!SQL_SUCCEEDED(statement.execute())) return "!" + statement.error().state;
        return stored("SELECT typeof(v), v FROM t").at(0);
    }

    Statement statement;
};

TEST_F(ParameterTest, EveryCTypeIsStoredExactlyOrRefused) {
    const auto stamp = [](SQLUSMALLINT month, SQLUINTEGER fraction) {
        return SQL_TIMESTAMP_STRUCT{2020, month, 2, 3, 4, 5, fraction};
    };
    EXPECT_EQ("integer|9223372036854775807", roundTrip(SQL_C_UBIGINT, SQLUBIGINT{INT64_MAX}));
    EXPECT_EQ("integer|-2147483648", roundTrip(SQL_C_LONG, SQLINTEGER{INT32_MIN}));
    EXPECT_EQ("integer|4294967295", roundTrip(SQL_C_ULONG, SQLUINTEGER{UINT32_MAX}));
    EXPECT_EQ("integer|-32768", roundTrip(SQL_C_SHORT, SQLSMALLINT{-32768}));
    EXPECT_EQ("integer|200", roundTrip(SQL_C_TINYINT, SQLCHAR{200}));
    EXPECT_EQ("integer|-5", roundTrip(SQL_C_STINYINT, SQLSCHAR{-5}));
    EXPECT_EQ("integer|1", roundTrip(SQL_C_BIT, SQLCHAR{1}));
    EXPECT_EQ("real|0.5", roundTrip(SQL_C_FLOAT, 0.5F));
    EXPECT_EQ("real|0.5", roundTrip(SQL_C_DEFAULT, 0.5F, SQL_REAL));
    EXPECT_EQ("real|Inf", roundTrip(SQL_C_DOUBLE, double{INFINITY}));
    EXPECT_EQ("text|0001-01-01", roundTrip(SQL_C_TYPE_DATE, SQL_DATE_STRUCT{1, 1, 1}));
    EXPECT_EQ("text|2020-02-29", roundTrip(SQL_C_DATE, SQL_DATE_STRUCT{2020, 2, 29}));
    EXPECT_EQ("text|23:59:59", roundTrip(SQL_C_TIME, SQL_TIME_STRUCT{23, 59, 59}));
    // The fraction that is needed.
    EXPECT_EQ("text|2020-01-02 03:04:05", roundTrip(SQL_C_TIMESTAMP, stamp(1, 0)));
    EXPECT_EQ("text|2020-01-02 03:04:05.250000", roundTrip(SQL_C_TIMESTAMP, stamp(1, 250000000)));
    EXPECT_EQ("text|2020-01-02 03:04:05.000000001", roundTrip(SQL_C_TIMESTAMP, stamp(1, 1)));

    EXPECT_EQ("!22003", roundTrip(SQL_C_UBIGINT, SQLUBIGINT{9223372036854775808U}));
    EXPECT_EQ("!22003", roundTrip(SQL_C_DOUBLE, std::nan("")));
    EXPECT_EQ("!22003", roundTrip(SQL_C_FLOAT, std::nanf("")));
    EXPECT_EQ("!22003", roundTrip(SQL_C_BIT, SQLCHAR{2}));
    EXPECT_EQ("!22007", roundTrip(SQL_C_DATE, SQL_DATE_STRUCT{2021, 2, 29}));
    EXPECT_EQ("!22007", roundTrip(SQL_C_TIME, SQL_TIME_STRUCT{24, 0, 0}));
    EXPECT_EQ("!22007", roundTrip(SQL_C_TIMESTAMP, stamp(13, 0)));
    EXPECT_EQ("!22007", roundTrip(SQL_C_TIMESTAMP, stamp(1, 1000000000)));
    EXPECT_TRUE(statement.error().says("Parameter 1"));
    EXPECT_NE(0, statement.error().native);
    EXPECT_EQ(Rows{"0"}, stored("SELECT count(*) FROM t"));
}

TEST_F(ParameterTest, TextAndBinaryKeepEveryByte) {
    const struct {
        int cType;
        const char* data;
        SQLLEN length, capacity;
        const char* expected;
    } cases[] = {
        {SQL_C_WCHAR, "\xC3\xA4\xF0\x9F\x98\x80\0x", 8, 8, "text|C3A4F09F98800078"},
        {SQL_C_CHAR, "abc", SQL_NTS, 0, "text|616263"},
        {SQL_C_CHAR, "abc", SQL_NTS, 2, "text|6162"},
        {SQL_C_WCHAR, nullptr, 0, 0, "text|"},
        {SQL_C_BINARY, "\0\xFF", 2, 2, "blob|00FF"},
        {SQL_C_BINARY, "", 0, 0, "blob|"},
        {SQL_C_WCHAR, "abc", SQL_NULL_DATA, 3, "null|"},
        {SQL_C_WCHAR, "abc", -7, 3, "!HY090"},
        {SQL_C_WCHAR, "abc", SQL_DATA_AT_EXEC, 3, "!HYC00"},
        {SQL_C_WCHAR, nullptr, 3, 3, "!HY009"},
    };
    for (auto [cType, data, length, capacity, expected] : cases) {
        connection.must("DELETE FROM t");
        RT_SQLBindParameter(kDriver, statement.handle, 1, SQL_PARAM_INPUT,
                            static_cast<SQLSMALLINT>(cType), SQL_WVARCHAR, 0, 0,
                            const_cast<char*>(data), capacity, &length);
        const SQLRETURN result = statement.execute();
        EXPECT_EQ(expected, SQL_SUCCEEDED(result)
                                ? stored("SELECT typeof(v) || '|' || hex(v) FROM t").at(0)
                                : "!" + statement.error().state);
    }
}

TEST_F(ParameterTest, BuffersMayGoOnceExecuted) {
    Statement reader(connection.handle);
    ASSERT_EQ(SQL_SUCCESS, reader.prepare("SELECT @1  UNION ALL SELECT @1 "));
    std::string text = "a long text that lives on the heap, outside the object";
    const std::string expected = text;
    SQLLEN length = static_cast<SQLLEN>(text.size());
    ASSERT_EQ(SQL_SUCCESS, reader.bindText(1, text.data(), &length, length));
    ASSERT_EQ(SQL_SUCCESS, reader.execute());
    text.assign(text.size(), '#');
    EXPECT_EQ(Rows({expected, expected}), reader.rows());
    reader.close();
    ASSERT_EQ(SQL_SUCCESS, reader.prepare("SELECT 1 WHERE @1  IS NULL"));
    for (int execution = 0; execution < 2; ++execution) {  // without rows
        EXPECT_EQ(SQL_SUCCESS, reader.execute());
        reader.close();
    }
}

// Which marks are markers the fuzz target procedure knows; here, that each gets its value.
TEST_F(ParameterTest, MarkersAreNumbered) {
    const SQLINTEGER values[] = {10, 20, 30, 40};
    SQLLEN length = sizeof(SQLINTEGER);
    const struct {
        const char* sql;
        SQLSMALLINT markers;
        const char* row;
    } cases[] = {
        {"SELECT @3 , @1 , @2 ", 3, "30|10|20"},
        {"SELECT @1 ,@1 ", 1, "10|10"},
        {"SELECT ?, ?, ?", 3, "10|20|30"},
        {"SELECT @3 , ?, @1 ", 4, "30|40|10"},
        {"SELECT @1 ,?2", 2, "10|20"},
        {"SELECT @1,@2,@1,@4", 4, "10|20|10|40"},
        {"SELECT ?,@2,?,@2", 3, "10|20|30|20"},
        {"SELECT @2,@1", 2, "20|10"},
        {"SELECT ?3,@4 ", 4, "30|40"},
        {"SELECT $x,@1,@2", 2, "10|10|20"},
        {R"(SELECT '''@1', '\', "@1""?", [@1?], @1  -- @2 ?
            /* @3 ' */ FROM (SELECT 5 AS [@1?], 6 AS "@1""?"))",
         1, R"('@1|\|6|5|10)"},
    };
    for (const auto& [sql, expected, row] : cases) {
        Statement query(connection.handle);
        ASSERT_EQ(SQL_SUCCESS, query.prepare(sql)) << sql << query.error().message;
        SQLSMALLINT markers = 0;
        EXPECT_EQ(SQL_SUCCESS, RT_SQLNumParams(kDriver, query.handle, &markers));
        EXPECT_EQ(expected, markers) << sql;
        for (SQLUSMALLINT i = 1; i <= markers; ++i)
            query.bind(i, SQL_C_LONG, &values[i - 1], &length);
        EXPECT_EQ(SQL_SUCCESS, query.execute()) << sql;
        EXPECT_EQ(Rows{row}, query.rows()) << sql;
    }
}

TEST_F(ParameterTest, TheNumberOfValuesMustFit) {
    const SQLINTEGER value = 1;
    SQLLEN length = sizeof value;
    EXPECT_EQ("07002", statement.stateOf(statement.execute()));
    // A value too many would be lost unseen.
    statement.bind(1, SQL_C_LONG, &value, &length);
    statement.bind(2, SQL_C_LONG, &value, &length);
    EXPECT_EQ("07002", statement.stateOf(statement.execute()));
    EXPECT_EQ(Rows{"0"}, stored("SELECT count(*) FROM t"));
    // Left over from the text before, it is no mistake.
    EXPECT_EQ(SQL_SUCCESS, statement.prepare("INSERT INTO t VALUES (?)"));
    EXPECT_EQ(SQL_SUCCESS, statement.execute());
    EXPECT_EQ(Rows{"1"}, stored("SELECT count(*) FROM t"));
}

}  // namespace
}  // namespace embedded_test
