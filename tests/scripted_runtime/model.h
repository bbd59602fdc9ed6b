// The scripted runtime's model of a provider, and the calls that reach it. Internal to this folder.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "include/sqltypes.h"

// One argument of a call, as a 64-bit integer and what its type says about it. An opaque one is a
// handle, a buffer or a small number that travels in a pointer.
struct Argument {
    enum class Kind { Number, Opaque, Text, Pointer };
    long long value;
    Kind kind;
};

struct Call {
    std::string_view name;
    std::span<const Argument> arguments;

    long long Number(std::size_t i) const { return arguments[i].value; }
    template <typename T>
    T* Pointer(std::size_t i) const {
        return reinterpret_cast<T*>(arguments[i].value);
    }
    SQLHANDLE Handle(std::size_t i) const { return Pointer<void>(i); }
};

struct Cell {
    std::variant<std::monostate, long long, double, std::string, SQL_TIMESTAMP_STRUCT> value;
    std::optional<SQLLEN> indicator;
};

struct Column {
    std::string name;
    long long sqlType, length, precision, scale, nullable;
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
    // Only the seeded mode: whether the status of its allocation left open whether there is a
    // handle at all.
    bool isDoubtful = false;
    int disconnects = 0;
    // Connections.
    bool isConnected = false;
    // Statements.
    bool isPrepared = false;
    bool isExecuted = false;
    long long parameterSets = 1;
    std::map<int, Binding> parameters;
    std::map<int, Binding> columns;
    Result result;
    std::size_t nextRow = 0;
    std::string text;
    // Of the last fetch: its first row, the row that SQLGetData reads, what it has read of it.
    std::size_t block = 0, position = 0;
    std::map<int, std::size_t> delivered;
    long long rowSets = 1, rowSize = 0;
    SQLUSMALLINT* rowStatus = nullptr;
    SQLULEN* rowsFetched = nullptr;
};

// The C type of a cell of any kind: 4 bytes of kind, 4 more, the value.
constexpr int kCellType = 0x4001;
constexpr SQLLEN kCellTag = 8;

// A binding of columns, moved to a row of an array.
Binding InRow(const Handle& statement, const Binding& bound, std::size_t position);

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
    bool hasBlocks = false;  // of rows, in cells of any kind

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

// The name of a function that has a model, which a random number chooses.
std::string_view ModelledFunction(std::uint64_t random);

// Carries a call out. Functions without a model succeed without effect.
SQLRETURN Act(Model& model, const Call& call);

// Counts, logs and answers a call; every entry point ends here.
SQLRETURN Answer(const char* path, const Call& call);
