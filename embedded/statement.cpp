#include "statement.h"

#include <string>

#include "error.h"
#include "savepoint.h"
#include "sqliteerror.h"

namespace embedded {
namespace {

/// Leaves a statement that was run to its end, or failed, reset and without values: the values are
/// the application's memory, and a statement that is not reset may hold locks.
class Rewind {
  public:
    explicit Rewind(sqlite3_stmt* statement) noexcept : m_statement(statement) {}
    Rewind(const Rewind&) = delete;
    Rewind& operator=(const Rewind&) = delete;
    ~Rewind() {
        if (!m_statement) return;
        sqlite3_reset(m_statement);
        sqlite3_clear_bindings(m_statement);
    }
    void cancel() noexcept { m_statement = nullptr; }

  private:
    sqlite3_stmt* m_statement;
};

bool mayChangeSchema(Verb verb) noexcept {
    return verb == Verb::Other || verb == Verb::Rollback || verb == Verb::Pragma ||
           verb == Verb::Service;
}

/// What SQLITE_ROW and SQLITE_DONE are not.
[[noreturn]] void fail(sqlite3_stmt* statement) {
    throw sqliteError(sqlite3_db_handle(statement));
}

}  // namespace

Statement::Statement(std::shared_ptr<Connection> connection)
    : Handle(kHandleType), m_connection(std::move(connection)) {
    m_connection->attach(*this);
}

Statement::~Statement() {
    if (!dropped) m_connection->detach(*this);
}

void Statement::drop() noexcept {
    endWork();
    m_connection->detach(*this);
    dropped = true;
    HandleRegistry::instance().remove(id());  // the object may be gone behind this line
}

// What SQLite has compiled for a parent process is never touched again.
void Statement::endWork() noexcept {
    if (inherited()) static_cast<void>(m_work.release());
    m_work.reset();
}

const Statement::Settings& Statement::settings() const noexcept {
    static const Settings kUntouched;
    return m_settings ? *m_settings : kUntouched;
}

Statement::Settings& Statement::changeSettings() {
    if (!m_settings) m_settings = std::make_unique<Settings>();
    return *m_settings;
}

void Statement::prepare(std::string_view sql) {
    if (hasCursor()) throw Error("24000", "A cursor is open on the statement.", SQLITE_MISUSE);
    m_work.reset();
    m_executed = false;
    m_rowCount = -1;
    if (m_settings) m_settings->surplusParameter = 0;
    auto work = std::make_unique<Work>();
    work->procedure = ProcedureStatement::prepare(*m_connection, sql);
    work->compiled = work->procedure
                         ? m_connection->cache().compile(work->procedure->argumentQuery())
                         : m_connection->cache().compile(sql);
    work->prepared = true;
    m_work = std::move(work);
}

SQLRETURN Statement::execute() {
    if (hasCursor()) throw Error("24000", "A cursor is open on the statement.", SQLITE_MISUSE);
    if (!m_work || !m_work->prepared) throw sequenceError("No statement is prepared.");
    return run();
}

SQLRETURN Statement::executeDirect(std::string_view sql) {
    prepare(sql);
    m_work->prepared = false;
    try {
        const SQLRETURN result = run();
        if (!hasCursor()) m_work.reset();
        return result;
    } catch (...) {
        m_work.reset();
        throw;
    }
}

void Statement::openRows(std::unique_ptr<ResultSet> rows) {
    if (hasCursor()) throw Error("24000", "A cursor is open on the statement.", SQLITE_MISUSE);
    m_work = std::make_unique<Work>();
    m_work->rows = std::move(rows);
    m_rowCount = -1;
    m_executed = true;
    watchRows();
}

SQLRETURN Statement::run() {
    Connection& connection = *m_connection;
    Work& work = *m_work;
    const Verb verb = work.compiled.sql().verb;
    m_executed = false;
    m_rowCount = -1;
    work.described.clear();

    checkParameters();
    connection.closeUnasked();
    connection.finishUndo();
    connection.beginFor(verb, work.procedure && work.procedure->refresh(connection));
    const Running running(*this);
    // What changes data is run to its end at once: nobody may come to read its rows. So are
    // pragmas, which change things, too, and have few rows.
    const bool live = !work.procedure && work.compiled.sql().readOnly && verb != Verb::Pragma &&
                      sqlite3_column_count(work.compiled.get()) > 0;
    SQLRETURN result = SQL_SUCCESS;
    if (live) {
        runLive();
    } else {
        result = runToEnd();
    }
    if (mayChangeSchema(verb)) connection.cache().clear();
    m_executed = true;
    return result;
}

void Statement::runLive() {
    if (settings().options.parameterSets > 1) {
        throw notSupported("A query cannot be executed with several parameter sets.");
    }
    Work& work = *m_work;
    sqlite3_stmt* statement = work.compiled.get();
    Rewind rewind(statement);
    bindParameterSet(statement, settings().parameters, settings().options.currentLayout(), 0,
                     BufferLife::Copied);
    const int result = sqlite3_step(statement);
    if (result != SQLITE_ROW && result != SQLITE_DONE) fail(statement);
    const StatementOptions& options = settings().options;
    if (options.parametersProcessed) *options.parametersProcessed = 1;
    if (options.parameterStatus) *options.parameterStatus = SQL_PARAM_SUCCESS;
    work.rows = makeLiveRows(work.compiled.sql(), result == SQLITE_ROW);
    rewind.cancel();
    watchRows();
}

SQLRETURN Statement::runToEnd() {
    Work& work = *m_work;
    std::unique_ptr<StoredRows> rows;
    SQLLEN changed = 0;
    {
        const Rewind rewind(work.compiled.get());
        changed = runSets(rows);
    }
    const bool isCall = work.procedure && work.procedure->isCall();
    if (isCall ? !rows : work.compiled.sql().countsRows()) m_rowCount = changed;
    if (!work.prepared) work.compiled.release();
    if (!rows) return m_rowCount == 0 && !isCall ? SQL_NO_DATA : SQL_SUCCESS;
    work.rows = std::move(rows);
    watchRows();
    return SQL_SUCCESS;
}

// Columns bound beforehand ask for the rows, too.
void Statement::watchRows() {
    m_connection->addUnasked(*this);
    if (!settings().columns.empty()) askedCursor();
}

SQLLEN Statement::runSets(std::unique_ptr<StoredRows>& rows) {
    const StatementOptions& options = settings().options;
    const SQLULEN sets = options.parameterSets;
    const auto report = [&options](SQLULEN set, SQLUSMALLINT status) {
        if (options.parameterStatus) options.parameterStatus[set] = status;
    };
    for (SQLULEN set = 0; set < sets; ++set) report(set, SQL_PARAM_UNUSED);
    if (options.parametersProcessed) *options.parametersProcessed = 0;

    std::optional<Savepoint> savepoint;
    if (sets > 1) savepoint.emplace(*m_connection, m_work->procedure != nullptr);
    SQLLEN changed = 0;
    for (SQLULEN set = 0; set < sets; ++set) {
        if (options.parametersProcessed) *options.parametersProcessed = set + 1;
        try {
            changed += runSet(set, rows);
        } catch (const Error& error) {
            report(set, SQL_PARAM_ERROR);
            if (sets == 1) throw;
            throw error.in("parameter set " + std::to_string(set + 1) + " of " +
                           std::to_string(sets));
        }
    }
    if (savepoint) savepoint->release();
    for (SQLULEN set = 0; set < sets; ++set) report(set, SQL_PARAM_SUCCESS);
    return changed;
}

SQLLEN Statement::runSet(SQLULEN set, std::unique_ptr<StoredRows>& rows) {
    sqlite3_stmt* statement = m_work->compiled.get();
    bindParameterSet(statement, settings().parameters, settings().options.currentLayout(), set,
                     BufferLife::Execution);
    if (m_work->procedure) return runProcedure(rows);
    // VACUUM copies tables that nobody else may write.
    std::optional<SchemaGuard::Lifted> lifted;
    if (m_work->compiled.sql().verb == Verb::Service) lifted.emplace(m_connection->guard());
    return drain(m_work->compiled.sql(), rows);
}

SQLLEN Statement::runProcedure(std::unique_ptr<StoredRows>& rows) {
    ProcedureResult result = m_work->procedure->run(*m_connection, m_work->compiled.get());
    if (result.rows && settings().options.parameterSets > 1) {
        throw notSupported(
            "A procedure that yields rows cannot be executed with several parameter sets.");
    }
    rows = std::move(result.rows);
    return result.changed;
}

void Statement::checkParameters() const {
    const int surplus = settings().surplusParameter;
    if (surplus == 0) return;
    throw Error("07002",
                "The statement has " + std::to_string(parameterCount()) +
                    " parameter marker(s), but a value is bound to marker " +
                    std::to_string(surplus) + ".",
                SQLITE_RANGE);
}

int Statement::parameterCount() const {
    if (!m_work || !m_work->compiled) throw sequenceError("No statement is prepared.");
    return sqlite3_bind_parameter_count(m_work->compiled.get());
}

void Statement::bindParameter(SQLUSMALLINT number, const ParameterBinding& binding) {
    Settings& changed = changeSettings();
    if (changed.parameters.size() < number) changed.parameters.resize(number);
    changed.parameters[number - 1] = binding;
    // Bindings left from an earlier text may exceed this one's markers. One made for this text
    // tells of a value that would be ignored.
    if (m_work && m_work->prepared && number > parameterCount()) changed.surplusParameter = number;
}

void Statement::unbindParameters() noexcept {
    if (!m_settings) return;
    m_settings->parameters.clear();
    m_settings->surplusParameter = 0;
}

void Statement::bindColumn(SQLUSMALLINT number, const ColumnBinding& binding) {
    std::vector<ColumnBinding>& columns = changeSettings().columns;
    if (columns.size() < number) columns.resize(number);
    columns[number - 1] = binding;
    if (hasCursor()) askedCursor().routed = false;
}

void Statement::unbindColumns() noexcept {
    if (!m_settings) return;
    m_settings->columns.clear();
    if (m_work) m_work->routed = false;
}

SQLLEN Statement::rowCount() const {
    if (!m_executed) throw sequenceError("The statement has not been executed.");
    return m_rowCount;
}

void Statement::closeCursor() noexcept {
    if (!hasCursor()) return;
    m_connection->removeUnasked(*this);
    if (!m_work->prepared || inherited()) {
        endWork();
        return;
    }
    Work& work = *m_work;
    work.rows.reset();
    sqlite3_clear_bindings(work.compiled.get());
    work.routes.clear();
    work.routed = work.onRow = work.ended = work.asked = false;
    work.rowNumber = 0;
}

void Statement::cancel() noexcept {
    if (m_running) m_connection->interrupt();
}

}  // namespace embedded
