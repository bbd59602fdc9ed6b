#include "driver.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <string_view>
#include <utility>

using namespace odbc_driver;

namespace {

Script& script() {
    static Script instance;
    return instance;
}

std::mutex mutex;  // of what the driver writes into the script

struct Binding {
    SQLSMALLINT cType = 0;
    char* target = nullptr;
    SQLLEN capacity = 0;
    SQLLEN* indicator = nullptr;
};

struct Statement {
    std::vector<Result> results;
    size_t result = 0;
    size_t row = 0;    ///< the current one, counted from 1
    size_t block = 0;  ///< rows in front of those that were fetched last
    size_t read = 0;   ///< rows that were fetched
    size_t offset = 0;
    SQLUSMALLINT partColumn = 0;
    std::map<SQLUSMALLINT, Binding> columns;
    std::map<SQLINTEGER, SQLPOINTER> attributes;

    void rewind() { row = block = read = 0; }
    Result& current() {
        static Result none;
        return result < results.size() ? results[result] : none;
    }
};

Statement& statementOf(SQLHANDLE handle) {
    return *static_cast<Statement*>(handle);
}

/// Notes a call, and does its usual work unless the script answers it.
template <class Work>
SQLRETURN answerOr(const std::string& details, Work&& work, Call call = {},
                   const std::string& name = __builtin_FUNCTION()) {
    {
        const std::lock_guard lock(mutex);
        call.number = ++script().calls[name];
        script().log.push_back(details.empty() ? name : name + " " + details);
    }
    const auto found = script().answers.find(name);
    const SQLRETURN told = found == script().answers.end() ? kUsual : found->second(call);
    return told == kUsual ? static_cast<SQLRETURN>(work()) : told;
}

/// The same for a call that has nothing to do.
SQLRETURN simple(const std::string& details, const char* name = __builtin_FUNCTION()) {
    return answerOr(
        details, [] { return SQL_SUCCESS; }, {}, name);
}

std::string narrow(const SQLWCHAR* text, SQLINTEGER length) {
    std::string result;
    for (SQLINTEGER i = 0; length == SQL_NTS ? text[i] != 0 : i < length; ++i) {
        result += text[i] < 0x80 ? static_cast<char>(text[i]) : '~';
    }
    return result;
}

template <class T, class Value>
void store(T* target, Value value) {
    if (target) *target = static_cast<T>(value);
}

/// Copies at most `room` units of `text` with a terminator.
void put(const std::u16string& text, SQLWCHAR* target, size_t room) {
    if (!target || room == 0) return;
    const size_t kept = std::min(text.size(), room - 1);
    std::copy_n(text.begin(), kept, target);
    target[kept] = 0;
}

/// Delivers what is behind `offset`, which moves on; the length is the one claimed or what was
/// left. Values of one size come whole.
SQLRETURN deliver(const Cell& cell, const Binding& to, size_t& offset) {
    const std::string_view rest = std::string_view(cell.bytes).substr(offset);
    if (to.indicator) *to.indicator = cell.claimed.value_or(static_cast<SQLLEN>(rest.size()));
    const size_t unit = to.cType == SQL_C_WCHAR ? sizeof(SQLWCHAR) : to.cType == SQL_C_CHAR;
    size_t room = rest.size();
    if (unit > 0 || to.cType == SQL_C_BINARY) {
        if (static_cast<size_t>(to.capacity) < unit) return SQL_SUCCESS_WITH_INFO;
        room = static_cast<size_t>(to.capacity) - unit;
    }
    const size_t kept = std::min(room, rest.size());
    if (kept > 0) std::memcpy(to.target, rest.data(), kept);
    std::memset(to.target + kept, 0, unit);
    offset += kept;
    return kept < rest.size() ? SQL_SUCCESS_WITH_INFO : SQL_SUCCESS;
}

/// Delivers a row into the given elements of the arrays, by column. Answers whether something was
/// cut. What an earlier result was bound to is written, too, as drivers do.
bool deliverRow(const Statement& statement, const std::vector<Cell>& row, size_t element) {
    bool cut = false;
    for (const auto& [number, binding] : statement.columns) {
        if (!binding.target) continue;
        Binding to = binding;
        to.target += element * static_cast<size_t>(to.capacity);
        if (to.indicator) to.indicator += element;
        size_t offset = 0;
        const Cell cell = number <= row.size() ? row[number - 1U] : Cell{};
        cut |= deliver(cell, to, offset) != SQL_SUCCESS;
    }
    return cut;
}

SQLRETURN execute(SQLHANDLE handle, const std::string& text,
                  const char* name = __builtin_FUNCTION()) {
    Statement& statement = statementOf(handle);
    auto& attributes = statement.attributes;
    const auto sets = reinterpret_cast<SQLULEN>(attributes[SQL_ATTR_PARAMSET_SIZE]);
    Call call;
    call.sets = std::max<SQLULEN>(sets, 1);
    call.status = static_cast<SQLUSMALLINT*>(attributes[SQL_ATTR_PARAM_STATUS_PTR]);
    call.processed = static_cast<SQLULEN*>(attributes[SQL_ATTR_PARAMS_PROCESSED_PTR]);
    statement.results = script().results;
    statement.result = 0;
    statement.rewind();
    const auto work = [&call] {
        if (call.status) std::fill_n(call.status, call.sets, SQL_PARAM_SUCCESS);
        store(call.processed, call.sets);
        return SQL_SUCCESS;
    };
    return answerOr(text + (sets > 1 ? " sets=" + std::to_string(sets) : ""), work, call, name);
}

}  // namespace

