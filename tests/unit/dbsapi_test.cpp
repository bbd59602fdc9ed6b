// The C interface, and the C++ class on it where that does more than pass on.
#include "include/dbsapi.h"

#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "include/cell.h"
#include "include/dbs.h"
#include "unit/mono/scriptedtest.h"

namespace {

class DbsApiTest : public ScriptedTest {
  protected:
    void SetUp() override {
        ScriptedTest::SetUp();
        ASSERT_EQ(DBSAllocHandle(SQL_HANDLE_DBC, nullptr, &handle), VORDA_OK);
        ASSERT_EQ(DBSDriverConnect(handle, "Server=a", 8), VORDA_OK);
        TakeLog();
    }
    void TearDown() override {
        EXPECT_EQ(DBSDisconnect(handle), VORDA_OK);
        EXPECT_EQ(DBSFreeHandle(SQL_HANDLE_DBC, handle), VORDA_OK);
        ScriptedTest::TearDown();
    }

    int Execute() { return DBSExecDirect(handle, "SELECT c", SQL_NTS); }
    int GetData(DBSINTEGER column, int type, void* target, DBSLEN* length = nullptr) {
        return DBSGetData(handle, column, static_cast<DBSSMALLINT>(type), target, 0, length);
    }
    // A result of one row and one text column, fetched.
    void FetchText(const std::string& text) {
        AddResult({SQL_WVARCHAR});
        AddBytes(text);
        ASSERT_EQ(Execute(), VORDA_OK);
        ASSERT_GE(DBSFetch(handle), VORDA_OK);
    }

