#include <climits>
#include <cstring>
#include <functional>
#include <string>

#include "unit/mono/sourcetest.h"

namespace {

// The driver's side of the last bound column, for tests that write into it as no model would.
struct BoundColumn {
    char* data = nullptr;
    SQLLEN* indicator = nullptr;
};
BoundColumn g_bound;
int NoteBoundColumn(const char* name, const long long* arguments, int, int*) {
    if (std::strcmp(name, "SQLBindCol") == 0) {
        g_bound = {reinterpret_cast<char*>(arguments[3]), reinterpret_cast<SQLLEN*>(arguments[5])};
    }
    return 0;
}

class FetchTest : public SourceTest {
  protected:
    void SetUp() override {
        SourceTest::SetUp();
        scripted_handler(NoteBoundColumn);
    }
    void TearDown() override {
        rs.Close();
        SourceTest::TearDown();
    }

    void AddColumn(int sqlType) { scripted_column("c", sqlType, 0, 0, 0, SQL_NULLABLE); }
    void Execute() { ASSERT_EQ(source.Execute("q", 1, &rs, nullptr), VORDA_OK); }
    void ExecuteAndFetch() {
        Execute();
        const int status = rs.Next();
        ASSERT_TRUE(status == VORDA_OK && !rs.GetImpl()->FetchFailed()) << status;
    }
    std::string Text(int index) {
        char* text = nullptr;
        int length = -7;
        EXPECT_EQ(rs.GetStringAsUTF8(index, &text, &length), VORDA_OK);
        return {text, static_cast<std::size_t>(length)};
    }

    IntDbResultSet rs;
};

TEST_F(FetchTest, Outcomes) {
    const struct {
        int result;
        bool hasDiagnostic;
        int native;
        int next, getter;
    } cases[] = {
        {SQL_SUCCESS_WITH_INFO, true, 0, VORDA_OK, VORDA_OK},
        {SQL_SUCCESS_WITH_INFO, false, 0, VORDA_OK, VORDA_OK},
        {SQL_SUCCESS_WITH_INFO, true, 5, 5, VORDA_OK},
        {SQL_SUCCESS_WITH_INFO, true, -5, -5, VORDA_OK},
        // A native error must not read as the end of the rows.
        {SQL_SUCCESS_WITH_INFO, true, 100, VORDA_OK, VORDA_OK},
        {SQL_ERROR, true, 100, VORDA_ODBC_ERROR, 100},
        {SQL_ERROR, true, 5, 5, 5},
        // Nor as a row or as NULL.
        {SQL_ERROR, true, 0, VORDA_ODBC_ERROR, VORDA_NOT_EXECUTED},
        {SQL_ERROR, true, -1, -1, VORDA_NOT_EXECUTED},
        {SQL_ERROR, false, 0, VORDA_ODBC_ERROR, VORDA_NOT_EXECUTED},
        {SQL_INVALID_HANDLE, true, 5, 5, 5},
        {SQL_STILL_EXECUTING, true, 5, 5, 5},
        {SQL_SUCCESS, false, 0, VORDA_OK, VORDA_OK},
    };
    AddColumn(SQL_INTEGER);
    for (int row = 0; row < static_cast<int>(std::size(cases)); ++row) {
        scripted_row();
        scripted_cell_int(row);
    }
    Execute();
    int row = 0;
    for (const auto& [result, hasDiagnostic, native, next, getter] : cases) {
        SCOPED_TRACE(row);
        scripted_answer_after("SQLFetch", row + 1, result);
        if (hasDiagnostic) Diagnose(native, "the driver's text");
        EXPECT_EQ(rs.Next(), next);
        if (hasDiagnostic) {
            EXPECT_STREQ(rs.GetLastErrorMessage(), "the driver's text");
        }
        EXPECT_EQ(rs.GetImpl()->FetchFailed(), getter != VORDA_OK);
        int value = -7;
        char* text = nullptr;
        EXPECT_EQ(rs.GetInt(0, value), getter);
        EXPECT_EQ(value, getter == VORDA_OK ? row : -7);
        EXPECT_EQ(rs.GetStringAsUTF8(0, &text, nullptr), getter);
        EXPECT_EQ(rs.GetBytes(0, &text, nullptr), getter);
        ++row;
    }
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(rs.Next(), VORDA_NO_MORE_DATA);
        EXPECT_EQ(rs.GetLastError(), 100);
        EXPECT_STREQ(rs.GetLastErrorMessage(), "No more data");
        EXPECT_FALSE(rs.GetImpl()->FetchFailed());
    }
}

