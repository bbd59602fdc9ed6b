#include "dbapi/statement.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <limits>

namespace {

// An expression's name is its text; no function tells a longer one.
constexpr SQLSMALLINT kMostName = std::numeric_limits<SQLSMALLINT>::max();
// Attributes of the embedded runtime's statements.
constexpr SQLINTEGER kLastRowId = 0x7001;
constexpr SQLINTEGER kAllResults = 0x7002;
// And of its columns: whether the type is only that of the first row's value.
constexpr SQLUSMALLINT kIsAssumed = 0x7001;
// Longer texts are bound where they are, instead of being copied to a place that stays.
constexpr size_t kMostCopied = 256;
// A larger number than this one cannot be told.
constexpr SQLSMALLINT kMostCounted = std::numeric_limits<SQLSMALLINT>::max();
constexpr size_t kMostParameters = std::numeric_limits<SQLUSMALLINT>::max();

Meaning MeaningOf(SQLHSTMT statement, SQLUSMALLINT number, SQLSMALLINT sqlType, bool isSqlite) {
    if (sqlType == SQL_GUID) return Meaning::Uuid;
    if (sqlType != SQL_WVARCHAR || isSqlite) return Meaning::Plain;
    char name[64] = {};
    const SQLRETURN status = SQLColAttributeW(statement, number, SQL_DESC_TYPE_NAME, name,
                                              sizeof name - 1, nullptr, nullptr);
    return OdbcSucceeded(status) && std::strcmp(name, "uuid") == 0 ? Meaning::Uuid : Meaning::Plain;
}

// SQLite stores values of any type where the declaration does not say that they are numbers.
bool IsOpen(SQLHSTMT statement, SQLUSMALLINT number, SQLSMALLINT sqlType) {
    const CellKind kind = KindOf(sqlType);
    if (kind == CellKind::Text || kind == CellKind::Blob) return true;
    SQLLEN isAssumed = 0;
    SQLColAttributeW(statement, number, kIsAssumed, nullptr, 0, nullptr, &isAssumed);
    return isAssumed != 0;
}

}  // namespace

Statement::Statement(Database& database)
    : m_database(database),
      m_handle(NewHandle(SQL_HANDLE_STMT, SQL_HANDLE_DBC, database.connection)) {
    // The embedded runtime's SQLite has one result only.
    if (!database.isSqlite)
        SQLSetStmtAttrW(m_handle, kAllResults, reinterpret_cast<SQLPOINTER>(1), 0);
}

Statement::~Statement() {
    if (m_handle && !m_database.IsInherited()) SQLFreeHandle(SQL_HANDLE_STMT, m_handle);
}

void Statement::SetText(PyObject* text) {
    m_cameBefore = m_prepared = m_isDescribed = false;
    m_columns.clear();
    m_block.Renew();
    m_text = PyRef::Borrow(text);
    m_hash = PyObject_Hash(text);
    m_utf8 = PyUnicode_AsUTF8AndSize(text, &m_length);
    if (!m_utf8) {
        if (PyErr_ExceptionMatches(PyExc_MemoryError)) throw PythonError();
        PyErr_Clear();
        throw Failure("42000", "The statement has a lone surrogate, which is no character.");
    }
    if (m_length > std::numeric_limits<SQLINTEGER>::max())
        throw Failure("42000", "The statement is longer than 2 GB.");
}

void Statement::SetTimeout() {
    const long timeout = std::atomic_ref(m_database.timeout);  // which any thread may set
    if (m_timeout == timeout) return;
    Called(SQLSetStmtAttrW(m_handle, SQL_ATTR_QUERY_TIMEOUT, reinterpret_cast<SQLPOINTER>(timeout),
                           0));
    m_timeout = timeout;
}

// For so many values.
void Statement::Prepare(size_t values) {
    SetTimeout();
    if (values > kMostParameters) {
        throw Failure("07002", "A statement takes " + std::to_string(kMostParameters) +
                                   " values at most, but " + std::to_string(values) +
                                   " were given.");
    }
    if (!m_prepared) {
        Called(SQLPrepareW(m_handle, AsWideText(m_utf8), static_cast<SQLINTEGER>(m_length)));
        SQLSMALLINT count = 0;
        const bool isTold = OdbcSucceeded(SQLNumParams(m_handle, &count));
        m_parameterCount = isTold && count < kMostCounted ? count : -1;
        m_prepared = true;
    }
    if (m_parameterCount < 0 || static_cast<size_t>(m_parameterCount) == values) return;
    throw Failure("07002", "The statement has " + std::to_string(m_parameterCount) +
                               " parameter marker(s), but " + std::to_string(values) +
                               " value(s) were given.");
}

void Statement::Execute(const std::vector<Value>& values) {
    Prepare(values.size());
    Bind(values);
    m_isDescribed = false;
    Executed(SQLExecute(m_handle));
}

void Statement::Ask(const std::function<SQLRETURN(SQLHSTMT)>& function) {
    SetTimeout();
    Executed(function(m_handle));
}