extern "C" {

Script* odbc_driver_script() {
    return &script();
}

SQLRETURN SQLAllocHandle(SQLSMALLINT type, SQLHANDLE, SQLHANDLE* out) {
    return answerOr(std::to_string(type), [&] {
        *out = new Statement;
        const std::lock_guard lock(mutex);
        ++script().handles;
        return SQL_SUCCESS;
    });
}

SQLRETURN SQLFreeHandle(SQLSMALLINT type, SQLHANDLE handle) {
    return answerOr(std::to_string(type), [&] {
        delete static_cast<Statement*>(handle);
        const std::lock_guard lock(mutex);
        --script().handles;
        return SQL_SUCCESS;
    });
}

SQLRETURN SQLSetEnvAttr(SQLHENV, SQLINTEGER, SQLPOINTER, SQLINTEGER) {
    return SQL_SUCCESS;
}

SQLRETURN SQLDriverConnectW(SQLHDBC, SQLHWND, SQLWCHAR* text, SQLSMALLINT length, SQLWCHAR*,
                            SQLSMALLINT, SQLSMALLINT*, SQLUSMALLINT) {
    return simple(narrow(text, length));
}

SQLRETURN SQLDisconnect(SQLHDBC) {
    return simple("");
}

SQLRETURN SQLGetInfoW(SQLHDBC, SQLUSMALLINT type, SQLPOINTER value, SQLSMALLINT capacity,
                      SQLSMALLINT* length) {
    return answerOr(std::to_string(type), [&] {
        const auto text = script().texts.find(type);
        const auto number = script().numbers.find(type);
        if (text != script().texts.end()) {
            put(text->second, static_cast<SQLWCHAR*>(value),
                static_cast<size_t>(capacity) / sizeof(SQLWCHAR));
            store(length, text->second.size() * sizeof(SQLWCHAR));
        } else if (number != script().numbers.end()) {
            std::memcpy(value, &number->second, sizeof number->second);
        } else {
            return SQL_ERROR;
        }
        return SQL_SUCCESS;
    });
}

SQLRETURN SQLSetConnectAttrW(SQLHDBC, SQLINTEGER attribute, SQLPOINTER value, SQLINTEGER) {
    return simple(std::to_string(attribute) + "=" +
                  std::to_string(reinterpret_cast<SQLULEN>(value)));
}

SQLRETURN SQLGetConnectAttrW(SQLHDBC, SQLINTEGER attribute, SQLPOINTER value, SQLINTEGER,
                             SQLINTEGER*) {
    return answerOr(std::to_string(attribute), [&] {
        const SQLUINTEGER alive = SQL_CD_FALSE;
        std::memcpy(value, &alive, sizeof alive);
        return SQL_SUCCESS;
    });
}

SQLRETURN SQLEndTran(SQLSMALLINT, SQLHANDLE, SQLSMALLINT completion) {
    return simple(completion == SQL_COMMIT ? "commit" : "rollback");
}

SQLRETURN SQLPrepareW(SQLHSTMT handle, SQLWCHAR* text, SQLINTEGER length) {
    return answerOr(narrow(text, length), [&] {
        statementOf(handle).results = script().results;
        statementOf(handle).result = 0;
        return SQL_SUCCESS;
    });
}

SQLRETURN SQLExecDirectW(SQLHSTMT handle, SQLWCHAR* text, SQLINTEGER length) {
    return execute(handle, narrow(text, length));
}

SQLRETURN SQLExecute(SQLHSTMT handle) {
    return execute(handle, "");
}

SQLRETURN SQLBindParameter(SQLHSTMT, SQLUSMALLINT number, SQLSMALLINT, SQLSMALLINT cType,
                           SQLSMALLINT, SQLULEN, SQLSMALLINT digits, SQLPOINTER value, SQLLEN,
                           SQLLEN*) {
    SQLBIGINT shown = digits;
    if (cType == SQL_C_SBIGINT) std::memcpy(&shown, value, sizeof shown);
    return simple(std::to_string(number) + "=" + std::to_string(shown));
}

SQLRETURN SQLNumResultCols(SQLHSTMT handle, SQLSMALLINT* count) {
    return answerOr("", [&] {
        const Result& result = statementOf(handle).current();
        *count = result.claimed.value_or(static_cast<SQLSMALLINT>(result.columns.size()));
        return SQL_SUCCESS;
    });
}

SQLRETURN SQLDescribeColW(SQLHSTMT handle, SQLUSMALLINT number, SQLWCHAR* name,
                          SQLSMALLINT capacity, SQLSMALLINT* length, SQLSMALLINT* type,
                          SQLULEN* size, SQLSMALLINT* digits, SQLSMALLINT* nullable) {
    return answerOr(std::to_string(number), [&] {
        const auto& columns = statementOf(handle).current().columns;
        const Column column = number <= columns.size() ? columns[number - 1U] : Column{u"more"};
        put(column.name, name, static_cast<size_t>(capacity));
        store(length, column.claimed.value_or(static_cast<SQLSMALLINT>(column.name.size())));
        store(type, column.type);
        store(size, 100);
        store(digits, 0);
        store(nullable, SQL_NULLABLE);
        return SQL_SUCCESS;
    });
}

SQLRETURN SQLColAttributeW(SQLHSTMT, SQLUSMALLINT, SQLUSMALLINT field, SQLPOINTER, SQLSMALLINT,
                           SQLSMALLINT*, SQLLEN* number) {
    return answerOr(std::to_string(field), [&] {
        store(number, SQL_FALSE);
        return field == SQL_DESC_UNSIGNED ? SQL_SUCCESS : SQL_ERROR;
    });
}

SQLRETURN SQLBindCol(SQLHSTMT handle, SQLUSMALLINT number, SQLSMALLINT cType, SQLPOINTER target,
                     SQLLEN capacity, SQLLEN* indicator) {
    return answerOr(std::to_string(number), [&] {
        statementOf(handle).columns[number] = {cType, static_cast<char*>(target), capacity,
                                               indicator};
        return SQL_SUCCESS;
    });
}

SQLRETURN SQLFetch(SQLHSTMT handle) {
    return answerOr("", [&] {
        Statement& statement = statementOf(handle);
        const auto& rows = statement.current().rows;
        const auto size = reinterpret_cast<SQLULEN>(statement.attributes[SQL_ATTR_ROW_ARRAY_SIZE]);
        auto* const states =
            static_cast<SQLUSMALLINT*>(statement.attributes[SQL_ATTR_ROW_STATUS_PTR]);
        statement.partColumn = 0;
        statement.block = statement.read;
        statement.read = std::min(rows.size(), statement.read + std::max<SQLULEN>(size, 1));
        statement.row = statement.block + 1;
        const size_t count = statement.read - statement.block;
        store(static_cast<SQLULEN*>(statement.attributes[SQL_ATTR_ROWS_FETCHED_PTR]), count);
        bool cut = false;
        for (size_t i = 0; i < count; ++i) {
            const bool isCut = deliverRow(statement, rows[statement.block + i], i);
            if (states) states[i] = isCut ? SQL_ROW_SUCCESS_WITH_INFO : SQL_ROW_SUCCESS;
            cut |= isCut;
        }
        return count == 0 ? SQL_NO_DATA : cut ? SQL_SUCCESS_WITH_INFO : SQL_SUCCESS;
    });
}

SQLRETURN SQLSetPos(SQLHSTMT handle, SQLSETPOSIROW row, SQLUSMALLINT, SQLUSMALLINT) {
    return answerOr(std::to_string(row), [&] {
        statementOf(handle).row = statementOf(handle).block + row;
        statementOf(handle).partColumn = 0;
        return SQL_SUCCESS;
    });
}

SQLRETURN SQLGetData(SQLHSTMT handle, SQLUSMALLINT number, SQLSMALLINT cType, SQLPOINTER target,
                     SQLLEN capacity, SQLLEN* indicator) {
    const auto work = [&] {
        Statement& statement = statementOf(handle);
        const Cell& cell = statement.current().rows[statement.row - 1][number - 1U];
        if (std::exchange(statement.partColumn, number) != number) statement.offset = 0;
        if (statement.offset > 0 && statement.offset >= cell.bytes.size())
            return SQLRETURN{SQL_NO_DATA};
        return deliver(cell, {cType, static_cast<char*>(target), capacity, indicator},
                       statement.offset);
    };
    Call call;
    call.target = static_cast<char*>(target);
    call.capacity = capacity;
    call.indicator = indicator;
    return answerOr(std::to_string(number), work, call);
}

SQLRETURN SQLMoreResults(SQLHSTMT handle) {
    return answerOr("", [&] {
        Statement& statement = statementOf(handle);
        statement.rewind();
        return ++statement.result < statement.results.size() ? SQL_SUCCESS : SQL_NO_DATA;
    });
}

SQLRETURN SQLRowCount(SQLHSTMT handle, SQLLEN* count) {
    return answerOr("",
                    [&] { return *count = statementOf(handle).current().changed, SQL_SUCCESS; });
}

SQLRETURN SQLFreeStmt(SQLHSTMT handle, SQLUSMALLINT option) {
    return answerOr(std::to_string(option), [&] {
        if (option == SQL_UNBIND) statementOf(handle).columns.clear();
        return SQL_SUCCESS;
    });
}

SQLRETURN SQLCancel(SQLHSTMT) {
    return simple("");
}

SQLRETURN SQLSetStmtAttrW(SQLHSTMT handle, SQLINTEGER attribute, SQLPOINTER value, SQLINTEGER) {
    return answerOr(std::to_string(attribute), [&] {
        statementOf(handle).attributes[attribute] = value;
        return SQL_SUCCESS;
    });
}

SQLRETURN SQLProcedureColumnsW(SQLHSTMT handle, SQLWCHAR*, SQLSMALLINT, SQLWCHAR* schema,
                               SQLSMALLINT, SQLWCHAR* name, SQLSMALLINT, SQLWCHAR*, SQLSMALLINT) {
    const std::string text = (schema ? narrow(schema, SQL_NTS) + "." : "") + narrow(name, SQL_NTS);
    return answerOr(text, [&] {
        statementOf(handle).results = {script().catalog};
        statementOf(handle).result = 0;
        statementOf(handle).rewind();
        return SQL_SUCCESS;
    });
}

SQLRETURN SQLGetDiagRecW(SQLSMALLINT, SQLHANDLE, SQLSMALLINT number, SQLWCHAR* state,
                         SQLINTEGER* native, SQLWCHAR* text, SQLSMALLINT capacity,
                         SQLSMALLINT* length) {
    const auto& all = script().diagnostics;
    if (number < 1 || static_cast<size_t>(number) > all.size()) return SQL_NO_DATA;
    const Diagnostic& record = all[static_cast<size_t>(number) - 1];
    put(record.state, state, SQL_SQLSTATE_SIZE + 1);
    store(native, record.native);
    put(record.text, text, static_cast<size_t>(std::max<SQLSMALLINT>(capacity, 0)));
    store(length, record.claimed.value_or(static_cast<SQLSMALLINT>(record.text.size())));
    return SQL_SUCCESS;
}

// The driver manager reads no records of a driver without it.
SQLRETURN SQLGetDiagFieldW(SQLSMALLINT, SQLHANDLE, SQLSMALLINT, SQLSMALLINT, SQLPOINTER,
                           SQLSMALLINT, SQLSMALLINT*) {
    return SQL_NO_DATA;
}

}  // extern "C"
