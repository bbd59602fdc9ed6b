#include "sqlite/query.h"

#include "sqlite/sqliteerror.h"

namespace embedded {

Query::Query(sqlite3* db, const std::string& sql, std::initializer_list<std::string_view> values) {
    sqlite3_stmt* raw = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &raw, nullptr) != SQLITE_OK) throw sqliteError(db);
    m_statement.reset(raw);
    int marker = 0;
    for (const std::string_view value : values) {
        sqlite3_bind_text64(raw, ++marker, value.data(), value.size(), SQLITE_STATIC, SQLITE_UTF8);
    }
}

bool Query::next() {
    const int result = sqlite3_step(get());
    if (result != SQLITE_ROW && result != SQLITE_DONE) throw sqliteError(sqlite3_db_handle(get()));
    return result == SQLITE_ROW;
}

std::optional<std::string> Query::value(int column) const {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(get(), column));
    if (!text) {
        requireMemory(get());
        return std::nullopt;
    }
    return std::string(text, static_cast<size_t>(sqlite3_column_bytes(get(), column)));
}

}  // namespace embedded
