#include "include/dbs.h"

#include <climits>
#include <string>

#include "include/sqltypes.h"
#include "unit/mono/scriptedtest.h"

namespace {

class DbsTest : public ScriptedTest {
  protected:
    void SetUp() override {
        ScriptedTest::SetUp();
        ASSERT_EQ(dbs.Init(), VORDA_OK);
    }
    void TearDown() override {
        EXPECT_EQ(dbs.Close(), VORDA_OK);
        ScriptedTest::TearDown();
    }

    int Open() { return dbs.Open("Server=a", 8); }
    void ExpectError(int code, const std::string& message) {
        EXPECT_EQ(dbs.GetLastError(), code);
        EXPECT_EQ(dbs.GetLastErrorMessage(), message);
    }
    // Opens and runs a query whose rows have one text of each of these lengths.
    void OpenTexts(std::initializer_list<int> lengths) {
        ASSERT_EQ(Open(), VORDA_OK);
        scripted_column("c", SQL_WVARCHAR, 5, 6, 7, SQL_NULLABLE);
        for (const int length : lengths) {
            scripted_row();
            scripted_cell_bytes(std::string(static_cast<std::size_t>(length), 'x').data(), length);
        }
        ASSERT_EQ(dbs.Execute("SELECT c", 8), VORDA_OK);
    }

    // What the getter writes, and nothing behind it.
    template <typename T>
    T Get(int (Dbs::*getter)(int, T*), int index) {
        struct {
            T value{};
            int end = 7;
        } target;
        EXPECT_EQ((dbs.*getter)(index, &target.value), VORDA_OK) << index;
        EXPECT_EQ(target.end, 7);
        return target.value;
    }

    Dbs dbs;
};

TEST_F(DbsTest, MethodsRecordTheErrorsTheyMeet) {
    EXPECT_EQ(dbs.Prepare("x", 1), VORDA_NOT_OPEN);
    ExpectError(1102, "The connection is not open.");
    FailNext("SQLDriverConnectW", 17, "no such server");
    EXPECT_EQ(Open(), VORDA_ODBC_ERROR);
    ExpectError(17, "no such server");
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(dbs.Close(), VORDA_OK);
        EXPECT_EQ(scripted_live_handles(0), 0);
        EXPECT_EQ(dbs.Execute("x", 1), VORDA_NOT_OPEN);
    }
    EXPECT_EQ(dbs.Init(), VORDA_OK);
    EXPECT_EQ(Open(), VORDA_OK);
    EXPECT_EQ(dbs.Execute(), VORDA_NOT_PREPARED);
    ExpectError(1103, "The prepared statement is required");
    const std::string longText(600, 'e');
    FailNext("SQLExecDirectW", INT_MIN, longText.c_str());
    EXPECT_EQ(dbs.Execute("x", 1), VORDA_ODBC_ERROR);
    ExpectError(INT_MIN, longText.substr(0, 511));
    FailNext("SQLPrepareW", 6, "six");
    EXPECT_EQ(dbs.Prepare("x", 1), VORDA_ODBC_ERROR);
    ExpectError(6, "six");

    // What binding folds into success is not recorded; a refusal is.
    const int value = 1, length = 4;
    FailNext("SQLBindParameter", 7, "seven");
    EXPECT_EQ(dbs.AddParam(1, DBTYPE_INTEGER, &value, 4, &length), VORDA_OK);
    ExpectError(6, "six");
    EXPECT_EQ(dbs.AddParam(1, DBTYPE_DECIMAL, &value, 4, &length), -1);
    ExpectError(1105, "Unknown parameter data type.");
    // Nor do the getters record anything.
    int read = 0;
    EXPECT_EQ(dbs.GetInt(0, &read), VORDA_NOT_EXECUTED);
    ExpectError(1105, "Unknown parameter data type.");
}

TEST_F(DbsTest, NumbersDatesAndTimes) {
    Open();
    for (const int type : {SQL_BIT, SQL_TINYINT, SQL_SMALLINT, SQL_INTEGER, SQL_BIGINT, SQL_REAL,
                           SQL_DOUBLE, SQL_TYPE_TIMESTAMP}) {
        scripted_column("c", type, 0, 0, 0, 0);
    }
    scripted_row();
    const int ints[] = {1, 200, -32768, INT_MIN};
    for (const int value : ints) scripted_cell_int(value);
    scripted_cell_int(LLONG_MIN + 5);
    for (int i = 0; i < 2; ++i) scripted_cell_double(0.1);
    scripted_cell_timestamp(-44, 3, 15, 23, 59, 58, 123456789);
    dbs.Execute("SELECT 1", 8);
    dbs.Next();
    for (int i = 0; i < 4; ++i) EXPECT_EQ(Get(&Dbs::GetInt, i), ints[i]);
    EXPECT_EQ(Get(&Dbs::GetInt, 4), 5);
    EXPECT_EQ(Get(&Dbs::GetBigint, 4), LLONG_MIN + 5);
    EXPECT_EQ(Get(&Dbs::GetDouble, 5), static_cast<double>(0.1f));
    EXPECT_EQ(Get(&Dbs::GetDouble, 6), 0.1);
    const _db_date_ date = Get(&Dbs::GetDate, 7);
    EXPECT_TRUE(date.Year == -44 && date.Month == 3 && date.Day == 15);
    const _db_time_ time = Get(&Dbs::GetTime, 7);
    EXPECT_TRUE(time.Day == 15 && time.Hour == 23 && time.Minute == 59 && time.Second == 58);
    EXPECT_EQ(time.Millisecond, 123456789);
    const _db_datetime_ stamp = Get(&Dbs::GetDateTime, 7);
    EXPECT_TRUE(stamp.Year == -44 && stamp.Month == 3 && stamp.Day == 15);
    EXPECT_TRUE(stamp.Hour == 23 && stamp.Minute == 59 && stamp.Second == 58);
    EXPECT_EQ(stamp.Millisecond, 123);
}

TEST_F(DbsTest, TextsOfAllLengths) {
    // 256 bytes hold a text of 127: twice its length and a terminator of two.
    const std::initializer_list<int> lengths = {100, 127, 128, 255, 10, 2047};
    OpenTexts(lengths);
    for (const int expected : lengths) {
        EXPECT_EQ(dbs.Next(), 1);
        char* text = nullptr;
        char* same = nullptr;
        int length = -7;
        EXPECT_EQ(dbs.GetStringAsUTF8(0, &text, &length), VORDA_OK);
        EXPECT_EQ(length, expected);
        EXPECT_EQ(text, std::string(static_cast<std::size_t>(expected), 'x'));
        EXPECT_EQ(dbs.GetStringAsUCS2(0, &same, &length), VORDA_OK);
        EXPECT_EQ(same, text);
    }
}

TEST_F(DbsTest, WhatCannotBeReadLeavesTheOutputsAlone) {
    OpenTexts({3});
    char* text = nullptr;
    int length = INT_MAX;
    EXPECT_EQ(dbs.GetStringAsUTF8(0, &text, &length), SQL_NULL_DATA);
    EXPECT_EQ(dbs.GetStringAsUTF8(1, &text, &length), VORDA_INDEX_OUT_OF_RANGE);
    EXPECT_TRUE(text == nullptr && length == INT_MAX);
    EXPECT_EQ(dbs.GetColumnInfo(INT_MAX).ColumnName.Length(), 0);
}

}  // namespace
