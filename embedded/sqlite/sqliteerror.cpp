#include "sqlite/sqliteerror.h"

#include <new>
#include <string_view>

namespace embedded {
namespace {

struct CodeState {
    int code;
    const char* state;
};

// Extended codes stand before the primary codes they belong to.
constexpr CodeState kStates[] = {
    {SQLITE_CONSTRAINT_UNIQUE, "23505"},
    {SQLITE_CONSTRAINT_PRIMARYKEY, "23505"},
    {SQLITE_CONSTRAINT_ROWID, "23505"},
    {SQLITE_CONSTRAINT_NOTNULL, "23502"},
    {SQLITE_CONSTRAINT_FOREIGNKEY, "23503"},
    {SQLITE_CONSTRAINT_CHECK, "23514"},
    {SQLITE_CONSTRAINT, "23000"},
    {SQLITE_BUSY_SNAPSHOT, "40001"},
    {SQLITE_BUSY, "HYT00"},
    {SQLITE_LOCKED, "HYT00"},
    {SQLITE_PROTOCOL, "HYT00"},
    {SQLITE_READONLY, "25006"},
    {SQLITE_INTERRUPT, "HY008"},
    {SQLITE_FULL, "53100"},
    {SQLITE_IOERR, "58030"},
    {SQLITE_CANTOPEN, "58030"},
    {SQLITE_CORRUPT, "XX001"},
    {SQLITE_NOTADB, "XX001"},
    {SQLITE_AUTH, "42000"},
    {SQLITE_MISMATCH, "22018"},
    {SQLITE_RANGE, "07009"},
    {SQLITE_TOOBIG, "22001"},
    {SQLITE_ABORT, "24000"},
    {SQLITE_MISUSE, "HY010"},
};

struct TextState {
    std::string_view part;
    const char* state;
};

// SQLite gives all mistakes in SQL text one code; its messages tell them apart.
constexpr TextState kTexts[] = {
    {"no such table", "42S02"},
    {"no such view", "42S02"},
    {"no such column", "42S22"},
    {"has no column named", "42S22"},
    {"no such index", "42S12"},
    {"duplicate column name", "42S21"},
    {"syntax error", "42000"},
    {"incomplete input", "42000"},
    {"unrecognized token", "42000"},
    {"no such function", "42000"},
    {"no such savepoint", "3B001"},
    {"within a transaction", "25000"},
    {"no transaction is active", "25000"},
    {"integer overflow", "22003"},
};

const char* stateOfText(std::string_view message) noexcept {
    if (message.ends_with(" already exists")) {
        return message.starts_with("index ") ? "42S11" : "42S01";
    }
    for (const TextState& entry : kTexts) {
        if (message.find(entry.part) != std::string_view::npos) return entry.state;
    }
    return nullptr;
}

const char* stateOf(int code, std::string_view message) noexcept {
    constexpr int kPrimary = 0xFF;
    if ((code & kPrimary) == SQLITE_ERROR) {
        const char* state = stateOfText(message);
        return state ? state : "HY000";
    }
    for (const CodeState& entry : kStates) {
        if (entry.code == code || entry.code == (code & kPrimary)) return entry.state;
    }
    return "HY000";
}

}  // namespace

Error sqliteError(sqlite3* db) {
    const int code = sqlite3_extended_errcode(db);
    if (code == SQLITE_NOMEM) throw std::bad_alloc();
    if (code == SQLITE_AUTH) {
        return {"42000",
                "The tables of the procedures and SQLite's schema table cannot be changed by a "
                "statement.",
                code};
    }
    const char* const message = sqlite3_errmsg(db);
    return Error::fromSqlite(stateOf(code, message), message, code);
}

void requireMemory(sqlite3_stmt* statement) {
    if (sqlite3_errcode(sqlite3_db_handle(statement)) == SQLITE_NOMEM) throw std::bad_alloc();
}

}  // namespace embedded
