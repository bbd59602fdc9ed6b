// The system tables of the procedures, as virtual tables of SQLite that need no CREATE.
#include "sqlite/proceduretables.h"

#include <cstdint>
#include <new>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "core/error.h"
#include "sqlite/procedureparser.h"
#include "sqlite/procedurestore.h"
#include "sqlite/sqliteerror.h"

namespace embedded {
namespace {

using Value = std::variant<std::monostate, std::int64_t, std::string>;
using Row = std::vector<Value>;

std::vector<Row> procedureRows(sqlite3* db) {
    std::vector<Row> rows;
    for (StoredProcedure& procedure : storedProcedures(db)) {
        rows.push_back({std::move(procedure.name), std::move(procedure.text)});
    }
    return rows;
}

/// The parameters in a stored text; none of a text that was damaged from outside, whose call says
/// what is wrong with it and must not make all others unreadable.
std::vector<ProcedureParameter> parametersOf(const std::string& text) {
    try {
        auto command = parseProcedureCommand(text);
        if (!command) return {};
        auto* definition = std::get_if<ProcedureDefinition>(&*command);
        return definition ? std::move(definition->parameters) : std::vector<ProcedureParameter>{};
    } catch (const Error&) {
        return {};
    }
}

std::vector<Row> parameterRows(sqlite3* db) {
    std::vector<Row> rows;
    for (const StoredProcedure& procedure : storedProcedures(db)) {
        std::int64_t position = 0;
        for (ProcedureParameter& parameter : parametersOf(procedure.text)) {
            Value type;
            if (!parameter.type.empty()) type = std::move(parameter.type);
            rows.push_back(
                {procedure.name, std::move(parameter.name), ++position, std::move(type)});
        }
    }
    return rows;
}

struct SystemTable {
    std::string_view name;
    std::span<const SystemColumn> columns;
    std::vector<Row> (*rows)(sqlite3* db);
};

constexpr SystemTable kTables[] = {
    {kProceduresTable, kProceduresColumns, procedureRows},
    {kProcedureParametersTable, kProcedureParametersColumns, parameterRows},
};

/// The table as SQLite wants to be told of it.
std::string declarationOf(const SystemTable& table) {
    std::string sql;
    for (const SystemColumn& column : table.columns) {
        sql += (sql.empty() ? "CREATE TABLE t (" : ", ") + std::string(column.name);
        sql += column.sqlType == SQL_BIGINT ? " INTEGER" : " TEXT";
        if (column.isName) sql += " COLLATE NOCASE";
    }
    return sql + ")";
}

struct Connected : sqlite3_vtab {
    sqlite3* db;
    const SystemTable* table;
};

struct Cursor : sqlite3_vtab_cursor {
    std::vector<Row> rows;
    size_t current = 0;
};

int connect(sqlite3* db, void* table, int, const char* const*, sqlite3_vtab** made, char**) {
    const auto* system = static_cast<const SystemTable*>(table);
    try {
        const int result = sqlite3_declare_vtab(db, declarationOf(*system).c_str());
        if (result == SQLITE_OK) *made = new Connected{{}, db, system};
        return result;
    } catch (const std::bad_alloc&) {
        return SQLITE_NOMEM;
    }
}

int disconnect(sqlite3_vtab* table) {
    delete static_cast<Connected*>(table);
    return SQLITE_OK;
}

// Few rows, all of them every time; SQLite itself applies the conditions.
int bestIndex(sqlite3_vtab*, sqlite3_index_info* plan) {
    plan->estimatedCost = 1000;
    return SQLITE_OK;
}

int openCursor(sqlite3_vtab*, sqlite3_vtab_cursor** opened) {
    auto* cursor = new (std::nothrow) Cursor{};
    if (!cursor) return SQLITE_NOMEM;
    *opened = cursor;
    return SQLITE_OK;
}

int closeCursor(sqlite3_vtab_cursor* cursor) {
    delete static_cast<Cursor*>(cursor);
    return SQLITE_OK;
}

int filter(sqlite3_vtab_cursor* base, int, const char*, int, sqlite3_value**) {
    auto& cursor = *static_cast<Cursor*>(base);
    auto& connected = *static_cast<Connected*>(base->pVtab);
    try {
        cursor.rows = connected.table->rows(connected.db);
        cursor.current = 0;
        return SQLITE_OK;
    } catch (const Error& error) {
        sqlite3_free(connected.zErrMsg);
        connected.zErrMsg = sqlite3_mprintf("%s", error.what());
        return error.native();
    } catch (...) {
        return SQLITE_NOMEM;
    }
}

int next(sqlite3_vtab_cursor* cursor) {
    ++static_cast<Cursor*>(cursor)->current;
    return SQLITE_OK;
}

int atEnd(sqlite3_vtab_cursor* base) {
    const auto& cursor = *static_cast<Cursor*>(base);
    return cursor.current >= cursor.rows.size();
}

int columnValue(sqlite3_vtab_cursor* base, sqlite3_context* context, int index) {
    const auto& cursor = *static_cast<Cursor*>(base);
    const Value& value = cursor.rows[cursor.current][static_cast<size_t>(index)];
    if (const auto* text = std::get_if<std::string>(&value)) {
        sqlite3_result_text64(context, text->data(), text->size(), SQLITE_TRANSIENT, SQLITE_UTF8);
    } else if (const auto* number = std::get_if<std::int64_t>(&value)) {
        sqlite3_result_int64(context, *number);
    }
    return SQLITE_OK;
}

int rowNumber(sqlite3_vtab_cursor* cursor, sqlite3_int64* number) {
    *number = static_cast<sqlite3_int64>(static_cast<Cursor*>(cursor)->current) + 1;
    return SQLITE_OK;
}

// Without xCreate a module is a table of its own name, and no other can be made from it.
constexpr sqlite3_module kModule = [] {
    sqlite3_module module{};
    module.xConnect = connect;
    module.xBestIndex = bestIndex;
    module.xDisconnect = disconnect;
    module.xOpen = openCursor;
    module.xClose = closeCursor;
    module.xFilter = filter;
    module.xNext = next;
    module.xEof = atEnd;
    module.xColumn = columnValue;
    module.xRowid = rowNumber;
    return module;
}();

}  // namespace

void addProcedureTables(sqlite3* db) {
    for (const SystemTable& table : kTables) {
        // The module gets its table as it is; it is only read.
        auto* argument = const_cast<SystemTable*>(&table);
        if (sqlite3_create_module_v2(db, std::string(table.name).c_str(), &kModule, argument,
                                     nullptr) != SQLITE_OK) {
            throw sqliteError(db);
        }
    }
}

}  // namespace embedded
