#include <cstring>
#include <string>

#include "unit/mono/sourcetest.h"

namespace {

// The driver's side of the last bound column, for tests that write into it as no model would.
struct BoundColumn {
    char* data = nullptr;
    SQLLEN* indicator = nullptr;
};
BoundColumn g_bound;
int NoteBoundColumn(const char* name, const long long* arguments, int, int*) {
    if (std::strcmp(name, "SQLBindCol") == 0) {
        g_bound = {reinterpret_cast<char*>(arguments[3]), reinterpret_cast<SQLLEN*>(arguments[5])};
    }
    return 0;
}

class FetchTest : public SourceTest {
  protected:
    void SetUp() override {
        SourceTest::SetUp();
        scripted_handler(NoteBoundColumn);
    }
    void TearDown() override {
        rs.Close();
        SourceTest::TearDown();
    }

    std::string Text(int index) {
        char* text = nullptr;
        int length = -7;
        EXPECT_EQ(rs.GetStringAsUTF8(index, &text, &length), VORDA_OK);
        return {text, static_cast<std::size_t>(length)};
    }
    IntDbResultSet rs;
};

// Which no other tests can fetch.
TEST_F(FetchTest, BinariesAndTheirLengths) {
    const std::string binary(5000, '\xff');
    for (const std::size_t size : {3UL, 4096UL, 5000UL}) {
        AddResult({SQL_VARBINARY});
        AddBytes(binary.substr(0, size));
        ASSERT_EQ(source.Execute("q", 1, &rs, nullptr), VORDA_OK);
        rs.Next();
        EXPECT_EQ(Text(0), binary.substr(0, std::min(size, std::size_t{4096})));
        const DbExtent extent = rs.GetImpl()->CellOf(0)->Extent();
        EXPECT_EQ(extent.IsTruncated, size > 4096);
        EXPECT_EQ(extent.Reported, static_cast<SQLLEN>(size));
        char* bytes = nullptr;
        int room = 0;
        EXPECT_EQ(rs.GetBytes(0, &bytes, &room), VORDA_OK);
        EXPECT_EQ(room, 4096);
        EXPECT_EQ(std::string(bytes, 3), "\xff\xff\xff");
        rs.Close();
    }
}

// What a driver writes for the n-th row, and the length that it claims. The row before it was long.
struct Claim {
    std::string written;
    SQLLEN length;
    std::string read;
};
const Claim* g_claim;
int FetchAsClaimed(const char* name, const long long* arguments, int count, int* status) {
    if (std::strcmp(name, "SQLFetch") != 0) return NoteBoundColumn(name, arguments, count, status);
    std::memcpy(g_bound.data, g_claim->written.data(), g_claim->written.size());
    *g_bound.indicator = g_claim->length;
    *status = SQL_SUCCESS;
    return 1;
}

TEST_F(FetchTest, NothingOfAnotherRowIsShown) {
    const auto text = [](std::size_t size, char c) { return std::string(size, c) + '\0'; };
    const std::string n2047(2047, 'n'), nothing(10, '\0');
    const Claim claims[] = {
        {text(2044, 'n'), 2500, std::string(2044, 'n')},
        {text(2047, 'n'), 2500, n2047},
        {text(2047, 'n'), SQL_NO_TOTAL, n2047},
        {text(1000, 'n'), 5000, std::string(1000, 'n')},
        {text(3, 'n'), 10, "nnn" + std::string(7, '\0')},
        {"", 10, nothing},
        {text(3, 'n'), SQL_NO_TOTAL, "nnn"},
        {"", SQL_NO_TOTAL, ""},
    };
    // What was there before, as it was claimed, and as it was not.
    const Claim before[] = {{text(2047, 'o'), 2047, std::string(2047, 'o')},
                            {text(2047, 'o'), 9000, std::string(2047, 'o')},
                            {text(2047, 'o'), SQL_NO_TOTAL, std::string(2047, 'o')},
                            {text(2047, 'o'), 1, "o"},
                            {text(70, 'o'), 70, std::string(70, 'o')}};
    AddResult({SQL_WVARCHAR});
    scripted_handler(FetchAsClaimed);
    ASSERT_EQ(source.Execute("q", 1, &rs, nullptr), VORDA_OK);
    for (const Claim& earlier : before) {
        for (const Claim& claim : claims) {
            for (const Claim* const row : {&earlier, &claim}) {
                g_claim = row;
                EXPECT_EQ(rs.Next(), VORDA_OK);
                EXPECT_EQ(Text(0), row->read) << earlier.length << " " << claim.length;
            }
        }
    }
    // Nor of a fetch that failed half way.
    std::memset(g_bound.data, 'o', 2048);
    scripted_handler(NoteBoundColumn);
    FailNext("SQLFetch", 7, "lost");
    EXPECT_EQ(rs.Next(), 7);
    std::memset(g_bound.data, 'o', 2048);
    g_claim = &claims[5];
    scripted_handler(FetchAsClaimed);
    EXPECT_EQ(rs.Next(), VORDA_OK);
    EXPECT_EQ(Text(0), nothing);
}

}  // namespace
