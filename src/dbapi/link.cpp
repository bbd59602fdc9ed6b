#include "dbapi/link.h"

#include <algorithm>

namespace {

// Attributes of the embedded runtime's connections.
constexpr SQLINTEGER kInTransaction = 0x7002;
constexpr SQLINTEGER kProgress = 0x7003;

constexpr const char* kClosed = "08003";
constexpr const char* kClosedWords = "The connection is closed.";

// The batches that this thread is in the middle of.
thread_local const Link::Batch* t_batches = nullptr;

Failure LostBatch() {
    return Failure("40003", "The transaction of executemany() is gone in the middle: roll back.");
}

SQLPOINTER AsPointer(std::uintptr_t number) {
    return reinterpret_cast<SQLPOINTER>(number);
}

}  // namespace

Link::Link(Connecting& made, bool autocommit, long timeout)
    : m_environment(made.environment), m_database(made.database), m_autocommit(autocommit) {
    m_database.timeout = timeout;
    made.Release();
    m_isWatched = OdbcSucceeded(SQLSetConnectAttrW(
        m_database.connection, kProgress, const_cast<Progress*>(&m_progress), SQL_IS_POINTER));
}

int Link::LookIn(void* link) {
    Watched* const watched = static_cast<Link*>(link)->m_watched;
    return watched && watched->Look() ? 1 : 0;
}

// It is disconnected.
void Link::FreeHandles() {
    if (m_database.connection) SQLFreeHandle(SQL_HANDLE_DBC, m_database.connection);
    m_database.connection = nullptr;
    if (m_environment) SQLFreeHandle(SQL_HANDLE_ENV, m_environment);
    m_environment = nullptr;
}

Link::~Link() {
    if (IsInherited()) return;
    try {
        Close();
    } catch (const PythonError&) {
        PyErr_WriteUnraisable(nullptr);  // a signal's handler has raised
    } catch (...) {
        // There is nobody to tell; what is not committed is lost, as it should be.
    }
}

Link::Turn::Turn(Link& link) : m_link(link), m_isWithin(link.KeepsOut()) {
    link.RefuseInherited();
    if (link.HasTurn()) {
        throw Failure(
            "HY010",
            "The connection is busy: this was called by a signal's handler or a finalizer "
            "in the middle of another call.");
    }
    if (!m_isWithin) link.Enter();
    if (!link.IsOpen()) {
        if (!m_isWithin) link.m_mutex.unlock();
        throw Failure(kClosed, kClosedWords);
    }
    Set(link.m_owner, PyThread_get_thread_ident());
}

Link::Turn::~Turn() {
    m_link.TakeInWaiting();
    Set(m_link.m_owner, 0);
    if (!m_isWithin) m_link.m_mutex.unlock();
}

void Link::RefuseInherited() const {
    if (!IsInherited()) return;
    throw Failure("08S01",
                  "The connection belongs to the process from which this one was forked; open one "
                  "of its own.");
}

void Link::Enter() {
    if (m_mutex.try_lock()) return;
    if (ProgramEnds()) throw Failure("HY010", "Another thread was in the connection at the end.");
    const Unlocked unlocked;
    m_mutex.lock();
}

void Link::KeepOthersOut() {
    Enter();
    Set(m_keeper, PyThread_get_thread_ident());
}

void Link::LetOthersIn() {
    Set(m_keeper, 0);
    m_mutex.unlock();
}

void Link::NoteRunning(SQLHSTMT statement) {
    // Without another thread nobody cancels.
    if (IsOnlyThread()) {
        m_running = statement;
        return;
    }
    const std::lock_guard lock(m_runningMutex);
    m_running = statement;
}

void Link::Cancel() {
    const std::lock_guard lock(m_runningMutex);
    if (m_running) SQLCancel(m_running);
}

void Link::EndTransaction(bool keep) {
    if (!keep) {
        for (Statement* const statement : m_taken)
            statement->Lose({"24000", "The rows are gone with the rollback."});
    }
    Wait(nullptr, [&] {
        Check(SQLEndTran(SQL_HANDLE_DBC, m_database.connection, keep ? SQL_COMMIT : SQL_ROLLBACK),
              SQL_HANDLE_DBC, m_database.connection);
    });
    m_touched = false;
}

Link::Batch::Batch(Link& link) : m_link(link), m_outer(t_batches) {
    t_batches = this;
    ++link.m_batches;
}

Link::Batch::~Batch() {
    --m_link.m_batches;
    t_batches = m_outer;
}

bool Link::IsInBatch() const {
    if (m_batches == 0) return false;
    const Batch* batch = t_batches;
    while (batch && &batch->m_link != this) batch = batch->m_outer;
    return batch != nullptr;
}

void Link::RefuseInBatch() const {
    if (IsInBatch())
        throw Failure("HY010", "executemany() is not over: all of it is kept, or nothing.");
}

void Link::Commit(bool keep) {
    RefuseInBatch();
    const Turn turn(*this);
    if (keep || m_toUndo == Undone::Transaction) FinishUndo();
    EndTransaction(keep);
    m_toUndo = Undone::Nothing;
}

void Link::Run(const char* sql, bool canBeCancelled) {
    const SQLHSTMT statement = NewHandle(SQL_HANDLE_STMT, SQL_HANDLE_DBC, m_database.connection);
    const std::unique_ptr<void, void (*)(SQLHSTMT)> owner(
        statement, [](SQLHSTMT owned) { SQLFreeHandle(SQL_HANDLE_STMT, owned); });
    Wait(canBeCancelled ? statement : nullptr,
         [&] { CheckFound(SQLExecDirectW(statement, AsWideText(sql), SQL_NTS), statement); });
}