    DBSHANDLE handle = nullptr;
};

// Every function on a handle that cannot work: harmless, and nothing reaches the runtime.
void ExpectHarmless(DBSHANDLE handle) {
    int number = 7, length = 7;
    DBSSMALLINT small[5] = {7, 7, 7, 7, 7};
    DBSULEN size = 7;
    DBSINTEGER native = 7;
    char text[128] = "x";
    EXPECT_EQ(DBSDriverConnect(handle, "Server=a", 8), VORDA_NOT_OPEN);
    EXPECT_EQ(DBSSetStmtAttr(handle, 22, nullptr, 4), VORDA_NOT_OPEN);
    EXPECT_EQ(DBSPrepare(handle, "x", 1, &length), VORDA_NOT_OPEN);
    EXPECT_EQ(DBSBindParameter(handle, 1, 0, 11, 0, 0, 0, &number, 4, &length), VORDA_NOT_OPEN);
    EXPECT_EQ(DBSExecute(handle), VORDA_NOT_OPEN);
    EXPECT_EQ(DBSExecDirect(handle, "x", 1), VORDA_NOT_OPEN);
    EXPECT_EQ(DBSRowCount(handle, &number), VORDA_OK);
    EXPECT_EQ(number, 0);
    EXPECT_EQ(DBSNumResultCols(handle, small), -1);
    EXPECT_EQ(small[0], -1);
    EXPECT_EQ(DBSDescribeCol(handle, 0, text, &small[0], &small[1], &size, &small[2], &small[3],
                             &small[4]),
              VORDA_OK);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(small[0], 0);
    for (const DBSSMALLINT type : {DBSSMALLINT{11}, DBSSMALLINT{16}, DBSSMALLINT{4}}) {
        EXPECT_EQ(DBSGetData(handle, 0, type, text, 0, &length), VORDA_NOT_EXECUTED);
    }
    DbCell cell = {};
    EXPECT_EQ(DBSGetCell(handle, 0, &cell), VORDA_NOT_EXECUTED);
    EXPECT_EQ(DBSFetch(handle), VORDA_NOT_EXECUTED);
    EXPECT_EQ(DBSFetchError(handle, &native, text, small), VORDA_NOT_EXECUTED);
    EXPECT_EQ(DBSError(handle, &native, text, small), VORDA_OK);
    EXPECT_EQ(native, VORDA_NOT_OPEN);
    EXPECT_EQ(DBSGetDiagField(2, handle, 1, 1, text, 8, small), VORDA_OK);
    EXPECT_EQ(DBSDisconnect(handle), VORDA_OK);
}

TEST_F(DbsApiTest, NullAndDisconnectedHandlesAreHarmless) {
    FetchText("abc");
    DBSDisconnect(handle);
    EXPECT_EQ(scripted_live_handles(0), 0);
    TakeLog();
    ExpectHarmless(handle);
    ExpectHarmless(nullptr);
    EXPECT_EQ(DBSFreeHandle(SQL_HANDLE_DBC, nullptr), VORDA_OK);
    EXPECT_EQ(TakeLog(), "\n");
}

TEST_F(DbsApiTest, TextIsCopiedTwiceAsLongButOnlyFromItsBuffer) {
    // The copies of the last two are longer than the bound buffer.
    for (const std::size_t size : {0u, 10u, 1024u, 1025u, 2047u}) {
        const std::string text(size, 'x');
        FetchText(text);
        for (const int type : {DBTYPE_TEXT, DBTYPE_STRING}) {
            DBSLEN length = -7;
            EXPECT_EQ(GetData(0, type, nullptr, &length), VORDA_OK);
            EXPECT_EQ(length, std::ssize(text));
            // Not a byte longer, so that the sanitizer sees one too many.
            std::vector<char> target(size * 2, '#');
            EXPECT_EQ(GetData(0, type, target.data(), &length), VORDA_OK);
            EXPECT_EQ(std::string(target.data(), size * 2), text + std::string(size, '\0'));
        }
    }
}

TEST_F(DbsApiTest, NullsAndBadIndexesLeaveTheOutputsAlone) {
    // Delivered, but said to be NULL; and not delivered at all.
    AddResult({SQL_INTEGER, SQL_WVARCHAR});
    AddCell(SQL_C_SBIGINT, 1LL);
    scripted_cell_indicator(SQL_NULL_DATA);
    Execute();
    EXPECT_EQ(DBSFetch(handle), VORDA_OK);
    const std::string before(64, '#');
    for (const DBSINTEGER column : {0LL, 1LL, 2LL, -1LL, 1LL << 32, LLONG_MAX, LLONG_MIN}) {
        SCOPED_TRACE(column);
        const int status = column == 0 || column == 1 ? SQL_NULL_DATA : VORDA_INDEX_OUT_OF_RANGE;
        std::string target = before;
        for (const int type :
             {DBTYPE_BIT, DBTYPE_INTEGER, DBTYPE_BIGINT, DBTYPE_DOUBLE, DBTYPE_DATE, DBTYPE_TIME,
              DBTYPE_DATETIME, DBTYPE_STRING, DBTYPE_TEXT, DBTYPE_BINARY}) {
            DBSLEN length = -7;
            EXPECT_EQ(GetData(column, type, target.data(), &length), status) << type;
            EXPECT_EQ(length, -7);
        }
        EXPECT_EQ(target, before);
        DbCell cell = {};
        EXPECT_EQ(DBSGetCell(handle, column, &cell), status == SQL_NULL_DATA ? 0 : status);
    }
}

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
    using Fields = std::vector<int>;
    template <typename T>
    Fields GetFields(int (Dbs::*getter)(int, T*), int index) {
        const T value = Get(getter, index);
        Fields fields(sizeof value / sizeof(int));
        std::memcpy(fields.data(), &value, sizeof value);
        return fields;
    }

    Dbs dbs;
};

