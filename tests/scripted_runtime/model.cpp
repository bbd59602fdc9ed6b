#include "model.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "calllog.h"

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

template <typename T>
void Put(T* target, long long value) {
    if (target) *target = static_cast<T>(value);
}

SQLLEN Size(std::string_view text) {
    return static_cast<SQLLEN>(text.size());
}

// --- Handles ---

// The live handle of this kind that the call names, or null and a logged error.
Handle* Use(Model& model, const Call& call, std::size_t i, int kind) {
    const auto found = model.handles.find(call.Handle(i));
    if (found != model.handles.end() && found->second.isLive && found->second.kind == kind) {
        return &found->second;
    }
    model.Error(call, FormatHandle(model, call.Handle(i)) + " is not a live handle of kind " +
                          std::to_string(kind));
    return nullptr;
}

SQLHANDLE NewHandle(Model& model, int kind, SQLHANDLE parent) {
    // Never the address of anything and never the same twice, so that a stale handle is recognised
    // even after a reset.
    static std::uintptr_t serial = 0x5c0000000000;
    serial += 0x10;
    const auto handle = reinterpret_cast<SQLHANDLE>(serial);
    Handle& made = model.handles[handle];
    made.kind = kind;
    made.number = ++model.allocated[static_cast<std::size_t>(kind)];
    made.parent = parent;
    return handle;
}

SQLRETURN AllocHandle(Model& model, const Call& call) {
    const auto kind = static_cast<int>(call.Number(0));
    auto* const output = call.Pointer<SQLHANDLE>(2);
    if (kind < SQL_HANDLE_ENV || kind > SQL_HANDLE_STMT || !output) return SQL_ERROR;
    if (kind > SQL_HANDLE_ENV && !Use(model, call, 1, kind - 1)) return SQL_INVALID_HANDLE;
    *output = NewHandle(model, kind, call.Handle(1));
    return SQL_SUCCESS;
}

SQLRETURN FreeHandle(Model& model, const Call& call) {
    Handle* const handle = Use(model, call, 1, static_cast<int>(call.Number(0)));
    if (!handle) return SQL_INVALID_HANDLE;
    const bool hasChildren =
        std::any_of(model.handles.begin(), model.handles.end(), [&](const auto& entry) {
            return entry.second.isLive && entry.second.parent == call.Handle(1);
        });
    if (hasChildren || handle->isConnected) {
        model.Error(call, "the handle is still in use");
        return SQL_ERROR;
    }
    handle->isLive = false;
    return SQL_SUCCESS;
}

SQLRETURN Connect(Model& model, const Call& call) {
    Handle* const connection = Use(model, call, 0, SQL_HANDLE_DBC);
    if (!connection) return SQL_INVALID_HANDLE;
    connection->isConnected = true;
    return SQL_SUCCESS;
}

SQLRETURN Disconnect(Model& model, const Call& call) {
    Handle* const connection = Use(model, call, 0, SQL_HANDLE_DBC);
    if (!connection) return SQL_INVALID_HANDLE;
    for (auto& [key, handle] : model.handles) {
        if (handle.parent == call.Handle(0)) handle.isLive = false;
    }
    return std::exchange(connection->isConnected, false) ? SQL_SUCCESS : SQL_ERROR;
}

SQLRETURN CheckEnvironment(Model& model, const Call& call) {
    return Use(model, call, 0, SQL_HANDLE_ENV) ? SQL_SUCCESS : SQL_INVALID_HANDLE;
}

// --- Statements ---

// Wraps an action on a statement: it runs only on a live one.
template <SQLRETURN (*action)(Model&, const Call&, Handle&)>
SQLRETURN OnStatement(Model& model, const Call& call) {
    Handle* const statement = Use(model, call, 0, SQL_HANDLE_STMT);
    return statement ? action(model, call, *statement) : static_cast<SQLRETURN>(SQL_INVALID_HANDLE);
}

void CloseResult(Handle& statement) {
    statement.result = {};
    statement.nextRow = 0;
    statement.isExecuted = false;
}

SQLRETURN FreeStmt(Model&, const Call& call, Handle& statement) {
    if (call.Number(1) == SQL_DROP) {
        statement.isLive = false;
        return SQL_SUCCESS;
    }
    if (call.Number(1) != SQL_RESET_PARAMS) return SQL_ERROR;
    statement.parameters.clear();
    return SQL_SUCCESS;
}

SQLRETURN SetStmtAttr(Model&, const Call& call, Handle& statement) {
    if (call.Number(1) == SQL_ATTR_PARAMSET_SIZE) statement.parameterSets = call.Number(2);
    return SQL_SUCCESS;
}

