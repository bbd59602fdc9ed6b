#include "sqlite/procedurestore.h"

#include <initializer_list>
#include <memory>

#include "sqlite/schemaguard.h"
#include "sqlite/sqliteerror.h"
#include "sqlite/statementcache.h"

namespace embedded {
namespace {

using CompiledQuery = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

std::string withStore(const char* before, const char* behind) {
    return before + ("main." + std::string(kProcedureStore)) + behind;
}

CompiledQuery compile(sqlite3* db, const std::string& sql,
                      std::initializer_list<const std::string*> values) {
    sqlite3_stmt* raw = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &raw, nullptr) != SQLITE_OK) throw sqliteError(db);
    CompiledQuery query(raw);
    int marker = 0;
    for (const std::string* value : values) {
        sqlite3_bind_text64(raw, ++marker, value->data(), value->size(), SQLITE_STATIC,
                            SQLITE_UTF8);
    }
    return query;
}

void run(sqlite3* db, const std::string& sql, std::initializer_list<const std::string*> values) {
    const CompiledQuery statement = compile(db, sql, values);
    if (sqlite3_step(statement.get()) != SQLITE_DONE) throw sqliteError(db);
}

std::string textOf(sqlite3_stmt* row, int column) {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(row, column));
    if (!text) requireMemory(row);
    return text ? std::string(text, static_cast<size_t>(sqlite3_column_bytes(row, column))) : "";
}

std::vector<StoredProcedure> read(sqlite3* db, const char* condition,
                                  std::initializer_list<const std::string*> values) {
    std::vector<StoredProcedure> found;
    CompiledQuery query;
    try {
        query = compile(db, withStore("SELECT name, text FROM ", condition), values);
    } catch (const Error& error) {
        // SQLite has looked at the file itself before it says so.
        if (error.state() == "42S02") return found;
        throw;
    }
    int result = sqlite3_step(query.get());
    for (; result == SQLITE_ROW; result = sqlite3_step(query.get())) {
        found.push_back({textOf(query.get(), 0), textOf(query.get(), 1)});
    }
    if (result != SQLITE_DONE) throw sqliteError(db);
    return found;
}

}  // namespace

std::vector<StoredProcedure> storedProcedures(sqlite3* db) {
    return read(db, " ORDER BY name", {});
}

std::optional<StoredProcedure> storedProcedure(sqlite3* db, const std::string& name) {
    std::vector<StoredProcedure> found = read(db, " WHERE name = ?1", {&name});
    if (found.empty()) return std::nullopt;
    return std::move(found.front());
}

void storeProcedure(Session& session, const StoredProcedure& procedure) {
    const SchemaGuard::Lifted lifted(session.guard());
    run(session.db(),
        withStore("CREATE TABLE IF NOT EXISTS ",
                  " (name TEXT NOT NULL COLLATE NOCASE PRIMARY KEY, text TEXT NOT NULL)"
                  " WITHOUT ROWID"),
        {});
    run(session.db(), withStore("INSERT OR REPLACE INTO ", " (name, text) VALUES (?1, ?2)"),
        {&procedure.name, &procedure.text});
}

void removeProcedure(Session& session, const std::string& name) {
    const SchemaGuard::Lifted lifted(session.guard());
    run(session.db(), withStore("DELETE FROM ", " WHERE name = ?1"), {&name});
}

}  // namespace embedded
