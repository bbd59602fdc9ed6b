#pragma once

#include <sql.h>
#include <sqlext.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "core/connectstring.h"
#include "core/diagnostics.h"
#include "core/resultset.h"
#include "values/column.h"

namespace embedded {

class ParameterSets;
struct VordaProgress;

/// What an execution gave.
struct Outcome {
    std::unique_ptr<ResultSet> rows;      ///< null: none to read
    SQLLEN changed = -1;                  ///< rows changed; -1 when that is no question
    bool nothingDone = false;             ///< a change that found no row: SQL_NO_DATA
    std::optional<std::int64_t> lastRow;  ///< the number that the last row inserted was given
};

/// What the application wants of an execution, its parameters aside.
struct ExecutionOptions {
    SQLULEN timeout = 0;  ///< seconds after which it, or a fetch of its rows, fails: HYT00; 0: none
    SQLULEN allResults = 0;  ///< whether `Program::nextResult` will be asked; else failures of
                             ///< later results are reported at the end of the first one's rows
};

/// What SQLDescribeParam answers.
struct ParameterType {
    SQLSMALLINT sqlType = SQL_UNKNOWN_TYPE;
    SQLULEN size = 0;
    SQLSMALLINT scale = 0;
    SQLSMALLINT nullable = SQL_NULLABLE_UNKNOWN;
};

/// A statement that an engine has prepared. Lives no longer than its database.
class Program {
  public:
    Program() = default;
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    virtual ~Program() = default;

    virtual int parameterCount() = 0;

    /// The result columns as far as they are known without an execution.
    virtual const std::vector<Column>& columns() = 0;
    virtual int columnCount() = 0;

    /// Runs the statement once for every parameter set: for all of them or, when it throws, for
    /// none. The rows of the execution before are gone by then.
    virtual Outcome execute(ParameterSets& sets, const ExecutionOptions& options) = 0;

    /// Ends `rows`, those of the last execution that are read, for the rows of its next result;
    /// nothing behind the last one.
    virtual std::unique_ptr<ResultSet> nextResult(std::unique_ptr<ResultSet> rows) {
        rows.reset();
        return nullptr;
    }

    /// The type of the 1-based parameter as the engine knows it; nothing where it does not.
    virtual std::optional<ParameterType> parameterType(int) { return std::nullopt; }

    /// Forgets the values of the last execution, whose rows are closed.
    virtual void rewind() noexcept {}
};

/// What a catalogue is asked for.
enum class Catalog {
    Tables,
    Columns,
    PrimaryKeys,
    ForeignKeys,
    Statistics,
    Procedures,
    ProcedureColumns,
    Types,
};

/// A search argument: a name, or where the standard has it so a pattern with % and _ (\ in front
/// takes them literally); nothing matches everything.
using Pattern = std::optional<std::string>;

struct CatalogSearch {
    Catalog what = Catalog::Tables;
    Pattern catalog;
    Pattern schema;
    Pattern table;           ///< or procedure; the one that foreign keys lead to
    Pattern detail;          ///< the list of types, or the pattern of the column
    Pattern foreignCatalog;  ///< the table that foreign keys are in
    Pattern foreignSchema;
    Pattern foreignTable;
    SQLUSMALLINT uniqueness = SQL_INDEX_ALL;
    SQLUSMALLINT accuracy = SQL_QUICK;
    SQLSMALLINT type = SQL_ALL_TYPES;
};

/// An answer to SQLGetInfo.
using Information = std::variant<std::string, SQLUINTEGER>;

/// An open database of one engine. Calls on it and on its programs come one at a time.
///
/// What fails throws an `Error`; closing, in the destructor, does not fail.
class Database {
  public:
    Database() = default;
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;
    virtual ~Database() = default;

    /// `timeout`: seconds after which waiting for a lock fails: HYT00; 0: none.
    virtual std::unique_ptr<Program> prepare(std::string_view sql, SQLULEN timeout) = 0;

    /// Switching autocommit on commits an open transaction. It is on in the beginning.
    virtual void setAutocommit(bool on) = 0;

    /// Commits or rolls back the open transaction, if there is one, however it was begun.
    virtual void endTransaction(bool commit) = 0;

    /// Whether changes wait, with autocommit off, to be committed or rolled back.
    virtual bool hasChanges() = 0;

    /// What the database holds, as the standard's functions of the catalogue list it.
    virtual std::unique_ptr<ResultSet> catalog(const CatalogSearch& search) = 0;

    /// Whether a result column of this database may be NULL: SQL_NULLABLE and so on. Asked only
    /// when somebody wants to know, since it may take as long as a query.
    virtual SQLSMALLINT nullability(const Column& column) { return column.nullable; }

    virtual std::string catalogName() = 0;
    virtual bool isReadOnly() = 0;
    virtual bool isDead() = 0;

    /// Nothing for a type that the engine does not know.
    virtual std::optional<Information> information(SQLUSMALLINT type) = 0;

    /// Interrupts the call that is running, all that is still to come in it included. The one
    /// function that any thread may call at any time.
    virtual void interrupt() noexcept = 0;

    /// Has `progress`, unless it is null, looked at in the middle of calls; false when it cannot
    /// be.
    virtual bool setProgress(const VordaProgress*) { return false; }

    /// Whether a transaction is open, if the engine tells.
    virtual std::optional<bool> transactionIsOpen() { return std::nullopt; }

    /// The interrupted call is over: what comes next is none of the interruption's business.
    virtual void forgetInterrupt() noexcept {}

    /// Called, under the lock of `interrupt`, on a database inherited through a fork, before this
    /// process opens another one.
    virtual void forgetInherited() {}
};

/// Whom a database asks to close the rows that are still being read from it.
class CursorOwner {
  public:
    virtual void closeCursors() noexcept = 0;

  protected:
    ~CursorOwner() = default;
};

/// Opens the database that a connection string names, with the engine that its keys ask for. What
/// deserves a warning goes to `diagnostics`. A driver is told to give up after `loginTimeout`
/// seconds; 0: never. Null, and nothing done, for a driver's data source where `onlyFiles` are
/// wanted.
std::unique_ptr<Database> openDatabase(std::string_view text, CursorOwner& cursors,
                                       Diagnostics& diagnostics, SQLULEN loginTimeout,
                                       bool onlyFiles);

}  // namespace embedded