void Statement::Executed(SQLRETURN status) {
    if (status == SQL_NEED_DATA) throw Failure("HY010", "The driver asks for more data.");
    CheckFound(status, m_handle);
    m_isOpen = true;
    m_failed.reset();
    m_lost = {};
    m_rowCount = -1;
    SQLSMALLINT columns = 0;
    if (status != SQL_NO_DATA) Called(SQLNumResultCols(m_handle, &columns));
    m_columnCount = std::max<SQLSMALLINT>(columns, 0);
    m_hasRows = m_columnCount > 0;
    // SQLite knows it behind the last row only.
    if (!m_hasRows || !m_database.isSqlite) Called(SQLRowCount(m_handle, &m_rowCount));
    if (!m_hasRows) {
        // Nor is there anything behind a result without columns.
        m_isOpen = !m_database.isSqlite;
        return;
    }
    // Cells tell what they are, but for what some texts of servers mean: as long as there are as
    // many, they need no new description.
    const auto count = static_cast<size_t>(m_columnCount);
    try {
        if (!m_database.isSqlite && m_columns.size() != count) Describe();
        m_block.Begin(m_handle, m_columns, count, m_database.hasCells);
        if (!m_database.hasCells) Describe();
    } catch (...) {
        m_columnCount = 0;
        m_hasRows = false;
        m_columns.clear();
        throw;
    }
    Load();
}

SQLLEN Statement::Changed(SQLRETURN status) {
    CheckFound(status, m_handle);
    const std::unique_ptr<void, void (*)(SQLHSTMT)> rows(
        m_handle, [](SQLHSTMT handle) { SQLFreeStmt(handle, SQL_CLOSE); });
    // A warning is none when a row of the batch has failed.
    if (status == SQL_SUCCESS_WITH_INFO) {
        for (const Diagnostic& record : ReadRecords(SQL_HANDLE_STMT, m_handle)) {
            if (record.state.compare(0, 2, "01") != 0) throw Failure({record});
        }
    }
    SQLLEN count = 0;
    Called(SQLRowCount(m_handle, &count));
    return std::max<SQLLEN>(count, 0);
}

SQLLEN Statement::ExecuteBatch(Batch& batch) {
    Prepare(batch.Width());
    const Bound bound(*this);
    const auto size = [this](size_t sets) {
        return SQLSetStmtAttrW(m_handle, SQL_ATTR_PARAMSET_SIZE, reinterpret_cast<SQLPOINTER>(sets),
                               0);
    };
    batch.Bind(m_handle, 0);
    if (batch.Count() == 1) return Changed(SQLExecute(m_handle));
    if (size(batch.Count()) != SQL_SUCCESS) throw Failure("HYC00", "The driver has no arrays.");
    try {
        const SQLLEN changed = Changed(SQLExecute(m_handle));
        size(1);
        return changed;
    } catch (...) {
        size(1);
        throw;
    }
}

SQLLEN Statement::ExecuteEach(Batch& batch) {
    Prepare(batch.Width());
    const Bound bound(*this);
    SQLLEN changed = 0;
    for (size_t row = 0; row < batch.Count(); ++row) {
        batch.Bind(m_handle, row);
        changed = Sum(changed, Changed(SQLExecute(m_handle)));
    }
    return changed;
}

void Statement::Load() {
    try {
        if (!m_block.Load(m_handle)) m_hasRows = false;
    } catch (const Failure& failure) {
        m_failed = std::make_unique<Failure>(failure);
    }
}

bool Statement::NextResult() {
    if (!m_isOpen) return false;
    const SQLRETURN status = SQLMoreResults(m_handle);
    m_columnCount = 0;
    m_hasRows = false;
    m_isDescribed = false;
    m_rowCount = -1;
    m_failed.reset();
    CheckFound(status, m_handle);
    if (status == SQL_NO_DATA) return false;
    Executed(status);
    return true;
}

PyRef Statement::NextRow() {
    if (m_block.HasRow()) return m_block.Take();
    CheckEnd();
    return PyRef();
}

// Behind the last row at hand: why it was the last, unless the rows are over.
void Statement::CheckEnd() {
    if (m_lost.state) {
        m_hasRows = false;
        throw Failure(m_lost.state, m_lost.words);
    }
    if (m_failed) {
        const Failure failure = *m_failed;
        m_failed.reset();
        m_hasRows = false;
        throw failure;
    }
}

void Statement::Fill(FrameBuilder& frame) {
    Describe();
    if (!frame.HasBegun()) frame.Begin(m_columns);
    while (!frame.IsFull()) {
        if (WantsLoading()) Load();
        if (!m_block.HasRow()) {
            CheckEnd();
            return;
        }
        try {
            frame.Append(m_block);
        } catch (const CellFailure& failure) {
            throw failure.Named(NameOf(failure.column));
        }
    }
}

