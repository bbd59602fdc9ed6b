#include "sqlite/schemaguard.h"

#include <algorithm>
#include <iterator>

#include "core/error.h"
#include "sql/scanner.h"
#include "sqlite/sqltext.h"
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
    // A trigger is an application's, whoever fires it.
    if (static_cast<const SchemaGuard*>(guard)->m_lifted && !trigger) return SQLITE_OK;
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

void refuseSystemNames(std::string_view sql) {
    SqlScanner scanner(sql);
    auto first = scanner.next();
    while (first.text == ";") first = scanner.next();
    if (!sameWord(first.text, "ALTER")) return;
    for (auto token = scanner.next(); token.kind != SqlScanner::Kind::End; token = scanner.next()) {
        std::string_view name = token.text;
        const bool isQuoted =
            token.kind == SqlScanner::Kind::QuotedName || token.kind == SqlScanner::Kind::String;
        if (isQuoted && name.size() >= 2) name = name.substr(1, name.size() - 2);
        if (isSystemName(name)) {
            throw Error("42000", "The name " + std::string(name) + " is the runtime's own.",
                        SQLITE_AUTH);
        }
    }
}

}  // namespace embedded
