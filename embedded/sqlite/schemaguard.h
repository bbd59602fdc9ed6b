#pragma once

#include <sqlite3.h>

#include <string_view>

namespace embedded {

/// The table that holds the procedures, and the tables that show them.
inline constexpr std::string_view kProcedureStore = "vorda_procedures";
inline constexpr std::string_view kProceduresTable = "sys_procedures";
inline constexpr std::string_view kProcedureParametersTable = "sys_procedureparameters";

/// Whether a table of this name belongs to the runtime.
bool isSystemName(std::string_view name) noexcept;

/// Keeps an application's SQL from changing, dropping or hiding the tables of the procedures in any
/// database of a connection, also through triggers, and from writing SQLite's own schema table.
/// Reading is free. SQLite asks it for every statement that it compiles, and for one that it
/// compiles anew in the middle of an execution.
class SchemaGuard {
  public:
    SchemaGuard() = default;
    SchemaGuard(const SchemaGuard&) = delete;
    SchemaGuard& operator=(const SchemaGuard&) = delete;

    /// Guards `db`, which must be closed before the guard goes.
    void install(sqlite3* db) noexcept;

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
};

/// Throws when `sql` is an ALTER statement that names a table of the runtime. SQLite does not tell
/// the guard what a table is going to be called.
void refuseSystemNames(std::string_view sql);

}  // namespace embedded
