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
    static void AddColumn(const char* name, int sqlType) {
        scripted_column(name, sqlType, 20, 10, -3, SQL_NULLABLE_UNKNOWN);
    }

    IntDbResultSet rs;
};

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
    } cases[] = {{longest, 127, longest},
                 {longest + 'n', 128, longest},
                 {longest + "nn", SHRT_MAX, longest},
                 {"abcdef", 3, "abc"},
                 {"abcdef", SHRT_MAX, "abcdef"},
                 {"abcdef", SHRT_MIN, ""}};
    for (const auto& [name, reported, kept] : cases) {
        scripted_result();
        AddColumn(name.c_str(), SQL_INTEGER);
        scripted_column_name_length(reported);
        EXPECT_EQ(Execute(), VORDA_OK);
        const DynStr& read = rs.GetColumnInfo(0)->ColumnName;
        EXPECT_EQ(std::string(read.Deref(), static_cast<std::size_t>(read.Length())), kept);
        rs.Close();
    }
}

TEST_F(ResultSetTest, ARecordUsedAgainShowsNothingOfItsLastUse) {
    const auto describe = [](int sqlType) {
        scripted_result();
        AddColumn("a", sqlType);
        AddColumn("b", sqlType);
    };
    describe(SQL_WVARCHAR);
    EXPECT_EQ(Execute(), VORDA_OK);
    EXPECT_EQ(rs.GetImpl()->CellOf(1)->Size, 2048);
    rs.Close();

    describe(SQL_INTEGER);
    // The first call reads the count, six read the first column.
    scripted_answer("SQLColAttributeW", scripted_call_count("SQLColAttributeW") + 8, SQL_ERROR);
    Diagnose(9, "broken");
    EXPECT_EQ(Execute(), VORDA_ODBC_ERROR);
    EXPECT_EQ(rs.GetColumnCount(), 2);
    EXPECT_EQ(rs.GetColumnInfo(0)->DataType, DBTYPE_INTEGER);
    EXPECT_STREQ(rs.GetColumnInfo(1)->ColumnName.Deref(), "");
    EXPECT_EQ(rs.GetImpl()->CellOf(0), nullptr);
    rs.Close();

    describe(SQL_INTEGER);
    EXPECT_EQ(Execute(), VORDA_OK);
    EXPECT_EQ(rs.GetImpl()->CellOf(1)->Size, 0);
    EXPECT_TRUE(rs.GetImpl()->CellOf(1)->IsNull());
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
    rs.Close();
    ExpectOwnError(VORDA_OK, "");
}

}  // namespace
