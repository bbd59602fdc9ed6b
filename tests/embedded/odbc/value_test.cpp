// Values as drivers deliver them, and as they should not.
#include <cstdint>
#include <limits>

#include "driver_fixture.h"

namespace embedded_test {
namespace {

// With bound columns read again, and without.
constexpr SQLUINTEGER kExtensions[] = {SQL_GD_BOUND, SQL_GD_ANY_ORDER};
constexpr SQLLEN kHuge = std::numeric_limits<SQLLEN>::max();

struct DriverValues : DriverTest {
    /// The rows of a query in a connection of its own, once with the driver's columns bound and
    /// once, where the driver reads no bound columns again, without.
    std::vector<Rows> bothWays() {
        std::vector<Rows> all;
        for (const SQLUINTEGER extensions : kExtensions) {
            script.numbers[SQL_GETDATA_EXTENSIONS] = extensions;
            script.calls.clear();
            all.push_back(read());
        }
        return all;
    }

    /// The rows of one column; a row that cannot be read is "!" and the state.
    Rows read() {
        Connection connection(kDriverText);
        Statement statement(connection.handle);
        EXPECT_EQ(SQL_SUCCESS, statement.run("SELECT c FROM t")) << statement.error().message;
        Rows rows;
        for (int most = 0; most < 10; ++most) {
            const SQLRETURN result = statement.fetch();
            if (result == SQL_NO_DATA) break;
            rows.push_back(result == SQL_ERROR ? "!" + statement.error().state : whole(statement));
            if (result != SQL_ERROR) continue;
            EXPECT_TRUE(statement.error().says("Column 1 \"c\"")) << statement.error().message;
            break;
        }
        return rows;
    }

