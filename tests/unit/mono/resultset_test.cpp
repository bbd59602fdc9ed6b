#include "mono/resultset.h"

#include <climits>
#include <string>

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

    IntDbResultSet rs;
};

void AddColumn(const char* name, int sqlType) {
    scripted_column(name, sqlType, 20, 10, 3, SQL_NULLABLE);
}

TEST_F(ResultSetTest, DescribesAndBindsEachColumnOnce) {
    scripted_column("id", SQL_INTEGER, 4, 10, 0, SQL_NO_NULLS);
    scripted_column("n\xC3\xA1zev", SQL_WVARCHAR, 40, 41, -1, SQL_NULLABLE_UNKNOWN);
    EXPECT_EQ(Execute(), VORDA_OK);
    EXPECT_EQ(TakeLog(), R"(
SQLAllocHandle(3, dbc1, stmt1)
SQLExecDirectW(stmt1, "q", 1)
SQLColAttributeW(stmt1, 1, 0, null, 0, null, ptr)
SQLColAttributeW(stmt1, 1, 1, ptr, 128, ptr, null)
SQLColAttributeW(stmt1, 1, 2, null, 0, null, ptr)
SQLColAttributeW(stmt1, 1, 3, null, 0, null, ptr)
SQLColAttributeW(stmt1, 1, 4, null, 0, null, ptr)
SQLColAttributeW(stmt1, 1, 5, null, 0, null, ptr)
SQLColAttributeW(stmt1, 1, 7, null, 0, null, ptr)
SQLColAttributeW(stmt1, 2, 1, ptr, 128, ptr, null)
SQLColAttributeW(stmt1, 2, 2, null, 0, null, ptr)
SQLColAttributeW(stmt1, 2, 3, null, 0, null, ptr)
SQLColAttributeW(stmt1, 2, 4, null, 0, null, ptr)
SQLColAttributeW(stmt1, 2, 5, null, 0, null, ptr)
SQLColAttributeW(stmt1, 2, 7, null, 0, null, ptr)
SQLBindCol(stmt1, 1, 4, ptr, 0, ptr)
SQLBindCol(stmt1, 2, -8, ptr, 2048, ptr)
SQLRowCount(stmt1, ptr)
)");
    ASSERT_EQ(rs.GetColumnCount(), 2);
    EXPECT_STREQ(rs.GetColumnInfo(0)->ColumnName.Deref(), "id");
    const auto info = rs.GetColumnInfo(1)->Clone();
    EXPECT_STREQ(info->ColumnName.Deref(), "n\xC3\xA1zev");
    EXPECT_EQ(info->DataType, DBTYPE_STRING);
    EXPECT_EQ(info->ColumnSize, 40);
    EXPECT_EQ(info->Precision, 41);
    EXPECT_EQ(info->Scale, -1);
    EXPECT_EQ(info->IsNullable, SQL_NULLABLE_UNKNOWN);
    EXPECT_EQ(rs.GetColumnInfo(-1), nullptr);
    EXPECT_STREQ(rs.GetColumnInfo(2)->ColumnName.Deref(), "");
    EXPECT_EQ(rs.GetColumnInfo(INT_MAX)->DataType, 0);

    EXPECT_EQ(rs.Close(), VORDA_OK);
    EXPECT_EQ(rs.GetColumnCount(), 0);
    EXPECT_EQ(TakeLog(), "\nSQLFreeStmt(stmt1, 1)\n");
    EXPECT_EQ(rs.Close(), VORDA_OK);
    EXPECT_EQ(TakeLog(), "\n");
}

TEST_F(ResultSetTest, TypesAndBindings) {
    const struct {
        int sqlType, dbType;
        // Bound C type and buffer length.
        const char* bound;
    } cases[] = {
        {SQL_CHAR, 16, "-8, ptr, 2048"},
        {SQL_VARCHAR, 16, "-8, ptr, 2048"},
        {SQL_LONGVARCHAR, 16, "-8, ptr, 2048"},
        {SQL_WCHAR, 16, "-8, ptr, 2048"},
        {SQL_WLONGVARCHAR, 16, "-8, ptr, 2048"},
        {SQL_NUMERIC, 21, "-8, ptr, 2048"},
        {SQL_DECIMAL, 21, "-8, ptr, 2048"},
        {SQL_LONGVARBINARY, 16, "-8, ptr, 2048"},
        {-11, 16, "-8, ptr, 2048"},
        {12345, 16, "-8, ptr, 2048"},
        {SQL_BINARY, 1, "-2, ptr, 4096"},
        {SQL_VARBINARY, 1, "-2, ptr, 4096"},
        {SQL_INTEGER, 11, "4, ptr, 0"},
        {SQL_SMALLINT, 10, "5, ptr, 0"},
        {SQL_TINYINT, 2, "-6, ptr, 0"},
        {SQL_BIT, 3, "-7, ptr, 0"},
        {SQL_BIGINT, 12, "-25, ptr, 0"},
        {SQL_REAL, 15, "7, ptr, 0"},
        {SQL_FLOAT, 8, "8, ptr, 0"},
        {SQL_DOUBLE, 8, "8, ptr, 0"},
        {SQL_DATE, 5, "11, ptr, 0"},
        {SQL_TYPE_DATE, 5, "11, ptr, 0"},
        {SQL_TIME, 17, "11, ptr, 0"},
        {SQL_TYPE_TIME, 17, "11, ptr, 0"},
        {SQL_TIMESTAMP, 6, "11, ptr, 0"},
        {SQL_TYPE_TIMESTAMP, 6, "11, ptr, 0"},
    };
    for (const auto& c : cases) AddColumn("c", c.sqlType);
    EXPECT_EQ(Execute(), VORDA_OK);
    const std::string log = TakeLog();
    int index = 0;
    for (const auto& [sqlType, dbType, bound] : cases) {
        EXPECT_EQ(rs.GetColumnInfo(index)->DataType, dbType) << sqlType;
        const std::string call =
            "SQLBindCol(stmt1, " + std::to_string(++index) + ", " + bound + ", ptr)\n";
        EXPECT_NE(log.find(call), std::string::npos) << call;
    }
}

