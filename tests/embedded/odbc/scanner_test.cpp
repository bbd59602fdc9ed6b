// What is code and what is text in each dialect, and what a statement does.
#include "odbc/scanner.h"

#include <gtest/gtest.h>

#include "core/error.h"

namespace embedded_test {
namespace {

using embedded::StatementKind;

/// The text for the driver and the numbers of its markers, or the state of the failure.
std::string marked(const char* dbms, std::string_view sql) {
    try {
        const embedded::MarkedSql result = embedded::markedSql(sql, embedded::dialectOf(dbms));
        std::string shown = result.text;
        for (const int number : result.numbers) shown += " " + std::to_string(number);
        return shown;
    } catch (const embedded::Error& error) {
        return std::string(error.state());
    }
}

TEST(DialectScanner, FindsTheMarkersAndNumbersThem) {
    const struct {
        const char* sql;
        const char* expected;
    } kCases[] = {
        {"", ""},
        {"@1 ,@2 ,@1 ", "? ,? ,?  1 2 1"},
        {"?,?,@1 ,?", "?,?,? ,? 1 2 1 3"},
        {"@5 ,?,@2 ,?", "? ,?,? ,? 5 6 2 7"},
        {"@007", "? 7"},
        {"a@1b @1b @1_ @a1 @@1 @ @", "a@1b @1b @1_ @a1 @@1 @ @"},
        {"@1@2", "?? 1 2"},
        {"a=@1::int", "a=?::int 1"},
        {"@65535", "? 65535"},
        {"@65536", "07009"},
        {"@0", "07009"},
        {"@18446744073709551617", "07009"},
        {"'@1 ''@2 ' @3 '@4", "'@1 ''@2 ' ? '@4 3"},
        {"\"@1 \"\"?\" ?", "\"@1 \"\"?\" ? 1"},
        {"-- ?\n? -- @1", "-- ?\n? -- @1 1"},
        {"/* ? */ ? /* @1", "/* ? */ ? /* @1 1"},
        {"?-?/?*?", "?-?/?*? 1 2 3 4"},
    };
    for (const auto& given : kCases) {
        for (const char* dbms : {"PostgreSQL", "MariaDB", "SQLite", "Microsoft SQL Server", "?"}) {
            EXPECT_EQ(given.expected, marked(dbms, given.sql)) << dbms << ": " << given.sql;
        }
    }
}

TEST(DialectScanner, ReadsEachDialectAsItsServerDoes) {
    const char* const pg = "PostgreSQL";
    const char* const my = "MariaDB";
    const char* const lite = "SQLite";
    const char* const ms = "Microsoft SQL Server";
    const struct {
        const char* dbms;
        const char* sql;
        const char* expected;
    } kCases[] = {
        {pg, "'\\' ?", "'\\' ? 1"},
        {my, "'\\' ?' ?", "'\\' ?' ? 1"},
        {my, "\"\\\" ?\" ?", "\"\\\" ?\" ? 1"},
        {pg, "E'\\' ?' ? e'?' name'?'", "E'\\' ?' ? e'?' name'?' 1"},
        {pg, "nameE'\\' ?", "nameE'\\' ? 1"},
        {my, "E'\\' ?' ?", "E'\\' ?' ? 1"},
        {lite, "E'\\' ?", "E'\\' ? 1"},
        {my, "`?``?` ?", "`?``?` ? 1"},
        {pg, "`?`", "`?` 1"},
        {lite, "[?] ?", "[?] ? 1"},
        {ms, "[?]]?] ?", "[?]]?] ? 1"},
        {pg, "a[?]", "a[?] 1"},
        {my, "# ?\n?", "# ?\n? 1"},
        {pg, "1 # ?", "1 # ? 1"},
        {my, "1--? --\t?", "1--? --\t? 1"},
        {pg, "1--?", "1--?"},
        {pg, "-- ?\r?", "-- ?\r? 1"},
        {my, "-- ?\r?", "-- ?\r?"},
        {pg, "/* /* */ ? */ ?", "/* /* */ ? */ ? 1"},
        {my, "/* /* */ ? */", "/* /* */ ? */ 1"},
        {pg, "$$?$$ ? $a$?$b$ $$?$a$ ?", "$$?$$ ? $a$?$b$ $$?$a$ ? 1 2"},
        {pg, "$1 a$b$? $a", "$1 a$b$? $a 1"},
        {pg, "$1$?", "$1$? 1"},
        {pg, "$$ @1 $$", "42000"},
        {pg, "$a$ @x @ $a$", "$a$ @x @ $a$"},
        {my, "$$?$$", "$$?$$ 1"},
    };
    for (const auto& given : kCases) {
        EXPECT_EQ(given.expected, marked(given.dbms, given.sql)) << given.dbms << ": " << given.sql;
    }
}

TEST(DialectScanner, TellsWhatAStatementDoes) {
    using enum StatementKind;
    const struct {
        const char* sql;
        StatementKind kind;
    } kCases[] = {
        {"", Other},
        {" -- x\n/* y */ select 1", Query},
        {"Insert into t", Change},
        {"WITH x AS (SELECT 1) DELETE FROM t", Change},
        {"CREATE TABLE t (a)", Other},
        {"'SELECT'", Other},
        {"SELECTED", Other},
        {"START TRANSACTION", Begin},
        {"START SLAVE", Other},
        {"begin", Begin},
        {"COMMIT WORK", End},
        {"COMMIT AND CHAIN", Begin},
        {"ROLLBACK WORK AND CHAIN;", Begin},
        {"COMMIT AND NO CHAIN", End},
        {"ROLLBACK", End},
        {"ROLLBACK TO a", Savepoint},
        {"ROLLBACK WORK TO SAVEPOINT a", Savepoint},
        {"rollback transaction to a", Savepoint},
        {"RELEASE a", Savepoint},
    };
    for (const auto& given : kCases) {
        EXPECT_EQ(given.kind, kindOfStatement(given.sql, embedded::dialectOf("PostgreSQL")))
            << given.sql;
    }
}

}  // namespace
}  // namespace embedded_test
