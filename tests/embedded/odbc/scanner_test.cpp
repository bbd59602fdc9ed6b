// What is code and what is text in each dialect, and what a statement does.
#include "odbc/sqltext.h"

#include <gtest/gtest.h>

#include <array>

#include "core/error.h"

namespace embedded_test {
namespace {

using embedded::StatementKind;

/// The text for the driver and the numbers of its markers, or the state of the failure.
std::string marked(const char* dbms, std::string_view sql) {
    try {
        const embedded::MarkedSql result =
            embedded::StatementText(sql, embedded::dialectOf(dbms)).marked();
        std::string shown = result.text;
        for (const int number : result.numbers) shown += " " + std::to_string(number);
        return shown;
    } catch (const embedded::Error& error) {
        return std::string(error.state());
    }
}

TEST(SqlScanner, FindsTheMarkersAndNumbersThem) {
    const std::pair<const char*, const char*> kCases[] = {
        {"", ""},
        {"@1 ,@2 ,@1 ", "? ,? ,?  1 2 1"},
        {"?,?,@1 ,?", "?,?,? ,? 1 2 1 3"},
        {"@5 ,?,@2 ,?", "? ,?,? ,? 5 6 2 7"},
        {"@007 @1@2 ?-?/?*?", "? ?? ?-?/?*? 7 1 2 8 9 10 11"},
        {"@65535", "? 65535"},
        {"@65536", "07009"},
        {"@0", "07009"},
        {"@18446744073709551617", "07009"},
        {"a@1b @1b @1_ @a1 @ @ '@1 ''@2 ' @3 '@4", "a@1b @1b @1_ @a1 @ @ '@1 ''@2 ' ? '@4 3"},
        {"\"@1 \"\"?\" ? -- ?\n? /* ? */ ? -- @1", "\"@1 \"\"?\" ? -- ?\n? /* ? */ ? -- @1 1 2 3"},
        {"/* @1", "/* @1"},
    };
    for (const auto& [sql, expected] : kCases) {
        for (const char* dbms : {"PostgreSQL", "MariaDB", "SQLite", "Microsoft SQL Server", "?"})
            EXPECT_EQ(expected, marked(dbms, sql)) << dbms << ": " << sql;
    }
}

// The statement is delivered as it stands; behind it, the numbers of what are markers.
TEST(SqlScanner, ReadsEachDialectAsItsServerDoes) {
    const std::array<std::string, 3> kCases[] = {
        {"PostgreSQL", "'\\' ? E'\\' ?' ? e'?' name'?' nameE'\\' ?", "1 2 3"},
        {"PostgreSQL", "`?` a[?] 1 # ? -- ?\r? /* /* */ ? */ ?", "1 2 3 4 5"},
        {"PostgreSQL", "$$?$$ ? $a$?$b$ $$?$a$ ? $a$ @x @ $a$ 1--?", "1 2"},
        {"PostgreSQL", "$1 a$b$? $a", "1"},
        {"PostgreSQL", "$1$? a=?::int", "1 2"},
        {"MariaDB", "'\\' ?' ? \"\\\" ?\" ? E'\\' ?' ? `?``?` ?", "1 2 3 4"},
        {"MariaDB", "# ?\n? 1--? /* /* */ ? */ $$?$$ --\t?", "1 2 3 4"},
        {"MariaDB", "@@1 ? -- ?\r?", "1"},
        {"SQLite", "E'\\' ? [?] ? a=@1::int $? [?]]? x'00'?'?'", "1 2 3 4 5"},
        {"Microsoft SQL Server", "[?]]?] ?", "1"},
    };
    for (const auto& [dbms, sql, numbers] : kCases)
        EXPECT_EQ(sql + " " + numbers, marked(dbms.c_str(), sql)) << dbms;
    EXPECT_EQ("42000", marked("PostgreSQL", "$$ @1 $$"));
}

TEST(SqlScanner, TellsWhatAStatementDoes) {
    using enum StatementKind;
    const std::pair<const char*, StatementKind> kCases[] = {
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
        {"COMMIT WORK", Commit},
        {"COMMIT AND CHAIN", Begin},
        {"ROLLBACK WORK AND CHAIN;", Begin},
        {"COMMIT AND NO CHAIN", Commit},
        {"ROLLBACK", Rollback},
        {"ROLLBACK TO a", Savepoint},
        {"ROLLBACK WORK TO SAVEPOINT a", Savepoint},
        {"rollback transaction to a", Savepoint},
        {"RELEASE a", Savepoint}};
    for (const auto& [sql, kind] : kCases)
        EXPECT_EQ(kind, embedded::StatementText(sql, embedded::dialectOf("PostgreSQL")).kind())
            << sql;
}

}  // namespace
}  // namespace embedded_test
