#include "model.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

namespace {

std::string_view CutTo(std::string_view text, long long capacity) {
    return text.substr(0, static_cast<std::size_t>(std::max(capacity, 0LL)));
}

// Copies a text with its terminator into a buffer, as much as fits. False when it was cut.
bool PutText(char* buffer, long long capacity, std::string_view text) {
    if (!buffer || capacity <= 0) return text.empty();
    const std::string_view part = CutTo(text, capacity - 1);
    std::memcpy(buffer, part.data(), part.size());
    buffer[part.size()] = '\0';
    return part.size() == text.size();
}

SQLLEN Size(std::string_view text) {
    return static_cast<SQLLEN>(text.size());
}

// --- Handles ---

SQLHANDLE NewHandle(Model& model, int kind, SQLHANDLE parent) {
    // Never the address of anything and never the same twice, so that a stale handle is recognised
    // even after a reset.
    static std::uintptr_t serial = 0x5c0000000000;
    serial += 0x10;
    const auto handle = reinterpret_cast<SQLHANDLE>(serial);
    Register(model, handle, kind, parent);
    return handle;
}

SQLRETURN AllocHandle(Model& model, const Call& call, Handle*) {
    const auto kind = static_cast<int>(call.Number(0));
    auto* const output = call.Pointer<SQLHANDLE>(2);
    if (kind < SQL_HANDLE_ENV || kind > SQL_HANDLE_STMT || !output) return SQL_ERROR;
    *output = NewHandle(model, kind, call.Handle(1));
    return SQL_SUCCESS;
}

SQLRETURN FreeHandle(Model& model, const Call& call, Handle* handle) {
    const bool hasChildren = std::ranges::any_of(model.handles, [&](const auto& entry) {
        return entry.second.isLive && entry.second.parent == call.Handle(1);
    });
    if (hasChildren || handle->isConnected) {
        model.Error(call, "the handle is still in use");
        return SQL_ERROR;
    }
    handle->isLive = false;
    return SQL_SUCCESS;
}

SQLRETURN Connect(Model&, const Call&, Handle* connection) {
    connection->isConnected = true;
    return SQL_SUCCESS;
}

SQLRETURN Disconnect(Model& model, const Call& call, Handle* connection) {
    for (auto& [key, handle] : model.handles) {
        if (handle.parent == call.Handle(0)) handle.isLive = false;
    }
    return std::exchange(connection->isConnected, false) ? SQL_SUCCESS : SQL_ERROR;
}

SQLRETURN Nothing(Model&, const Call&, Handle*) {
    return SQL_SUCCESS;
}

// --- Statements ---

void CloseResult(Handle* statement) {
    statement->result = {};
    statement->nextRow = 0;
    statement->isExecuted = false;
}

SQLRETURN FreeStmt(Model&, const Call& call, Handle* statement) {
    switch (call.Number(1)) {
        case SQL_CLOSE:
            CloseResult(statement);
            break;
        case SQL_UNBIND:
            statement->columns.clear();
            break;
        case SQL_DROP:
            statement->isLive = false;
            [[fallthrough]];
        default:
            statement->parameters.clear();
    }
    return SQL_SUCCESS;
}

SQLRETURN SetStmtAttr(Model&, const Call& call, Handle* statement) {
    statement->attributes[call.Number(1)] = call.Number(2);
    return SQL_SUCCESS;
}

SQLRETURN Prepare(Model&, const Call&, Handle* statement) {
    CloseResult(statement);
    statement->isPrepared = true;
    return SQL_SUCCESS;
}

SQLRETURN ExecDirect(Model& model, const Call&, Handle* statement) {
    CloseResult(statement);
    if (!model.results.empty()) {
        statement->result = std::move(model.results.front());
        model.results.pop_front();
    }
    statement->isExecuted = true;
    return SQL_SUCCESS;
}

SQLRETURN Execute(Model& model, const Call& call, Handle* statement) {
    return statement->isPrepared ? ExecDirect(model, call, statement)
                                 : static_cast<SQLRETURN>(SQL_ERROR);
}

SQLRETURN BindParameter(Model&, const Call& call, Handle* statement) {
    statement->parameters[static_cast<int>(call.Number(1))] = BindingOf(call, 3, 7);
    return SQL_SUCCESS;
}

SQLRETURN BindCol(Model&, const Call& call, Handle* statement) {
    statement->columns[static_cast<int>(call.Number(1))] = BindingOf(call, 2, 3);
    return SQL_SUCCESS;
}

SQLRETURN RowCount(Model&, const Call& call, Handle* statement) {
    Put(call.Pointer<SQLLEN>(1), statement->result.rowCount);
    return SQL_SUCCESS;
}

SQLRETURN ColAttribute(Model&, const Call& call, Handle* statement) {
    const std::vector<Column>& columns = statement->result.columns;
    const long long field = call.Number(2);
    auto* const number = call.Pointer<SQLLEN>(6);
    if (field == SQL_COLUMN_COUNT) {
        Put(number, static_cast<long long>(columns.size()));
        return SQL_SUCCESS;
    }
    const auto index = static_cast<std::size_t>(call.Number(1) - 1);
    if (index >= columns.size()) return SQL_ERROR;
    const Column& column = columns[index];
    if (field == SQL_COLUMN_NAME) {
        const bool isWhole = PutText(call.Pointer<char>(3), call.Number(4), column.name);
        Put(call.Pointer<SQLSMALLINT>(5),
            column.nameLength ? *column.nameLength : Size(column.name));
        return isWhole ? SQL_SUCCESS : SQL_SUCCESS_WITH_INFO;
    }
    const auto known = column.numbers.find(field);
    if (known == column.numbers.end()) return SQL_ERROR;
    Put(number, known->second);
    return SQL_SUCCESS;
}

// --- Fetching ---

// Writes a cell and answers its length; nothing where the two types do not go together.
std::optional<SQLLEN> PutCell(const Binding& target, const Cell& cell) {
    if (cell.cType == 0) return SQL_NULL_DATA;
    const FixedType* const fixed = FindFixed(cell.cType);
    if (target.cType == SQL_C_WCHAR || target.cType == SQL_C_BINARY) {
        const std::string bytes = fixed ? fixed->format(cell.bytes.data()) : cell.bytes;
        if (target.cType == SQL_C_WCHAR) {
            PutText(target.data, target.bufferLength, bytes);
        } else {
            const std::string_view part = CutTo(bytes, target.bufferLength);
            std::memcpy(target.data, part.data(), part.size());
        }
        return Size(bytes);
    }
    if (fixed && cell.cType == target.cType) {
        std::memcpy(target.data, cell.bytes.data(), cell.bytes.size());
        return Size(cell.bytes);
    }
    const FixedType* const wanted = FindFixed(target.cType);
    const bool isNumber = cell.cType == SQL_C_SBIGINT || cell.cType == SQL_C_DOUBLE;
    if (!isNumber || !wanted || !wanted->put) return std::nullopt;
    wanted->put(target.data, cell);
    return wanted->size;
}

SQLRETURN Fetch(Model& model, const Call& call, Handle* statement) {
    if (!statement->isExecuted || statement->result.columns.empty()) return SQL_ERROR;
    if (statement->nextRow >= statement->result.rows.size()) return SQL_NO_DATA;
    const std::vector<Cell>& row = statement->result.rows[statement->nextRow++];
    SQLRETURN status = SQL_SUCCESS;
    for (const auto& [number, target] : statement->columns) {
        const auto index = static_cast<std::size_t>(number - 1);
        if (index >= statement->result.columns.size() || !target.data) continue;
        const Cell cell = index < row.size() ? row[index] : Cell{};
        const std::optional<SQLLEN> length = PutCell(target, cell);
        if (!length) {
            model.Error(call, "column " + std::to_string(number) +
                                  " cannot be delivered as C type " + std::to_string(target.cType));
            return SQL_ERROR;
        }
        Put(target.indicators, cell.indicator.value_or(*length));
        const SQLLEN room = target.bufferLength - (target.cType == SQL_C_WCHAR ? 1 : 0);
        if (target.bufferLength > 0 && *length > room) status = SQL_SUCCESS_WITH_INFO;
    }
    return status;
}

// --- Diagnostics ---

SQLRETURN Error(Model& model, const Call& call, Handle*) {
    if (model.diagnostics.empty()) return SQL_NO_DATA;
    const Diagnostic diagnostic = std::move(model.diagnostics.front());
    model.diagnostics.pop_front();
    if (OdbcSucceeded(diagnostic.status)) {
        constexpr long long kStateSize = 6;
        PutText(call.Pointer<char>(3), kStateSize, diagnostic.state);
        Put(call.Pointer<SQLINTEGER>(4), diagnostic.native);
        PutText(call.Pointer<char>(5), call.Number(6), diagnostic.text);
        Put(call.Pointer<SQLSMALLINT>(7),
            diagnostic.reportedLength == -1 ? Size(diagnostic.text) : diagnostic.reportedLength);
    }
    return diagnostic.status;
}

// The functions that are modelled, and the kind of handle that comes first to each; for the others
// the arguments tell.
constexpr int kTold = 0;
struct Action {
    std::string_view name;
    int kind;
    SQLRETURN (*act)(Model&, const Call&, Handle*);
};
constexpr Action kActions[] = {
    {"SQLAllocHandle", kTold, AllocHandle},
    {"SQLFreeHandle", kTold, FreeHandle},
    {"SQLError", kTold, Error},
    {"SQLSetEnvAttr", SQL_HANDLE_ENV, Nothing},
    {"SQLDriverConnect", SQL_HANDLE_DBC, Connect},
    {"SQLDisconnect", SQL_HANDLE_DBC, Disconnect},
    {"SQLFreeStmt", SQL_HANDLE_STMT, FreeStmt},
    {"SQLSetStmtAttr", SQL_HANDLE_STMT, SetStmtAttr},
    {"SQLSetConnectAttr", SQL_HANDLE_DBC, Nothing},
    {"SQLGetConnectAttr", SQL_HANDLE_DBC, Nothing},
    {"SQLGetInfo", SQL_HANDLE_DBC, Nothing},
    {"SQLGetDiagRec", kTold, Nothing},
    {"SQLPrepare", SQL_HANDLE_STMT, Prepare},
    {"SQLExecute", SQL_HANDLE_STMT, Execute},
    {"SQLExecDirect", SQL_HANDLE_STMT, ExecDirect},
    {"SQLBindParameter", SQL_HANDLE_STMT, BindParameter},
    {"SQLBindCol", SQL_HANDLE_STMT, BindCol},
    {"SQLRowCount", SQL_HANDLE_STMT, RowCount},
    {"SQLColAttribute", SQL_HANDLE_STMT, ColAttribute},
    {"SQLFetch", SQL_HANDLE_STMT, Fetch},
    {"SQLEndTran", kTold, Nothing},
};

const Action* FindAction(const Call& call) {
    const auto* const found = std::ranges::find(kActions, call.Base(), &Action::name);
    return found == std::end(kActions) ? nullptr : found;
}

}  // namespace

