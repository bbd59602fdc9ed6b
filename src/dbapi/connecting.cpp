#include "dbapi/connecting.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <iterator>
#include <limits>
#include <utility>
#include <vector>

#include "dbapi/failure.h"
#include "dbapi/waiting.h"

namespace {

// An attribute of the embedded runtime's connections.
constexpr SQLINTEGER kFilesOnly = 0x7004;

SQLPOINTER AsPointer(long number) {
    return reinterpret_cast<SQLPOINTER>(static_cast<std::uintptr_t>(number));
}

}  // namespace

// An environment to be freed by the next one that has the interpreter lock. A list without a lock:
// a thread that a fork leaves behind may have been in the middle of it.
struct Connecting::Left {
    SQLHENV handle = nullptr;
    Left* next = nullptr;
    static std::atomic<Left*> first;
};
std::atomic<Connecting::Left*> Connecting::Left::first;

void Connecting::FreeLeft() {
    for (Left* left = Left::first.exchange(nullptr); left;) {
        const std::unique_ptr<Left> owner(left);
        left = left->next;
        SQLFreeHandle(SQL_HANDLE_ENV, owner->handle);
    }
}

Connecting::Connecting() : m_left(std::make_unique<Left>()) {
    if (!OdbcSucceeded(SQLAllocHandle(SQL_HANDLE_ENV, nullptr, &environment))) {
        throw Failure("IM003",
                      "No runtime can be loaded; python -m vorda doctor shows where it was looked "
                      "for.");
    }
}

Connecting::~Connecting() {
    if (m_isConnected) SQLDisconnect(database.connection);
    if (database.connection) SQLFreeHandle(SQL_HANDLE_DBC, database.connection);
    if (!environment) return;
    m_left->handle = environment;
    m_left->next = Left::first.load();
    while (!Left::first.compare_exchange_weak(m_left->next, m_left.get())) {
    }
    static_cast<void>(m_left.release());
}

bool Connecting::Make(const std::string& text, bool autocommit, long timeout,
                      bool onlyFile) noexcept {
    try {
        if (!Open(text, timeout, onlyFile)) return false;
        Describe();
        if (autocommit) return true;
        Check(SQLSetConnectAttrW(database.connection, SQL_ATTR_AUTOCOMMIT,
                                 AsPointer(SQL_AUTOCOMMIT_OFF), 0),
              SQL_HANDLE_DBC, database.connection);
    } catch (...) {
        m_thrown = std::current_exception();
    }
    return true;
}

void Connecting::Judge() const {
    if (m_thrown) std::rethrow_exception(m_thrown);
}

void Connecting::Release() {
    m_isConnected = false;
    environment = nullptr;
    database.connection = nullptr;
}

bool Connecting::Open(const std::string& text, long timeout, bool onlyFile) {
    if (text.size() > std::numeric_limits<SQLSMALLINT>::max())
        throw Failure("HY090", "The connection string is too long.");
    if (!database.connection) {
        Check(SQLSetEnvAttr(environment, SQL_ATTR_ODBC_VERSION, AsPointer(SQL_OV_ODBC3), 0),
              SQL_HANDLE_ENV, environment);
        database.connection = NewHandle(SQL_HANDLE_DBC, SQL_HANDLE_ENV, environment);
    }
    const bool isHeeded = OdbcSucceeded(
        SQLSetConnectAttrW(database.connection, kFilesOnly, AsPointer(onlyFile ? 1 : 0), 0));
    if (onlyFile && !isHeeded) return false;
    // A runtime that knows no limit is left alone when the time is over.
    if (timeout > 0)
        SQLSetConnectAttrW(database.connection, SQL_ATTR_LOGIN_TIMEOUT, AsPointer(timeout), 0);
    const SQLRETURN status = SQLDriverConnectW(
        database.connection, nullptr, AsWideText(text.c_str()),
        static_cast<SQLSMALLINT>(text.size()), nullptr, 0, nullptr, SQL_DRIVER_NOPROMPT);
    if (onlyFile && status == SQL_NO_DATA) return false;
    // Whatever it says: it may be.
    m_isConnected = true;
    if (!OdbcSucceeded(status)) {
        std::vector<Diagnostic> records = ReadDiagnostics(SQL_HANDLE_DBC, database.connection);
        // Not every driver has the state of what it says.
        if (records.front().state == "HY000") records.front().state = "08001";
        throw Failure(std::move(records));
    }
    if (status != SQL_SUCCESS_WITH_INFO) return true;
    // What a server remarks on each connection is nobody's business; a key that is not
    // known is.
    const Diagnostic remark = ReadDiagnostics(SQL_HANDLE_DBC, database.connection).front();
    if (remark.state == "01S00") warning = remark.words;
    return true;
}

void Connecting::Describe() {
    char name[64] = {};
    SQLGetInfoW(database.connection, SQL_DBMS_NAME, name, sizeof name - 1, nullptr);
    // A product with another name than ASCII is none that is known here.
    const bool isPlain =
        std::all_of(std::begin(name), std::end(name), [](unsigned char c) { return c < 0x80; });
    if (isPlain) database.product = name;
    database.isSqlite = database.product == "SQLite";
    constexpr SQLUINTEGER kBlocks = SQL_GD_BLOCK | SQL_GD_BOUND;
    SQLUINTEGER extensions = 0;
    SQLGetInfoW(database.connection, SQL_GETDATA_EXTENSIONS, &extensions, sizeof extensions,
                nullptr);
    database.hasCells = (extensions & kBlocks) == kBlocks;
    database.keepsZones = database.hasCells && database.product == "PostgreSQL";
}

std::shared_ptr<Connecting> Connect(const std::string& text, bool autocommit, long timeout) {
    Connecting::FreeLeft();
    const std::unique_ptr<bool, void (*)(bool*)> end(&autocommit,
                                                     [](bool*) { Connecting::FreeLeft(); });
    auto attempt = std::make_shared<Connecting>();
    const auto make = [=](bool onlyFile) {
        return attempt->Make(text, autocommit, timeout, onlyFile);
    };
    const bool mayBeLeft = timeout > 0 || InMainThread();
    bool isMade = false;
    {
        // Nobody has to wait for a file, and with a second thread all would be slower that the
        // process does from then on.
        const Unlocked unlocked;
        isMade = make(mayBeLeft);
    }
    if (!isMade && !WaitOrLeave([=] { make(false); }, std::chrono::seconds(timeout))) {
        throw Failure("HYT00", "There is no connection after " + std::to_string(timeout) +
                                   " second(s), the timeout.");
    }
    attempt->Judge();
    return attempt;
}
