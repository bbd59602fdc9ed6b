#pragma once

#include <sqlite3.h>

#include <array>
#include <memory>
#include <string>
#include <string_view>

#include "core/recent.h"
#include "sqlite/columnmemory.h"
#include "sqlite/query.h"
#include "sqlite/schemaguard.h"

namespace embedded {

/// An SQL text and its compiled form.
struct CompiledSql {
    std::string text;
    OwnedStatement statement;
    Effect effect = Effect::None;
    bool readOnly = false;
    bool inserts = false;  ///< INSERT or REPLACE
    ColumnMemory columns;
    unsigned generation = 0;  ///< of the cache when it was compiled
    bool comesAgain = false;  ///< its text was asked for before

    static std::string_view textOf(const std::unique_ptr<CompiledSql>& sql) noexcept {
        return sql->text;
    }

    /// Its columns' types: those of expressions come from its current row, if it stands on one.
    std::shared_ptr<const std::vector<ColumnType>> types(bool onRow) {
        return columns.types(statement.get(), onRow);
    }

    /// Its columns, of these types.
    std::shared_ptr<const std::vector<Column>> describe(const std::vector<ColumnType>& types) {
        return columns.describe(statement.get(), types, text);
    }
};

class StatementCache;

/// A compiled statement in use. Gives it back to the cache of its connection when released: reset,
/// with no values bound, so that an idle statement holds no lock and no memory of values.
class CompiledStatement {
  public:
    CompiledStatement() = default;
    CompiledStatement(StatementCache& cache, std::unique_ptr<CompiledSql> sql) noexcept
        : m_cache(&cache), m_sql(std::move(sql)) {}
    CompiledStatement(CompiledStatement&&) noexcept = default;
    CompiledStatement& operator=(CompiledStatement&& other) noexcept {
        release();
        m_cache = other.m_cache;
        m_sql = std::move(other.m_sql);
        return *this;
    }
    ~CompiledStatement() { release(); }

    explicit operator bool() const noexcept { return m_sql != nullptr; }
    sqlite3_stmt* get() const noexcept { return m_sql->statement.get(); }
    CompiledSql& sql() const noexcept { return *m_sql; }
    void release() noexcept;

  private:
    StatementCache* m_cache = nullptr;
    std::unique_ptr<CompiledSql> m_sql;
};

/// The idle compiled statements of one connection, by their text; the least recently used go first.
/// Texts that come once, with their values written into them, take no place: but for the last one
/// only those that come again are kept.
class StatementCache {
  public:
    /// `guard` is that of `db`.
    StatementCache(sqlite3* db, SchemaGuard& guard) noexcept
        : m_db(db), m_guard(guard), m_idle(kMostIdle) {}

    /// The compiled form of `sql`, cached or new. Throws an `Error` of class 42 for a text that
    /// SQLite does not accept, that holds no statement, or more than one.
    CompiledStatement compile(std::string_view sql);
    /// The cached form of `sql`, or an empty one.
    CompiledStatement find(std::string_view sql);
    /// A new form of `sql`, which is known not to be cached.
    CompiledStatement compileNew(std::string_view sql);

    /// Forgets all idle statements. To be called after a change of the schema: a statement that
    /// names what is gone must fail when it is prepared, not later.
    void clear() noexcept;

  private:
    friend class CompiledStatement;
    using Idle = RecentlyUsed<std::unique_ptr<CompiledSql>, &CompiledSql::textOf>;
    static constexpr size_t kMostIdle = 64;

    void giveBack(std::unique_ptr<CompiledSql> sql) noexcept;
    bool isNoted(std::string_view sql) noexcept;

    sqlite3* const m_db;
    SchemaGuard& m_guard;
    unsigned m_generation = 0;  ///< counts the calls of `clear`
    /// The one given back last: programs run one statement many times, and then nothing is moved.
    std::unique_ptr<CompiledSql> m_last;
    Idle m_idle;                        ///< the others
    std::array<size_t, 256> m_noted{};  ///< hashes of texts that were compiled, by their last bits
};

}  // namespace embedded