void Link::BeginOnSqlite() {
    if (IsSqliteItself() && !InTransaction()) Run("BEGIN");
}

void Link::RefuseLostBatch() {
    if (KeepsOut() && IsSqliteItself() && !InTransaction()) throw LostBatch();
}

void Link::SetSavepoint() {
    // On SQLite, a savepoint outside of a transaction is one of its own, committed when released.
    BeginOnSqlite();
    m_touched = true;
    Run("SAVEPOINT vorda_executemany");
}

void Link::ReleaseSavepoint(bool keep) {
    try {
        if (!keep) Run("ROLLBACK TO SAVEPOINT vorda_executemany", false);
        Run("RELEASE SAVEPOINT vorda_executemany", false);
    } catch (const Failure& failure) {
        // By a statement that committed, or a node that has undone the transaction just now.
        const std::string& state = failure.Records().front().state;
        if (state != "42000" && state != "3B001") throw;
        throw LostBatch();
    }
}

void Link::Undo(Undone what) noexcept {
    PyObject *type, *value, *trace;
    PyErr_Fetch(&type, &value, &trace);
    m_toUndo = what;
    try {
        const Turn turn(*this);
        FinishUndo();
    } catch (...) {
        // What failed at first is what the caller hears of.
        PyErr_Clear();
    }
    PyErr_Restore(type, value, trace);
}

void Link::FinishUndo() {
    if (m_toUndo == Undone::Nothing) return;
    m_isUndoing = true;
    const std::unique_ptr<bool, void (*)(bool*)> end(&m_isUndoing, [](bool* is) { *is = false; });
    if (m_toUndo == Undone::Transaction) {
        EndTransaction(false);
        SetAutocommit(true);
    } else if (!m_database.isSqlite || InTransaction()) {
        ReleaseSavepoint(false);
    }
    m_toUndo = Undone::Nothing;
}

void Link::SetAutocommit(bool on) {
    const SQLULEN value = on ? SQL_AUTOCOMMIT_ON : SQL_AUTOCOMMIT_OFF;
    Wait(nullptr, [&] {
        Check(SQLSetConnectAttrW(m_database.connection, SQL_ATTR_AUTOCOMMIT, AsPointer(value), 0),
              SQL_HANDLE_DBC, m_database.connection);
    });
    m_autocommit = on;
    m_touched = false;
}

bool Link::InTransaction() {
    SQLUINTEGER isOpen = 0;
    SQLRETURN status = SQL_ERROR;
    const auto ask = [&] {
        status = SQLGetConnectAttrW(m_database.connection, kInTransaction, &isOpen, sizeof isOpen,
                                    nullptr);
    };
    // A server may have to be asked.
    if (m_database.isSqlite) {
        ask();
    } else {
        Wait(nullptr, ask);
    }
    return OdbcSucceeded(status) ? isOpen != 0 : !m_autocommit && m_touched;
}

void Link::Close() {
    if (!IsOpen()) return;
    if (IsInherited()) {
        m_database.connection = nullptr;  // which stays the parent's
        return;
    }
    const Turn turn(*this);
    for (Statement* const statement : m_taken) statement->Release({kClosed, kClosedWords});
    m_idle.Clear();
    m_waiting.clear();
    // Whatever the server says to the rollback, the connection ends, and with it the transaction.
    const std::unique_ptr<Link, void (*)(Link*)> end(this, [](Link* link) { link->FreeHandles(); });
    Wait(nullptr, [&] {
        SQLEndTran(SQL_HANDLE_DBC, m_database.connection, SQL_ROLLBACK);
        SQLDisconnect(m_database.connection);
    });
}

// ---- statements

std::unique_ptr<Statement> Link::TakeStatement(PyObject* text) {
    std::unique_ptr<Statement> statement = text ? m_idle.Take(text) : nullptr;
    if (!statement) {
        // Types that servers' parameters and columns were bound with are none for another text.
        if (text && m_database.isSqlite) statement = m_idle.TakeSurplus();
        if (!statement) statement = std::make_unique<Statement>(m_database);
        if (text) statement->SetText(text);
        // A server takes longer to prepare one than all that is saved here.
        if (!m_database.isSqlite || m_idle.IsNoted(statement->Hash())) statement->ComesAgain();
    }
    // Giving back must not fail.
    m_waiting.reserve(m_waiting.size() + m_taken.size() + 1);
    m_taken.push_back(statement.get());
    return statement;
}

void Link::GiveBack(std::unique_ptr<Statement> statement) noexcept {
    m_taken.erase(std::remove(m_taken.begin(), m_taken.end(), statement.get()), m_taken.end());
    if (IsInherited() || !IsOpen()) return;
    const bool isWithin = KeepsOut();
    if (HasTurn() || (!isWithin && !m_mutex.try_lock())) {
        m_waiting.push_back(std::move(statement));
        return;
    }
    TakeIn(std::move(statement));
    if (!isWithin) m_mutex.unlock();
}

void Link::TakeIn(std::unique_ptr<Statement> statement) noexcept {
    statement->Close();
    if (!statement->HasText()) return;
    try {
        m_idle.Keep(std::move(statement));
    } catch (const std::bad_alloc&) {
        // It is prepared again when it is wanted again.
    }
}

void Link::TakeInWaiting() noexcept {
    while (!m_waiting.empty()) {
        std::unique_ptr<Statement> statement = std::move(m_waiting.back());
        m_waiting.pop_back();
        TakeIn(std::move(statement));
    }
}