void Statement::Describe() {
    if (m_isDescribed || m_columnCount == 0) return;
    m_columns.assign(static_cast<size_t>(m_columnCount), {});
    const std::unique_ptr<char[]> name(new char[kMostName + 1]);
    name[kMostName] = '\0';
    SQLUSMALLINT number = 0;
    for (ColumnInfo& column : m_columns) {
        name[0] = '\0';
        Called(SQLDescribeColW(m_handle, ++number, AsWideBuffer(name.get()), kMostName, nullptr,
                               &column.sqlType, &column.size, &column.digits, &column.nullable));
        column.name = name.get();
        column.meaning = MeaningOf(m_handle, number, column.sqlType, m_database.isSqlite);
        column.isOpen = m_database.isSqlite && IsOpen(m_handle, number, column.sqlType);
    }
    m_isDescribed = true;
}

PyRef Statement::Description() const {
    PyRef all = Checked(PyTuple_New(static_cast<Py_ssize_t>(m_columns.size())));
    Py_ssize_t index = 0;
    for (const ColumnInfo& column : m_columns) {
        PyObject* const type = TypeOf(column.sqlType, column.meaning);
        const bool hasDigits = column.sqlType == SQL_DECIMAL || column.sqlType == SQL_NUMERIC ||
                               column.sqlType == SQL_TYPE_TIME ||
                               column.sqlType == SQL_TYPE_TIMESTAMP;
        const PyRef name = Checked(PyUnicode_DecodeUTF8(
            column.name.data(), static_cast<Py_ssize_t>(column.name.size()), "replace"));
        const PyRef size = column.size > 0 ? Checked(PyLong_FromUnsignedLongLong(column.size))
                                           : PyRef::Borrow(Py_None);
        const PyRef digits =
            hasDigits ? Checked(PyLong_FromLong(column.digits)) : PyRef::Borrow(Py_None);
        PyObject* const nullable = column.nullable == SQL_NO_NULLS   ? Py_False
                                   : column.nullable == SQL_NULLABLE ? Py_True
                                                                     : Py_None;
        PyRef entry = Checked(
            Py_BuildValue("(OOOOOOO)", name.Get(), type, Py_None, hasDigits ? Py_None : size.Get(),
                          hasDigits ? size.Get() : Py_None, digits.Get(), nullable));
        PyTuple_SET_ITEM(all.Get(), index++, entry.Release());
    }
    return all;
}

bool Statement::LastRowId(SQLBIGINT& id) const {
    return m_handle &&
           OdbcSucceeded(SQLGetStmtAttrW(m_handle, kLastRowId, &id, sizeof id, nullptr));
}

void Statement::Close() {
    if (!m_isOpen) return;
    m_isOpen = m_hasRows = false;
    m_failed.reset();
    m_lost = {};
    m_block.End(m_handle);
    m_columnCount = 0;
    SQLFreeStmt(m_handle, SQL_CLOSE);
}

// The description stays, if the driver still gives it.
void Statement::Lose(Reason reason) noexcept {
    if (!m_isOpen) return;
    m_isOpen = false;
    if (m_hasRows || m_block.HasRow()) m_lost = reason;
    m_block.Drop();
    try {
        Describe();
    } catch (...) {
        m_columnCount = 0;
    }
    // Nothing may have been rolled back that would have ended it.
    SQLFreeStmt(m_handle, SQL_CLOSE);
}

void Statement::Release(Reason reason) noexcept {
    Lose(reason);
    m_isOpen = m_prepared = false;
    if (m_handle) SQLFreeHandle(SQL_HANDLE_STMT, m_handle);
    m_handle = nullptr;
}

// ---- parameters

void Statement::Bind(const std::vector<Value>& values) {
    if (m_parameters.size() != values.size()) {
        std::vector<Parameter> parameters(values.size());
        if (!m_parameters.empty()) Called(SQLFreeStmt(m_handle, SQL_RESET_PARAMS));
        m_parameters = std::move(parameters);
    }
    for (size_t i = 0; i < values.size(); ++i) BindOne(i, values[i]);
}

void Statement::BindOne(size_t index, const Value& value) {
    Parameter& parameter = m_parameters[index];
    const void* data = parameter.fixed;
    SQLSMALLINT cType = value.cType;
    SQLSMALLINT sqlType = value.sqlType;
    if (value.isNull) {
        parameter.indicator = SQL_NULL_DATA;
        // Of whatever type is bound.
        if (parameter.bound) return;
    } else if (value.bytes.data()) {
        parameter.indicator = static_cast<SQLLEN>(value.bytes.size());
        data = value.bytes.data();
        if (value.bytes.size() <= kMostCopied) {
            parameter.text.reserve(kMostCopied);
            parameter.text.assign(value.bytes);
            data = parameter.text.data();
        }
    } else {
        parameter.indicator = 0;
        std::memcpy(parameter.fixed, &value.stamp, sizeof value.stamp);
    }
    if (parameter.bound == data && parameter.cType == cType && parameter.sqlType == sqlType) return;
    const auto length = static_cast<SQLLEN>(value.bytes.size());
    Called(SQLBindParameter(m_handle, static_cast<SQLUSMALLINT>(index + 1), SQL_PARAM_INPUT, cType,
                            sqlType, static_cast<SQLULEN>(std::max<SQLLEN>(length, 1)), 0,
                            const_cast<void*>(data), length, &parameter.indicator));
    parameter.bound = data;
    parameter.cType = cType;
    parameter.sqlType = sqlType;
}