TEST_F(FetchTest, Numbers) {
    for (const int type : {SQL_BIT, SQL_TINYINT, SQL_SMALLINT, SQL_INTEGER, SQL_BIGINT, SQL_REAL,
                           SQL_DOUBLE, SQL_FLOAT}) {
        AddColumn(type);
    }
    scripted_row();
    for (const long long value : {1LL, 200LL, -32768LL, -2147483648LL, LLONG_MIN + 5}) {
        scripted_cell_int(value);
    }
    for (int i = 0; i < 3; ++i) scripted_cell_double(0.1);
    ExecuteAndFetch();

    const int ints[] = {1, 200, -32768, INT_MIN, 5};
    for (int i = 0; i < 5; ++i) {
        int value = -7;
        EXPECT_EQ(rs.GetInt(i, value), VORDA_OK);
        EXPECT_EQ(value, ints[i]);
    }
    long long big = 0;
    EXPECT_EQ(rs.GetBigint(4, big), VORDA_OK);
    EXPECT_EQ(big, LLONG_MIN + 5);
    const double doubles[] = {static_cast<double>(0.1f), 0.1, 0.1};
    for (int i = 0; i < 3; ++i) {
        double value = 0;
        EXPECT_EQ(rs.GetDouble(5 + i, value), VORDA_OK);
        EXPECT_EQ(value, doubles[i]);
    }
}

TEST_F(FetchTest, DatesAndTimes) {
    for (const int type : {SQL_TYPE_DATE, SQL_TYPE_TIME, SQL_TYPE_TIMESTAMP}) AddColumn(type);
    scripted_row();
    for (int i = 0; i < 3; ++i) scripted_cell_timestamp(-44, 3, 15, 23, 59, 58, 123456789);
    ExecuteAndFetch();

    _db_date_ date = {};
    EXPECT_EQ(rs.GetDate(0, date), VORDA_OK);
    EXPECT_TRUE(date.Year == -44 && date.Month == 3 && date.Day == 15);
    _db_time_ time = {};
    EXPECT_EQ(rs.GetTime(1, time), VORDA_OK);
    EXPECT_TRUE(time.Day == 15 && time.Hour == 23 && time.Minute == 59 && time.Second == 58);
    EXPECT_EQ(time.Millisecond, 123456789);
    EXPECT_EQ(rs.GetTime(2, time), VORDA_OK);
    EXPECT_EQ(time.Millisecond, 123456789);
    _db_datetime_ stamp = {};
    EXPECT_EQ(rs.GetDateTime(2, stamp), VORDA_OK);
    EXPECT_TRUE(stamp.Year == -44 && stamp.Month == 3 && stamp.Day == 15);
    EXPECT_TRUE(stamp.Hour == 23 && stamp.Minute == 59 && stamp.Second == 58);
    EXPECT_EQ(stamp.Millisecond, 123);
}

