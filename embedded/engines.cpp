// The engines, and which of them a connection string asks for.
#include "engine.h"
#include "odbc/database.h"
#include "sqlite/database.h"

namespace embedded {

std::unique_ptr<Database> openDatabase(std::string_view text, CursorOwner& cursors,
                                       Diagnostics& diagnostics, SQLULEN loginTimeout,
                                       bool onlyFiles) {
    refuseReturn();
    const ConnectString parsed(text);
    std::unique_ptr<Database> database;
    if (asksForDriverManager(parsed)) {
        if (onlyFiles) return nullptr;
        database = openOdbc(parsed, cursors, diagnostics, loginTimeout);
    }
    return database ? std::move(database) : openSqlite(parsed, cursors, diagnostics);
}

}  // namespace embedded
