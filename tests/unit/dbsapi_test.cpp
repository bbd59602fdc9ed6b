// The C interface, and the C++ class on it where that does more than pass on.
#include "include/dbsapi.h"

#include <dlfcn.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "include/cell.h"
#include "include/dbs.h"
#include "mono/odbc.h"
#include "unit/mono/scriptedtest.h"

namespace {

using namespace std::string_literals;

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

    int Execute(const char* sql = "SELECT c") { return DBSExecDirect(handle, sql, SQL_NTS); }
    int SetBatchSize(std::intptr_t size) {
        return DBSSetStmtAttr(handle, 22, reinterpret_cast<void*>(size), 4);
    }
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
    void ExpectError(int code, const std::string& message) {
        DBSINTEGER native = 7;
        DBSSMALLINT length = 7;
        EXPECT_EQ(DBSError(handle, &native, nullptr, &length), VORDA_OK);
        EXPECT_EQ(native, code);
        ASSERT_EQ(length, std::ssize(message));
        std::vector<char> text(message.size() + 1, '#');
        EXPECT_EQ(DBSError(handle, nullptr, text.data(), &length), VORDA_OK);
        EXPECT_EQ(text.data(), message);
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
    // Only connections are served.
    DBSHANDLE other = handle;
    for (const DBSSMALLINT type : {DBSSMALLINT{1}, DBSSMALLINT{3}, DBSSMALLINT{0}}) {
        EXPECT_EQ(DBSAllocHandle(type, nullptr, &other), VORDA_OK);
        EXPECT_EQ(other, handle);
        EXPECT_EQ(DBSFreeHandle(type, handle), VORDA_OK);
    }
    EXPECT_EQ(TakeLog(), "\n");
}

TEST_F(DbsApiTest, FreeingDoesNotDisconnect) {
    FetchText("abc");
    TakeLog();
    EXPECT_EQ(DBSFreeHandle(SQL_HANDLE_DBC, handle), VORDA_OK);
    EXPECT_EQ(TakeLog(), "\nSQLFreeStmt(stmt1, 1)\n");
    EXPECT_EQ(scripted_live_handles(SQL_HANDLE_DBC), 1);
    // Nobody can free what is left.
    handle = nullptr;
    scripted_reset();
    g_driver_handle_counter = 0;
    UnloadMethods();
}

TEST_F(DbsApiTest, ANullStatementIsAnEmptyOne) {
    EXPECT_EQ(DBSPrepare(handle, nullptr, 5, nullptr), VORDA_OK);
    EXPECT_NE(TakeLog().find("SQLPrepareW(stmt1, \"\", 0)"), std::string::npos);
    EXPECT_EQ(Execute(nullptr), VORDA_OK);
    EXPECT_NE(TakeLog().find("SQLExecDirectW(stmt2, \"\", 0)"), std::string::npos);
    DBSLEN markers = -7;
    EXPECT_EQ(DBSPrepare(handle, " SELECT ?, '?', @name", 2, &markers), VORDA_OK);
    EXPECT_EQ(markers, 2);
}

TEST_F(DbsApiTest, AFailedExecutionAffectsNoRows) {
    scripted_row_count(3);
    EXPECT_EQ(Execute("DELETE FROM t"), VORDA_OK);
    EXPECT_EQ(DBSExecute(handle), VORDA_NOT_PREPARED);
    DBSLEN rows = -7;
    DBSRowCount(handle, &rows);
    EXPECT_EQ(rows, 0);
}

TEST_F(DbsApiTest, WantOfMemoryIsAStatus) {
    if (dlsym(RTLD_DEFAULT, "__asan_init") != nullptr) {
        GTEST_SKIP() << "the sanitizer ends the process instead";
    }
    DBSPrepare(handle, "SELECT ?", SQL_NTS, nullptr);
    SetBatchSize(INT_MAX);
    const int length = SQL_NULL_DATA;
    EXPECT_EQ(DBSBindParameter(handle, 1, 0, DBTYPE_STRING, 0, 0, 0, "", INT_MAX, &length),
              VORDA_OUT_OF_MEMORY);
    SetBatchSize(1);
    EXPECT_EQ(DBSExecute(handle), VORDA_OK);
}

// The other typed getters are reached through Dbs, which asks for them by one code each.
TEST_F(DbsApiTest, CodesThatShareAGetter) {
    AddResult({SQL_INTEGER});
    scripted_cell_int(-5);
    Execute();
    EXPECT_EQ(DBSFetch(handle), VORDA_OK);
    for (const int type : {DBTYPE_TINYINT, DBTYPE_BIT, DBTYPE_SMALLINT, DBTYPE_INTEGER}) {
        int integer[2] = {7, 7};
        EXPECT_EQ(GetData(0, type, integer), VORDA_OK);
        EXPECT_TRUE(integer[0] == -5 && integer[1] == 7) << type;
    }
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
    // Codes that no getter serves stop at the text's own terminator.
    FetchText("abc\0def"s);
    for (const int type : {0 + DBTYPE_BINARY, 0 + DBTYPE_DECIMAL, 0 + DBTYPE_NUMERIC, 0, -3, 99}) {
        char target[5] = "####";
        DBSLEN lengths[] = {-7, -7};
        EXPECT_EQ(GetData(0, type, nullptr, &lengths[0]), VORDA_OK);
        EXPECT_EQ(GetData(0, type, target, &lengths[1]), VORDA_OK);
        EXPECT_TRUE(lengths[0] == 3 && lengths[1] == 3) << type;
        EXPECT_EQ(std::string(target, 5), "abc\0\0"s);
    }
}

TEST_F(DbsApiTest, NullsAndBadIndexesLeaveTheOutputsAlone) {
    // Delivered, but said to be NULL; and not delivered at all.
    AddResult({SQL_INTEGER, SQL_WVARCHAR});
    scripted_cell_int(1);
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
        std::vector<char> name(128, '#');
        DBSSMALLINT length = 7, type = 7, other = 7;
        DBSULEN size = 7;
        for (char* const place : {static_cast<char*>(nullptr), name.data()}) {
            DBSDescribeCol(handle, column, place, &length, &type, &size, &other, &other, &other);
        }
        const bool isThere = status == SQL_NULL_DATA;
        EXPECT_STREQ(name.data(), isThere ? "c" : "");
        EXPECT_TRUE(length == (isThere ? 1 : 0) && (type != 0) == isThere);
    }
    // Errors of the result set stay there.
    ExpectError(VORDA_OK, "");
}

