#include "core/statement.h"

#include <string>
#include <utility>

#include "core/error.h"

namespace embedded {

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

// What an engine has made for a parent process is never touched again.
void Statement::endWork() noexcept {
    if (inherited()) static_cast<void>(m_work.release());
    m_work.reset();
}

const Statement::Settings Statement::kUntouched;

Statement::Settings& Statement::changeSettings() {
    if (!m_settings) m_settings = std::make_unique<Settings>();
    return *m_settings;
}

void Statement::prepare(std::string_view sql) {
    if (hasCursor()) throw Error("24000", "A cursor is open on the statement.", native::kMisuse);
    m_executed = false;
    m_rowCount = -1;
    m_lastRow.reset();
    if (m_settings) m_settings->surplusParameter = 0;
    // Of the text before, whose rows are over, memory for others may be there.
    std::unique_ptr<Work> work = std::move(m_work);
    if (work) {
        work->program.reset();
    } else {
        work = std::make_unique<Work>();
    }
    {
        const Running running(*this);
        const SQLULEN timeout = settings().options.execution.timeout;
        work->program = m_connection->database().prepare(sql, timeout);
    }
    work->prepared = true;
    m_work = std::move(work);
}

SQLRETURN Statement::execute() {
    if (hasCursor()) throw Error("24000", "A cursor is open on the statement.", native::kMisuse);
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

void Statement::openCatalog(const CatalogSearch& search) {
    Database& database = m_connection->database();
    std::unique_ptr<ResultSet> rows;
    {
        const Running running(*this);
        rows = database.catalog(search);
    }
    if (hasCursor()) throw Error("24000", "A cursor is open on the statement.", native::kMisuse);
    m_work = std::make_unique<Work>();
    m_work->rows = std::move(rows);
    m_overtaken = false;
    m_rowCount = -1;
    m_executed = true;
    watchRows();
}

SQLRETURN Statement::run() {
    Work& work = *m_work;
    m_executed = m_gaveRows = m_overtaken = false;
    m_rowCount = -1;
    m_lastRow.reset();

    checkParameters();
    m_connection->closeUnasked();
    const StatementOptions& options = settings().options;
    ParameterSets sets(settings().parameters, options.currentLayout(), options.parameterReport,
                       options.parameterSets);
    const Running running(*this);
    Outcome outcome = requireProgram().execute(sets, options.execution);
    m_rowCount = outcome.changed;
    m_lastRow = outcome.lastRow;
    m_executed = true;
    m_gaveRows = outcome.rows != nullptr;
    if (!outcome.rows) return outcome.nothingDone ? SQL_NO_DATA : SQL_SUCCESS;
    work.rows = std::move(outcome.rows);
    watchRows();
    return SQL_SUCCESS;
}

// Columns bound beforehand ask for the rows, too.
void Statement::watchRows() {
    try {
        m_connection->addUnasked(*this);
        if (!settings().columns.empty()) askedCursor();
    } catch (...) {
        closeCursor();
        throw;
    }
}

void Statement::checkParameters() const {
    const int surplus = settings().surplusParameter;
    if (surplus == 0) return;
    throw Error("07002",
                "The statement has " + std::to_string(parameterCount()) +
                    " parameter marker(s), but a value is bound to marker " +
                    std::to_string(surplus) + ".",
                native::kRange);
}

Program& Statement::requireProgram() const {
    if (!m_work || !m_work->program) throw sequenceError("No statement is prepared.");
    return *m_work->program;
}

int Statement::parameterCount() const {
    return requireProgram().parameterCount();
}

ParameterType Statement::parameterType(int number) const {
    Program& program = requireProgram();
    if (number < 1 || number > program.parameterCount()) {
        throw Error("07009", "There is no parameter " + std::to_string(number) + ".",
                    native::kRange);
    }
    if (const auto type = program.parameterType(number)) return *type;
    throw notSupported("The types of parameters are not known.");
}

void Statement::bindParameter(SQLUSMALLINT number, const ParameterBinding& binding) {
    Settings& changed = changeSettings();
    if (changed.parameters.size() < number) {
        if (m_work && m_work->prepared) {
            changed.parameters.reserve(static_cast<size_t>(parameterCount()));
        }
        changed.parameters.resize(number);
    }
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
    m_work->rows.reset();
    if (m_work->program) m_work->program->rewind();
    m_work->forgetRows();
}

void Statement::overtake() noexcept {
    m_overtaken = hasCursor();
    closeCursor();
}

void Statement::Work::forgetRows() noexcept {
    routes.clear();
    kept.clear();
    asked = routed = ended = false;
    failure = nullptr;
    rowsRead = block = 0;
}

SQLRETURN Statement::moreResults() {
    if (!hasCursor()) return SQL_NO_DATA;
    if (settings().options.execution.allResults && m_work->program) {
        const Running running(*this);
        m_connection->removeUnasked(*this);
        m_work->forgetRows();
        m_work->rows = m_work->program->nextResult(std::move(m_work->rows));
        if (m_work->rows) {
            watchRows();
            return SQL_SUCCESS;
        }
        if (m_work->prepared) {
            m_work->program->rewind();
        } else {
            m_work.reset();
        }
        return SQL_NO_DATA;
    }
    closeCursor();
    return SQL_NO_DATA;
}

void Statement::cancel() noexcept {
    m_connection->interrupt(m_call);
}

}  // namespace embedded
