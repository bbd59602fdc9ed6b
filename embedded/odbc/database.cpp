#include "odbc/database.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <string>
#include <tuple>
#include <utility>

#include "core/error.h"
#include "core/information.h"
#include "odbc/idle.h"
#include "odbc/program.h"
#include "odbc/rows.h"
#include "odbc/scanner.h"
#include "odbc/statement.h"
#include "values/text.h"

namespace embedded {
namespace {

constexpr std::string_view kKeys[] = {"DSN", "FILEDSN", "Driver"};

/// How far this thread is in a call that connects.
struct Connecting {
    bool active = false;
    bool returned = false;  ///< the driver manager came back to this library
};
thread_local Connecting connecting;

/// The value of `key` in a connection string, or an empty text.
std::string_view valueOf(const ConnectString& text, std::string_view key) noexcept {
    for (const ConnectString::Pair& pair : text.pairs()) {
        if (sameWord(pair.key, key)) return pair.value;
    }
    return {};
}

/// `text` with what the driver needs to show all of its types.
std::string completed(const ConnectString& text, const DriverHabits& habits) {
    if (!habits.key || text.has(habits.key)) return text.text();
    std::string result = text.text();
    if (!result.empty() && result.back() != ';') result += ';';
    return result + habits.key + "=" + habits.value;
}

/// Each text with the length that says that a terminator ends it.
template <class Function, class... Texts>
SQLRETURN callWithTerminated(Function function, SQLHSTMT statement, Texts... texts) {
    return std::apply(function, std::tuple_cat(std::make_tuple(statement),
                                               std::make_tuple(texts, SQLSMALLINT{SQL_NTS})...));
}

/// Only the narrow function of unixODBC knows files of data sources, and finds the names of drivers
/// and sources that are not ASCII.
bool needsNarrowCall(const ConnectString& text) noexcept {
    const auto isAscii = [](std::string_view name) {
        return std::all_of(name.begin(), name.end(),
                           [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    };
    return text.has("FILEDSN") || !isAscii(valueOf(text, "Driver")) ||
           !isAscii(valueOf(text, "DSN"));
}

SQLPOINTER asPointer(SQLULEN number) noexcept {
    return reinterpret_cast<SQLPOINTER>(number);
}

}  // namespace

bool asksForDriverManager(const ConnectString& text) noexcept {
    return std::any_of(std::begin(kKeys), std::end(kKeys),
                       [&text](std::string_view key) { return text.has(key); });
}

void refuseReturn() {
    if (!connecting.active) return;
    connecting.returned = true;
    throw Error("08001", "The data source leads back to this runtime.", native::kMisuse);
}

std::unique_ptr<Database> openOdbc(const ConnectString& text, CursorOwner& cursors,
                                   Diagnostics& diagnostics) {
    connecting = {.active = true};
    const auto done = [] { return std::exchange(connecting, {}).returned; };
    try {
        auto database = std::make_unique<OdbcDatabase>(text, cursors, diagnostics);
        done();
        return database;
    } catch (...) {
        if (done()) return nullptr;
        throw;
    }
}

OdbcDatabase::OdbcDatabase(const ConnectString& text, CursorOwner& cursors,
                           Diagnostics& diagnostics)
    : m_manager(DriverManager::instance()),
      m_cursors(cursors),
      m_environment(SQL_HANDLE_ENV, nullptr),
      m_connection(SQL_HANDLE_DBC, &m_environment),
      m_idle(std::make_unique<IdleStatements>()) {
    const DriverHabits& named = habitsOfNamed(valueOf(text, "Driver"));
    const std::string first = completed(text, named);
    const bool narrow = needsNarrowCall(text);
    connect(first, narrow || named.narrow, diagnostics);
    try {
        m_habits = &habitsOf(textInfo(SQL_DRIVER_NAME));
        const std::string second = completed(text, *m_habits);
        if (second != first || m_habits->narrow != named.narrow) {
            disconnect();
            diagnostics.clear();
            connect(second, narrow || m_habits->narrow, diagnostics);
        }
        m_dialect = &dialectOf(textInfo(SQL_DBMS_NAME));
        m_rereadsBound = (numberInfo(SQL_GETDATA_EXTENSIONS) & SQL_GD_BOUND) != 0;
    } catch (...) {
        disconnect();
        throw;
    }
}

OdbcDatabase::~OdbcDatabase() {
    disconnect();
}

// The narrow function of unixODBC alone hands a text that is not ASCII to a narrow driver as it is:
// another file would be opened.
void OdbcDatabase::connect(const std::string& text, bool narrow, Diagnostics& diagnostics) {
    WideText wide = wideText(text);
    std::string utf8 = text;
    refuseNul(text, "connection string");
    // The manager takes the length as a short number, and a terminator for any.
    if (text.size() >= std::numeric_limits<SQLSMALLINT>::max()) {
        throw Error("HY090", "The connection string is too long.", native::kError);
    }
    const SQLHDBC connection = m_connection.get();
    const SQLRETURN result = m_connection.check(
        narrow ? m_manager.SQLDriverConnect(connection, nullptr,
                                            reinterpret_cast<SQLCHAR*>(utf8.data()), SQL_NTS,
                                            nullptr, 0, nullptr, SQL_DRIVER_NOPROMPT)
               : m_manager.SQLDriverConnectW(connection, nullptr, wide.data(), SQL_NTS, nullptr, 0,
                                             nullptr, SQL_DRIVER_NOPROMPT));
    if (result == SQL_SUCCESS_WITH_INFO) {
        const Error warning = m_connection.failure();
        diagnostics.warning(warning.state(), warning.what());
    }
}

// What is not committed is rolled back: a driver refuses to disconnect within a transaction.
void OdbcDatabase::disconnect() noexcept {
    m_idle->clear();
    if (!m_autocommit || m_begun || m_lost)
        m_manager.SQLEndTran(SQL_HANDLE_DBC, m_connection.get(), SQL_ROLLBACK);
    m_manager.SQLDisconnect(m_connection.get());
}

std::string OdbcDatabase::textInfo(SQLUSMALLINT type) const {
    constexpr SQLSMALLINT kCapacity = 1024;
    SQLWCHAR text[kCapacity] = {};
    SQLSMALLINT bytes = 0;
    m_connection.check(m_manager.SQLGetInfoW(m_connection.get(), type, text, sizeof text, &bytes));
    text[kCapacity - 1] = 0;
    return readableText(
        text, std::char_traits<char16_t>::length(reinterpret_cast<const char16_t*>(text)));
}

SQLUINTEGER OdbcDatabase::numberInfo(SQLUSMALLINT type) const {
    SQLUINTEGER number = 0;
    SQLSMALLINT bytes = 0;
    m_connection.check(
        m_manager.SQLGetInfoW(m_connection.get(), type, &number, sizeof number, &bytes));
    return infoKind(type) == InfoKind::Short ? number & 0xFFFFU : number;
}

std::optional<Information> OdbcDatabase::information(SQLUSMALLINT type) {
    if (infoKind(type) == InfoKind::Text) return textInfo(type);
    return numberInfo(type);
}

bool OdbcDatabase::isDead() {
    if (m_lost) return true;
    SQLUINTEGER dead = SQL_CD_FALSE;
    m_manager.SQLGetConnectAttrW(m_connection.get(), SQL_ATTR_CONNECTION_DEAD, &dead, sizeof dead,
                                 nullptr);
    return dead == SQL_CD_TRUE;
}

void OdbcDatabase::interrupt() noexcept {
    const std::lock_guard lock(m_runningMutex);
    if (m_running) m_manager.SQLCancel(m_running);
}

// ---- statements

std::unique_ptr<Program> OdbcDatabase::prepare(std::string_view sql) {
    return prepareOdbc(*this, sql);
}

void OdbcDatabase::runScript(std::string_view sql) {
    OdbcStatement(*this).executeDirect(sql);
}

/// Runs `call` on a statement and the search arguments, which may be null pointers.
template <class Call>
std::unique_ptr<ResultSet> OdbcDatabase::runCatalog(const CatalogSearch& search, Call&& call) {
    requireConnection();
    auto statement = std::make_shared<OdbcStatement>(*this);
    const auto wide = [](const Pattern& pattern) {
        return pattern ? wideText(*pattern) : WideText();
    };
    WideText catalog = wide(search.catalog);
    WideText schema = wide(search.schema);
    WideText table = wide(search.table);
    WideText detail = wide(search.detail);
    const auto text = [](WideText& given) { return given.empty() ? nullptr : given.data(); };
    statement->run([&] {
        return call(statement->get(), text(catalog), text(schema), text(table), text(detail));
    });
    return makeOdbcRows(std::move(statement));
}

std::unique_ptr<ResultSet> OdbcDatabase::tables(const CatalogSearch& search) {
    return runCatalog(search, [this](SQLHSTMT statement, auto... texts) {
        return callWithTerminated(m_manager.SQLTablesW, statement, texts...);
    });
}

std::unique_ptr<ResultSet> OdbcDatabase::columns(const CatalogSearch& search) {
    return runCatalog(search, [this](SQLHSTMT statement, auto... texts) {
        return callWithTerminated(m_manager.SQLColumnsW, statement, texts...);
    });
}

std::unique_ptr<ResultSet> OdbcDatabase::procedureColumns(const CatalogSearch& search) {
    return runCatalog(search, [this](SQLHSTMT statement, auto... texts) {
        return callWithTerminated(m_manager.SQLProcedureColumnsW, statement, texts...);
    });
}

// ---- transactions

void OdbcDatabase::requireConnection() const {
    if (m_lost) {
        throw Error("08S01", "The connection is given up: the driver could not end a transaction.",
                    native::kError);
    }
}

void OdbcDatabase::driverAutocommit(bool on) const {
    m_connection.check(m_manager.SQLSetConnectAttrW(
        m_connection.get(), SQL_ATTR_AUTOCOMMIT,
        asPointer(on ? SQL_AUTOCOMMIT_ON : SQL_AUTOCOMMIT_OFF), SQL_IS_UINTEGER));
}

/// Otherwise nothing that comes would ever be committed.
void OdbcDatabase::returnToAutocommit() noexcept {
    try {
        driverAutocommit(true);
    } catch (...) {
        m_lost = true;
    }
}

void OdbcDatabase::endDriverTransaction(bool commit) const {
    m_connection.check(m_manager.SQLEndTran(SQL_HANDLE_DBC, m_connection.get(),
                                            commit ? SQL_COMMIT : SQL_ROLLBACK));
}

void OdbcDatabase::setAutocommit(bool on) {
    requireConnection();
    driverAutocommit(on);
    m_autocommit = on;
    m_changed = false;
}

void OdbcDatabase::endTransaction(bool commit) {
    requireConnection();
    if (!commit) m_cursors.closeCursors();
    const bool begun = std::exchange(m_begun, false);
    try {
        if (m_autocommit && begun) {
            runScript(commit ? "COMMIT" : "ROLLBACK");
        } else {
            endDriverTransaction(commit);
        }
    } catch (const Error&) {
        // What the application does not want any more must not be committed later.
        if (!commit && (begun || m_changed)) m_lost = true;
        throw;
    }
    m_changed = false;
}

void OdbcDatabase::executed(StatementKind kind) noexcept {
    switch (kind) {
        case StatementKind::Begin:
            m_begun = m_autocommit;
            break;
        case StatementKind::End:
            m_begun = m_changed = false;
            break;
        case StatementKind::Other:
            if (m_dialect->commitsBySchemaChange) m_begun = false;
            [[fallthrough]];
        default:
            if (!m_autocommit && kind != StatementKind::Query) m_changed = true;
    }
}

bool OdbcDatabase::inTransaction() {
    if (!m_autocommit) return true;
    if (!m_dialect->inTransaction) return m_begun;
    auto statement = std::make_shared<OdbcStatement>(*this);
    statement->executeDirect(m_dialect->inTransaction);
    const auto rows = makeOdbcRows(std::move(statement));
    if (!rows->next()) return false;
    const Cell answer = rows->cell(0);  // a text where the number is unsigned
    return answer.kind == Cell::Kind::Text ? answer.bytes != "0" : answer.integer != 0;
}

OdbcDatabase::Atomic::Atomic(OdbcDatabase& database) : m_database(database) {
    if (!database.m_dialect->savepointBegins && !database.inTransaction()) {
        database.driverAutocommit(false);
        return;
    }
    m_savepoint = "vorda_" + std::to_string(++database.m_savepoints);
    database.runScript(database.m_dialect->savepoint + m_savepoint);
}

OdbcDatabase::Atomic::~Atomic() {
    if (!m_released) undo();
}

void OdbcDatabase::Atomic::release() {
    if (m_savepoint.empty()) {
        m_database.endDriverTransaction(true);
        m_released = true;
        m_database.returnToAutocommit();
    } else {
        if (const char* release = m_database.m_dialect->release)
            m_database.runScript(release + m_savepoint);
        m_released = true;
    }
}

// Where nothing can be undone any more, the connection must not go on: switching autocommit on, or
// the application's COMMIT, would keep half of a batch.
void OdbcDatabase::Atomic::undo() noexcept {
    try {
        if (m_savepoint.empty()) {
            m_database.endDriverTransaction(false);
            m_database.returnToAutocommit();
            return;
        }
        const Dialect& dialect = *m_database.m_dialect;
        m_database.runScript(dialect.rollbackTo + m_savepoint);
        if (dialect.release) m_database.runScript(dialect.release + m_savepoint);
    } catch (...) {
        m_database.m_lost = true;
    }
}

}  // namespace embedded
