#include "include/dbs.h"

#include <climits>
#include <memory>
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
            scripted_cell_text(std::string(static_cast<std::size_t>(length), 'x').c_str());
        }
        ASSERT_EQ(dbs.Execute("SELECT c", 8), VORDA_OK);
    }

    Dbs dbs;
};

TEST_F(DbsTest, OpensAndClosesMoreThanOnce) {
    ExpectError(VORDA_OK, "");
    EXPECT_EQ(dbs.IsOpen(), 0);
    EXPECT_EQ(Open(), VORDA_OK);
    EXPECT_EQ(dbs.IsOpen(), 1);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(dbs.Close(), VORDA_OK);
        EXPECT_EQ(dbs.IsOpen(), 0);
        EXPECT_EQ(scripted_live_handles(0), 0);
    }
    EXPECT_NE(dbs.Execute("x", 1), VORDA_OK);
    EXPECT_EQ(dbs.Init(), VORDA_OK);
    EXPECT_EQ(Open(), VORDA_OK);
}

TEST_F(DbsTest, CloseAfterAFailedOpenFreesEverything) {
    FailNext("SQLDriverConnectW", 17, "no such server");
    EXPECT_EQ(Open(), VORDA_ODBC_ERROR);
    ExpectError(17, "no such server");
    EXPECT_EQ(dbs.IsOpen(), 0);
    EXPECT_EQ(scripted_live_handles(0), 2);
    EXPECT_EQ(dbs.Close(), VORDA_OK);
    EXPECT_EQ(scripted_live_handles(0), 0);
}