TEST_F(FetchTest, NullsAndBadIndexesLeaveTheOutputsAlone) {
    AddColumn(SQL_INTEGER);
    AddColumn(SQL_WVARCHAR);
    scripted_row();
    // Delivered, but said to be NULL; and not delivered at all.
    scripted_cell_int(1);
    scripted_cell_indicator(SQL_NULL_DATA);
    ExecuteAndFetch();

    const struct {
        int index, status;
    } cases[] = {{0, SQL_NULL_DATA},
                 {1, SQL_NULL_DATA},
                 {2, VORDA_INDEX_OUT_OF_RANGE},
                 {INT_MAX, VORDA_INDEX_OUT_OF_RANGE},
                 {-1, VORDA_INDEX_OUT_OF_RANGE}};
    for (const auto& [index, status] : cases) {
        SCOPED_TRACE(index);
        int integer = 7, length = 7;
        long long big = 7;
        double real = 7;
        _db_date_ date = {7, 7, 7};
        _db_time_ time = {7, 7, 7, 7, 7};
        _db_datetime_ stamp = {7, 7, 7, 7, 7, 7, 7};
        char* text = nullptr;
        ValueExtent extent = {7, false, 7};
        EXPECT_EQ(rs.GetInt(index, integer), status);
        EXPECT_EQ(rs.GetBigint(index, big), status);
        EXPECT_EQ(rs.GetDouble(index, real), status);
        EXPECT_EQ(rs.GetDate(index, date), status);
        EXPECT_EQ(rs.GetTime(index, time), status);
        EXPECT_EQ(rs.GetDateTime(index, stamp), status);
        EXPECT_EQ(rs.GetStringAsUTF8(index, &text, &length), status);
        EXPECT_EQ(rs.GetBytes(index, &text, &length), status);
        EXPECT_EQ(rs.GetImpl()->GetExtent(index, extent), status);
        EXPECT_TRUE(integer == 7 && big == 7 && real == 7.0 && length == 7 && !text);
        EXPECT_TRUE(date.Day == 7 && time.Day == 7 && stamp.Millisecond == 7);
        EXPECT_EQ(extent.Length, 7);
        if (status > 0) {
            EXPECT_EQ(rs.GetLastError(), 1106);
            EXPECT_STREQ(rs.GetLastErrorMessage(), "The value index is out of range");
        }
    }
    EXPECT_EQ(rs.GetStringAsUCS2(0, nullptr, nullptr), VORDA_NOT_IMPLEMENTED);
    EXPECT_EQ(rs.GetLastError(), 1106);
    EXPECT_STREQ(rs.GetLastErrorMessage(), "The method is not implemented");
}

TEST_F(FetchTest, TextsAndBinariesOfAllLengths) {
    using namespace std::string_literals;
    const std::string whole(2047, 'x');
    const struct {
        int sqlType;
        std::string value, kept;
    } cases[] = {
        {SQL_WVARCHAR, "", ""},
        {SQL_WVARCHAR, "0123456789", "0123456789"},
        {SQL_WVARCHAR, "a\0b\0"s, "a\0b\0"s},
        {SQL_WVARCHAR, whole, whole},
        {SQL_WVARCHAR, whole + 'x', whole},
        {SQL_WVARCHAR, std::string(3000, 'x'), whole},
        // The model cuts in the middle of a character of 2, 3 and 4 bytes, and just behind one.
        {SQL_WVARCHAR, std::string(2046, 'x') + "\xC5\xBEx", std::string(2046, 'x')},
        {SQL_WVARCHAR, std::string(2045, 'x') + "\xE2\x82\xAC", std::string(2045, 'x')},
        {SQL_WVARCHAR, std::string(2044, 'x') + "\xF0\x9F\x98\x80", std::string(2044, 'x')},
        {SQL_WVARCHAR, std::string(2043, 'x') + "\xF0\x9F\x98\x80yy",
         std::string(2043, 'x') + "\xF0\x9F\x98\x80"},
        // Not UTF-8: nothing to keep whole.
        {SQL_WVARCHAR, std::string(2048, '\x80'), std::string(2047, '\x80')},
        {SQL_DECIMAL, "12345678901234567890.12", "12345678901234567890.12"},
        {SQL_VARBINARY, "\0\xff\0"s, "\0\xff\0"s},
        {SQL_VARBINARY, std::string(4096, '\xff'), std::string(4096, '\xff')},
        {SQL_VARBINARY, std::string(5000, '\xff'), std::string(4096, '\xff')},
    };
    for (const auto& c : cases) AddColumn(c.sqlType);
    scripted_row();
    for (const auto& c : cases) {
        scripted_cell_bytes(c.value.data(), static_cast<int>(c.value.size()));
    }
    ExecuteAndFetch();
    int index = 0;
    for (const auto& [sqlType, value, kept] : cases) {
        SCOPED_TRACE(index);
        EXPECT_EQ(Text(index), kept);
        ValueExtent extent = {};
        EXPECT_EQ(rs.GetImpl()->GetExtent(index, extent), VORDA_OK);
        EXPECT_EQ(extent.IsCut, value != kept);
        EXPECT_EQ(extent.Reported, static_cast<long long>(value.size()));
        char* bytes = nullptr;
        int size = 0;
        EXPECT_EQ(rs.GetBytes(index, &bytes, &size), VORDA_OK);
        EXPECT_EQ(size, sqlType == SQL_VARBINARY ? 4096 : 2048);
        EXPECT_EQ(std::memcmp(bytes, kept.data(), kept.size()), 0);
        ++index;
    }
    EXPECT_EQ(rs.GetStringAsUTF8(0, nullptr, nullptr), VORDA_OK);
    EXPECT_EQ(rs.GetBytes(0, nullptr, nullptr), VORDA_OK);
}

