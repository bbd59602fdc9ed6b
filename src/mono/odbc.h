// The ODBC entry layer: finds and loads the runtime, binds its functions, counts environment
// handles and exports the ODBC API (declared by include/sqltypes.h), each call forwarded to the
// runtime with the module's own path in front of its arguments.
//
// Nothing here takes a lock. The state changes only when an environment is allocated or freed;
// callers serialise that, inside the module by holding the interpreter lock.
#pragma once

#include "include/sqltypes.h"

// A runtime function: the standard parameters behind the path of this module's shared object.
template <typename Function>
struct RuntimeFunction;
template <typename Result, typename... Parameters>
struct RuntimeFunction<Result(Parameters...)> {
    using Pointer = Result (*)(const char*, Parameters...);
};
template <typename Function>
using RuntimeFunc = typename RuntimeFunction<Function>::Pointer;

// SQL<Name>Func and g_mtdSQL<Name> for each function; null while not bound.
#define ODBC_CALL(name, parameters, arguments)                \
    using SQL##name##Func = RuntimeFunc<decltype(SQL##name)>; \
    extern SQL##name##Func g_mtdSQL##name;
#include "mono/odbc_functions.def"

// Path of this module's shared object, the first argument of every runtime call. Unloading keeps
// it.
extern char g_driverPath[1025];
// The runtime is loaded exactly while this is not null.
extern void* g_runtimeHandle;
// A companion whose symbols the runtime itself may need; opened for that and never searched.
extern void* g_runtimeCompatHandle;
// Environments allocated through this layer.
extern int g_driver_handle_counter;

// Opens the runtime unless it is loaded: by the loader's own search, else from its fixed directory,
// else beside this module. Success is seen in g_runtimeHandle.
void LoadRuntime();
// Closes the runtime where AllowUnloadRuntime says so.
void UnloadRuntime();
// 1 when the environment variable VORDA_UNLOAD_RUNTIME is exactly "1", else 0.
int AllowUnloadRuntime();

// Binds every function of the loaded runtime; one that it lacks stays null. Without a runtime
// nothing changes.
void LoadMethods();
// Sets every function to null.
void UnloadMethods();

// Allocates any handle. The first environment loads the runtime and binds its functions; when that
// environment cannot be had, both are undone. SQL_ERROR without a runtime, else the runtime's
// status.
SQLRETURN allocHandle(SQLSMALLINT handleType, SQLHANDLE inputHandle, SQLHANDLE* outputHandle);
// Frees any handle. Freeing the last environment clears the functions and lets go of the runtime.
SQLRETURN freeHandle(SQLSMALLINT handleType, SQLHANDLE handle);

// The answers of SQLGetFunctions: 100 flags by identifier, and the bitmap of all identifiers.
extern SQLUSMALLINT FunctionArray[100];
extern SQLSMALLINT FunctionMap[SQL_API_ODBC3_ALL_FUNCTIONS_SIZE];
void InitSupportedFunctions();
