// Entry points: handles, connections, transactions.
#include <algorithm>
#include <string>

#include "core/callertext.h"
#include "core/connection.h"
#include "core/environment.h"
#include "core/statement.h"
#include "entry/entry.h"
#include "entry/runtime.h"

namespace embedded {
namespace {

SQLRETURN allocEnvironment(SQLHANDLE* output) noexcept {
    try {
        *output = HandleRegistry::instance().add(std::make_shared<Environment>());
        return SQL_SUCCESS;
    } catch (...) {
        return SQL_ERROR;  // there is no handle yet that could say why
    }
}

SQLRETURN allocConnection(SQLHANDLE environment, SQLHANDLE* output) noexcept {
    return withHandle<Environment>(environment, [&](Environment& parent) {
        parent.connections.reserve(parent.connections.size() + 1);
        *output = HandleRegistry::instance().add(std::make_shared<Connection>(parent.id()));
        parent.connections.push_back(*output);
    });
}

SQLRETURN allocStatement(SQLHANDLE connection, SQLHANDLE* output) noexcept {
    return withHandle<Connection>(connection, [&](Connection& parent) {
        parent.database();
        auto shared = HandleRegistry::instance().find<Connection>(connection);
        if (!shared) return SQL_INVALID_HANDLE;
        *output = HandleRegistry::instance().add(std::make_shared<Statement>(std::move(shared)));
        return SQL_SUCCESS;
    });
}

SQLRETURN freeEnvironment(SQLHANDLE handle) noexcept {
    return withHandle<Environment>(handle, [](Environment& environment) {
        if (!environment.connections.empty()) {
            throw sequenceError("The environment still has connections.");
        }
        environment.dropped = true;
        HandleRegistry::instance().remove(environment.id());
    });
}

SQLRETURN freeConnection(SQLHANDLE handle) noexcept {
    SQLHANDLE environment = nullptr;
    const SQLRETURN result = withHandle<Connection>(handle, [&](Connection& connection) {
        if (connection.isOpen()) throw sequenceError("The connection is still open.");
        environment = connection.environment();
        connection.dropped = true;
        HandleRegistry::instance().remove(connection.id());
    });
    // The environment's lock is only ever taken before a connection's, so not under it.
    if (result == SQL_SUCCESS) {
        if (const auto parent = HandleRegistry::instance().find<Environment>(environment)) {
            const Lock lock(parent->mutex());
            std::erase(parent->connections, handle);
        }
    }
    return result;
}

SQLRETURN freeStatement(SQLHANDLE handle) noexcept {
    return withHandle<Statement, Inherited::Allowed>(
        handle, [](Statement& statement) { statement.drop(); });
}

bool commits(SQLSMALLINT completion) {
    if (completion != SQL_COMMIT && completion != SQL_ROLLBACK) {
        throw Error("HY012", "Neither SQL_COMMIT nor SQL_ROLLBACK.");
    }
    return completion == SQL_COMMIT;
}

SQLRETURN endConnection(SQLHANDLE handle, SQLSMALLINT completion) noexcept {
    return withHandle<Connection>(
        handle, [&](Connection& connection) { connection.endTransaction(commits(completion)); });
}

SQLRETURN endEnvironment(SQLHANDLE handle, SQLSMALLINT completion) noexcept {
    return withHandle<Environment>(handle, [&](Environment& environment) {
        commits(completion);
        bool failed = false;
        for (const SQLHANDLE id : environment.connections) {
            const auto connection = HandleRegistry::instance().find<Connection>(id);
            if (!connection || !connection->isOpen()) continue;
            failed |= !SQL_SUCCEEDED(endConnection(id, completion));
        }
        if (failed) {
            throw Error("25S01", "Not every connection could end its transaction; each says why.");
        }
    });
}

}  // namespace
}  // namespace embedded

using namespace embedded;

int RT_Version() {
    return 6;
}

SQLRETURN RT_SQLAllocHandle(const char*, SQLSMALLINT type, SQLHANDLE input, SQLHANDLE* output) {
    if (!output) return SQL_ERROR;
    *output = nullptr;
    switch (type) {
        case SQL_HANDLE_ENV:
            return allocEnvironment(output);
        case SQL_HANDLE_DBC:
            return allocConnection(input, output);
        case SQL_HANDLE_STMT:
            return allocStatement(input, output);
        default:
            return withHandle<Connection>(input, [](Connection&) -> SQLRETURN {
                throw notSupported("Handles of this type are not supported.");
            });
    }
}

SQLRETURN RT_SQLFreeHandle(const char*, SQLSMALLINT type, SQLHANDLE handle) {
    switch (type) {
        case SQL_HANDLE_ENV:
            return freeEnvironment(handle);
        case SQL_HANDLE_DBC:
            return freeConnection(handle);
        case SQL_HANDLE_STMT:
            return freeStatement(handle);
        default:
            return SQL_INVALID_HANDLE;
    }
}

SQLRETURN RT_SQLFreeStmt(const char*, SQLHSTMT handle, SQLUSMALLINT option) {
    return withHandle<Statement, Inherited::Allowed>(handle, [&](Statement& statement) {
        switch (option) {
            case SQL_CLOSE:
                statement.closeCursor();
                break;
            case SQL_DROP:
                statement.drop();
                break;
            case SQL_UNBIND:
                statement.unbindColumns();
                break;
            case SQL_RESET_PARAMS:
                statement.unbindParameters();
                break;
            default:
                throw Error("HY092", "Unknown option " + std::to_string(option) + ".");
        }
        return SQL_SUCCESS;
    });
}

SQLRETURN RT_SQLDriverConnect(const char*, SQLHDBC handle, SQLHWND, SQLCHAR* text,
                              SQLSMALLINT textLength, SQLCHAR* completed,
                              SQLSMALLINT completedCapacity, SQLSMALLINT* completedLength,
                              SQLUSMALLINT) {
    return withHandle<Connection>(handle, [&](Connection& connection) {
        const std::string_view given = inputText(text, textLength);
        if (completedCapacity < 0) throw Error("HY090", "Invalid buffer length.");
        if (!connection.open(given)) return SQLRETURN{SQL_NO_DATA};
        answerText(connection.diagnostics, given, completed, completedCapacity, completedLength,
                   "The connection string was cut.");
        return SQLRETURN{SQL_SUCCESS};
    });
}

SQLRETURN RT_SQLDisconnect(const char*, SQLHDBC handle) {
    return withHandle<Connection, Inherited::Allowed>(
        handle, [](Connection& connection) { connection.close(); });
}

SQLRETURN RT_SQLEndTran(const char*, SQLSMALLINT type, SQLHANDLE handle, SQLSMALLINT completion) {
    switch (type) {
        case SQL_HANDLE_ENV:
            return endEnvironment(handle, completion);
        case SQL_HANDLE_DBC:
            return endConnection(handle, completion);
        default:
            return SQL_INVALID_HANDLE;
    }
}

RT_WIDE_IS_NARROW(SQLDriverConnect);
