#include "mono/resultset.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#include "mono/typemaps.h"
#include "util/def.h"

// A moment is read from where the driver writes a timestamp, a length where it writes an indicator.
static_assert(std::is_same_v<SQLLEN, std::ptrdiff_t> && DbCell::kNull == SQL_NULL_DATA);
static_assert(sizeof(DbMoment) == sizeof(SQL_TIMESTAMP_STRUCT) &&
              offsetof(DbMoment, Second) == offsetof(SQL_TIMESTAMP_STRUCT, second) &&
              offsetof(DbMoment, Fraction) == offsetof(SQL_TIMESTAMP_STRUCT, fraction));

namespace {

// An idle result set keeps this many records of columns, with their buffers.
constexpr int kKeptColumns = 8;
constexpr int kTextBufferSize = 2048;
constexpr int kBinaryBufferSize = 4096;

// How a column of a mapped C type is bound; a buffer size of 0 means the fixed-size target.
struct BindingRule {
    SQLSMALLINT BoundType;
    int BufferSize;
};

// Decimals travel as text, which keeps their digits; every date and time as a full timestamp.
BindingRule RuleFor(int mappedType) {
    switch (mappedType) {
        case SQL_C_CHAR:
        case SQL_C_NUMERIC:
        case SQL_C_WCHAR:
            return {SQL_C_WCHAR, kTextBufferSize};
        case SQL_C_BINARY:
            return {SQL_C_BINARY, kBinaryBufferSize};
        case SQL_C_DATE:
        case SQL_C_TIME:
        case SQL_C_TIMESTAMP:
            return {SQL_C_TIMESTAMP, 0};
        default:
            return {static_cast<SQLSMALLINT>(mappedType), 0};
    }
}

}  // namespace

int ODBCResultSetImpl::Init() {
    m_errCode = VORDA_OK;
    m_hstmt = nullptr;
    m_initedMetadata = 0;
    m_initedColBinding = 0;
    m_fetchFailed = false;
    return VORDA_OK;
}

int ODBCResultSetImpl::Close() {
    SetError(VORDA_OK, "");
    // The statement goes first: until then the driver may still write into the bound buffers.
    if (m_hstmt != nullptr) {
        SQLFreeStmt(m_hstmt, SQL_DROP);
        m_hstmt = nullptr;
    }
    ForgetColumns();
    m_initedMetadata = 0;
    m_initedColBinding = 0;
    m_fetchFailed = false;
    return VORDA_OK;
}

void ODBCResultSetImpl::ForgetColumns() {
    m_columnCount = m_infoCount = 0;
    m_cells.clear();
    m_buffers.clear();
    if (m_columns.Size() > kKeptColumns) m_columns.Resize(kKeptColumns);
    if (m_colBindingInfo.Size() > kKeptColumns) m_colBindingInfo.Resize(kKeptColumns);
}

int ODBCResultSetImpl::SetStmtHandle(SQLHSTMT hstmt) {
    m_hstmt = hstmt;
    if (hstmt == nullptr) return VORDA_NOT_EXECUTED;
    if (const int status = InitMetadata(); status != VORDA_OK) {
        return ComposeError("Unable to InitMetadata", m_errMsg.Deref(), status);
    }
    if (const int status = InitColumnBinding(); status != VORDA_OK) {
        return ComposeError("Unable to InitColumnBinding", m_errMsg.Deref(), status);
    }
    return VORDA_OK;
}

int ODBCResultSetImpl::InitMetadata() {
    if (m_hstmt == nullptr) {
        return Fail(VORDA_NOT_EXECUTED, "The query is not executed.");
    }
    if (m_initedMetadata) return VORDA_OK;

    SQLLEN count = 0;
    if (!ReadNumber(1, SQL_COLUMN_COUNT, count)) return VORDA_ODBC_ERROR;
    // A statement cannot have more columns than ODBC can number: such a count is invented, and
    // memory for it must not even be asked for.
    if (count > SHRT_MAX) {
        constexpr char kMessage[] = "Unable to m_columns.SetSize";
        if (m_errMsg.Length() == 0) return Fail(VORDA_NUMBER_OUT_OF_RANGE, kMessage);
        return ComposeError(kMessage, m_errMsg.Deref(), VORDA_NUMBER_OUT_OF_RANGE);
    }
    const int columns = static_cast<int>(std::max<SQLLEN>(count, 0));
    if (m_columns.Size() < columns) m_columns.Resize(columns);
    m_columnCount = columns;
    for (int column = 1; column <= columns; ++column) {
        if (const int status = ReadColumn(column); status != VORDA_OK) return status;
    }
    m_initedMetadata = 1;
    return VORDA_OK;
}

bool ODBCResultSetImpl::ReadNumber(int column, SQLUSMALLINT field, SQLLEN& value) {
    return StatementPassed(SQLColAttributeW(m_hstmt, static_cast<SQLUSMALLINT>(column), field,
                                            nullptr, 0, nullptr, &value));
}

