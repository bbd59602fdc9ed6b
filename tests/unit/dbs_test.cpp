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

    Dbs dbs;
};

TEST_F(DbsTest, CloseAfterAFailedOpenFreesEverything) {
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
}

TEST_F(DbsTest, MethodsRecordTheErrorsTheyMeet) {
    EXPECT_EQ(dbs.Prepare("x", 1), VORDA_NOT_OPEN);
    ExpectError(1102, "The connection is not open.");
    Open();
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

TEST_F(DbsTest, DatesAndTimesFillTheirOwnRecord) {
    Open();
    scripted_column("t", SQL_TYPE_TIMESTAMP, 0, 0, 0, 0);
    scripted_row();
    scripted_cell_timestamp(2024, 2, 29, 23, 59, 58, 123456789);
    dbs.Execute("SELECT 1", 8);
    dbs.Next();
    struct {
        _db_date_ date;
        int dateEnd = 7;
        _db_time_ time;
        int timeEnd = 7;
        _db_datetime_ stamp;
    } values;
    EXPECT_EQ(dbs.GetDate(0, &values.date), VORDA_OK);
    EXPECT_EQ(dbs.GetTime(0, &values.time), VORDA_OK);
    EXPECT_EQ(dbs.GetDateTime(0, &values.stamp), VORDA_OK);
    EXPECT_TRUE(values.date.Day == 29 && values.dateEnd == 7);
    EXPECT_TRUE(values.time.Millisecond == 123456789 && values.timeEnd == 7);
    EXPECT_TRUE(values.stamp.Year == 2024 && values.stamp.Millisecond == 123);
}

TEST_F(DbsTest, TheBufferGrowsByDoublingAndNeverShrinks) {
    // 256 bytes hold a text of 127: twice its length and a terminator of two.
    OpenTexts({100, 127, 128, 255, 10, 2047});
    const auto read = [this](std::size_t expected) {
        EXPECT_EQ(dbs.Next(), 1);
        char* text = nullptr;
        char* same = nullptr;
        int length = -7;
        EXPECT_EQ(dbs.GetStringAsUTF8(0, &text, &length), VORDA_OK);
        EXPECT_EQ(std::string(text, static_cast<std::size_t>(length)), std::string(expected, 'x'));
        EXPECT_EQ(dbs.GetStringAsUCS2(0, &same, &length), VORDA_OK);
        EXPECT_EQ(same, text);
        return text;
    };
    const char* const first = read(100);
    EXPECT_EQ(read(127), first);
    const char* const second = read(128);
    EXPECT_NE(second, first);
    EXPECT_EQ(read(255), second);
    EXPECT_EQ(read(10), second);
    read(2047);
}

TEST_F(DbsTest, WhatCannotBeReadLeavesTheOutputsAlone) {
    OpenTexts({3});
    char* text = nullptr;
    int length = INT_MAX;
    long long reported = 7;
    EXPECT_EQ(dbs.GetStringAsUTF8(0, &text, &length), SQL_NULL_DATA);
    EXPECT_EQ(dbs.GetStringAsUTF8(1, &text, &length), VORDA_INDEX_OUT_OF_RANGE);
    EXPECT_FALSE(dbs.IsCut(0, &reported));
    EXPECT_TRUE(text == nullptr && length == INT_MAX && reported == 7);
    EXPECT_EQ(dbs.GetColumnInfo(INT_MAX).ColumnName.Length(), 0);
}

}  // namespace
