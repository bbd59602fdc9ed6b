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
    static void AddColumn(const char* name, int sqlType) {
        scripted_column(name, sqlType, 20, 10, -3, SQL_NULLABLE_UNKNOWN);
    }

    IntDbResultSet rs;
};

TEST_F(ResultSetTest, NamesAreCutAtTheirBufferAndTheirLength) {
    const std::string longest(127, 'n');
    const struct {
        std::string name;
        int reported;
        std::string kept;
    } cases[] = {{longest, 127, longest},
                 {longest + "nn", SHRT_MAX, longest},
                 {"abcdef", 3, "abc"},
                 {"abcdef", SHRT_MIN, ""}};
    for (const auto& [name, reported, kept] : cases) {
        scripted_result();
        AddColumn(name.c_str(), SQL_INTEGER);
        scripted_column_name_length(reported);
        EXPECT_EQ(Execute(), VORDA_OK);
        const auto info = rs.GetColumnInfo(0)->Clone();
        rs.Close();
        const DynStr& read = info->ColumnName;
        EXPECT_EQ(std::string(read.Deref(), static_cast<std::size_t>(read.Length())), kept);
        EXPECT_EQ(info->DataType, DBTYPE_INTEGER);
        EXPECT_TRUE(info->ColumnSize == 20 && info->Precision == 10 && info->Scale == -3);
        EXPECT_EQ(info->IsNullable, SQL_NULLABLE_UNKNOWN);
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

    // A column that the driver does not bind has no value; those behind it are not there.
    describe(SQL_INTEGER);
    FailNext("SQLBindCol", 9, "refused");
    EXPECT_EQ(Execute(), VORDA_ODBC_ERROR);
    int value = 7;
    EXPECT_EQ(rs.GetInt(0, value), SQL_NULL_DATA);
    EXPECT_EQ(rs.GetInt(1, value), VORDA_INDEX_OUT_OF_RANGE);
    rs.Close();

    describe(SQL_INTEGER);
    EXPECT_EQ(Execute(), VORDA_OK);
    EXPECT_EQ(rs.GetImpl()->CellOf(1)->Size, 0);
    EXPECT_TRUE(rs.GetImpl()->CellOf(1)->IsNull());
}

}  // namespace
