#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/error.h"
#include "odbc/session.h"
#include "odbc/utf16.h"

namespace embedded {

/// A statement handle of the driver manager, with what everybody needs who calls through it.
class OdbcStatement {
  public:
    explicit OdbcStatement(OdbcSession& session)
        : m_session(session), m_handle(SQL_HANDLE_STMT, &session.handle()) {}

    OdbcSession& session() const noexcept { return m_session; }
    SQLHSTMT get() const noexcept { return m_handle.get(); }
    const OdbcHandle& handle() const noexcept { return m_handle; }

    /// Runs `call`, which another thread may interrupt, and throws what went wrong. SQL_NO_DATA is
    /// an answer here.
    template <class Call>
    SQLRETURN run(Call&& call) const {
        OdbcSession::Running running(m_session, isDeaf ? SQL_NULL_HSTMT : get());
        const SQLRETURN result = call();
        interrupted |= running.end();
        if (SQL_SUCCEEDED(result) || result == SQL_NO_DATA) return result;
        const Error error = failure();
        const int cancelled = m_session.quirks().cancelled;
        const bool isCancelled = cancelled != 0 && error.native() == cancelled;
        throw isCancelled || isOutOfOrder(error) ? whyOutOfOrder() : error;
    }

    /// What the last call reported. Interrupted, a driver may fail without a word.
    Error failure() const {
        return interrupted && m_handle.state().empty() ? whyOutOfOrder() : m_handle.failure();
    }

    /// Whether it is because of an interruption.
    bool isOutOfOrder(const Error& error) const { return interrupted && error.state() == "HY010"; }
    static Error whyOutOfOrder() { return {"HY008", "The statement was cancelled."}; }

    SQLRETURN prepare(std::string_view sql) const {
        return send(sql, manager().SQLPrepareW, manager().SQLPrepare);
    }
    SQLRETURN executeDirect(std::string_view sql) const {
        return send(sql, manager().SQLExecDirectW, manager().SQLExecDirect);
    }

    SQLRETURN set(SQLINTEGER attribute, SQLPOINTER value) const {
        return manager().SQLSetStmtAttrW(get(), attribute, value, 0);
    }

    /// Seconds after which an execution fails; 0 for never. Throws if the driver has no such limit.
    void setTimeout(SQLULEN seconds) {
        if (seconds == m_timeout) return;
        const SQLRETURN result = set(SQL_ATTR_QUERY_TIMEOUT, reinterpret_cast<SQLPOINTER>(seconds));
        m_handle.check(result);
        // The driver has changed the value.
        if (result != SQL_SUCCESS && m_handle.state() == "01S02")
            throw notSupported("The driver has no such timeout for queries.");
        m_timeout = seconds;
    }
    SQLULEN timeout() const noexcept { return m_timeout; }

    /// Where the driver puts rows, with what `OdbcRows` knows of it, while it stays bound between
    /// two executions. In front of the handle, which goes first.
    std::shared_ptr<void> places;

    bool isDeaf = false;  ///< no interruption reaches it

    // What became of it, while it is used for one text.
    mutable bool interrupted = false;  ///< in the middle of an execution, or of its rows
    bool executed = false;
    bool prepared = false;
    bool staysDirect = false;           ///< it means something else when it is prepared
    bool hasManyRows = false;           ///< one of its results
    std::vector<std::string> answered;  ///< types of the rows' columns, executed directly
    bool keepsResults = false;          ///< rows that end leave those of the next result
    bool unusable = false;    ///< not to be used again: the driver holds on to rows or addresses
    bool keepsZones = false;  ///< of its parameters
    std::vector<size_t> booleans;  ///< positions of markers that the server wants Booleans for

    const DriverManager& manager() const noexcept { return DriverManager::instance(); }

  private:
    // On its own way from wide to narrow the driver manager cuts every character of a text to one
    // byte for a single one that it does not know.
    template <class Wide, class Narrow>
    SQLRETURN send(std::string_view sql, Wide wide, Narrow narrow) const {
        if (!m_session.quirks().narrow) {
            WideText text = wideText(sql);
            return run(
                [&] { return wide(get(), text.data(), static_cast<SQLINTEGER>(text.size() - 1)); });
        }
        requireUtf8(sql, kNotUtf8);
        std::string text(sql);
        return run([&] {
            return narrow(get(), reinterpret_cast<SQLCHAR*>(text.data()),
                          static_cast<SQLINTEGER>(text.size()));
        });
    }

    OdbcSession& m_session;
    OdbcHandle m_handle;
    SQLULEN m_timeout = 0;
};

}  // namespace embedded