    static std::string whole(Statement& statement) {
        std::vector<char> value(300000, '?');
        SQLLEN length = 0;
        const SQLRETURN result =
            RT_SQLGetData(kDriver, statement.handle, 1, SQL_C_WCHAR, value.data(),
                          static_cast<SQLLEN>(value.size()), &length);
        if (result != SQL_SUCCESS) return "!" + statement.error().state;
        if (length == SQL_NULL_DATA) return "NULL";
        EXPECT_EQ('\0', value.at(static_cast<size_t>(length)));
        return std::string(value.data(), static_cast<size_t>(length));
    }
};

TEST_F(DriverValues, ComeThroughOrAreRefused) {
    const auto date = [](int year, int month, int day) {
        return raw(SQL_DATE_STRUCT{static_cast<SQLSMALLINT>(year), static_cast<SQLUSMALLINT>(month),
                                   static_cast<SQLUSMALLINT>(day)});
    };
    const auto stamp = [](SQLUSMALLINT hour, SQLUSMALLINT second, SQLUINTEGER fraction) {
        return raw(SQL_TIMESTAMP_STRUCT{2024, 2, 29, hour, 59, second, fraction});
    };
    const struct {
        SQLSMALLINT type;
        Cell cell;
        std::string expected;
    } kCases[] = {
        {SQL_WVARCHAR, wide(u"a\u00e4\u20ac\U0001F600"), "a\u00e4\u20ac\U0001F600"},
        {SQL_WVARCHAR, wide(u""), ""},
        {SQL_WVARCHAR, claiming(wide(u"x"), SQL_NULL_DATA), "NULL"},
        {SQL_WVARCHAR, wide({u'x', 0xD83D}), "!22021"},
        {SQL_WVARCHAR, wide({0xDE00, u'x'}), "!22021"},
        // Lengths in characters, halves of them, negative ones.
        {SQL_WVARCHAR, claiming(wide(u"abcd"), 4), "!22018"},
        {SQL_WVARCHAR, claiming(wide(u"abcd"), -7), "!22018"},
        {SQL_WVARCHAR, claiming(wide(u"abcd"), kHuge), "!22018"},
        {SQL_WVARCHAR, claiming(wide(u"abcd"), std::numeric_limits<SQLLEN>::min()), "!22018"},
        {SQL_VARBINARY, {"\xff\x01"}, "FF01"},
        {SQL_VARBINARY, claiming({"\xff\x01"}, SQL_NTS), "!22018"},
        {SQL_DECIMAL, {"-0012.50"}, "-12.50"},
        {SQL_DECIMAL, claiming({"12.50"}, 3), "!22018"},
        {SQL_DECIMAL, {std::string("1\0\0\0", 4)}, "!22018"},
        {SQL_DECIMAL, {"\xff\xfe"}, "!22018"},
        {SQL_INTEGER, number(-5), "-5"},
        {SQL_INTEGER, claiming(number(7), 4), "7"},
        {SQL_INTEGER, claiming(number(7), 0), "7"},
        {SQL_INTEGER, claiming(number(7), SQL_NULL_DATA), "NULL"},
        {SQL_INTEGER, claiming(number(7), SQL_NO_TOTAL), "!22018"},
        {SQL_INTEGER, claiming(number(7), SQL_NTS), "!22018"},
        {SQL_DOUBLE, raw(0.5), "0.5"},
        {SQL_TYPE_DATE, date(2024, 2, 29), "2024-02-29"},
        {SQL_TYPE_DATE, date(2023, 2, 29), "!22018"},
        {SQL_TYPE_DATE, date(-1, 1, 1), "!22018"},
        {SQL_TYPE_DATE, date(10000, 1, 1), "!22018"},
        {SQL_TYPE_TIMESTAMP, stamp(23, 59, 0), "2024-02-29 23:59:59"},
        {SQL_TYPE_TIMESTAMP, stamp(24, 0, 0), "!22018"},
        {SQL_TYPE_TIMESTAMP, stamp(0, 61, 0), "!22018"},
        {SQL_TYPE_TIMESTAMP, stamp(0, 0, 1'000'000'000), "!22018"},
    };
    for (const auto& given : kCases) {
        give(given.type, {given.cell});
        for (const Rows& rows : bothWays()) {
            EXPECT_EQ(Rows{given.expected}, rows)
                << "type " << given.type << " from " << &given - kCases;
        }
    }
}

TEST_F(DriverValues, ThatNobodyReportsAreNoNulls) {
    for (const SQLSMALLINT type : std::initializer_list<SQLSMALLINT>{SQL_WVARCHAR, SQL_INTEGER}) {
        give(type, {claiming(number(1), 8), {}});
        script.answers["SQLGetData"] = [](const Call&) { return SQLRETURN{SQL_SUCCESS}; };
        script.answers["SQLFetch"] = [](const Call& call) {
            return call.number <= 2 ? SQLRETURN{SQL_SUCCESS} : SQLRETURN{SQL_NO_DATA};
        };
        for (const Rows& rows : bothWays()) EXPECT_EQ(Rows{"!22018"}, rows) << type;
        script.answers.clear();
    }
}

// Parts that end in the middle of a pair, just before one, and at the end of buffers.
TEST_F(DriverValues, OfAnyLengthArePutTogether) {
    std::vector<Cell> cells;
    Rows expected;
    for (const size_t units : {2046U, 2047U, 2048U, 2049U, 4093U, 4094U, 4095U, 9000U, 60000U}) {
        std::u16string text(units, u'x');
        std::string utf8;
        for (size_t i = 40; i + 1 < units; i += 2) {
            text.replace(i, 2, u"\U0001F600");
        }
        for (size_t i = 0; i < units; ++i) {
            if (text[i] == u'x') utf8 += 'x';
            if (text[i] == 0xD83D) utf8 += "\U0001F600";
        }
        cells.push_back(wide(text));
        expected.push_back(utf8);
    }
    cells.push_back(wide(u"short"));
    expected.push_back("short");
    give(SQL_WLONGVARCHAR, cells);
    for (const Rows& rows : bothWays()) EXPECT_TRUE(expected == rows);

    // A driver that does not know its lengths, and one that cuts no character in two.
    for (const bool keepsPairs : {false, true}) {
        size_t row = 0;
        size_t done = 0;
        script.answers["SQLFetch"] = [&](const Call&) { return ++row, done = 0, kUsual; };
        script.answers["SQLGetData"] = [&](const Call& call) {
            const std::string& bytes = cells[row - 1].bytes;
            const size_t room = static_cast<size_t>(call.capacity) / 2 - 1;
            const size_t left = (bytes.size() - done) / 2;
            size_t units = std::min(room, left);
            SQLWCHAR* const target = reinterpret_cast<SQLWCHAR*>(call.target);
            std::memcpy(target, bytes.data() + done, 2 * units);
            const bool pair = units > 0 && units < left && (target[units - 1] & 0xFC00) == 0xD800;
            if (keepsPairs && pair) --units;
            target[units] = 0;
            done += 2 * units;
            *call.indicator = units < left ? SQLLEN{SQL_NO_TOTAL} : static_cast<SQLLEN>(2 * units);
            return units < left ? SQLRETURN{SQL_SUCCESS_WITH_INFO} : SQLRETURN{SQL_SUCCESS};
        };
        for (const SQLUINTEGER extensions : kExtensions) {
            row = 0;
            script.numbers[SQL_GETDATA_EXTENSIONS] = extensions;
            EXPECT_TRUE(expected == read()) << keepsPairs << extensions;
        }
    }
}

// None of these may go on for ever, read behind a buffer, or pass for a value.
TEST_F(DriverValues, WithContradictingLengthsAreRefused) {
    struct Part {
        SQLRETURN result;
        SQLLEN length;
    };
    const std::vector<Part> kLies[] = {
        {{SQL_NO_DATA, SQL_NULL_DATA}},
        {{SQL_NO_DATA, 4}},
        {{SQL_SUCCESS_WITH_INFO, 9000}, {SQL_SUCCESS_WITH_INFO, 9001}},
        {{SQL_SUCCESS_WITH_INFO, 9000}, {SQL_SUCCESS_WITH_INFO, kHuge - 1}},
        {{SQL_SUCCESS_WITH_INFO, 9000}, {SQL_SUCCESS, SQL_NULL_DATA}},
        {{SQL_SUCCESS_WITH_INFO, 9000}, {SQL_NO_DATA, 4}},
        {{SQL_SUCCESS_WITH_INFO, 9000}, {SQL_SUCCESS_WITH_INFO, -9}},
        {{SQL_SUCCESS_WITH_INFO, SQL_NO_TOTAL}, {SQL_SUCCESS, SQL_NULL_DATA}},
        {{SQL_SUCCESS_WITH_INFO, SQL_NO_TOTAL}, {SQL_NO_DATA, 0}},
        {{SQL_SUCCESS_WITH_INFO, SQL_NO_TOTAL}, {SQL_SUCCESS_WITH_INFO, kHuge}},
        {{SQL_SUCCESS_WITH_INFO, 9000}, {SQL_SUCCESS_WITH_INFO, SQL_NO_TOTAL}, {SQL_NO_DATA, 0}},
        {{SQL_SUCCESS, 9001}, {SQL_NO_DATA, 0}},
    };
    for (const SQLSMALLINT type :
         std::initializer_list<SQLSMALLINT>{SQL_WVARCHAR, SQL_VARBINARY, SQL_INTEGER}) {
        for (const auto& parts : kLies) {
            give(type, {claiming(wide(u"xxxx"), SQL_NO_TOTAL)});
            script.answers["SQLGetData"] = [&](const Call& call) {
                const Part& part =
                    parts[std::min(static_cast<size_t>(call.number), parts.size()) - 1];
                const auto room = static_cast<size_t>(call.capacity);
                std::memset(call.target, 'y', room);
                if (room >= 2) std::memset(call.target + room - 2, 0, 2);
                *call.indicator = part.length;
                return part.result;
            };
            for (const Rows& rows : bothWays()) {
                EXPECT_EQ(Rows{"!22018"}, rows) << type << " from " << &parts - kLies;
            }
        }
    }
}

TEST_F(DriverValues, AreAskedForInTheOrderOfTheColumns) {
    Result result;
    result.columns = {{u"a", SQL_INTEGER}, {u"b"}, {u"c", SQL_INTEGER}, {u"d"}};
    result.rows = {{number(1), wide(u"x"), number(2), wide(u"y")}};
    script.results = {result};
    for (const SQLUINTEGER extensions : kExtensions) {
        script.numbers[SQL_GETDATA_EXTENSIONS] = extensions;
        Connection connection(kDriverText);
        calls({});
        EXPECT_EQ(Rows{"1|x|2|y"}, connection.query("SELECT 1"));
        EXPECT_EQ(extensions == SQL_GD_BOUND
                      ? Rows({"SQLBindCol 1", "SQLBindCol 2", "SQLBindCol 3", "SQLBindCol 4"})
                      : Rows({"SQLBindCol 1", "SQLGetData 2", "SQLGetData 3", "SQLGetData 4"}),
                  calls({"SQLBindCol", "SQLGetData"}));
    }
}

TEST_F(DriverValues, TellTheDriverTheirDigits) {
    Connection connection(kDriverText);
    for (const auto& [fraction, digits] :
         {std::pair(0U, "0"), {120'000'000U, "6"}, {1'000U, "6"}, {123'456'789U, "9"}}) {
        Statement statement(connection.handle);
        const SQL_TIMESTAMP_STRUCT stamp{2024, 2, 29, 23, 59, 0, fraction};
        statement.bind(1, SQL_C_TYPE_TIMESTAMP, &stamp, nullptr);
        calls({});
        statement.run("INSERT INTO t VALUES (?)");
        EXPECT_EQ(Rows{std::string("SQLBindParameter 1=") + digits}, calls({"SQLBindParameter"}));
    }
}

TEST_F(DriverValues, HaveColumnsOfAnyNumberAndName) {
    give(SQL_INTEGER, {number(1)});
    Connection connection(kDriverText);
    for (const int count : {0, -1, -32768, 32767}) {
        script.results[0].claimed = static_cast<SQLSMALLINT>(count);
        Statement statement(connection.handle);
        EXPECT_EQ(SQL_SUCCESS, statement.run("SELECT 1")) << statement.error().message;
        EXPECT_EQ(count > 0 ? "" : "24000", statement.stateOf(statement.fetch()));
        if (count <= 0) continue;
        EXPECT_EQ("more", statement.text(32767, SQL_DESC_NAME));
        EXPECT_EQ("1", statement.get(1));
    }
    give(SQL_INTEGER, {number(1)});
    const std::tuple<std::u16string, int, std::string> kNames[] = {
        {u"name", 4, "name"},
        {u"name", 32767, "name"},
        {u"name", -1, "name"},
        {std::u16string(2000, u'n'), 2000, std::string(1023, 'n')},
        {u"na\u00efve", 5, "na\u00efve"},
    };
    for (const auto& [name, claimed, expected] : kNames) {
        script.results[0].columns[0] = {name, SQL_INTEGER, static_cast<SQLSMALLINT>(claimed)};
        Statement statement(connection.handle);
        EXPECT_EQ(SQL_SUCCESS, statement.run("SELECT 1"));
        char seen[3000] = "";
        RT_SQLColAttributeW(kDriver, statement.handle, 1, SQL_DESC_NAME, seen, sizeof seen, nullptr,
                            nullptr);
        EXPECT_EQ(expected, seen);
    }
    script.results[0].columns[0] = {{u'n', 0xD800}, SQL_INTEGER};
    connection.expect("SELECT 1 => !22021");
}

}  // namespace
}  // namespace embedded_test
