#include "sqlite/schemaguard.h"

#include <algorithm>
#include <iterator>

#include "sql/procedures.h"
#include "values/text.h"

namespace embedded {
namespace {

constexpr std::string_view kSystemNames[] = {kProcedureStore, kProceduresTable,
                                             kProcedureParametersTable};

/// The actions that are refused when one of the names that come with them is the runtime's. The
/// second name is that of the table which an index or a trigger is for.
constexpr int kGuarded[] = {
    SQLITE_CREATE_INDEX, SQLITE_CREATE_TEMP_INDEX,
    SQLITE_CREATE_TABLE, SQLITE_CREATE_TEMP_TABLE,
    SQLITE_CREATE_VIEW,  SQLITE_CREATE_TEMP_VIEW,
    SQLITE_DROP_INDEX,   SQLITE_DROP_TABLE,
    SQLITE_DROP_TRIGGER, SQLITE_CREATE_TEMP_TRIGGER,
    SQLITE_DROP_VTABLE,  SQLITE_CREATE_TRIGGER,
    SQLITE_DELETE,       SQLITE_INSERT,
    SQLITE_ALTER_TABLE,  SQLITE_CREATE_VTABLE,
};

bool isSystem(const char* name) noexcept {
    return name && isSystemName(name);
}

Effect effectOf(int action, const char* first) noexcept {
    switch (action) {
        case SQLITE_SELECT:
        case SQLITE_READ:
        case SQLITE_FUNCTION:
        case SQLITE_RECURSIVE:
            return Effect::None;
        case SQLITE_INSERT:
        case SQLITE_UPDATE:
        case SQLITE_DELETE:
            return Effect::Change;
        case SQLITE_TRANSACTION:
            if (sameWord(first, "COMMIT")) return Effect::Commit;
            return sameWord(first, "ROLLBACK") ? Effect::Rollback : Effect::Transaction;
        case SQLITE_SAVEPOINT:
            return sameWord(first, "ROLLBACK") ? Effect::RollbackTo : Effect::Transaction;
        case SQLITE_ATTACH:
        case SQLITE_DETACH:
            return Effect::Service;
        case SQLITE_PRAGMA:
            return Effect::Pragma;
        default:
            return Effect::Schema;
    }
}

}  // namespace

bool isSystemName(std::string_view name) noexcept {
    return std::any_of(std::begin(kSystemNames), std::end(kSystemNames),
                       [name](std::string_view system) { return sameWord(system, name); });
}

void SchemaGuard::install(sqlite3* db) noexcept {
    sqlite3_set_authorizer(db, authorize, this);
}

int SchemaGuard::authorize(void* guard, int action, const char* first, const char* second,
                           const char*, const char* trigger) noexcept {
    auto& self = *static_cast<SchemaGuard*>(guard);
    const Effect effect = effectOf(action, first);
    if (effect == Effect::None) return SQLITE_OK;
    self.m_effect = std::max(self.m_effect, effect);
    // A trigger is an application's, whoever fires it.
    if (self.m_lifted && !trigger) return SQLITE_OK;
    bool refused = false;
    if (action == SQLITE_UPDATE) {
        refused = isSystem(first);  // the second name is a column's
    } else if (action == SQLITE_PRAGMA) {
        refused = second && sameWord(first, "writable_schema");
    } else if (std::find(std::begin(kGuarded), std::end(kGuarded), action) != std::end(kGuarded)) {
        refused = isSystem(first) || isSystem(second);
    }
    return refused ? SQLITE_DENY : SQLITE_OK;
}

}  // namespace embedded