SQLRETURN Prepare(Model&, const Call&, Handle& statement) {
    CloseResult(statement);
    statement.isPrepared = true;
    return SQL_SUCCESS;
}

SQLRETURN ExecDirect(Model& model, const Call&, Handle& statement) {
    CloseResult(statement);
    if (!model.results.empty()) {
        statement.result = std::move(model.results.front());
        model.results.pop_front();
    }
    statement.isExecuted = true;
    return SQL_SUCCESS;
}

SQLRETURN Execute(Model& model, const Call& call, Handle& statement) {
    return statement.isPrepared ? ExecDirect(model, call, statement)
                                : static_cast<SQLRETURN>(SQL_ERROR);
}

SQLRETURN BindParameter(Model&, const Call& call, Handle& statement) {
    statement.parameters[static_cast<int>(call.Number(1))] = {
        .cType = static_cast<int>(call.Number(3)),
        .data = call.Pointer<char>(7),
        .bufferLength = static_cast<SQLLEN>(call.Number(8)),
        .indicators = call.Pointer<SQLLEN>(9)};
    return SQL_SUCCESS;
}

SQLRETURN BindCol(Model&, const Call& call, Handle& statement) {
    statement.columns[static_cast<int>(call.Number(1))] = {
        .cType = static_cast<int>(call.Number(2)),
        .data = call.Pointer<char>(3),
        .bufferLength = static_cast<SQLLEN>(call.Number(4)),
        .indicators = call.Pointer<SQLLEN>(5)};
    return SQL_SUCCESS;
}

SQLRETURN RowCount(Model&, const Call& call, Handle& statement) {
    Put(call.Pointer<SQLLEN>(1), statement.result.rowCount);
    return SQL_SUCCESS;
}

// Numbers that describe a column, by their ODBC 2 field identifiers.
constexpr std::pair<long long, long long Column::*> kNumericFields[] = {
    {SQL_COLUMN_TYPE, &Column::sqlType},        {SQL_COLUMN_LENGTH, &Column::length},
    {SQL_COLUMN_PRECISION, &Column::precision}, {SQL_COLUMN_SCALE, &Column::scale},
    {SQL_COLUMN_NULLABLE, &Column::nullable},
};

SQLRETURN ColAttribute(Model&, const Call& call, Handle& statement) {
    const std::vector<Column>& columns = statement.result.columns;
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
    for (const auto& [known, member] : kNumericFields) {
        if (field != known) continue;
        Put(number, column.*member);
        return SQL_SUCCESS;
    }
    return SQL_ERROR;
}

// --- Fetching ---

std::string TextOf(const Cell& cell) {
    if (const auto* integer = std::get_if<long long>(&cell.value)) return std::to_string(*integer);
    if (const auto* real = std::get_if<double>(&cell.value)) {
        char out[64];
        return {out, std::to_chars(out, out + sizeof out, *real).ptr};
    }
    if (const auto* timestamp = std::get_if<SQL_TIMESTAMP_STRUCT>(&cell.value)) {
        return FormatTimestamp(*timestamp);
    }
    const auto* text = std::get_if<std::string>(&cell.value);
    return text ? *text : "";
}

enum class Delivery { Whole, Cut, Impossible };

// Writes a fixed-size value and answers its size.
template <typename T>
SQLLEN PutFixed(const Binding& target, T value) {
    std::memcpy(target.data, &value, sizeof value);
    return sizeof value;
}

template <typename T>
SQLLEN PutNumber(const Binding& target, const Cell& cell) {
    if (const auto* integer = std::get_if<long long>(&cell.value)) {
        return PutFixed(target, static_cast<T>(*integer));
    }
    return PutFixed(target, static_cast<T>(std::strtod(TextOf(cell).c_str(), nullptr)));
}

constexpr std::pair<int, SQLLEN (*)(const Binding&, const Cell&)> kNumbers[] = {
    {SQL_C_BIT, PutNumber<unsigned char>}, {SQL_C_TINYINT, PutNumber<unsigned char>},
    {SQL_C_SHORT, PutNumber<SQLSMALLINT>}, {SQL_C_LONG, PutNumber<SQLINTEGER>},
    {SQL_C_SBIGINT, PutNumber<long long>}, {SQL_C_FLOAT, PutNumber<float>},
    {SQL_C_DOUBLE, PutNumber<double>},
};

