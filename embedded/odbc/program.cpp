#include "odbc/program.h"

#include <algorithm>
#include <deque>
#include <optional>
#include <utility>

#include "core/error.h"
#include "core/parameters.h"
#include "extensions.h"
#include "odbc/columns.h"
#include "odbc/parameterarray.h"
#include "odbc/parameters.h"
#include "odbc/procedures.h"
#include "odbc/rows.h"
#include "odbc/sqltext.h"
#include "odbc/statement.h"

namespace embedded {
namespace {

/// What a server says to an integer where it wants a Boolean: a wrong type, or no operator for it.
constexpr std::string_view kTypeErrors[] = {"42804", "42883"};

/// Sets of one array: reports and row counts of larger ones take drivers long.
constexpr SQLULEN kMostSets = 10'000;

/// The results behind the first one.
enum class Further {
    None,
    Later,    ///< asked for when somebody wants them
    AtOnce,   ///< read with the first one: the connection would be blocked until they are
    Unknown,  ///< the driver must not be asked
};

Further furtherResults(const StatementText& text, const DriverQuirks& quirks) {
    if (!quirks.splitsTexts) return Further::Later;
    if (text.hasParts() && text.isBlock() && !text.isAnonymousBlock()) return Further::Unknown;
    const StatementKind kind = text.kind();
    const bool isPlain = kind == StatementKind::Query || kind == StatementKind::Change;
    return isPlain && !text.hasParts() ? Further::None : Further::AtOnce;
}

/// Drivers count them in 16 bits, and PostgreSQL's breaks its memory with more.
constexpr size_t kMostMarkers = 32767;

/// Tells of an execution when it is over.
struct Executed {
    OdbcTransactions& transactions;
    const StatementKind kind;
    ~Executed() { transactions.executed(kind); }
};

/// A statement's text, prepared or not, on one of the driver's statements: which is taken for each
/// execution, and given up behind a failure.
class OdbcProgram final : public Program {
  public:
    OdbcProgram(OdbcTransactions& transactions, IdleStatements& idle, MarkedSql sql,
                StatementKind kind, Further further, bool arrays, std::optional<DriverCall> call)
        : m_transactions(transactions),
          m_session(transactions.session()),
          m_idle(idle),
          m_sql(std::move(sql)),
          m_kind(kind),
          m_further(further),
          m_arrays(arrays),
          m_call(std::move(call)) {}
    ~OdbcProgram() override { giveBack(); }

    int parameterCount() override { return m_sql.parameters; }
    const std::vector<Column>& columns() override;
    int columnCount() override { return static_cast<int>(columns().size()); }
    Outcome execute(ParameterSets& sets, const ExecutionOptions& options) override;
    std::unique_ptr<ResultSet> nextResult(std::unique_ptr<ResultSet> rows) override;
    std::optional<ParameterType> parameterType(int number) override;

  private:
    void useStatement(std::string types);
    void giveBack() noexcept;
    SQLRETURN executeOnce();
    bool mayPrepare() const;
    void prepareOnce();
    void renewStatement();
    void keepTypes();
    void requireZones(const OdbcParameters& parameters);
    bool isOfType(size_t position, std::string_view type);
    Outcome runOne(ParameterSets& sets, OdbcParameters& parameters);
    Outcome runBatch(ParameterSets& sets, OdbcParameters& parameters);
    SQLLEN runArray(ParameterSets& sets, OdbcParameters& parameters, SQLULEN first, SQLULEN& count);
    SQLLEN runSet(ParameterSets& sets, OdbcParameters& parameters, SQLULEN set);
    SQLLEN countAll(SQLRETURN result);
    Outcome changedBy(SQLLEN changed) const;
    bool callOtherwise(const Error& error);
    bool sendBooleans(OdbcParameters& parameters, const Error& error);
    bool renewPlan(const Error& error);
    Outcome outcomeOf(SQLRETURN result);
    bool isDone(const Error& error);
    SQLRETURN toNextResult();
    std::vector<Column> describedAnew();
    void noteTypes(ResultSet& rows);
    void store();
    void close() const { m_statement->manager().SQLFreeStmt(m_statement->get(), SQL_CLOSE); }
    std::unique_ptr<ResultSet> takeStored();
    SQLLEN countChanges();

