#include "mono/odbc.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "mono/runtimesearch.h"
#include "runtime/lib.h"

char g_driverPath[1025];
void* g_runtimeHandle;
void* g_runtimeCompatHandle;
int g_driver_handle_counter;
SQLUSMALLINT FunctionArray[100];
SQLSMALLINT FunctionMap[SQL_API_ODBC3_ALL_FUNCTIONS_SIZE];

#define ODBC_CALL(name, parameters, arguments) SQL##name##Func g_mtdSQL##name;
#include "mono/odbc_functions.def"

namespace {

// What SQLGetFunctions reports. Two entries stand twice; the old option calls and SQLBindParam are
// exported but deliberately not reported.
constexpr int ALL_FUNCTIONS[] = {
    // clang-format off
    SQL_API_SQLALLOCCONNECT, SQL_API_SQLALLOCENV, SQL_API_SQLALLOCSTMT, SQL_API_SQLFREECONNECT,
    SQL_API_SQLFREEENV, SQL_API_SQLFREESTMT, SQL_API_SQLCOLATTRIBUTE, SQL_API_SQLERROR,
    SQL_API_SQLSETPARAM, SQL_API_SQLTRANSACT, SQL_API_SQLSETCONNECTOPTION,
    SQL_API_SQLGETCONNECTOPTION, SQL_API_SQLENDTRAN, SQL_API_SQLALLOCHANDLE,
    SQL_API_SQLGETDESCFIELD, SQL_API_SQLBINDCOL, SQL_API_SQLGETDESCREC, SQL_API_SQLCANCEL,
    SQL_API_SQLGETDIAGFIELD, SQL_API_SQLCLOSECURSOR, SQL_API_SQLGETDIAGREC,
    SQL_API_SQLCOLATTRIBUTE, SQL_API_SQLGETENVATTR, SQL_API_SQLCONNECT, SQL_API_SQLGETFUNCTIONS,
    SQL_API_SQLCOPYDESC, SQL_API_SQLGETINFO, SQL_API_SQLDATASOURCES, SQL_API_SQLGETSTMTATTR,
    SQL_API_SQLDESCRIBECOL, SQL_API_SQLGETTYPEINFO, SQL_API_SQLDISCONNECT,
    SQL_API_SQLNUMRESULTCOLS, SQL_API_SQLDRIVERS, SQL_API_SQLPARAMDATA, SQL_API_SQLPREPARE,
    SQL_API_SQLEXECDIRECT, SQL_API_SQLPUTDATA, SQL_API_SQLEXECUTE, SQL_API_SQLROWCOUNT,
    SQL_API_SQLFETCH, SQL_API_SQLSETCONNECTATTR, SQL_API_SQLFETCHSCROLL,
    SQL_API_SQLSETCURSORNAME, SQL_API_SQLFREEHANDLE, SQL_API_SQLSETDESCFIELD,
    SQL_API_SQLFREESTMT, SQL_API_SQLSETDESCREC, SQL_API_SQLGETCONNECTATTR,
    SQL_API_SQLSETENVATTR, SQL_API_SQLGETCURSORNAME, SQL_API_SQLSETSTMTATTR, SQL_API_SQLGETDATA,
    SQL_API_SQLSETSCROLLOPTIONS, SQL_API_SQLEXTENDEDFETCH, SQL_API_SQLCOLUMNS,
    SQL_API_SQLSTATISTICS, SQL_API_SQLSPECIALCOLUMNS, SQL_API_SQLTABLES,
    SQL_API_SQLBINDPARAMETER, SQL_API_SQLNATIVESQL, SQL_API_SQLBROWSECONNECT,
    SQL_API_SQLNUMPARAMS, SQL_API_SQLBULKOPERATIONS, SQL_API_SQLPRIMARYKEYS,
    SQL_API_SQLCOLUMNPRIVILEGES, SQL_API_SQLPROCEDURECOLUMNS, SQL_API_SQLDESCRIBEPARAM,
    SQL_API_SQLPROCEDURES, SQL_API_SQLDRIVERCONNECT, SQL_API_SQLSETPOS, SQL_API_SQLFOREIGNKEYS,
    SQL_API_SQLTABLEPRIVILEGES, SQL_API_SQLMORERESULTS,
    // clang-format on
};
static_assert(std::size(ALL_FUNCTIONS) == 74);

// The runtime stays untouched while the module is merely loaded, and nothing is torn down with it.
__attribute__((constructor)) void g_init() {}
__attribute__((destructor)) void g_fini() {}

// What an earlier attempt opened is overwritten, not closed: the pair counts only as found by one
// attempt.
bool OpenPair(int attempt) {
    const auto open = [attempt](RuntimeLibrary library) {
        char path[kRuntimePathSize];
        const char* reason = nullptr;
        RuntimePath(path, attempt, library, g_driverPath);
        return OpenRuntimeLibrary(path, &reason);
    };
    g_runtimeHandle = open(RUNTIME_MAIN);
    g_runtimeCompatHandle = open(RUNTIME_COMPANION);
    return g_runtimeHandle && g_runtimeCompatHandle;
}

template <typename Method>
void Bind(Method& method, const char* name) {
    method = reinterpret_cast<Method>(dlsym(g_runtimeHandle, name));
}

template <typename Method, typename... Arguments>
SQLRETURN Forward(Method method, Arguments... arguments) {
    if (!method) return SQL_ERROR;
    return method(g_driverPath, arguments...);
}

void ReleaseRuntime() {
    UnloadMethods();
    UnloadRuntime();
}

}  // namespace