Binding BindingOf(const Call& call, std::size_t cType, std::size_t data) {
    return {.cType = static_cast<int>(call.Number(cType)),
            .data = call.Pointer<char>(data),
            .bufferLength = static_cast<SQLLEN>(call.Number(data + 1)),
            .indicators = call.Pointer<SQLLEN>(data + 2)};
}

Target TargetOf(const Call& call) {
    if (call.name == "SQLAllocHandle")
        return {call.Handle(1), static_cast<int>(call.Number(0)) - 1};
    if (call.name == "SQLFreeHandle" || call.name == "SQLEndTran" || call.Base() == "SQLGetDiagRec")
        return {call.Handle(1), static_cast<int>(call.Number(0))};
    if (call.Base() == "SQLError") {
        std::size_t i = 0;
        while (i < 2 && !call.Handle(i)) ++i;
        return {call.Handle(i), static_cast<int>(i) + SQL_HANDLE_ENV};
    }
    const Action* const action = FindAction(call);
    return {call.Handle(0), action ? action->kind : SQL_HANDLE_STMT};
}

const Handle* Model::Find(SQLHANDLE handle) const {
    const auto found = handles.find(handle);
    return found == handles.end() ? nullptr : &found->second;
}

Handle* Model::Use(const Call& call) {
    const auto [target, kind] = TargetOf(call);
    const auto found = handles.find(target);
    if (found != handles.end() && found->second.isLive && found->second.kind == kind) {
        return &found->second;
    }
    Error(call,
          FormatHandle(*this, target) + " is not a live handle of kind " + std::to_string(kind));
    return nullptr;
}

void Register(Model& model, SQLHANDLE handle, int kind, SQLHANDLE parent) {
    const int number = ++model.allocated[static_cast<std::size_t>(kind)];
    Handle& made = model.handles[handle] = {};
    made.kind = kind;
    made.number = number;
    made.parent = parent;
}

void Model::Error(const Call& call, const std::string& what) {
    ++errors;
    log.push_back("ERROR: " + std::string(call.name) + ": " + what);
}

SQLRETURN Act(Model& model, const Call& call) {
    const Action* const action = FindAction(call);
    if (!action) return SQL_SUCCESS;
    const bool isFirst = action->act == AllocHandle && call.Number(0) <= SQL_HANDLE_ENV;
    Handle* const handle = isFirst ? nullptr : model.Use(call);
    if (!isFirst && !handle) return SQL_INVALID_HANDLE;
    return action->act(model, call, handle);
}
