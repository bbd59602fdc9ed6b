// The scripted runtime's model of a provider, and the calls that reach it. Internal to this folder.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "include/sqltypes.h"

// Whether this is built as a driver for the driver manager, with its names.
#ifdef VORDA_DRIVER
constexpr bool kIsDriver = true;
#else
constexpr bool kIsDriver = false;
#endif

// One argument of a call, as a 64-bit integer and what its type says about it. An opaque one is a
// handle, a buffer or a small number that travels in a pointer.
struct Argument {
    enum class Kind { Number, Opaque, Text, Pointer };
    long long value;
    Kind kind;
    std::size_t size;  // of the integer that it points to
};

struct Call {
    std::string_view name;
    std::span<const Argument> arguments;

    // Without the mark of a wide call.
    std::string_view Base() const { return name.substr(0, name.size() - name.ends_with('W')); }
    long long Number(std::size_t i) const { return arguments[i].value; }
    template <typename T>
    T* Pointer(std::size_t i) const {
        return reinterpret_cast<T*>(arguments[i].value);
    }
    SQLHANDLE Handle(std::size_t i) const { return Pointer<void>(i); }
};

// A value as the bytes of a C type: a large integer, a double, a timestamp, or any others; 0 is
// NULL.
struct Cell {
    int cType = 0;
    std::string bytes;
    std::optional<SQLLEN> indicator;
};

struct Column {
    std::string name;
    // What describes it, by the ODBC 2 field identifiers.
    std::map<long long, long long> numbers;
    std::optional<int> nameLength;
};

struct Result {
    std::vector<Column> columns;
    std::vector<std::vector<Cell>> rows;
    SQLLEN rowCount = 0;
};

// What SQLBindParameter and SQLBindCol were given: memory that the caller owns.
struct Binding {
    int cType = 0;
    char* data = nullptr;
    SQLLEN bufferLength = 0;
    SQLLEN* indicators = nullptr;
};

// The binding that a call brings, from where its C type and its buffer are among the arguments.
Binding BindingOf(const Call& call, std::size_t cType, std::size_t data);

struct Handle {
    int kind = 0;
    int number = 0;
    SQLHANDLE parent = nullptr;
    bool isLive = true;
    // Connections.
    bool isConnected = false;
    // Statements.
    bool isPrepared = false;
    bool isExecuted = false;
    std::map<long long, long long> attributes;
    std::map<int, Binding> parameters;
    std::map<int, Binding> columns;
    Result result;
    std::size_t nextRow = 0;

    long long Attribute(long long which, long long unset = 0) const {
        const auto found = attributes.find(which);
        return found == attributes.end() ? unset : found->second;
    }
    template <typename T>
    T* Pointer(long long which) const {
        return reinterpret_cast<T*>(Attribute(which));
    }
    long long ParameterSets() const { return Attribute(SQL_ATTR_PARAMSET_SIZE, 1); }
};

struct Diagnostic {
    std::string state;
    SQLINTEGER native;
    std::string text;
    int reportedLength;
    SQLRETURN status;
};

struct Model {
    // Freed ones stay, so that their use is recognised.
    std::map<SQLHANDLE, Handle> handles;
    // By kind; numbers the handles.
    std::array<int, 4> allocated{};
    std::deque<Result> results;
    std::deque<Diagnostic> diagnostics;
    std::vector<std::string> log;
    int errors = 0;

    const Handle* Find(SQLHANDLE handle) const;
    // The live handle that the call is on, or null and a logged misuse.
    Handle* Use(const Call& call);
    // Logs a misuse of the runtime.
    void Error(const Call& call, const std::string& what);
};

// The handle that a call is on, and the kind that it has to be of.
struct Target {
    SQLHANDLE handle;
    int kind;
};
Target TargetOf(const Call& call);

template <typename T>
void Put(T* target, long long value) {
    if (target) *target = static_cast<T>(value);
}
template <typename T>
T Load(const char* from) {
    T value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

// C types whose values have one size; the slots of all others are as wide as their buffer length.
struct FixedType {
    int cType;
    int size;
    std::string (*format)(const char* data);
    void (*put)(char* target, const Cell& number);  // null: takes no numbers
};
// Null for a type that is none of them.
const FixedType* FindFixed(int cType);

// Carries a call out. Functions without a model succeed without effect.
SQLRETURN Act(Model& model, const Call& call);

// Notes a new handle.
void Register(Model& model, SQLHANDLE handle, int kind, SQLHANDLE parent);

// Counts, logs and answers a call; every entry point ends here. `forward` carries it out with
// another runtime's function.
SQLRETURN Answer(const char* path, const Call& call,
                 const std::function<SQLRETURN(void* function)>& forward);

// --- The log ---

// The call with its arguments, as they are before it acts.
std::string FormatCall(const Model& model, const Call& call);
// "stmt2", "dbc1(freed)", "null" or "ptr".
std::string FormatHandle(const Model& model, SQLHANDLE handle);
// Logs what the bound memory of a statement's parameters holds, one line each; a length that
// reaches beyond its slot is an error.
void LogParameters(Model& model, const Call& call, const Handle& statement);

// --- Answers from a seed ---

using Forward = std::function<SQLRETURN()>;
using Answers = std::function<SQLRETURN(Model&, const Call&, const Forward&)>;
// Lets another runtime carry the calls out, and lies about it at a rate and about things that the
// seed chooses. Whatever it says, it stays a legal callee: it writes only within the lengths that
// it was given, and reads what is bound only while its own answers promise that.
Answers HostileAnswers(std::uint64_t seed);