void LoadRuntime() {
    if (g_runtimeHandle) return;
    std::fill(std::begin(g_driverPath), std::end(g_driverPath), '\0');
    GetCurrentPath(nullptr, g_driverPath, kRuntimePathSize);

    for (int attempt = 0; attempt < kRuntimeAttempts && !OpenPair(attempt); ++attempt) {
    }
}

void UnloadRuntime() {
    if (!g_runtimeHandle || !AllowUnloadRuntime()) return;
    dlclose(g_runtimeHandle);
    g_runtimeHandle = nullptr;
}

int AllowUnloadRuntime() {
    const char* const value = std::getenv("VORDA_UNLOAD_RUNTIME");
    return value && std::strcmp(value, "1") == 0 ? 1 : 0;
}

void LoadMethods() {
    if (!g_runtimeHandle) return;
#define ODBC_CALL(name, parameters, arguments) Bind(g_mtdSQL##name, "RT_SQL" #name);
#include "mono/odbc_functions.def"
}

void UnloadMethods() {
#define ODBC_CALL(name, parameters, arguments) g_mtdSQL##name = nullptr;
#include "mono/odbc_functions.def"
}

SQLRETURN allocHandle(SQLSMALLINT handleType, SQLHANDLE inputHandle, SQLHANDLE* outputHandle) {
    if (handleType != SQL_HANDLE_ENV) {
        return Forward(g_mtdSQLAllocHandle, handleType, inputHandle, outputHandle);
    }
    const bool isFirst = g_driver_handle_counter == 0;
    if (isFirst) {
        LoadRuntime();
        LoadMethods();
    }
    const SQLRETURN result = Forward(g_mtdSQLAllocHandle, handleType, inputHandle, outputHandle);
    if (OdbcSucceeded(result)) {
        ++g_driver_handle_counter;
    } else if (isFirst) {
        ReleaseRuntime();
    }
    return result;
}

SQLRETURN freeHandle(SQLSMALLINT handleType, SQLHANDLE handle) {
    const SQLRETURN result = Forward(g_mtdSQLFreeHandle, handleType, handle);
    // Without the runtime's function the result is an error, so nothing is counted then either.
    if (handleType == SQL_HANDLE_ENV && OdbcSucceeded(result) && --g_driver_handle_counter <= 0) {
        ReleaseRuntime();
        g_driver_handle_counter = 0;
    }
    return result;
}

void InitSupportedFunctions() {
    for (const int id : ALL_FUNCTIONS) {
        if (id < static_cast<int>(std::size(FunctionArray))) FunctionArray[id] = SQL_TRUE;
        SQLSMALLINT& word = FunctionMap[id >> 4];
        word = static_cast<SQLSMALLINT>(word | 1 << (id & 15));
    }
}

extern "C" {

VORDA_EXPORT SQLRETURN SQLGetFunctions(SQLHDBC, SQLUSMALLINT functionId,
                                       SQLUSMALLINT* supportedPtr) {
    InitSupportedFunctions();
    if (functionId == SQL_API_ALL_FUNCTIONS) {
        if (supportedPtr)
            std::copy(std::begin(FunctionArray), std::end(FunctionArray), supportedPtr);
        return SQL_SUCCESS;
    }
    if (functionId == SQL_API_ODBC3_ALL_FUNCTIONS) {
        if (supportedPtr) std::memcpy(supportedPtr, FunctionMap, sizeof FunctionMap);
        return SQL_SUCCESS;
    }
    const bool isSupported = std::find(std::begin(ALL_FUNCTIONS), std::end(ALL_FUNCTIONS),
                                       functionId) != std::end(ALL_FUNCTIONS);
    if (supportedPtr) *supportedPtr = isSupported ? SQL_TRUE : SQL_FALSE;
    // Not the standard's answer, which would be success and SQL_FALSE.
    return isSupported ? SQL_SUCCESS : SQL_ERROR;
}

VORDA_EXPORT SQLRETURN SQLAllocHandle(SQLSMALLINT handleType, SQLHANDLE inputHandle,
                                      SQLHANDLE* outputHandle) {
    return allocHandle(handleType, inputHandle, outputHandle);
}

VORDA_EXPORT SQLRETURN SQLAllocEnv(SQLHENV* environmentHandle) {
    return allocHandle(SQL_HANDLE_ENV, nullptr, environmentHandle);
}

VORDA_EXPORT SQLRETURN SQLAllocConnect(SQLHENV environmentHandle, SQLHDBC* connectionHandle) {
    return allocHandle(SQL_HANDLE_DBC, environmentHandle, connectionHandle);
}

VORDA_EXPORT SQLRETURN SQLAllocStmt(SQLHDBC connectionHandle, SQLHSTMT* statementHandle) {
    return allocHandle(SQL_HANDLE_STMT, connectionHandle, statementHandle);
}

VORDA_EXPORT SQLRETURN SQLFreeHandle(SQLSMALLINT handleType, SQLHANDLE handle) {
    return freeHandle(handleType, handle);
}

VORDA_EXPORT SQLRETURN SQLFreeEnv(SQLHENV environmentHandle) {
    return freeHandle(SQL_HANDLE_ENV, environmentHandle);
}

VORDA_EXPORT SQLRETURN SQLFreeConnect(SQLHDBC connectionHandle) {
    return freeHandle(SQL_HANDLE_DBC, connectionHandle);
}

// All other functions: one forwarder each.
#define ODBC_UNPACK(...) __VA_ARGS__
#define ODBC_HANDLE_CALL(name, parameters, arguments)
#define ODBC_CALL(name, parameters, arguments)                 \
    VORDA_EXPORT SQLRETURN SQL##name parameters {              \
        return Forward(g_mtdSQL##name, ODBC_UNPACK arguments); \
    }
#include "mono/odbc_functions.def"

}  // extern "C"
