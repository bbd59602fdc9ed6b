#pragma once

#include <sqlite3.h>

#include <optional>
#include <string>
#include <vector>

#include "sqlite/session.h"

namespace embedded {

struct StoredProcedure {
    std::string name;
    std::string text;  ///< its CREATE PROCEDURE statement
};

/// All procedures of the main database by name; none when it has no table for them.
std::vector<StoredProcedure> storedProcedures(sqlite3* db);

/// The procedure `name`, ASCII letters in any case.
std::optional<StoredProcedure> storedProcedure(sqlite3* db, const std::string& name);

/// Adds a procedure or replaces the one of its name. The first one makes the table.
void storeProcedure(Session& session, const StoredProcedure& procedure);

void removeProcedure(Session& session, const std::string& name);

}  // namespace embedded