TEST_F(ResultSetTest, NamesAreCutAtTheirBufferAndTheirLength) {
    const struct {
        std::string name;
        int reported;
        std::string kept;
    } cases[] = {
        {std::string(127, 'n'), 127, std::string(127, 'n')},
        {std::string(128, 'n'), 128, std::string(127, 'n')},
        {std::string(200, 'n'), 200, std::string(127, 'n')},
        {"abcdef", 3, "abc"},
        {"abcdef", 128, "abcdef"},
        {"abcdef", SHRT_MAX, "abcdef"},
        {"abcdef", -1, ""},
        {"abcdef", SHRT_MIN, ""},
    };
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
    for (const SQLLEN count : {SQLLEN{SHRT_MAX} + 1, SQLLEN{INT_MAX}, SQLLEN{LLONG_MAX}}) {
        g_columnCount = count;
        EXPECT_EQ(Execute(), VORDA_OUT_OF_MEMORY);
        EXPECT_EQ(rs.GetColumnCount(), 0);
        rs.Close();
    }
    for (const SQLLEN count : {SQLLEN{-1}, SQLLEN{LLONG_MIN}}) {
        g_columnCount = count;
        EXPECT_EQ(Execute(), VORDA_OK);
        EXPECT_EQ(rs.GetColumnCount(), 0);
        rs.Close();
    }
}

TEST_F(ResultSetTest, ManyColumns) {
    for (int i = 0; i < 45; ++i) AddColumn(std::to_string(i).c_str(), SQL_WVARCHAR);
    scripted_row();
    for (int i = 0; i < 45; ++i) scripted_cell_int(i);
    EXPECT_EQ(Execute(), VORDA_OK);
    EXPECT_EQ(rs.Next(), VORDA_OK);
    for (int i = 0; i < 45; ++i) {
        char* text = nullptr;
        EXPECT_EQ(rs.GetStringAsUTF8(i, &text, nullptr), VORDA_OK);
        EXPECT_EQ(text, std::to_string(i));
        EXPECT_EQ(rs.GetColumnInfo(i)->ColumnName.Deref(), std::to_string(i));
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

TEST_F(ResultSetTest, InformationIsRecordedAndTheWorkGoesOn) {
    AddColumn("a", SQL_WVARCHAR);
    scripted_answer_after("SQLBindCol", 1, SQL_SUCCESS_WITH_INFO);
    Diagnose(5, "converted");
    EXPECT_EQ(Execute(), VORDA_OK);
    ExpectOwnError(5, "converted");
    EXPECT_EQ(rs.GetColumnCount(), 1);
}

TEST_F(ResultSetTest, WithoutAStatement) {
    EXPECT_EQ(rs.GetImpl()->SetStmtHandle(nullptr), VORDA_NOT_EXECUTED);
    ExpectOwnError(VORDA_OK, "");
    EXPECT_EQ(rs.Next(), VORDA_NOT_EXECUTED);
    ExpectOwnError(1104, "The query is not executed.");
}

SQLHSTMT g_lastStatement;
int NoteStatement(const char* name, const long long* arguments, int, int*) {
    if (std::string(name) == "SQLRowCount")
        g_lastStatement = reinterpret_cast<SQLHSTMT>(arguments[0]);
    return 0;
}

TEST_F(ResultSetTest, TheSameStatementIsDescribedOnce) {
    AddColumn("a", SQL_INTEGER);
    scripted_handler(NoteStatement);
    EXPECT_EQ(Execute(), VORDA_OK);
    TakeLog();
    EXPECT_EQ(rs.GetImpl()->SetStmtHandle(g_lastStatement), VORDA_OK);
    EXPECT_EQ(TakeLog(), "\n");
}

}  // namespace