int ODBCResultSetImpl::ReadColumn(int column) {
    char name[128] = {};
    SQLSMALLINT nameLength = 0;
    if (!StatementPassed(SQLColAttributeW(m_hstmt, static_cast<SQLUSMALLINT>(column),
                                          SQL_COLUMN_NAME, name, sizeof name, &nameLength,
                                          nullptr))) {
        return VORDA_ODBC_ERROR;
    }
    // A longer name was cut by the driver, somewhere before the end of the buffer.
    const int kept = nameLength < static_cast<int>(sizeof name)
                         ? std::max<int>(nameLength, 0)
                         : static_cast<int>(strnlen(name, sizeof name - 1));

    SQLLEN type = 0, size = 0, precision = 0, scale = 0, nullable = 0;
    const struct {
        SQLUSMALLINT Field;
        SQLLEN& Value;
    } numbers[] = {{SQL_COLUMN_TYPE, type},
                   {SQL_COLUMN_LENGTH, size},
                   {SQL_COLUMN_PRECISION, precision},
                   {SQL_COLUMN_SCALE, scale},
                   {SQL_COLUMN_NULLABLE, nullable}};
    for (const auto& number : numbers) {
        if (!ReadNumber(column, number.Field, number.Value)) return VORDA_ODBC_ERROR;
    }
    if (m_columns.Get(column - 1) == nullptr) {
        m_columns.SetElementAt(std::make_unique<DbColumnInfo>().release(), column - 1);
    }
    DbColumnInfo& info = *m_columns.Get(column - 1);
    if (info.ColumnName.Set(name, kept) != VORDA_OK) throw std::bad_alloc();
    info.DataType = ODBCTypeToDbType(SQLTypeToODBCType(static_cast<int>(type)));
    info.ColumnSize = static_cast<int>(size);
    info.Precision = static_cast<int>(precision);
    info.Scale = static_cast<int>(scale);
    info.IsNullable = static_cast<int>(nullable);
    m_infoCount = column;
    return VORDA_OK;
}

int ODBCResultSetImpl::InitColumnBinding() {
    if (m_hstmt == nullptr) {
        return Fail(VORDA_NOT_EXECUTED, "The query is not executed.");
    }
    if (m_initedColBinding) return VORDA_OK;

    m_cells.clear();
    m_buffers.clear();
    m_cells.reserve(static_cast<size_t>(m_columnCount));
    if (m_colBindingInfo.Size() < m_columnCount) m_colBindingInfo.Resize(m_columnCount);
    for (int i = 0; i < m_columnCount; ++i) {
        if (m_colBindingInfo.Get(i) == nullptr) {
            m_colBindingInfo.SetElementAt(std::make_unique<_col_binding_info_>().release(), i);
        }
        if (const int status = BindColumn(i); status != VORDA_OK) return status;
    }
    m_initedColBinding = 1;
    return VORDA_OK;
}

int ODBCResultSetImpl::BindColumn(int index) {
    const DbColumnInfo& info = *m_columns.Get(index);
    _col_binding_info_& binding = *m_colBindingInfo.Get(index);
    binding.NativeVal = {};
    binding.DataType = DbTypeToODBCType(info.DataType);
    binding.ValLen = SQL_NULL_DATA;
    const BindingRule rule = RuleFor(binding.DataType);
    if (binding.StringVal.Resize(rule.BufferSize, nullptr) != VORDA_OK) return VORDA_OUT_OF_MEMORY;
    char* const buffer = binding.StringVal.Deref();
    SQLPOINTER target = &binding.NativeVal;
    if (rule.BufferSize > 0) {
        // Readers may look at any byte of the buffer, whatever the driver has written.
        const auto size = static_cast<size_t>(rule.BufferSize);
        target = std::memset(buffer, 0, size);
        m_buffers.push_back({buffer, size, &binding.ValLen});
    }
    // Before the driver is asked: a column that it refuses is there, and has no value.
    m_cells.push_back({info.DataType, info.Scale, &binding.NativeVal, buffer, rule.BufferSize,
                       rule.BoundType == SQL_C_WCHAR, &binding.ValLen});
    const bool isBound =
        StatementPassed(SQLBindCol(m_hstmt, static_cast<SQLUSMALLINT>(index + 1), rule.BoundType,
                                   target, rule.BufferSize, &binding.ValLen));
    return isBound ? VORDA_OK : VORDA_ODBC_ERROR;
}

const DbColumnInfo* ODBCResultSetImpl::GetColumnInfo(int index) const {
    static const DbColumnInfo none;
    if (index < 0) return nullptr;
    return index < m_infoCount ? m_columns.Get(index) : &none;
}

