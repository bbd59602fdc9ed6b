#include "odbc/dialect.h"

#include <string>

#include "values/text.h"

namespace embedded {
namespace {

struct NamedDialect {
    std::string_view name;
    Dialect dialect;
};

// A deadlock, or a change at another node; and what becomes of a statement that is being prepared
// at that moment: it is unknown.
constexpr int kUndoneByMySql[] = {1213, 1243};
constexpr int kUndoneByMicrosoft[] = {1205};

constexpr Dialect kMySql{.syntax = {.backslashEscapes = true,
                                    .doubleQuotedStrings = true,
                                    .backtickNames = true,
                                    .hashComments = true,
                                    .dashNeedsBlank = true},
                         .commitsBySchemaChange = true,
                         .undone = kUndoneByMySql};

constexpr Dialect mariaDb() noexcept {
    Dialect dialect = kMySql;
    dialect.inTransaction = "SELECT @@in_transaction";
    dialect.isNode = "SELECT @@wsrep_on";
    dialect.staleQueryCode = 2057;
    return dialect;
}

constexpr std::string_view kUnreadForPostgres[] = {"0A000", "22019", "22021", "22025",
                                                   "22P06", "42601", "42622", "54001"};

// What its driver says of itself when the savepoint of its own before a statement, or the way back
// to it, was cancelled or failed: it has rolled back the whole transaction, and says no more.
constexpr int kUndoneByPostgresDriver[] = {8};

constexpr NamedDialect kDialects[] = {
    {"PostgreSQL",
     {.syntax = {.escapeStrings = true,
                 .returnEndsComment = true,
                 .nestedComments = true,
                 .dollarQuotes = true},
      .unreadable = kUnreadForPostgres,
      .undone = kUndoneByPostgresDriver,
      // Its driver takes no savepoint for the beginning of a transaction: if the next statement
      // fails, it rolls back all, with the savepoint.
      .beforeSavepoint = "SELECT 1",
      .noSavepoint = "3B001",
      .wrongCall = "42809",
      .typeOfParameter = "SELECT DISTINCT CAST(parameter_types[#] AS text)"
                         " FROM pg_prepared_statements WHERE prepare_time ="
                         " (SELECT max(prepare_time) FROM pg_prepared_statements)",
      .stalePlan = "0A000",
      .unguessed = "42P18",
      .strictBooleans = true}},
    {"MariaDB", mariaDb()},
    {"MySQL", kMySql},
    {"SQLite", {.syntax = kSqliteSyntax, .savepointBegins = true}},
    {"Microsoft SQL Server",
     {.syntax = {.bracketNames = true, .doubledBrackets = true, .nestedComments = true},
      .inTransaction = "SELECT @@TRANCOUNT",
      .undone = kUndoneByMicrosoft,
      .savepoint = "SAVE TRANSACTION ",
      .rollbackTo = "ROLLBACK TRANSACTION ",
      .release = nullptr}},
    {"Oracle", {.release = nullptr}},
};

struct NamedQuirks {
    std::string_view part;  ///< of the driver's file name
    std::string_view name;  ///< with which names in connection strings begin
    DriverQuirks quirks;
};

using AsText = DriverQuirks::AsText;

// It accepts arrays, but its reports on them cannot be relied on. It describes no fractions and
// keeps three digits of them; shows a date or a number that is none as NULL; and garbles the last
// of Unicode's planes in wide texts.
constexpr DriverQuirks kSqlite{.arrays = false,
                               .describesScales = false,
                               .utf8Texts = true,
                               .comesAsText = AsText::All,
                               .textTemporals = true,
                               .staleTypes = true,
                               .narrow = true,
                               .cancelled = 9};  // SQLITE_INTERRUPT

// It does not know that these answer with rows, leaves the rows on the wire, and crashes when it
// reads the answer to the next statement. DO, which it does not know at all, leaves its lock taken.
constexpr StatementPattern kUnreadByMaria[] = {
    {{"VALUES", ""}},
    {{"(", "VALUES"}},
    {{"HELP", ""}},
    {{"DO", ""}},
    {{"OPTIMIZE", ""}},
    {{"REPAIR", ""}},
    {{"XA", "RECOVER"}},
    {{"LOAD", "INDEX"}},
    {{"CACHE", "INDEX"}},
    {{"HANDLER", ""}},
    {{"SET", "STATEMENT"}},
    {{"ALTER", "TABLE"}, {"ANALYZE", "PARTITION"}},
    {{"ALTER", "TABLE"}, {"CHECK", "PARTITION"}},
    {{"ALTER", "TABLE"}, {"OPTIMIZE", "PARTITION"}},
    {{"ALTER", "TABLE"}, {"REPAIR", "PARTITION"}},
};

// With an array the server ends them early when it is told to (KILL QUERY, a limit of its own), and
// says that all went well; a SELECT it refuses.
constexpr StatementPattern kSingleForMaria[] = {
    {{"UPDATE", ""}},
    {{"DELETE", ""}},
    {{"WITH", ""}},
    {{"INSERT", ""}, {"SELECT", ""}},
    {{"REPLACE", ""}, {"SELECT", ""}},
};

// It waits for ever for an answer that is in another protocol.
constexpr StatementPattern kUnreadByPostgres[] = {
    {{"COPY", ""}, {"FROM", "STDIN"}},
    {{"COPY", ""}, {"TO", "STDOUT"}},
    // It takes all texts for UTF-8 as before, and reads on behind their ends.
    {{"SET", ""}, {"CLIENT_ENCODING", ""}, "utf"},
    {{"SET", "NAMES"}, {}, "utf"},
};

constexpr NamedQuirks kQuirks[] = {
    // It shows a Boolean as a text unless told not to. A date as a text takes it twice as long.
    {"psqlodbc",
     "postgresql",
     {.key = "BoolsAsChar",
      .value = "0",
      .rowArrays = true,
      .makesUpToday = true,
      .unreadable = kUnreadByPostgres,
      .copiesPrepared = true,
      .hidesLoss = true}},
    // It counts wide texts wrong, both ways: it takes U+00D8 to U+00DB for halves of surrogate
    // pairs, for one. It shows a date that is none as NULL. A body with semicolons it takes for
    // several statements, unless BEGIN NOT ATOMIC opens it, and crashes when it is asked for the
    // result of the second.
    {"maodbc",
     "mariadb",
     {.single = kSingleForMaria,
      .utf8Texts = true,
      .comesAsText = AsText::Temporals,
      .keepsNul = true,
      .unreadable = kUnreadByMaria,
      .splitsTexts = true,
      .mistakesDirect = true}},
    {"sqlite3odbc", "sqlite", kSqlite},
    {"sqliteodbc", "sqlite", kSqlite},
};

constexpr DriverQuirks kUnknown;

}  // namespace

const Dialect& dialectOf(std::string_view dbms) noexcept {
    static constexpr Dialect kPlain;
    for (const NamedDialect& entry : kDialects) {
        if (sameWord(entry.name, dbms)) return entry.dialect;
    }
    return kPlain;
}

const DriverQuirks& quirksOf(std::string_view file) {
    const std::string name = lower(file);
    for (const NamedQuirks& entry : kQuirks) {
        if (name.find(entry.part) != std::string::npos) return entry.quirks;
    }
    return kUnknown;
}

const DriverQuirks& quirksOfNamed(std::string_view name) {
    const std::string known = lower(name);
    for (const NamedQuirks& entry : kQuirks) {
        if (known.starts_with(entry.name) || known.find(entry.part) != std::string::npos) {
            return entry.quirks;
        }
    }
    return kUnknown;
}

}  // namespace embedded