TEST_F(DbsApiTest, ErrorsNeedNoPlaceForTheirText) {
    DBSINTEGER native = 7;
    DBSSMALLINT length = 7;
    char text[16] = "#";
    for (const int attribute : {23, 0, -22, 21})
        EXPECT_EQ(DBSSetStmtAttr(handle, attribute, nullptr, 0), VORDA_UNKNOWN_ATTRIBUTE);
    EXPECT_EQ(DBSError(handle, nullptr, text, nullptr), VORDA_OK);
    EXPECT_STREQ(text, "#");

    // Those of a fetch are read on their own.
    FetchText("abc");
    EXPECT_EQ(DBSFetchError(handle, nullptr, nullptr, nullptr), VORDA_NO_MORE_DATA);
    FailNext("SQLFetch", 8, "connection lost");
    EXPECT_EQ(DBSFetch(handle), 8);
    EXPECT_EQ(DBSFetchError(handle, &native, text, &length), VORDA_OK);
    EXPECT_TRUE(native == 8 && length == 15);
    EXPECT_STREQ(text, "connection lost");
    ExpectError(1103, "Unknown dbsource attribute.");
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

    dbs.Prepare("x", 1);
    // What binding folds into success is not recorded; a refusal is.
    const int value = 1, length = 4;
    FailNext("SQLBindParameter", 7, "seven");
    EXPECT_EQ(dbs.AddParam(1, DBTYPE_INTEGER, &value, 4, &length), VORDA_OK);
    EXPECT_EQ(dbs.GetLastError(), INT_MIN);
    EXPECT_EQ(dbs.AddParam(1, DBTYPE_DECIMAL, &value, 4, &length), -1);
    ExpectError(1105, "Unknown parameter data type.");
    // Nor do the getters record anything.
    int read = 0;
    EXPECT_EQ(dbs.GetInt(0, &read), VORDA_NOT_EXECUTED);
    ExpectError(1105, "Unknown parameter data type.");
}

TEST_F(DbsTest, NumbersDatesAndTimes) {
    Open();
    AddResult({SQL_BIT, SQL_TINYINT, SQL_SMALLINT, SQL_INTEGER, SQL_BIGINT, SQL_REAL, SQL_DOUBLE,
               SQL_TYPE_TIMESTAMP});
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