TEST_F(DbsTest, MethodsRecordTheErrorsTheyMeet) {
    FailNext("SQLDriverConnectW", 17, "no such server");
    EXPECT_EQ(Open(), VORDA_ODBC_ERROR);
    ExpectError(17, "no such server");
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(dbs.Close(), VORDA_OK);
        EXPECT_EQ(scripted_live_handles(0), 0);
        EXPECT_EQ(dbs.Execute("x", 1), VORDA_NOT_OPEN);
    }
    ExpectError(1102, "");
    EXPECT_EQ(dbs.Init(), VORDA_OK);
    EXPECT_EQ(Open(), VORDA_OK);
    const std::string longText(600, 'e');
    FailNext("SQLExecDirectW", INT_MIN, longText.c_str());
    EXPECT_EQ(dbs.Execute("x", 1), VORDA_ODBC_ERROR);
    ExpectError(INT_MIN, longText.substr(0, 511));
}

TEST_F(DbsTest, NumbersDatesAndTimes) {
    Open();
    AddResult({SQL_BIT, SQL_TINYINT, SQL_SMALLINT, SQL_INTEGER, SQL_BIGINT, SQL_REAL, SQL_DOUBLE,
               SQL_TYPE_TIMESTAMP});
    const long long ints[] = {1, 200, -32768, INT_MIN};
    for (const long long value : ints) AddCell(SQL_C_SBIGINT, value);
    AddCell(SQL_C_SBIGINT, LLONG_MIN + 5);
    for (int i = 0; i < 2; ++i) AddCell(SQL_C_DOUBLE, 0.1);
    AddCell(SQL_C_TIMESTAMP, SQL_TIMESTAMP_STRUCT{-44, 3, 15, 23, 59, 58, 123456789});
    dbs.Execute("SELECT 1", 8);
    dbs.Next();
    for (int i = 0; i < 4; ++i) EXPECT_EQ(Get(&Dbs::GetInt, i), ints[i]);
    EXPECT_EQ(Get(&Dbs::GetInt, 4), 5);
    EXPECT_EQ(Get(&Dbs::GetBigint, 4), LLONG_MIN + 5);
    EXPECT_EQ(Get(&Dbs::GetDouble, 5), static_cast<double>(0.1f));
    EXPECT_EQ(Get(&Dbs::GetDouble, 6), 0.1);
    EXPECT_EQ(GetFields(&Dbs::GetDate, 7), Fields({-44, 3, 15}));
    EXPECT_EQ(GetFields(&Dbs::GetTime, 7), Fields({15, 23, 59, 58, 123456789}));
    EXPECT_EQ(GetFields(&Dbs::GetDateTime, 7), Fields({-44, 3, 15, 23, 59, 58, 123}));
}

TEST_F(DbsTest, TextsOfAllLengths) {
    Open();
    AddResult({SQL_WVARCHAR});
    // 256 bytes hold a text of 127: twice its length and a terminator of two.
    const std::size_t lengths[] = {100, 127, 128, 255, 10, 2047};
    for (const std::size_t length : lengths) {
        AddBytes(std::string(length, 'x'));
        scripted_row();
    }
    dbs.Execute("SELECT c", 8);
    char* text = nullptr;
    int length = -7;
    EXPECT_EQ(dbs.GetStringAsUTF8(0, &text, &length), SQL_NULL_DATA);
    EXPECT_EQ(dbs.GetStringAsUTF8(1, &text, &length), VORDA_INDEX_OUT_OF_RANGE);
    EXPECT_TRUE(text == nullptr && length == -7);
    EXPECT_EQ(dbs.GetColumnInfo(INT_MAX).ColumnName.Length(), 0);
    EXPECT_EQ(dbs.GetColumnInfo(0).Clone()->DataType, DBTYPE_STRING);
    for (const std::size_t expected : lengths) {
        EXPECT_EQ(dbs.Next(), 1);
        char* same = nullptr;
        EXPECT_EQ(dbs.GetStringAsUTF8(0, &text, &length), VORDA_OK);
        EXPECT_EQ(length, static_cast<int>(expected));
        EXPECT_EQ(text, std::string(expected, 'x'));
        EXPECT_EQ(dbs.GetStringAsUCS2(0, &same, &length), VORDA_OK);
        EXPECT_EQ(same, text);
    }
}

}  // namespace
