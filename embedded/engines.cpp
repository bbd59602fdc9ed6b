// The engines, and which of them a connection string asks for.
#include "engine.h"
#include "sqlite/database.h"

namespace embedded {

std::unique_ptr<Database> openDatabase(const ConnectString& text, CursorOwner& cursors,
                                       Diagnostics& diagnostics) {
    return openSqlite(text, cursors, diagnostics);
}

}  // namespace embedded