TEST_F(FetchTest, IndicatorsThatAreNotTheLength) {
    const std::string full(2047, 'x');
    const struct {
        std::string value;
        long long indicator;
        std::string kept;
        bool isCut;
    } cases[] = {
        {"abc", SQL_NO_TOTAL, "abc", false},
        {std::string(2043, 'x'), SQL_NO_TOTAL, std::string(2043, 'x'), false},
        {full + "yy", SQL_NO_TOTAL, full, true},
        {std::string(2046, 'x') + "\xC5\xBE", SQL_NO_TOTAL, std::string(2046, 'x'), true},
        {"abc", -2, "abc", false},
        {"abc", LLONG_MIN, "abc", false},
        {"abc", 0, "", false},
        {"abc", 2, "ab", false},
        {"abc", 5, std::string("abc\0\0", 5), false},
        {"abc", 2048, "abc", true},
        {"abc", LLONG_MAX, "abc", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.indicator);
        scripted_result();
        AddColumn(SQL_WVARCHAR);
        scripted_row();
        scripted_cell_bytes(c.value.data(), static_cast<int>(c.value.size()));
        scripted_cell_indicator(c.indicator);
        ExecuteAndFetch();
        EXPECT_EQ(Text(0), c.kept);
        ValueExtent extent = {};
        EXPECT_EQ(rs.GetImpl()->GetExtent(0, extent), VORDA_OK);
        EXPECT_EQ(extent.IsCut, c.isCut);
        EXPECT_EQ(extent.Reported, c.indicator);
        rs.Close();
    }
}

// What the buffer still holds behind the terminator belongs to an earlier row.
TEST_F(FetchTest, ACutAtAWholeCharacterEndsAtItsTerminator) {
    AddColumn(SQL_WVARCHAR);
    scripted_row();
    scripted_cell_bytes(std::string(3000, 'o').data(), 3000);
    ExecuteAndFetch();
    for (const int length : {2047, 2046, 2045, 2044}) {
        std::memset(g_bound.data, 'o', 2048);
        std::memset(g_bound.data, 'n', static_cast<std::size_t>(length));
        g_bound.data[length] = '\0';
        for (const SQLLEN indicator : {SQLLEN{2500}, SQLLEN{SQL_NO_TOTAL}}) {
            *g_bound.indicator = indicator;
            EXPECT_EQ(Text(0), std::string(static_cast<std::size_t>(length), 'n'));
        }
    }
    // No terminator anywhere.
    std::memset(g_bound.data, 'n', 2048);
    for (const SQLLEN indicator : {SQLLEN{2500}, SQLLEN{SQL_NO_TOTAL}}) {
        *g_bound.indicator = indicator;
        EXPECT_LE(Text(0).size(), 2048u);
    }
}

TEST(BindingRecord, ACloneHasABufferOfItsOwn) {
    _col_binding_info_ original;
    original.DataType = SQL_C_WCHAR;
    original.NativeVal.VBigInt = 77;
    original.ValLen = 3;
    original.StringVal.Set("abc");
    const auto clone = original.Clone();
    original.StringVal.Set("xyz");
    EXPECT_EQ(clone->DataType, SQL_C_WCHAR);
    EXPECT_EQ(clone->NativeVal.VBigInt, 77);
    EXPECT_EQ(clone->ValLen, 3);
    EXPECT_STREQ(clone->StringVal.Deref(), "abc");
}

}  // namespace
