#include "mono/resultset.h"

#include <climits>
#include <string>
#include <vector>

#include "unit/mono/sourcetest.h"

namespace {

class ResultSetTest : public SourceTest {
  protected:
    void TearDown() override {
        rs.Close();
        SourceTest::TearDown();
    }
    int Execute() { return source.Execute("q", 1, &rs, nullptr); }
    void ExpectOwnError(int code, const char* message) {
        EXPECT_EQ(rs.GetLastError(), code);
        EXPECT_STREQ(rs.GetLastErrorMessage(), message);
    }
    static void AddColumn(const char* name, int sqlType) {
        scripted_column(name, sqlType, 20, 10, -3, SQL_NULLABLE_UNKNOWN);
    }

    IntDbResultSet rs;
};

TEST_F(ResultSetTest, TypesAndBindings) {
    const struct {
        int dbType;
        // C type and buffer length.
        const char* bound;
        std::vector<int> sqlTypes;
    } cases[] = {
        {DBTYPE_STRING,
         "-8, ptr, 2048",
         {SQL_CHAR, SQL_VARCHAR, SQL_LONGVARCHAR, SQL_WCHAR, SQL_WVARCHAR, SQL_WLONGVARCHAR,
          SQL_LONGVARBINARY, -11, 12345}},
        {DBTYPE_DECIMAL, "-8, ptr, 2048", {SQL_NUMERIC, SQL_DECIMAL}},
        {DBTYPE_BINARY, "-2, ptr, 4096", {SQL_BINARY, SQL_VARBINARY}},
        {DBTYPE_DATE, "11, ptr, 0", {SQL_DATE, SQL_TYPE_DATE}},
        {DBTYPE_TIME, "11, ptr, 0", {SQL_TIME, SQL_TYPE_TIME}},
        {DBTYPE_DATETIME, "11, ptr, 0", {SQL_TIMESTAMP, SQL_TYPE_TIMESTAMP}},
        {DBTYPE_INTEGER, "4, ptr, 0", {SQL_INTEGER}},
        {DBTYPE_SMALLINT, "5, ptr, 0", {SQL_SMALLINT}},
        {DBTYPE_TINYINT, "-6, ptr, 0", {SQL_TINYINT}},
        {DBTYPE_BIT, "-7, ptr, 0", {SQL_BIT}},
        {DBTYPE_BIGINT, "-25, ptr, 0", {SQL_BIGINT}},
        {DBTYPE_FLOAT, "7, ptr, 0", {SQL_REAL}},
        {DBTYPE_DOUBLE, "8, ptr, 0", {SQL_FLOAT, SQL_DOUBLE}},
    };
    for (const auto& [dbType, bound, sqlTypes] : cases) {
        for (const int sqlType : sqlTypes) {
            scripted_result();
            AddColumn("c", sqlType);
            EXPECT_EQ(Execute(), VORDA_OK);
            EXPECT_EQ(rs.GetColumnInfo(0)->DataType, dbType) << sqlType;
            EXPECT_NE(TakeLog().find(std::string(", 1, ") + bound + ", ptr)\n"), std::string::npos)
                << sqlType;
            rs.Close();
        }
    }
}

TEST_F(ResultSetTest, DescriptionsEndWithTheStatement) {
    AddColumn("n\xC3\xA1zev", SQL_WVARCHAR);
    EXPECT_EQ(Execute(), VORDA_OK);
    ASSERT_EQ(rs.GetColumnCount(), 1);
    const auto info = rs.GetColumnInfo(0)->Clone();
    EXPECT_EQ(rs.GetColumnInfo(-1), nullptr);
    EXPECT_STREQ(rs.GetColumnInfo(1)->ColumnName.Deref(), "");
    EXPECT_EQ(rs.GetColumnInfo(INT_MAX)->DataType, 0);
    TakeLog();
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(rs.Close(), VORDA_OK);
        EXPECT_EQ(rs.GetColumnCount(), 0);
    }
    EXPECT_EQ(TakeLog(), "\nSQLFreeStmt(stmt1, 1)\n");

    EXPECT_STREQ(info->ColumnName.Deref(), "n\xC3\xA1zev");
    EXPECT_EQ(info->DataType, DBTYPE_STRING);
    EXPECT_TRUE(info->ColumnSize == 20 && info->Precision == 10 && info->Scale == -3);
    EXPECT_EQ(info->IsNullable, SQL_NULLABLE_UNKNOWN);
}

