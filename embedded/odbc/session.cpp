#include "odbc/session.h"

#include <algorithm>
#include <limits>
#include <string_view>

#include "core/error.h"
#include "core/information.h"
#include "odbc/utf16.h"
#include "values/text.h"

namespace embedded {
namespace {

constexpr std::time_t kDay = 86'400;  // in seconds

/// The value of `key` in a connection string, or an empty text.
std::string_view valueOf(const ConnectString& text, std::string_view key) noexcept {
    for (const ConnectString::Pair& pair : text.pairs()) {
        if (sameWord(pair.key, key)) return pair.value;
    }
    return {};
}

/// `text` with what the driver needs to show all of its types.
std::string completed(const ConnectString& text, const DriverQuirks& quirks) {
    if (!quirks.key || text.has(quirks.key)) return text.text();
    std::string result = text.text();
    if (!result.empty() && result.back() != ';') result += ';';
    return result + quirks.key + "=" + quirks.value;
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

}  // namespace

OdbcSession::OdbcSession(const ConnectString& text, Diagnostics& diagnostics, SQLULEN loginTimeout)
    : m_manager(DriverManager::instance()),
      m_environment(SQL_HANDLE_ENV, nullptr),
      m_connection(SQL_HANDLE_DBC, &m_environment),
      m_nextDay(std::time(nullptr) - kDay) {
    // A driver that has none takes as long as it takes.
    if (loginTimeout != 0) {
        m_manager.SQLSetConnectAttrW(m_connection.get(), SQL_ATTR_LOGIN_TIMEOUT,
                                     reinterpret_cast<SQLPOINTER>(loginTimeout), SQL_IS_UINTEGER);
    }
    const DriverQuirks& named = quirksOfNamed(valueOf(text, "Driver"));
    const std::string first = completed(text, named);
    const bool narrow = needsNarrowCall(text);
    connect(first, narrow || named.narrow, diagnostics);
    m_quirks = &quirksOf(textInfo(SQL_DRIVER_NAME));
    const std::string second = completed(text, *m_quirks);
    if (second != first || m_quirks->narrow != named.narrow) {
        m_connection.check(m_manager.SQLDisconnect(m_connection.get()));
        diagnostics.clear();
        connect(second, narrow || m_quirks->narrow, diagnostics);
    }
    m_dialect = &dialectOf(textInfo(SQL_DBMS_NAME));
    m_rereadsBound = (numberInfo(SQL_GETDATA_EXTENSIONS) & SQL_GD_BOUND) != 0;
}

// The narrow function of unixODBC alone hands a text that is not ASCII to a narrow driver as it is:
// another file would be opened.
void OdbcSession::connect(const std::string& text, bool narrow, Diagnostics& diagnostics) {
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

bool OdbcSession::mayBeToday(int month, int day) noexcept {
    const auto indexOf = [](int oneMonth, int oneDay) {
        return static_cast<size_t>(oneMonth * 32 + oneDay) % 512;
    };
    // A day more on each side, for the time zones.
    for (const std::time_t end = std::time(nullptr) + 2 * kDay; m_nextDay <= end;
         m_nextDay += kDay) {
        std::tm date{};
        gmtime_r(&m_nextDay, &date);
        m_days.set(indexOf(date.tm_mon + 1, date.tm_mday));
    }
    return m_days.test(indexOf(month, day));
}

std::string OdbcSession::textInfo(SQLUSMALLINT type) const {
    // As many units as it is told of bytes: of a driver without UTF-16 the manager takes so many
    // characters.
    constexpr SQLSMALLINT kCapacity = 2048;
    SQLWCHAR text[kCapacity] = {};
    SQLSMALLINT bytes = 0;
    m_connection.check(m_manager.SQLGetInfoW(m_connection.get(), type, text, kCapacity, &bytes));
    text[kCapacity - 1] = 0;
    return readableText(
        text, std::char_traits<char16_t>::length(reinterpret_cast<const char16_t*>(text)));
}

SQLUINTEGER OdbcSession::numberInfo(SQLUSMALLINT type) const {
    SQLUINTEGER number = 0;
    SQLSMALLINT bytes = 0;
    m_connection.check(
        m_manager.SQLGetInfoW(m_connection.get(), type, &number, sizeof number, &bytes));
    return infoKind(type) == InfoKind::Short ? number & 0xFFFFU : number;
}

bool OdbcSession::isDead() const {
    if (m_unusable) return true;
    SQLUINTEGER dead = SQL_CD_FALSE;
    m_manager.SQLGetConnectAttrW(m_connection.get(), SQL_ATTR_CONNECTION_DEAD, &dead, sizeof dead,
                                 nullptr);
    return dead == SQL_CD_TRUE;
}

void OdbcSession::require() const {
    if (m_unusable) {
        throw Error("08S01", "The connection is given up: the driver could not end a transaction.",
                    native::kError);
    }
}

void OdbcSession::requireAfter(const Error& error) const {
    if (m_quirks->hidesLoss && error.state() == "HY000" && isDead())
        throw Error::fromDriver("08S01", "The connection has been lost", error.native());
}

void OdbcSession::interrupt() noexcept {
    const std::lock_guard lock(m_runningMutex);
    if (!m_running && !m_inBatch) return;
    m_wasInterrupted = true;
    if (m_running) m_manager.SQLCancel(m_running);
}

}  // namespace embedded
