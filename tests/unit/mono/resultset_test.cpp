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

}  // namespace