    OdbcTransactions& m_transactions;
    OdbcSession& m_session;
    IdleStatements& m_idle;
    MarkedSql m_sql;
    const StatementKind m_kind;
    const Further m_further;
    const bool m_arrays;                              ///< several sets of parameters may go at once
    std::deque<std::unique_ptr<ResultSet>> m_stored;  ///< results that are read already
    std::optional<DriverCall> m_call;
    std::shared_ptr<OdbcStatement> m_statement;  ///< null before the first use
    std::string m_key;                           ///< of it, among the idle ones
    bool m_failed = false;                       ///< it is not to be used again
    bool m_allResults = false;                   ///< of the last execution are asked for
    std::vector<Column> m_described;
};

constexpr size_t kMostKeptText = size_t{16} * 1024;

/// Takes a statement for parameters of these types.
void OdbcProgram::useStatement(std::string types) {
    std::string key = m_sql.text + '\0' + std::move(types);
    if (m_statement && !m_statement->unusable && key == m_key) return;
    giveBack();
    if (auto idle = m_idle.take(key)) {
        m_statement = std::move(idle->statement);
    } else {
        m_statement = std::make_shared<OdbcStatement>(m_session);
    }
    m_key = std::move(key);
}

// Texts of other kinds seldom come twice. Rows that are still read keep the statement for
// themselves.
void OdbcProgram::giveBack() noexcept {
    const bool worthKeeping = (m_kind == StatementKind::Query || m_kind == StatementKind::Change) &&
                              !m_session.quirks().staleTypes;
    if (worthKeeping && !m_failed && m_statement && m_statement.use_count() == 1 &&
        m_statement->executed && !m_statement->unusable && m_key.size() <= kMostKeptText) {
        m_idle.keep({std::move(m_key), std::move(m_statement)});
    }
    m_statement.reset();
}

void OdbcProgram::prepareOnce() {
    if (m_statement->prepared) return;
    m_statement->prepare(m_sql.text);
    m_statement->prepared = true;
}

// A text that is executed once goes to the server in one step. So does every BEGIN: PostgreSQL's
// driver loses sight of a transaction that a prepared one has opened.
bool OdbcProgram::mayPrepare() const {
    using enum StatementKind;
    const bool copiesMuch = m_session.quirks().copiesPrepared && m_statement->hasManyRows;
    if (copiesMuch && m_sql.numbers.empty()) return false;
    return (m_kind == Query || m_kind == Change || m_kind == Other) &&
           !m_session.quirks().staleTypes && m_further != Further::AtOnce &&
           !m_statement->staysDirect;
}

SQLRETURN OdbcProgram::executeOnce() {
    if ((m_statement->executed || m_session.quirks().mistakesDirect) && mayPrepare()) prepareOnce();
    m_statement->executed = true;
    m_statement->interrupted = false;
    if (!m_statement->prepared) return m_statement->executeDirect(m_sql.text);
    return m_statement->run([&] { return m_statement->manager().SQLExecute(m_statement->get()); });
}

void OdbcProgram::renewStatement() {
    const SQLULEN timeout = m_statement->timeout();
    m_statement = std::make_shared<OdbcStatement>(m_session);
    m_statement->setTimeout(timeout);
}

/// Has a statement that was executed directly stay so, if its rows would have other types when it
/// is prepared: the driver writes values into a text, but has the server guess a marker's type.
void OdbcProgram::keepTypes() {
    if (!m_session.dialect().unguessed || m_statement->answered.empty() || m_statement->prepared ||
        m_sql.numbers.empty() || m_sql.hasParts || !mayPrepare()) {
        return;
    }
    // What is bound counts as the answer.
    m_statement->manager().SQLFreeStmt(m_statement->get(), SQL_RESET_PARAMS);
    std::vector<std::string> types;
    try {
        prepareOnce();
        for (Column& column : describeAndName(*m_statement))
            types.push_back(std::move(column.typeName));
    } catch (const Error&) {
        types.clear();
    }
    if (types == m_statement->answered) return;
    renewStatement();
    m_statement->staysDirect = true;
}

/// Whether the marker at `position` has this type in the statement prepared last.
bool OdbcProgram::isOfType(size_t position, std::string_view type) {
    std::string query = m_session.dialect().typeOfParameter;
    query.replace(query.find('#'), 1, std::to_string(position + 1));
    auto statement = std::make_shared<OdbcStatement>(m_session);
    statement->executeDirect(query);
    const auto rows = makeOdbcRows(std::move(statement));
    return rows->next() && rows->cell(0).bytes == type && !rows->next();
}

/// Servers drop a time zone without a word where a type has none.
void OdbcProgram::requireZones(const OdbcParameters& parameters) {
    std::optional<OdbcStatement> described;
    for (size_t position = 0; position < parameters.count() && !m_statement->keepsZones;
         ++position) {
        const SQLSMALLINT zoned = parameters.zonedType(position);
        if (zoned == 0) continue;
        const char* const type =
            zoned == kZonedTime ? "time with time zone" : "timestamp with time zone";
        const std::string place = "Parameter " + std::to_string(m_sql.numbers[position]);
        if (!m_session.dialect().typeOfParameter || m_sql.hasParts)
            throw Error("22007", place + ": times with a time zone cannot be sent here.");
        if (!described) described.emplace(m_session).prepare(m_sql.text);
        SQLSMALLINT ignored = SQL_UNKNOWN_TYPE;  // has the driver prepare it on the server
        described->handle().check(described->manager().SQLDescribeParam(
            described->get(), static_cast<SQLUSMALLINT>(position + 1), &ignored, nullptr, nullptr,
            nullptr));
        if (!isOfType(position, type)) {
            throw Error(
                "22007",
                place + ": its time zone would be lost, since it does not go to a " + type + ".");
        }
    }
    m_statement->keepsZones = true;
}

const std::vector<Column>& OdbcProgram::columns() {
    m_transactions.require(StatementKind::Query);
    if (!m_statement) useStatement({});
    try {
        prepareOnce();
    } catch (const Error& error) {
        m_transactions.failed(error);
        m_session.requireAfter(error);
        throw;
    }
    m_described = describeAndName(*m_statement);
    return m_described;
}

Outcome OdbcProgram::execute(ParameterSets& sets, const ExecutionOptions& options) {
    m_transactions.require(m_kind);
    sets.require(m_sql.parameters);
    OdbcParameters parameters(sets, m_sql.numbers, m_session.quirks());
    const auto run = [&] {
        requireZones(parameters);
        if (sets.count() > 1) return runBatch(sets, parameters);
        return runOne(sets, parameters);
    };
    m_allResults = options.allResults != 0;
    useStatement(parameters.types());
    m_statement->setTimeout(options.timeout);
    keepTypes();
    for (const size_t position : m_statement->booleans) {
        if (parameters.mayBeBooleans(position)) parameters.sendAsBooleans(position);
    }
    m_transactions.begin(m_kind);
    const Executed executed{m_transactions, m_kind};
    m_failed = true;
    Outcome outcome;
    const auto runAsWanted = [&] {
        try {
            return run();
        } catch (const Error& error) {
            if (!callOtherwise(error) && !sendBooleans(parameters, error) && !renewPlan(error))
                throw;
            return run();
        }
    };
    try {
        outcome = runAsWanted();
    } catch (const Error& error) {
        m_transactions.failed(error);
        const bool isOutOfOrder = m_statement->isOutOfOrder(error);
        // MariaDB's driver crashes when it is to prepare the text then, and keeps results open.
        m_statement.reset();
        if (isOutOfOrder) throw OdbcStatement::whyOutOfOrder();
        m_session.requireAfter(error);
        if (m_kind != StatementKind::Rollback || !m_transactions.isUndoneBy(error)) throw;
    }
    m_failed = false;
    m_transactions.succeeded(m_kind);
    sets.allSucceeded();
    return outcome;
}

Outcome OdbcProgram::runOne(ParameterSets& sets, OdbcParameters& parameters) {
    parameters.bind(*m_statement, 0, 1);
    try {
        const SQLRETURN result = executeOnce();
        try {
            return outcomeOf(result);
        } catch (const Error& error) {
            if (!isDone(error)) throw;
        }
        m_statement.reset();
        return changedBy(-1);
    } catch (const Error& error) {
        throw sets.failed(0, error);
    }
}

/// After `error`, behind an execution that went well: whether all that is lost is how many rows it
/// changed. The driver manager forgets an execution that is cancelled between its end and our look.
bool OdbcProgram::isDone(const Error& error) {
    const bool isPlain = m_kind == StatementKind::Change || m_kind == StatementKind::Other;
    if (!isPlain || m_sql.hasParts || m_call || !m_statement->isOutOfOrder(error)) return false;
    try {
        return describedAnew().empty();
    } catch (const Error&) {
        return false;
    }
}

/// After `error`: whether a procedure is to be called in the other way, and will be now. The driver
/// does not say beforehand.
bool OdbcProgram::callOtherwise(const Error& error) {
    const char* const wrongCall = m_session.dialect().wrongCall;
    if (!m_call || m_call->statement.empty() || !wrongCall || error.state() != wrongCall)
        return false;
    const std::string statement = std::exchange(m_call->statement, {});
    m_sql = StatementText(statement, m_session.dialect()).marked();
    m_statement->prepared = m_statement->executed = false;
    return true;
}

/// After `error`: whether some integers are to be sent as Booleans, and are now. Only asked behind
/// a failure, since it takes the server a second look at the statement.
bool OdbcProgram::sendBooleans(OdbcParameters& parameters, const Error& error) {
    if (!m_session.dialect().strictBooleans ||
        std::find(std::begin(kTypeErrors), std::end(kTypeErrors), error.state()) ==
            std::end(kTypeErrors)) {
        return false;
    }
    bool found = false;
    const DriverManager& manager = m_statement->manager();
    // What is bound counts as the answer.
    manager.SQLFreeStmt(m_statement->get(), SQL_RESET_PARAMS);
    prepareOnce();
    for (size_t i = 0; i < parameters.count(); ++i) {
        if (!parameters.mayBeBooleans(i)) continue;
        SQLSMALLINT sqlType = SQL_UNKNOWN_TYPE;
        if (!SQL_SUCCEEDED(manager.SQLDescribeParam(m_statement->get(),
                                                    static_cast<SQLUSMALLINT>(i + 1), &sqlType,
                                                    nullptr, nullptr, nullptr)) ||
            sqlType != SQL_BIT) {
            continue;
        }
        parameters.sendAsBooleans(i);
        m_statement->booleans.push_back(i);
        found = true;
    }
    return found;
}

/// After `error`: whether the server's plan was out of date, and a new one is to be made, or it has
/// none for this statement unless it sees the values.
bool OdbcProgram::renewPlan(const Error& error) {
    const Dialect& dialect = m_session.dialect();
    const bool isStale = dialect.stalePlan && error.state() == dialect.stalePlan;
    const bool isStaleQuery = m_kind == StatementKind::Query && dialect.staleQueryCode != 0 &&
                              error.native() == dialect.staleQueryCode;
    const bool isUnguessed = dialect.unguessed && error.state() == dialect.unguessed;
    if (!m_statement->prepared || (!isStale && !isStaleQuery && !isUnguessed)) return false;
    renewStatement();
    m_statement->staysDirect = isUnguessed;
    return true;
}

// Results of statements in front, which yield no rows, are passed over, their rows counted.
Outcome OdbcProgram::outcomeOf(SQLRETURN result) {
    const DriverManager& manager = m_statement->manager();
    SQLLEN changed = 0;
    m_stored.clear();
    do {
        // A change that finds no row is no end of the results, and may have columns.
        SQLSMALLINT columns = 0;
        const SQLRETURN counted = manager.SQLNumResultCols(m_statement->get(), &columns);
        if (result != SQL_NO_DATA) m_statement->handle().check(counted);
        if (columns > 0 && m_further == Further::Unknown) {
            throw notSupported(
                "The driver cannot tell all results of this statement; BEGIN NOT ATOMIC … END "
                "around it lets it.");
        }
        if (columns > 0 && m_further == Further::AtOnce) {
            store();
        } else if (columns > 0) {
            Outcome outcome;
            if (m_kind == StatementKind::Change) outcome.changed = countChanges();
            // For the driver manager a change that finds no row is the end of the results.
            if (result == SQL_NO_DATA) {
                outcome.rows = std::make_unique<StoredRows>(describedAnew());
            } else {
                outcome.rows = makeOdbcRows(m_statement, !m_allResults);
            }
            noteTypes(*outcome.rows);
            return outcome;
        } else if (result != SQL_NO_DATA) {
            changed += countChanges();
        }
        if (m_further == Further::None || m_further == Further::Unknown) break;
        result = toNextResult();
    } while (result != SQL_NO_DATA);
    Outcome outcome = changedBy(changed);
    if (m_stored.empty()) return outcome;
    close();
    outcome.nothingDone = false;
    outcome.rows = takeStored();
    return outcome;
}

/// Of the first execution, for `keepTypes`.
void OdbcProgram::noteTypes(ResultSet& rows) {
    if (!m_session.dialect().unguessed || m_statement->prepared || !m_statement->answered.empty())
        return;
    for (const Column& column : rows.columns()) m_statement->answered.push_back(column.typeName);
}

/// Reads the rows of the current result.
void OdbcProgram::store() {
    m_statement->keepsResults = true;
    const std::unique_ptr<OdbcStatement, void (*)(OdbcStatement*)> end(
        m_statement.get(), [](OdbcStatement* statement) { statement->keepsResults = false; });
    const auto rows = makeOdbcRows(m_statement, false);
    auto stored = std::make_unique<StoredRows>(rows->columns());
    std::vector<Cell> row(rows->columns().size());
    while (rows->next()) {
        for (size_t i = 0; i < row.size(); ++i) row[i] = rows->cell(static_cast<int>(i));
        stored->append(row);
    }
    m_stored.push_back(std::move(stored));
}

/// The first of the results that were read; null behind the last.
std::unique_ptr<ResultSet> OdbcProgram::takeStored() {
    if (m_stored.empty()) return nullptr;
    auto rows = std::move(m_stored.front());
    m_stored.pop_front();
    return rows;
}

SQLRETURN OdbcProgram::toNextResult() {
    const SQLRETURN result = m_statement->run(
        [this] { return m_statement->manager().SQLMoreResults(m_statement->get()); });
    // What was executed to its end is done; of several statements nobody knows.
    const bool mayHaveMore = m_sql.hasParts || m_call;
    if (result == SQL_NO_DATA && m_statement->interrupted && mayHaveMore)
        throw OdbcStatement::whyOutOfOrder();
    return result;
}

/// The columns that another statement would have.
std::vector<Column> OdbcProgram::describedAnew() {
    const OdbcStatement statement(m_session);
    statement.prepare(m_sql.text);
    return describeAndName(statement);
}

std::unique_ptr<ResultSet> OdbcProgram::nextResult(std::unique_ptr<ResultSet> rows) {
    if (m_further != Further::Later || !m_statement) {
        rows.reset();
        return takeStored();
    }
    m_statement->keepsResults = true;
    rows.reset();
    m_statement->keepsResults = false;
    m_failed = true;
    const SQLRETURN result = toNextResult();
    if (result != SQL_NO_DATA) rows = outcomeOf(result).rows;
    m_failed = false;
    if (!rows) close();
    return rows;
}

std::optional<ParameterType> OdbcProgram::parameterType(int number) {
    m_session.require();
    const auto place = std::find(m_sql.numbers.begin(), m_sql.numbers.end(), number);
    if (place == m_sql.numbers.end()) return std::nullopt;
    // On a statement of its own: drivers repeat what is bound.
    const OdbcStatement statement(m_session);
    statement.prepare(m_sql.text);
    ParameterType type;
    statement.handle().check(statement.manager().SQLDescribeParam(
        statement.get(), static_cast<SQLUSMALLINT>(place - m_sql.numbers.begin() + 1),
        &type.sqlType, &type.size, &type.scale, &type.nullable));
    return type;
}

Outcome OdbcProgram::changedBy(SQLLEN changed) const {
    Outcome outcome;
    if (m_kind == StatementKind::Change || m_call) outcome.changed = changed;
    outcome.nothingDone = m_kind == StatementKind::Change && changed == 0;
    return outcome;
}

SQLLEN OdbcProgram::countChanges() {
    SQLLEN count = 0;
    m_statement->handle().check(m_statement->manager().SQLRowCount(m_statement->get(), &count));
    return std::max<SQLLEN>(count, 0);
}

// ---- batches

Outcome OdbcProgram::runBatch(ParameterSets& sets, OdbcParameters& parameters) {
    OdbcTransactions::Atomic atomic(m_transactions);
    const OdbcSession::Batch batch(m_session);
    const bool arrays = m_arrays && ParameterArray(*m_statement, sets.count()).accepted();
    SQLLEN changed = 0;
    try {
        for (SQLULEN first = 0; first < sets.count();) {
            SQLULEN count = arrays ? std::min(kMostSets, sets.count() - first) : 1;
            changed +=
                arrays ? runArray(sets, parameters, first, count) : runSet(sets, parameters, first);
            first += count;
            if (m_statement->interrupted) throw OdbcStatement::whyOutOfOrder();
        }
        atomic.release();
    } catch (const Error& error) {
        atomic.failed(error);
        throw;
    }
    return changedBy(changed);
}

SQLLEN OdbcProgram::runSet(ParameterSets& sets, OdbcParameters& parameters, SQLULEN set) {
    parameters.bind(*m_statement, set, 1);
    try {
        return countAll(executeOnce());
    } catch (const Error& error) {
        throw sets.failed(set, error);
    }
}

/// Runs sets from `first` on, `count` at most; tells in it how many.
SQLLEN OdbcProgram::runArray(ParameterSets& sets, OdbcParameters& parameters, SQLULEN first,
                             SQLULEN& count) {
    count = parameters.bind(*m_statement, first, count);
    const ParameterArray array(*m_statement, count);
    try {
        if (!array.accepted()) throw Error("HY000", "The driver takes arrays of some sizes only.");
        const SQLRETURN result = executeOnce();
        // Later calls would replace what the driver has to say.
        if (result == SQL_SUCCESS_WITH_INFO && !array.complete()) throw m_statement->failure();
        const SQLLEN changed = countAll(result);
        if (!array.complete()) {
            throw Error("HY000", "The driver has not executed every parameter set of the batch.");
        }
        return changed;
    } catch (const Error& error) {
        if (const auto failed = array.failed()) throw sets.failed(first + *failed, error);
        throw;
    }
}

/// The rows changed by all results of an execution, of which none may yield rows.
SQLLEN OdbcProgram::countAll(SQLRETURN result) {
    const Outcome outcome = outcomeOf(result);
    if (outcome.rows) {
        throw notSupported(
            "A statement that yields rows cannot be executed with several parameter sets.");
    }
    return std::max<SQLLEN>(outcome.changed, 0);
}

}  // namespace

std::unique_ptr<Program> prepareOdbc(OdbcTransactions& transactions, IdleStatements& idle,
                                     std::string_view sql) {
    OdbcSession& session = transactions.session();
    session.require();
    sql = sql.substr(0, sql.find_last_not_of('\0') + 1);
    refuseNul(sql, "statement");
    const StatementText text(sql, session.dialect());
    const DriverQuirks& quirks = session.quirks();
    const auto isOneOf = [&text](std::span<const StatementPattern> patterns) {
        return std::any_of(patterns.begin(), patterns.end(),
                           [&text](const StatementPattern& pattern) { return text.has(pattern); });
    };
    if (isOneOf(quirks.unreadable))
        throw notSupported("The driver cannot read what the server sends after this statement.");
    if (quirks.splitsTexts && text.hasParts() && !text.isBlock() && text.has({{"CALL", ""}})) {
        throw notSupported(
            "The driver cannot read what the server sends for a CALL among other statements; BEGIN "
            "NOT ATOMIC … END around them lets it.");
    }
    if (auto program = prepareParameterQuery(session, text)) return program;
    auto call = driverCall(session, text);
    MarkedSql marked =
        call ? StatementText(call->escape, session.dialect()).marked() : text.marked();
    if (marked.numbers.size() > kMostMarkers) {
        throw Error("54000", "The driver takes 32767 parameter markers at most in one statement.");
    }
    return std::make_unique<OdbcProgram>(transactions, idle, std::move(marked), text.kind(),
                                         furtherResults(text, quirks),
                                         quirks.arrays && !isOneOf(quirks.single), std::move(call));
}

}  // namespace embedded
