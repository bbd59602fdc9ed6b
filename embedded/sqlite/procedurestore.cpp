#include "sqlite/procedurestore.h"

#include <initializer_list>

#include "sqlite/query.h"
#include "sqlite/schemaguard.h"
#include "sqlite/sqliteerror.h"

namespace embedded {
namespace {

std::string withStore(const char* before, const char* behind) {
    return before + ("main." + std::string(kProcedureStore)) + behind;
}

std::vector<StoredProcedure> read(sqlite3* db, const char* condition,
                                  std::initializer_list<std::string_view> values) {
    std::vector<StoredProcedure> found;
    std::optional<Query> query;
    try {
        query.emplace(db, withStore("SELECT name, text FROM ", condition), values);
    } catch (const Error& error) {
        // SQLite has looked at the file itself before it says so.
        if (error.state() == "42S02") return found;
        throw;
    }
    while (query->next()) found.push_back({query->text(0), query->text(1)});
    return found;
}

}  // namespace

std::vector<StoredProcedure> storedProcedures(sqlite3* db) {
    return read(db, " ORDER BY name", {});
}

std::optional<StoredProcedure> storedProcedure(sqlite3* db, const std::string& name) {
    std::vector<StoredProcedure> found = read(db, " WHERE name = ?1", {name});
    if (found.empty()) return std::nullopt;
    return std::move(found.front());
}

void storeProcedure(Session& session, const StoredProcedure& procedure) {
    const SchemaGuard::Lifted lifted(session.guard());
    Query(session.db(),
          withStore("CREATE TABLE IF NOT EXISTS ",
                    " (name TEXT NOT NULL COLLATE NOCASE PRIMARY KEY, text TEXT NOT NULL)"
                    " WITHOUT ROWID"))
        .next();
    Query(session.db(), withStore("INSERT OR REPLACE INTO ", " (name, text) VALUES (?1, ?2)"),
          {procedure.name, procedure.text})
        .next();
}

void removeProcedure(Session& session, const std::string& name) {
    const SchemaGuard::Lifted lifted(session.guard());
    Query(session.db(), withStore("DELETE FROM ", " WHERE name = ?1"), {name}).next();
}

}  // namespace embedded
