#include "odbc/drivermanager.h"

#include <dlfcn.h>

#include <algorithm>
#include <iterator>
#include <optional>

namespace embedded {
namespace {

constexpr const char* kLibrary = "libodbc.so.2";

Error missing(const std::string& why) {
    return {"08001",
            "The connection string asks for an ODBC data source, but the ODBC driver manager " +
                why + ". Install unixODBC (Debian: libodbc2) and the driver."};
}

DriverManager load() {
    // Local scope: other libraries of the process export functions of the same names.
    void* const library = dlopen(kLibrary, RTLD_NOW | RTLD_LOCAL);
    if (!library) throw missing(std::string("cannot be loaded: ") + dlerror());
    DriverManager manager{};
#define DRIVER_MANAGER_RESOLVE(name)                                           \
    manager.name = reinterpret_cast<decltype(&::name)>(dlsym(library, #name)); \
    if (!manager.name) throw missing(std::string(kLibrary) + " has no function " #name);
    DRIVER_MANAGER_FUNCTIONS(DRIVER_MANAGER_RESOLVE)
#undef DRIVER_MANAGER_RESOLVE
    return manager;
}

struct Record {
    std::string state;
    int native = 0;
    std::string message;
};

std::optional<Record> recordOf(const DriverManager& manager, SQLSMALLINT type, SQLHANDLE handle,
                               SQLSMALLINT number) {
    constexpr SQLSMALLINT kCapacity = 2048;
    SQLWCHAR state[SQL_SQLSTATE_SIZE + 1] = {};
    SQLWCHAR message[kCapacity] = {};
    SQLINTEGER code = 0;
    SQLSMALLINT length = 0;
    if (!SQL_SUCCEEDED(manager.SQLGetDiagRecW(type, handle, number, state, &code, message,
                                              kCapacity, &length))) {
        return std::nullopt;
    }
    // The length is the driver's word; the terminator is the driver manager's.
    const size_t claimed = static_cast<size_t>(std::clamp<SQLSMALLINT>(length, 0, kCapacity - 1));
    const auto end = std::find(message, message + claimed, SQLWCHAR{0});
    std::string shown = readableText(state, SQL_SQLSTATE_SIZE);
    const bool valid = std::all_of(shown.begin(), shown.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z');
    });
    return Record{valid ? shown : "HY000", code,
                  readableText(message, static_cast<size_t>(end - message))};
}

bool isOutOfOrder(const DriverManager& manager, SQLHANDLE statement) noexcept {
    SQLWCHAR state[SQL_SQLSTATE_SIZE + 1] = {};
    SQLWCHAR message[SQL_MAX_MESSAGE_LENGTH] = {};
    SQLINTEGER code = 0;
    SQLSMALLINT length = 0;
    const SQLRETURN result = manager.SQLGetDiagRecW(SQL_HANDLE_STMT, statement, 1, state, &code,
                                                    message, SQL_MAX_MESSAGE_LENGTH, &length);
    constexpr SQLWCHAR kOutOfOrder[] = {'H', 'Y', '0', '1', '0'};
    return SQL_SUCCEEDED(result) && std::equal(kOutOfOrder, std::end(kOutOfOrder), state);
}

}  // namespace

const DriverManager& DriverManager::instance() {
    static const DriverManager manager = load();
    return manager;
}

OdbcHandle::OdbcHandle(SQLSMALLINT type, const OdbcHandle* parent)
    : m_manager(DriverManager::instance()), m_type(type) {
    const SQLHANDLE input = parent ? parent->get() : SQL_NULL_HANDLE;
    if (!SQL_SUCCEEDED(m_manager.SQLAllocHandle(type, input, &m_handle))) {
        if (parent) throw parent->failure();
        throw Error("HY001", "The ODBC driver manager gives no environment.", native::kNoMemory);
    }
    if (type == SQL_HANDLE_ENV) {
        m_manager.SQLSetEnvAttr(m_handle, SQL_ATTR_ODBC_VERSION,
                                reinterpret_cast<SQLPOINTER>(SQL_OV_ODBC3), 0);
    }
}

OdbcHandle::~OdbcHandle() {
    if (m_type == SQL_HANDLE_DBC) m_manager.SQLDisconnect(m_handle);
    if (SQL_SUCCEEDED(m_manager.SQLFreeHandle(m_type, m_handle)) || m_type != SQL_HANDLE_STMT)
        return;
    // In the middle of something it is let go of only when that is over. PostgreSQL's driver
    // refuses without a word when the connection is lost, and some versions of it crash if
    // cancelled then.
    if (isOutOfOrder(m_manager, m_handle)) {
        m_manager.SQLCancel(m_handle);
        m_manager.SQLFreeHandle(m_type, m_handle);
    }
}

SQLRETURN OdbcHandle::check(SQLRETURN result) const {
    if (SQL_SUCCEEDED(result)) return result;
    throw failure();
}

std::string OdbcHandle::state() const {
    const auto record = recordOf(m_manager, m_type, m_handle, 1);
    return record ? record->state : "";
}

Error OdbcHandle::failure() const {
    const auto first = recordOf(m_manager, m_type, m_handle, 1);
    if (!first) return Error::fromDriver("HY000", "The driver failed and does not say why.", 0);
    std::string text = first->message;
    constexpr SQLSMALLINT kMost = 5;
    for (SQLSMALLINT number = 2; number <= kMost; ++number) {
        const auto record = recordOf(m_manager, m_type, m_handle, number);
        if (!record) break;
        text += "; [" + record->state + "] " + record->message;
    }
    return Error::fromDriver(first->state, text, first->native);
}

}  // namespace embedded
