#include "mono/odbc.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "scripted_runtime/scripted_runtime.h"

namespace {

// The bound functions by name, as the table has them now.
std::map<std::string, void*> Table() {
    return {
#define ODBC_CALL(name, parameters, arguments) \
    {"RT_SQL" #name, reinterpret_cast<void*>(g_mtdSQL##name)},
#include "mono/odbc_functions.def"
    };
}

std::ptrdiff_t CountBound() {
    const auto table = Table();
    return std::count_if(table.begin(), table.end(),
                         [](const auto& entry) { return entry.second != nullptr; });
}

class OdbcTest : public ::testing::Test {
  protected:
    void SetUp() override { StartAfresh(); }
    void TearDown() override { StartAfresh(); }

    static void StartAfresh() {
        unsetenv("VORDA_UNLOAD_RUNTIME");
        scripted_reset();
        UnloadMethods();
        g_driver_handle_counter = 0;
    }

    static SQLHENV NewEnvironment() {
        SQLHENV environment = nullptr;
        EXPECT_EQ(SQLAllocEnv(&environment), SQL_SUCCESS);
        return environment;
    }
};

// --- Forwarders ---

struct Arrival {
    std::string name;
    std::vector<long long> arguments;
};
Arrival g_arrival;
constexpr int kOddStatus = 4242;

int RecordArrival(const char* name, const long long* arguments, int count, int* status) {
    g_arrival = {name, {arguments, arguments + count}};
    *status = kOddStatus;
    return 1;
}

// Memory for pointer arguments to point to; the runtime's log reads a little of it.
long long g_arena[64];

// A different value for each position, at the end of the type's range that a wrong width or sign
// would damage.
template <typename T>
long long Distinct(int position) {
    if constexpr (std::is_pointer_v<T>) {
        return reinterpret_cast<long long>(&g_arena[position]);
    } else if constexpr (std::is_signed_v<T>) {
        return std::numeric_limits<T>::min() + position;
    } else {
        return static_cast<long long>(std::numeric_limits<T>::max() - static_cast<T>(position));
    }
}

template <typename... Parameters>
SQLRETURN CallWithDistinct(SQLRETURN (*function)(Parameters...), std::vector<long long>& sent) {
    return [&]<int... positions>(std::integer_sequence<int, positions...>) {
        sent = {Distinct<Parameters>(positions)...};
        return function((Parameters)Distinct<Parameters>(positions)...);
    }
    (std::make_integer_sequence<int, sizeof...(Parameters)>());
}

struct Forwarder {
    const char* name;
    SQLRETURN (*call)(std::vector<long long>& sent);
};
const Forwarder kForwarders[] = {
#define ODBC_HANDLE_CALL(name, parameters, arguments)
#define ODBC_CALL(name, parameters, arguments) \
    {"SQL" #name, [](std::vector<long long>& sent) { return CallWithDistinct(SQL##name, sent); }},
#include "mono/odbc_functions.def"
};

TEST_F(OdbcTest, ForwardersPassThePathAndTheArgumentsUnchanged) {
    EXPECT_EQ(std::size(kForwarders), 106u);
    NewEnvironment();
    scripted_handler(RecordArrival);
    for (const Forwarder& forwarder : kForwarders) {
        std::vector<long long> sent;
        EXPECT_EQ(forwarder.call(sent), kOddStatus) << forwarder.name;
        EXPECT_EQ(g_arrival.name, forwarder.name);
        EXPECT_EQ(g_arrival.arguments, sent) << forwarder.name;
        EXPECT_STREQ(scripted_last_path(), g_driverPath);
    }
}

// "(SQLHSTMT statement, SQLCHAR* name)" without the types: "(statement, name)".
std::string NamesOnly(const std::string& parameters) {
    return std::regex_replace(parameters, std::regex(R"(\w+\*? (\w+))"), "$1");
}

// The scripted runtime is made from the same table, so a swapped pair of arguments would be swapped
// back there and arrive in order.
TEST(FunctionTable, ListsTheArgumentsAsTheParametersAre) {
#define ODBC_CALL(name, parameters, arguments) \
    EXPECT_EQ(NamesOnly(#parameters), #arguments) << #name;
#include "mono/odbc_functions.def"
}

TEST_F(OdbcTest, FunctionsThatAreNotThereFail) {
    for (const Forwarder& forwarder : kForwarders) {
        std::vector<long long> sent;
        EXPECT_EQ(forwarder.call(sent), SQL_ERROR) << forwarder.name;
    }
    NewEnvironment();
    g_mtdSQLFetch = nullptr;
    EXPECT_EQ(SQLFetch(nullptr), SQL_ERROR);
    EXPECT_EQ(SQLCloseCursor(nullptr), SQL_SUCCESS);
    EXPECT_EQ(scripted_call_count("SQLFetch"), 0);
}

// --- Method table ---

TEST_F(OdbcTest, EveryNameIsBoundToItsOwnFunction) {
    NewEnvironment();
    const auto table = Table();
    EXPECT_EQ(table.size(), 113u);
    for (const auto& [name, function] : table) {
        ASSERT_NE(function, nullptr) << name;
        EXPECT_EQ(function, dlsym(g_runtimeHandle, name.c_str())) << name;
    }
}

TEST_F(OdbcTest, ARuntimeWithoutFunctionsFailsTheFirstEnvironment) {
    void* const runtime = std::exchange(g_runtimeHandle, nullptr);
    LoadMethods();
    EXPECT_EQ(CountBound(), 0);

    // The companion has none of the functions.
    g_runtimeHandle = dlopen("libvordart-compat.x64.so.6", RTLD_NOW);
    ASSERT_NE(g_runtimeHandle, nullptr);
    SQLHENV environment = &environment;
    EXPECT_EQ(SQLAllocEnv(&environment), SQL_ERROR);
    EXPECT_EQ(environment, &environment);
    EXPECT_EQ(g_driver_handle_counter, 0);

    // The failed attempt also lets go of the library where that is allowed.
    EXPECT_NE(g_runtimeHandle, nullptr);
    setenv("VORDA_UNLOAD_RUNTIME", "1", 1);
    EXPECT_EQ(SQLAllocEnv(&environment), SQL_ERROR);
    EXPECT_EQ(g_runtimeHandle, nullptr);
    g_runtimeHandle = runtime;
}

// --- Handles ---

TEST_F(OdbcTest, AllHandlesGoThroughTheTwoGeneralCalls) {
    const SQLHENV environment = NewEnvironment();
    SQLHDBC connection = nullptr;
    SQLHSTMT statement = nullptr;
    EXPECT_EQ(SQLAllocConnect(environment, &connection), SQL_SUCCESS);
    EXPECT_EQ(SQLAllocStmt(connection, &statement), SQL_SUCCESS);
    EXPECT_EQ(SQLFreeStmt(statement, SQL_DROP), SQL_SUCCESS);
    EXPECT_EQ(SQLAllocHandle(SQL_HANDLE_STMT, connection, &statement), SQL_SUCCESS);
    EXPECT_EQ(SQLFreeHandle(SQL_HANDLE_STMT, statement), SQL_SUCCESS);
    EXPECT_EQ(SQLFreeConnect(connection), SQL_SUCCESS);
    EXPECT_EQ(g_driver_handle_counter, 1);
    EXPECT_EQ(SQLFreeEnv(environment), SQL_SUCCESS);
    EXPECT_EQ(g_driver_handle_counter, 0);
    EXPECT_STREQ(scripted_log(),
                 "SQLAllocHandle(1, null, env1)\n"
                 "SQLAllocHandle(2, env1, dbc1)\n"
                 "SQLAllocHandle(3, dbc1, stmt1)\n"
                 "SQLFreeStmt(stmt1, 1)\n"
                 "SQLAllocHandle(3, dbc1, stmt2)\n"
                 "SQLFreeHandle(3, stmt2)\n"
                 "SQLFreeHandle(2, dbc1)\n"
                 "SQLFreeHandle(1, env1)");
}

// Every status is judged as an unsigned 16-bit number.
TEST_F(OdbcTest, OnlySuccessfulEnvironmentsAreCounted) {
    const struct {
        bool allocates;
        int status, count;
    } steps[] = {{true, SQL_ERROR, 0},
                 {true, SQL_INVALID_HANDLE, 0},
                 {true, SQL_NO_DATA, 0},
                 {true, 2, 0},
                 {true, SQL_SUCCESS_WITH_INFO, 1},
                 {true, SQL_ERROR, 1},
                 {true, SQL_SUCCESS, 2},
                 {false, SQL_SUCCESS, 1},
                 {false, SQL_ERROR, 1},
                 {false, SQL_SUCCESS_WITH_INFO, 0}};
    SQLHENV environment = nullptr;
    for (const auto& [allocates, status, count] : steps) {
        const char* const function = allocates ? "SQLAllocHandle" : "SQLFreeHandle";
        const auto answer = status < 0 || status > 1 ? scripted_answer : scripted_answer_after;
        answer(function, scripted_call_count(function) + 1, status);
        EXPECT_EQ(allocates ? SQLAllocEnv(&environment) : SQLFreeEnv(environment), status);
        EXPECT_EQ(g_driver_handle_counter, count) << function << status;
        EXPECT_EQ(CountBound(), count > 0 ? 113 : 0);
    }
    EXPECT_EQ(SQLFreeEnv(environment), SQL_ERROR);
    EXPECT_NE(g_runtimeHandle, nullptr);

    // One that was not counted resets the count.
    LoadMethods();
    ASSERT_EQ(g_mtdSQLAllocHandle(g_driverPath, SQL_HANDLE_ENV, nullptr, &environment),
              SQL_SUCCESS);
    EXPECT_EQ(SQLFreeEnv(environment), SQL_SUCCESS);
    EXPECT_EQ(g_driver_handle_counter, 0);
    EXPECT_EQ(CountBound(), 0);
}

TEST_F(OdbcTest, TheRuntimeIsClosedOnlyWhereThatIsAllowed) {
    for (const char* const value : {"", "0", "01", "1 ", " 1", "yes", "11"}) {
        setenv("VORDA_UNLOAD_RUNTIME", value, 1);
        SQLFreeEnv(NewEnvironment());
        EXPECT_NE(g_runtimeHandle, nullptr) << value;
    }
    setenv("VORDA_UNLOAD_RUNTIME", "1", 1);
    void* const companion = g_runtimeCompatHandle;
    EXPECT_NE(companion, nullptr);
    SQLFreeEnv(NewEnvironment());
    EXPECT_EQ(g_runtimeHandle, nullptr);
    EXPECT_EQ(g_runtimeCompatHandle, companion);
    EXPECT_NE(*g_driverPath, '\0');

    NewEnvironment();
    EXPECT_NE(g_runtimeHandle, nullptr);
}

// --- Supported functions ---

TEST(SupportedFunctions, AllThreeAnswersAgree) {
    std::vector<SQLUSMALLINT> flags(101, 0xabcd), bits(251, 0xabcd);
    EXPECT_EQ(SQLGetFunctions(nullptr, SQL_API_ALL_FUNCTIONS, flags.data()), SQL_SUCCESS);
    EXPECT_EQ(SQLGetFunctions(nullptr, SQL_API_ODBC3_ALL_FUNCTIONS, bits.data()), SQL_SUCCESS);
    EXPECT_EQ(flags[100], 0xabcd);
    EXPECT_EQ(bits[250], 0xabcd);
    EXPECT_EQ(std::count(flags.begin(), flags.end(), 1), 54);
    EXPECT_EQ(std::count(flags.begin(), flags.end(), 0), 46);

    int supported = 0;
    for (SQLUSMALLINT id = 1; id < 4000; ++id) {
        if (id == SQL_API_ODBC3_ALL_FUNCTIONS) continue;
        const bool isSet = SQL_FUNC_EXISTS(bits.data(), id) == SQL_TRUE;
        SQLUSMALLINT single = 7;
        EXPECT_EQ(SQLGetFunctions(nullptr, id, &single), isSet ? SQL_SUCCESS : SQL_ERROR) << id;
        EXPECT_EQ(SQLGetFunctions(nullptr, id, nullptr), isSet ? SQL_SUCCESS : SQL_ERROR) << id;
        EXPECT_EQ(single, isSet ? 1 : 0) << id;
        EXPECT_EQ(id < 100 ? flags[id] : single, single) << id;
        supported += isSet;
    }
    EXPECT_EQ(supported, 72);
    for (const int id : {46, 51, 64, 1002}) EXPECT_FALSE(SQL_FUNC_EXISTS(bits.data(), id)) << id;
    for (const int id : {1, 16, 44, 72, 1021}) EXPECT_TRUE(SQL_FUNC_EXISTS(bits.data(), id)) << id;
    EXPECT_EQ(SQLGetFunctions(nullptr, SQL_API_ALL_FUNCTIONS, nullptr), SQL_SUCCESS);
    EXPECT_EQ(SQLGetFunctions(nullptr, SQL_API_ODBC3_ALL_FUNCTIONS, nullptr), SQL_SUCCESS);
}

}  // namespace
