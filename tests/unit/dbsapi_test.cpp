#include "include/dbsapi.h"

#include <dlfcn.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "include/cell.h"
#include "include/dbsource.h"
#include "mono/odbc.h"
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

    int GetData(DBSINTEGER column, int type, void* target, DBSLEN* length = nullptr) {
        return DBSGetData(handle, column, static_cast<DBSSMALLINT>(type), target, 0, length);
    }
    // A result of one row and one text column, fetched.
    void FetchText(const std::string& text) {
        scripted_result();
        scripted_column("c", SQL_WVARCHAR, 0, 0, 0, SQL_NULLABLE);
        scripted_row();
        scripted_cell_bytes(text.data(), static_cast<int>(text.size()));
        ASSERT_EQ(DBSExecDirect(handle, "SELECT c FROM t", SQL_NTS), VORDA_OK);
        ASSERT_GE(DBSFetch(handle), VORDA_OK);
    }
    void ExpectError(int code, const std::string& message) {
        DBSINTEGER native = 7;
        DBSSMALLINT length = 7;
        EXPECT_EQ(DBSError(handle, &native, nullptr, &length), VORDA_OK);
        EXPECT_EQ(native, code);
        ASSERT_EQ(length, static_cast<int>(message.size()));
        std::vector<char> text(message.size() + 1, '#');
        EXPECT_EQ(DBSError(handle, nullptr, text.data(), &length), VORDA_OK);
        EXPECT_EQ(text.data(), message);
    }

    DBSHANDLE handle = nullptr;
};

TEST_F(DbsApiTest, OnlyConnectionHandlesAreServed) {
    DBSHANDLE other = handle;
    for (const DBSSMALLINT type : {DBSSMALLINT{1}, DBSSMALLINT{3}, DBSSMALLINT{0}}) {
        EXPECT_EQ(DBSAllocHandle(type, nullptr, &other), VORDA_OK);
        EXPECT_EQ(other, handle);
        EXPECT_EQ(DBSFreeHandle(type, handle), VORDA_OK);
    }
    EXPECT_EQ(DBSExecDirect(handle, "x", SQL_NTS), VORDA_OK);
}

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
    EXPECT_EQ(DBSExecDirect(handle, nullptr, 5), VORDA_OK);
    EXPECT_NE(TakeLog().find("SQLExecDirectW(stmt2, \"\", 0)"), std::string::npos);
    DBSLEN markers = -7;
    EXPECT_EQ(DBSPrepare(handle, " SELECT ?, '?', @name", 2, &markers), VORDA_OK);
    EXPECT_EQ(markers, 2);
}

TEST_F(DbsApiTest, AnExecutionEndsWhatThePreviousOneLeft) {
    FetchText("abc");
    TakeLog();
    scripted_row_count(3);
    EXPECT_EQ(DBSExecDirect(handle, "DELETE FROM t", SQL_NTS), VORDA_OK);
    EXPECT_EQ(TakeLog().find("\nSQLFreeStmt(stmt1, 1)\nSQLAllocHandle(3, dbc1, stmt2)"), 0u);
    EXPECT_EQ(DBSFetch(handle), VORDA_NOT_EXECUTED);
    // Also when it then fails, which affects no rows.
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
    DBSSetStmtAttr(handle, 22, reinterpret_cast<void*>(std::intptr_t{INT_MAX}), 4);
    const int length = SQL_NULL_DATA;
    EXPECT_EQ(DBSBindParameter(handle, 1, 0, DBTYPE_STRING, 0, 0, 0, "", INT_MAX, &length),
              VORDA_OUT_OF_MEMORY);
    DBSSetStmtAttr(handle, 22, reinterpret_cast<void*>(std::intptr_t{1}), 4);
    EXPECT_EQ(DBSExecute(handle), VORDA_OK);
}

TEST_F(DbsApiTest, Descriptions) {
    scripted_column(std::string(200, 'n').c_str(), SQL_DECIMAL, 12, 10, 2, SQL_NULLABLE);
    DBSExecDirect(handle, "SELECT 1", SQL_NTS);
    for (const DBSINTEGER column : {0LL, 1LL, -1LL, LLONG_MAX, LLONG_MIN}) {
        std::vector<char> name(128, '#');
        DBSSMALLINT length = 7, type = 7, precision = 7, scale = 7, nullable = 7;
        DBSULEN size = 7;
        for (char* const place : {static_cast<char*>(nullptr), name.data()}) {
            EXPECT_EQ(DBSDescribeCol(handle, column, place, &length, &type, &size, &precision,
                                     &scale, &nullable),
                      VORDA_OK);
        }
        const bool isThere = column == 0;
        EXPECT_EQ(name.data(), std::string(isThere ? 127 : 0, 'n'));
        const long long seen[] = {length, type, size, precision, scale, nullable};
        const long long expected[] = {127, DBTYPE_DECIMAL, 12, 10, 2, 1};
        for (int i = 0; i < 6; ++i) EXPECT_EQ(seen[i], isThere ? expected[i] : 0) << i;
    }
}

// The other typed getters are reached through Dbs, which asks for them by one code each.
TEST_F(DbsApiTest, CodesThatShareAGetter) {
    scripted_column("i", SQL_INTEGER, 0, 0, 0, 0);
    scripted_row();
    scripted_cell_int(-5);
    DBSExecDirect(handle, "SELECT 1", SQL_NTS);
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
}

TEST_F(DbsApiTest, OtherTypesReadTextUpToItsTerminator) {
    using namespace std::string_literals;
    FetchText("abc\0def"s);
    for (const int type :
         {int{DBTYPE_BINARY}, int{DBTYPE_DECIMAL}, int{DBTYPE_NUMERIC}, 0, -3, 99}) {
        for (const bool hasPlace : {false, true}) {
            char target[5] = "####";
            DBSLEN length = -7;
            EXPECT_EQ(GetData(0, type, hasPlace ? target : nullptr, &length), VORDA_OK);
            EXPECT_EQ(length, 3);
            EXPECT_EQ(std::string(target, 5), hasPlace ? "abc\0\0"s : "####\0"s);
        }
    }
}

TEST_F(DbsApiTest, NullsAndBadIndexesLeaveTheOutputsAlone) {
    for (const int type : {SQL_INTEGER, SQL_WVARCHAR}) {
        scripted_column("c", type, 0, 0, 0, SQL_NULLABLE);
    }
    scripted_row();
    // Delivered, but said to be NULL; and not delivered at all.
    scripted_cell_int(1);
    scripted_cell_indicator(SQL_NULL_DATA);
    DBSExecDirect(handle, "SELECT c", SQL_NTS);
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
    ExpectError(1103, "Unknown dbsource attribute.");

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

}  // namespace
