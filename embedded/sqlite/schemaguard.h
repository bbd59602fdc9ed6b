#pragma once

#include <sqlite3.h>

#include <string_view>
#include <utility>

namespace embedded {

/// The table that holds the procedures.
inline constexpr std::string_view kProcedureStore = "vorda_procedures";

/// Whether a table of this name belongs to the runtime.
bool isSystemName(std::string_view name) noexcept;

/// What a statement does: the weightiest of the actions that SQLite names while it compiles it.
enum class Effect {
    None,         ///< it reads
    Change,       ///< INSERT, UPDATE, DELETE: SQLite counts rows
    Schema,       ///< CREATE, ALTER, DROP, ANALYZE, REINDEX
    Transaction,  ///< BEGIN, SAVEPOINT, RELEASE
    Commit,
    RollbackTo,  ///< a savepoint
    Rollback,
    Service,  ///< ATTACH, DETACH, VACUUM
    Pragma,
};

/// Keeps an application's SQL from changing, dropping or hiding the tables of the procedures in any
/// database of a connection, also through triggers, and from writing SQLite's own schema table.
/// Reading is free. SQLite asks it for every statement that it compiles, and for one that it
/// compiles anew in the middle of an execution; its questions also tell what a statement does.
class SchemaGuard {
  public:
    SchemaGuard() = default;
    SchemaGuard(const SchemaGuard&) = delete;
    SchemaGuard& operator=(const SchemaGuard&) = delete;

    /// Guards `db`, which must be closed before the guard goes.
    void install(sqlite3* db) noexcept;

    /// The weightiest action since it was asked for the last time.
    Effect takeEffect() noexcept { return std::exchange(m_effect, Effect::None); }

    /// While one exists, everything is allowed: for statements of the runtime itself, and for
    /// VACUUM, which copies all tables.
    class Lifted {
      public:
        explicit Lifted(SchemaGuard& guard) noexcept : m_guard(guard) { ++m_guard.m_lifted; }
        Lifted(const Lifted&) = delete;
        Lifted& operator=(const Lifted&) = delete;
        ~Lifted() { --m_guard.m_lifted; }

      private:
        SchemaGuard& m_guard;
    };

  private:
    static int authorize(void* guard, int action, const char* first, const char* second,
                         const char* database, const char* trigger) noexcept;

    int m_lifted = 0;
    Effect m_effect = Effect::None;
};

}  // namespace embedded