TEST_F(ResultSetTest, NamesAreCutAtTheirBufferAndTheirLength) {
    const std::string longest(127, 'n');
    const struct {
        std::string name;
        int reported;
        std::string kept;
    } cases[] = {{longest, 127, longest},         {longest + 'n', 128, longest},
                 {longest + "nnn", 130, longest}, {"abcdef", 3, "abc"},
                 {"abcdef", 128, "abcdef"},       {"abcdef", SHRT_MAX, "abcdef"},
                 {"abcdef", SHRT_MIN, ""}};
    for (const auto& c : cases) {
        AddColumn(c.name.c_str(), SQL_INTEGER);
        scripted_column_name_length(c.reported);
    }
    EXPECT_EQ(Execute(), VORDA_OK);
    for (int i = 0; i < rs.GetColumnCount(); ++i) {
        const DynStr& name = rs.GetColumnInfo(i)->ColumnName;
        EXPECT_EQ(std::string(name.Deref(), static_cast<std::size_t>(name.Length())),
                  cases[i].kept);
    }
}

SQLLEN g_columnCount;
int ReportColumnCount(const char* name, const long long* arguments, int, int* status) {
    if (std::string(name) != "SQLColAttributeW" || arguments[2] != SQL_COLUMN_COUNT) return 0;
    *reinterpret_cast<SQLLEN*>(arguments[6]) = g_columnCount;
    *status = SQL_SUCCESS;
    return 1;
}

TEST_F(ResultSetTest, ImpossibleColumnCounts) {
    scripted_handler(ReportColumnCount);
    for (const SQLLEN count : {SQLLEN{SHRT_MAX} + 1, SQLLEN{LLONG_MAX}, SQLLEN{LLONG_MIN}}) {
        g_columnCount = count;
        EXPECT_EQ(Execute(), count > 0 ? VORDA_OUT_OF_MEMORY : VORDA_OK);
        EXPECT_EQ(rs.GetColumnCount(), 0);
        rs.Close();
    }
}

TEST_F(ResultSetTest, AFailureAtAnyStepIsComposed) {
    const struct {
        const char* function;
        int calls;
        const char* message;
    } steps[] = {{"SQLColAttributeW", 13, "Unable to InitMetadata: broken"},
                 {"SQLBindCol", 2, "Unable to InitColumnBinding: broken"}};
    for (const auto& [function, calls, message] : steps) {
        for (int nth = 1; nth <= calls; ++nth) {
            SCOPED_TRACE(std::string(function) + std::to_string(nth));
            scripted_result();
            AddColumn("a", SQL_INTEGER);
            AddColumn("b", SQL_WVARCHAR);
            scripted_answers_clear();
            scripted_answer(function, scripted_call_count(function) + nth, SQL_ERROR);
            Diagnose(99, "broken");
            EXPECT_EQ(Execute(), VORDA_ODBC_ERROR);
            ExpectOwnError(-1, message);
            // The source has no message of its own to compose with.
            ExpectError(VORDA_OK, "");
            // Descriptions that were not read are empty ones.
            EXPECT_NE(rs.GetColumnInfo(1), nullptr);
            int value = 7;
            EXPECT_EQ(rs.GetInt(2, value), VORDA_INDEX_OUT_OF_RANGE);
            rs.Close();
            ExpectOwnError(VORDA_OK, "");
            EXPECT_EQ(scripted_live_handles(SQL_HANDLE_STMT), 0);
        }
    }
}

SQLHSTMT g_lastStatement;
int NoteStatement(const char* name, const long long* arguments, int, int*) {
    if (std::string(name) == "SQLBindCol") g_lastStatement = reinterpret_cast<SQLHSTMT>(*arguments);
    return 0;
}

TEST_F(ResultSetTest, AStatementIsNeededAndDescribedOnce) {
    EXPECT_EQ(rs.GetImpl()->SetStmtHandle(nullptr), VORDA_NOT_EXECUTED);
    ExpectOwnError(VORDA_OK, "");
    EXPECT_EQ(rs.Next(), VORDA_NOT_EXECUTED);
    ExpectOwnError(1104, "The query is not executed.");

    AddColumn("a", SQL_WVARCHAR);
    scripted_handler(NoteStatement);
    // Information is recorded and the work goes on.
    WarnNext("SQLBindCol", 5, "converted");
    EXPECT_EQ(Execute(), VORDA_OK);
    ExpectOwnError(5, "converted");
    TakeLog();
    EXPECT_EQ(rs.GetImpl()->SetStmtHandle(g_lastStatement), VORDA_OK);
    EXPECT_EQ(TakeLog(), "\n");
}

}  // namespace