// Zeroes what the last row has left, block by block. Whatever lengths the driver will report, no
// byte of one row may pass for another's.
void ODBCResultSetImpl::WipeBuffers() {
    constexpr size_t kBlock = 64;
    static_assert(kTextBufferSize % kBlock == 0 && kBinaryBufferSize % kBlock == 0);
    for (const BoundBuffer& buffer : m_buffers) {
        const SQLLEN reported = std::exchange(*buffer.Length, SQL_NULL_DATA);
        size_t used = reported == SQL_NULL_DATA ? 0 : static_cast<size_t>(reported);
        // More may have been written than was reported: then it goes on here.
        std::uint64_t behind = 1;
        if (!m_fetchFailed && used <= buffer.Size - sizeof behind) {
            std::memcpy(&behind, buffer.Bytes + used, sizeof behind);
        }
        if (behind != 0) used = buffer.Size;
        char* block = buffer.Bytes;
        const char* const end = block + used;
        do {
            std::memset(block, 0, kBlock);
            block += kBlock;
        } while (block < end);
    }
}

int ODBCResultSetImpl::Next() {
    if (!m_buffers.empty()) WipeBuffers();
    m_fetchFailed = false;
    if (m_hstmt == nullptr) {
        return Fail(VORDA_NOT_EXECUTED, "The query is not executed.");
    }
    const SQLRETURN result = SQLFetch(m_hstmt);
    if (result == SQL_SUCCESS) return VORDA_OK;
    if (result == SQL_NO_DATA) {
        return Fail(VORDA_NO_MORE_DATA, "No more data");
    }
    SetError(nullptr, nullptr, m_hstmt);
    m_fetchFailed = result != SQL_SUCCESS_WITH_INFO;
    // The driver's own code must not read as "a row" after a failure, nor ever as the end of the
    // rows: that would lose the rest of them silently.
    if (m_fetchFailed) {
        const bool misleading = m_errCode == VORDA_OK || m_errCode == VORDA_NO_MORE_DATA;
        return misleading ? VORDA_ODBC_ERROR : m_errCode;
    }
    return m_errCode == VORDA_NO_MORE_DATA ? VORDA_OK : m_errCode;
}

int ODBCResultSetImpl::Readable(int index, const DbCell*& cell) {
    cell = CellOf(index);
    if (cell == nullptr) {
        return Fail(VORDA_INDEX_OUT_OF_RANGE, "The value index is out of range");
    }
    if (m_fetchFailed) return m_errCode > 0 ? m_errCode : VORDA_NOT_EXECUTED;
    return cell->IsNull() ? SQL_NULL_DATA : VORDA_OK;
}

int ODBCResultSetImpl::GetInt(int index, int& value) {
    return Read(index, [&](const DbCell& cell) {
        switch (cell.DataType) {
            case DBTYPE_SMALLINT:
                value = cell.As<SQLSMALLINT>();
                break;
            case DBTYPE_BIT:
            case DBTYPE_TINYINT:
                value = cell.As<SQLCHAR>();
                break;
            default:
                value = cell.As<SQLINTEGER>();
        }
    });
}

int ODBCResultSetImpl::GetBigint(int index, long long& value) {
    return Read(index, [&](const DbCell& cell) { value = cell.As<long long>(); });
}

int ODBCResultSetImpl::GetDouble(int index, double& value) {
    return Read(index, [&](const DbCell& cell) {
        value = cell.DataType == DBTYPE_FLOAT ? static_cast<double>(cell.As<SQLREAL>())
                                              : cell.As<SQLDOUBLE>();
    });
}

int ODBCResultSetImpl::GetDate(int index, _db_date_& value) {
    return Read(index, [&](const DbCell& cell) {
        const auto moment = cell.As<DbMoment>();
        value = {moment.Year, moment.Month, moment.Day};
    });
}

int ODBCResultSetImpl::GetTime(int index, _db_time_& value) {
    return Read(index, [&](const DbCell& cell) {
        const auto moment = cell.As<DbMoment>();
        value = {moment.Day, moment.Hour, moment.Minute, moment.Second,
                 static_cast<int>(moment.Fraction)};
    });
}

int ODBCResultSetImpl::GetDateTime(int index, _db_datetime_& value) {
    return Read(index, [&](const DbCell& cell) {
        const auto moment = cell.As<DbMoment>();
        const int milliseconds = static_cast<int>(moment.Fraction / 1'000'000);
        value = {moment.Year,   moment.Month,  moment.Day,  moment.Hour,
                 moment.Minute, moment.Second, milliseconds};
    });
}

int ODBCResultSetImpl::GetStringAsUTF8(int index, char** text, int* length) {
    return Read(index, [&](const DbCell& cell) {
        if (text != nullptr) *text = const_cast<char*>(cell.Text);
        if (length != nullptr) *length = cell.Extent().Length;
    });
}

int ODBCResultSetImpl::GetStringAsUCS2(int, char**, int*) {
    return Fail(VORDA_NOT_IMPLEMENTED, "The method is not implemented");
}

int ODBCResultSetImpl::GetBytes(int index, char** data, int* length) {
    return Read(index, [&](const DbCell& cell) {
        if (data != nullptr) *data = const_cast<char*>(cell.Text);
        if (length != nullptr) *length = cell.Size;
    });
}
