#include "sqlite/statementcache.h"

#include <functional>
#include <limits>
#include <new>
#include <utility>

#include "core/error.h"
#include "sqlite/sqliteerror.h"
#include "sqlite/sqltext.h"

namespace embedded {
namespace {

constexpr size_t kMaxCachedText = size_t{16} * 1024;

// Texts of other kinds seldom come twice, and most of them make compiled forms out of date.
bool isWorthKeeping(const CompiledSql& sql) noexcept {
    return sql.effect <= Effect::Change && sql.text.size() <= kMaxCachedText;
}

/// The first use of a virtual table compiles its module's own statements, which count for nothing
/// in one that only reads; and of VACUUM SQLite names no action at all.
Effect effectOf(sqlite3_stmt* statement, Effect named) noexcept {
    if (named > Effect::Schema) return named;
    if (sqlite3_stmt_readonly(statement)) return Effect::None;
    return named == Effect::None ? Effect::Service : named;
}

/// What SQLite reports as plain errors while it compiles are mistakes in the text.
Error compileError(sqlite3* db) {
    Error error = sqliteError(db);
    constexpr std::string_view kGeneral = "HY000";
    if (error.state() != kGeneral || (error.native() & 0xFF) != SQLITE_ERROR) return error;
    return Error::fromSqlite("42000", sqlite3_errmsg(db), error.native());
}

}  // namespace

void CompiledStatement::release() noexcept {
    if (m_sql) m_cache->giveBack(std::move(m_sql));
}

CompiledStatement StatementCache::compileNew(std::string_view sql) {
    // SQLite stops reading at a NUL; what follows must not vanish unseen.
    const std::string_view text = sql.substr(0, sql.find_last_not_of('\0') + 1);
    if (text.find('\0') != std::string_view::npos) {
        throw Error("42000", "The statement contains a NUL character.");
    }
    if (text.size() >= static_cast<size_t>(std::numeric_limits<int>::max())) {
        throw Error("42000", "The statement is too long.", SQLITE_TOOBIG);
    }
    const SqliteText read = readSql(text);
    auto compiled = std::make_unique<CompiledSql>();
    compiled->text = sql;
    const char* const begin = (read.respelled ? *read.respelled : compiled->text).c_str();
    m_guard.takeEffect();
    sqlite3_stmt* raw = nullptr;
    const char* tail = nullptr;
    const int result = sqlite3_prepare_v3(m_db, begin, static_cast<int>(text.size()) + 1,
                                          SQLITE_PREPARE_PERSISTENT, &raw, &tail);
    compiled->statement.reset(raw);
    if (result != SQLITE_OK) throw compileError(m_db);

    if (!raw) throw Error("42000", "The statement is empty.");
    if (!isBlankSql(std::string_view(tail, begin + text.size()))) {
        throw Error("42000",
                    "The text holds more than one statement; only one is allowed at a time.");
    }
    compiled->effect = effectOf(raw, m_guard.takeEffect());
    compiled->readOnly = sqlite3_stmt_readonly(raw) != 0;
    compiled->inserts = read.inserts;
    compiled->generation = m_generation;
    compiled->comesAgain = isNoted(sql);
    return {*this, std::move(compiled)};
}

/// Whether a text was noted before, which it now is. One too long to be kept never is; of others
/// as much is looked at as most are long: a mistake keeps a statement for nothing.
bool StatementCache::isNoted(std::string_view sql) noexcept {
    if (sql.size() > kMaxCachedText) return false;
    constexpr size_t kEnd = 512;
    const std::hash<std::string_view> hashOf;
    size_t hash = hashOf(sql.substr(0, kEnd));
    if (sql.size() > kEnd) hash = hash * 31 + hashOf(sql.substr(sql.size() - kEnd)) + sql.size();
    return std::exchange(m_noted[hash % m_noted.size()], hash) == hash;
}

CompiledStatement StatementCache::find(std::string_view sql) {
    if (m_last && m_last->text == sql) {
        m_last->comesAgain = true;
        return {*this, std::move(m_last)};
    }
    auto idle = m_idle.take(sql);
    return idle ? CompiledStatement(*this, std::move(*idle)) : CompiledStatement();
}

CompiledStatement StatementCache::compile(std::string_view sql) {
    CompiledStatement known = find(sql);
    return known ? std::move(known) : compileNew(sql);
}

void StatementCache::giveBack(std::unique_ptr<CompiledSql> sql) noexcept {
    sqlite3_reset(sql->statement.get());
    if (!isWorthKeeping(*sql) || sql->generation != m_generation) return;
    sqlite3_clear_bindings(sql->statement.get());
    std::swap(m_last, sql);
    if (sql && sql->comesAgain) m_idle.keep(std::move(sql));
}

void StatementCache::clear() noexcept {
    ++m_generation;
    m_last.reset();
    m_idle.clear();
}

}  // namespace embedded