TEST_F(DbsTest, MethodsRecordTheErrorsTheyMeet) {
    EXPECT_EQ(dbs.Prepare("x", 1), VORDA_NOT_OPEN);
    ExpectError(1102, "The connection is not open.");
    Open();
    EXPECT_EQ(dbs.Execute(), VORDA_NOT_PREPARED);
    ExpectError(1103, "The prepared statement is required");
    FailNext("SQLExecDirectW", 5, "five");
    EXPECT_EQ(dbs.Execute("x", 1), VORDA_ODBC_ERROR);
    ExpectError(5, "five");
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

TEST_F(DbsTest, LongErrorsAreCut) {
    Open();
    for (const std::size_t length : {511u, 512u, 1023u}) {
        const std::string text(length, 'e');
        FailNext("SQLExecDirectW", INT_MIN, text.c_str());
        dbs.Execute("x", 1);
        ExpectError(INT_MIN, std::string(511, 'e'));
    }
}

TEST_F(DbsTest, ABatchReachesTheRuntime) {
    Open();
    EXPECT_EQ(dbs.SetBatchSize(2), VORDA_OK);
    EXPECT_EQ(dbs.Prepare("INSERT INTO t VALUES(?)", SQL_NTS), VORDA_OK);
    const short values[] = {1, 2};
    const int lengths[] = {2, 2};
    EXPECT_EQ(dbs.AddParam(1, DBTYPE_SMALLINT, values, sizeof(short), lengths), VORDA_OK);
    scripted_row_count(2);
    TakeLog();
    EXPECT_EQ(dbs.Execute(), VORDA_OK);
    EXPECT_EQ(TakeLog(), R"(
SQLSetStmtAttr(stmt1, 22, 2)
SQLExecute(stmt1)
  1: values=[1, 2], lens=[2, 2]
SQLSetStmtAttr(stmt1, 22, 1)
SQLRowCount(stmt1, ptr)
)");
    EXPECT_EQ(dbs.GetRowCount(), 2);
    EXPECT_EQ(dbs.GetColumnCount(), 0);
}

TEST_F(DbsTest, NextEndsOnlyAtTheEndOfTheRows) {
    OpenTexts({3, 3, 3});
    EXPECT_EQ(dbs.GetColumnCount(), 1);
    EXPECT_EQ(dbs.GetRowCount(), 0);
    EXPECT_EQ(dbs.Next(), 1);
    EXPECT_FALSE(dbs.FetchFailed());

    FailNext("SQLFetch", 100, "connection lost");
    EXPECT_EQ(dbs.Next(), 1);
    ExpectError(VORDA_OK, "");
    char* text = nullptr;
    int length = 7;
    EXPECT_GT(dbs.GetStringAsUTF8(0, &text, &length), VORDA_OK);
    EXPECT_TRUE(dbs.FetchFailed());
    ExpectError(100, "connection lost");

    WarnNext("SQLFetch", 100, "just so you know");
    EXPECT_EQ(dbs.Next(), 1);
    EXPECT_FALSE(dbs.FetchFailed());
    EXPECT_EQ(dbs.GetStringAsUTF8(0, &text, &length), VORDA_OK);
    EXPECT_EQ(dbs.Next(), 1);
    for (int i = 0; i < 2; ++i) EXPECT_EQ(dbs.Next(), 0);
    EXPECT_FALSE(dbs.FetchFailed());
}

TEST_F(DbsTest, Columns) {
    Open();
    scripted_column(std::string(300, 'n').c_str(), SQL_DECIMAL, 70000, 10, -2, SQL_NO_NULLS);
    EXPECT_EQ(dbs.Execute("SELECT 1", 8), VORDA_OK);
    const DbColumnInfo info = dbs.GetColumnInfo(0);
    EXPECT_EQ(info.ColumnName.Deref(), std::string(127, 'n'));
    EXPECT_EQ(info.DataType, DBTYPE_DECIMAL);
    EXPECT_EQ(info.ColumnSize, 70000);
    EXPECT_EQ(info.Precision, 10);
    EXPECT_EQ(info.Scale, -2);
    EXPECT_EQ(info.IsNullable, SQL_NO_NULLS);
    for (const int index : {1, -1, INT_MAX, INT_MIN}) {
        EXPECT_EQ(dbs.GetColumnInfo(index).ColumnName.Length(), 0);
    }
}

TEST_F(DbsTest, Values) {
    Open();
    scripted_column("i", SQL_BIGINT, 0, 0, 0, 0);
    scripted_column("d", SQL_DOUBLE, 0, 0, 0, 0);
    scripted_column("t", SQL_TYPE_TIMESTAMP, 0, 0, 0, 0);
    scripted_row();
    scripted_cell_int((1LL << 32) + 5);
    scripted_cell_double(0.5);
    scripted_cell_timestamp(2024, 2, 29, 23, 59, 58, 123456789);
    EXPECT_EQ(dbs.Execute("SELECT 1", 8), VORDA_OK);
    EXPECT_EQ(dbs.Next(), 1);

    int integer = 0;
    long long big = 0;
    double real = 0;
    _db_date_ date = {};
    _db_time_ time = {};
    _db_datetime_ stamp = {};
    EXPECT_EQ(dbs.GetInt(0, &integer), VORDA_OK);
    EXPECT_EQ(dbs.GetBigint(0, &big), VORDA_OK);
    EXPECT_EQ(dbs.GetDouble(1, &real), VORDA_OK);
    EXPECT_EQ(dbs.GetDate(2, &date), VORDA_OK);
    EXPECT_EQ(dbs.GetTime(2, &time), VORDA_OK);
    EXPECT_EQ(dbs.GetDateTime(2, &stamp), VORDA_OK);
    EXPECT_TRUE(integer == 5 && big == (1LL << 32) + 5 && real == 0.5);
    EXPECT_TRUE(date.Month == 2 && time.Millisecond == 123456789 && stamp.Millisecond == 123);
}

TEST_F(DbsTest, TheBufferGrowsByDoublingAndNeverShrinks) {
    // 256 bytes hold a text of 127: twice its length and a terminator of two.
    OpenTexts({100, 127, 128, 255, 10, 2047});
    const auto read = [this](int expected) {
        EXPECT_EQ(dbs.Next(), 1);
        char* text = nullptr;
        int length = -7;
        EXPECT_EQ(dbs.GetStringAsUTF8(0, &text, &length), VORDA_OK);
        EXPECT_EQ(std::string(text, static_cast<std::size_t>(length)),
                  std::string(static_cast<std::size_t>(expected), 'x'));
        char* same = nullptr;
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

TEST_F(DbsTest, CutsAreToldAndNullsLeaveTheOutputsAlone) {
    OpenTexts({2047, 3000});
    long long reported = 0;
    EXPECT_EQ(dbs.Next(), 1);
    EXPECT_FALSE(dbs.IsCut(0, &reported));
    EXPECT_EQ(reported, 2047);
    EXPECT_EQ(dbs.Next(), 1);
    EXPECT_TRUE(dbs.IsCut(0, &reported));
    EXPECT_EQ(reported, 3000);

    scripted_column("c", SQL_WVARCHAR, 0, 0, 0, SQL_NULLABLE);
    scripted_row();
    dbs.Execute("SELECT c", 8);
    dbs.Next();
    char* text = nullptr;
    int length = INT_MAX;
    EXPECT_EQ(dbs.GetStringAsUTF8(0, &text, &length), SQL_NULL_DATA);
    EXPECT_EQ(dbs.GetStringAsUTF8(1, &text, &length), VORDA_INDEX_OUT_OF_RANGE);
    EXPECT_FALSE(dbs.IsCut(0, &reported));
    EXPECT_TRUE(text == nullptr && length == INT_MAX && reported == 3000);
}

}  // namespace