// Writes a cell that is not NULL and answers its length.
Delivery PutValue(const Binding& target, const Cell& cell, SQLLEN& length) {
    for (const auto& [cType, put] : kNumbers) {
        if (cType != target.cType) continue;
        length = put(target, cell);
        return Delivery::Whole;
    }
    if (target.cType == SQL_C_TIMESTAMP) {
        const auto* timestamp = std::get_if<SQL_TIMESTAMP_STRUCT>(&cell.value);
        if (!timestamp) return Delivery::Impossible;
        length = PutFixed(target, *timestamp);
        return Delivery::Whole;
    }
    const std::string bytes = TextOf(cell);
    length = Size(bytes);
    if (target.cType == SQL_C_WCHAR) {
        return PutText(target.data, target.bufferLength, bytes) ? Delivery::Whole : Delivery::Cut;
    }
    if (target.cType != SQL_C_BINARY) return Delivery::Impossible;
    const std::string_view part = CutTo(bytes, target.bufferLength);
    std::memcpy(target.data, part.data(), part.size());
    return part.size() < bytes.size() ? Delivery::Cut : Delivery::Whole;
}

Delivery Deliver(const Binding& target, const Cell& cell) {
    const bool isNull = std::holds_alternative<std::monostate>(cell.value);
    SQLLEN length = SQL_NULL_DATA;
    const Delivery delivery = isNull ? Delivery::Whole : PutValue(target, cell, length);
    Put(target.indicators, cell.indicator.value_or(length));
    return delivery;
}

SQLRETURN Fetch(Model& model, const Call& call, Handle& statement) {
    if (!statement.isExecuted || statement.result.columns.empty()) return SQL_ERROR;
    if (statement.nextRow >= statement.result.rows.size()) return SQL_NO_DATA;
    const std::vector<Cell>& row = statement.result.rows[statement.nextRow++];
    SQLRETURN status = SQL_SUCCESS;
    for (const auto& [number, target] : statement.columns) {
        const auto index = static_cast<std::size_t>(number - 1);
        if (index >= statement.result.columns.size() || !target.data) continue;
        const Delivery delivery = Deliver(target, index < row.size() ? row[index] : Cell{});
        if (delivery == Delivery::Impossible) {
            model.Error(call, "column " + std::to_string(number) +
                                  " cannot be delivered as C type " + std::to_string(target.cType));
            return SQL_ERROR;
        }
        if (delivery == Delivery::Cut) status = SQL_SUCCESS_WITH_INFO;
    }
    return status;
}

// --- Diagnostics ---

SQLRETURN Error(Model& model, const Call& call) {
    if (!call.Handle(0) && !call.Handle(1) && !call.Handle(2)) model.Error(call, "no handle");
    for (std::size_t i = 0; i < 3; ++i) {
        const int kind = static_cast<int>(i) + SQL_HANDLE_ENV;
        if (call.Handle(i) && !Use(model, call, i, kind)) return SQL_INVALID_HANDLE;
    }
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

using Action = SQLRETURN (*)(Model&, const Call&);
constexpr std::pair<std::string_view, Action> kActions[] = {
    {"SQLAllocHandle", AllocHandle},
    {"SQLFreeHandle", FreeHandle},
    {"SQLSetEnvAttr", CheckEnvironment},
    {"SQLDriverConnectW", Connect},
    {"SQLDisconnect", Disconnect},
    {"SQLErrorW", Error},
    {"SQLFreeStmt", OnStatement<FreeStmt>},
    {"SQLSetStmtAttr", OnStatement<SetStmtAttr>},
    {"SQLPrepareW", OnStatement<Prepare>},
    {"SQLExecute", OnStatement<Execute>},
    {"SQLExecDirectW", OnStatement<ExecDirect>},
    {"SQLBindParameter", OnStatement<BindParameter>},
    {"SQLBindCol", OnStatement<BindCol>},
    {"SQLRowCount", OnStatement<RowCount>},
    {"SQLColAttributeW", OnStatement<ColAttribute>},
    {"SQLFetch", OnStatement<Fetch>},
};

}  // namespace

const Handle* Model::Find(SQLHANDLE handle) const {
    const auto found = handles.find(handle);
    return found == handles.end() ? nullptr : &found->second;
}

void Model::Error(const Call& call, const std::string& what) {
    ++errors;
    log.push_back("ERROR: " + std::string(call.name) + ": " + what);
}

SQLRETURN Act(Model& model, const Call& call) {
    for (const auto& [name, action] : kActions) {
        if (name == call.name) return action(model, call);
    }
    return SQL_SUCCESS;
}
