// Parameter binding: the caller's values are copied, in their ODBC C form, into arrays that live
// until the execution.
#include <algorithm>
#include <climits>
#include <cstring>

#include "mono/dbsource.h"
#include "mono/typemaps.h"
#include "util/def.h"

namespace {

// Room for any value of a fixed size, and for most texts.
constexpr size_t kSmallValue = 64;
constexpr int kKeptParameters = 20;

// A value that its ODBC C form cannot hold.
constexpr SQLLEN kOutOfRange = SQL_NTS;

// Writes one value in its ODBC C form at `slot` and returns its length in bytes, or kOutOfRange.
using StoreValue = SQLLEN (*)(char* slot, const char* value, int length);

template <class T>
T Load(const char* value) {
    T loaded;
    std::memcpy(&loaded, value, sizeof loaded);
    return loaded;
}

template <class T>
SQLLEN Store(char* slot, const T& value) {
    std::memcpy(slot, &value, sizeof value);
    return sizeof value;
}

template <class T>
SQLLEN StoreSame(char* slot, const char* value, int) {
    return Store(slot, Load<T>(value));
}

// The caller's value is a double, the slot has room for a single.
SQLLEN StoreFloat(char* slot, const char* value, int) {
    return Store(slot, static_cast<SQLREAL>(Load<double>(value)));
}

SQLLEN StoreBytes(char* slot, const char* value, int length) {
    if (length > 0) std::memcpy(slot, value, static_cast<size_t>(length));
    return length;
}

// The 16 bits that ODBC has for a field; one that needs more makes the value another one.
template <class Field>
void Narrow(int value, Field& field, bool& fits) {
    field = static_cast<Field>(value);
    fits = fits && field == value;
}

SQLLEN StoreDate(char* slot, const char* value, int) {
    const auto date = Load<_db_date_>(value);
    SQL_DATE_STRUCT sent = {};
    bool fits = true;
    Narrow(date.Year, sent.year, fits);
    Narrow(date.Month, sent.month, fits);
    Narrow(date.Day, sent.day, fits);
    return fits ? Store(slot, sent) : kOutOfRange;
}

SQLLEN StoreTime(char* slot, const char* value, int) {
    const auto time = Load<_db_time_>(value);
    SQL_TIME_STRUCT sent = {};
    bool fits = true;
    Narrow(time.Hour, sent.hour, fits);
    Narrow(time.Minute, sent.minute, fits);
    Narrow(time.Second, sent.second, fits);
    return fits ? Store(slot, sent) : kOutOfRange;
}

// UnitsPerSecond tells what the record's fraction field counts.
template <int UnitsPerSecond>
SQLLEN StoreDateTime(char* slot, const char* value, int) {
    const auto stamp = Load<_db_datetime_>(value);
    SQL_TIMESTAMP_STRUCT sent = {};
    bool fits = stamp.Millisecond >= 0 && stamp.Millisecond < UnitsPerSecond;
    Narrow(stamp.Year, sent.year, fits);
    Narrow(stamp.Month, sent.month, fits);
    Narrow(stamp.Day, sent.day, fits);
    Narrow(stamp.Hour, sent.hour, fits);
    Narrow(stamp.Minute, sent.minute, fits);
    Narrow(stamp.Second, sent.second, fits);
    sent.fraction = static_cast<SQLUINTEGER>(stamp.Millisecond) * (1'000'000'000u / UnitsPerSecond);
    return fits ? Store(slot, sent) : kOutOfRange;
}

// Null for a type that cannot be sent.
StoreValue StoreFor(int dataType, bool inMicroseconds) {
    switch (dataType) {
        case SQL_C_SBIGINT:
        case SQL_C_DOUBLE:
            return StoreSame<long long>;
        case SQL_C_FLOAT:
            return StoreFloat;
        case SQL_C_BIT:
        case SQL_C_TINYINT:
            return StoreSame<char>;
        case SQL_C_SHORT:
            return StoreSame<short>;
        case SQL_C_LONG:
            return StoreSame<int>;
        case SQL_C_DATE:
            return StoreDate;
        case SQL_C_TIME:
            return StoreTime;
        case SQL_C_TIMESTAMP:
            return inMicroseconds ? StoreDateTime<1'000'000> : StoreDateTime<1'000>;
        case SQL_C_NUMERIC:
            return nullptr;
        default:
            return StoreBytes;
    }
}

}  // namespace

void _odbc_parameter_::MakeRoom(size_t size, int sets) {
    const bool small = size <= kSmallValue && sets == 1;
    if (small && IsSmall) {
        std::memset(Data.get(), 0, size);
        return;
    }
    auto data = std::make_unique<char[]>(small ? kSmallValue : size);
    DataLen = std::make_unique<SQLLEN[]>(static_cast<size_t>(sets));
    Data = std::move(data);
    IsSmall = small;
}

void _odbc_parameter_::Clear() {
    Count = 0;
    if (IsSmall) return;
    Data.reset();
    DataLen.reset();
}

int ODBCSourceImpl::AddParam(const char* /*name*/, int /*nameLen*/, int dbType, const void* values,
                             int len, const int* lengths) {
    if (const int status = RequirePrepared(); status != VORDA_OK) return status;
    // The number that the driver gets has 16 bits, and must not come round.
    if (m_parameterCount >= USHRT_MAX) {
        return Fail(VORDA_INDEX_OUT_OF_RANGE, "There are too many parameters");
    }
    // Before anything can fail: a later value must not get this one's number.
    _odbc_parameter_* const p = NextParameter();
    if (!UndoLastExecution()) return VORDA_ODBC_ERROR;
    if (const int status = FillParameter(p, dbType, values, len, lengths); status != VORDA_OK) {
        return status;
    }
    const auto number = static_cast<SQLUSMALLINT>(m_parameterCount);
    if (!StatementPassed(SQLBindParameter(m_preparedHstmt, number, SQL_PARAM_INPUT,
                                          static_cast<SQLSMALLINT>(p->DataType),
                                          static_cast<SQLSMALLINT>(ODBCTypeToSQLType(p->DataType)),
                                          static_cast<SQLULEN>(p->ColumnSize), 0, p->Data.get(),
                                          p->ColumnSize, p->DataLen.get()),
                         m_preparedHstmt)) {
        return VORDA_ODBC_ERROR;
    }
    return VORDA_OK;
}

_odbc_parameter_* ODBCSourceImpl::NextParameter() {
    if (m_parameterCount == m_parameters.Size()) m_parameters.Add();
    return m_parameters.Get(m_parameterCount++);
}

int ODBCSourceImpl::FillParameter(_odbc_parameter_* p, int dbType, const void* values, int len,
                                  const int* lengths) {
    const bool inMicroseconds = dbType == DBTYPE_DATETIME_MICRO;
    const int dataType = DbTypeToODBCType(inMicroseconds ? int{DBTYPE_DATETIME} : dbType);
    const StoreValue store = StoreFor(dataType, inMicroseconds);
    const int sets = std::max(m_odbcAttrs.ODBC_ATTR_PARAMSET_SIZE, 1);
    const int slotSize = ODBCTypeSize(dataType, std::max(len, 0));

    // The spare byte gives a batch of empty texts an address of its own.
    const auto slots = static_cast<size_t>(slotSize) * static_cast<size_t>(sets);
    p->MakeRoom(slots + 1, sets);

    bool supported = true;
    for (int k = 0; k < sets; ++k) {
        const int length = lengths != nullptr ? lengths[k] : len;
        if (length == SQL_NULL_DATA) {
            p->DataLen[static_cast<size_t>(k)] = SQL_NULL_DATA;
            continue;
        }
        if (store == nullptr) {
            supported = false;
            continue;
        }
        // A length that leaves its slot would be read from, and sent as, somebody else's memory.
        const bool outOfRange = store == StoreBytes && (length < 0 || length > slotSize);
        const bool isEmpty = store == StoreBytes && length == 0;
        if (outOfRange || (values == nullptr && !isEmpty)) {
            return Fail(VORDA_INDEX_OUT_OF_RANGE, "The parameter length is out of range");
        }
        const auto* value = static_cast<const char*>(values);
        if (value != nullptr) value += static_cast<ptrdiff_t>(k) * len;
        char* slot = p->Data.get() + static_cast<size_t>(k) * static_cast<size_t>(slotSize);
        const SQLLEN stored = store(slot, value, length);
        if (stored == kOutOfRange) {
            return Fail(VORDA_INDEX_OUT_OF_RANGE, "The parameter value is out of range");
        }
        p->DataLen[static_cast<size_t>(k)] = stored;
    }
    if (!supported) {
        return Fail(VORDA_UNKNOWN_PARAMETER_TYPE, "Unknown parameter data type.");
    }
    p->ColumnSize = slotSize;
    p->DataType = dataType;
    p->Count = sets;
    return VORDA_OK;
}

int ODBCSourceImpl::ClearParameters() {
    if (m_preparedHstmt != nullptr && m_parameterCount > 0) m_hasStaleBindings = true;
    for (int i = 0; i < m_parameterCount; ++i) m_parameters.Get(i)->Clear();
    if (m_parameterCount > kKeptParameters) m_parameters.Resize(kKeptParameters);
    m_parameterCount = 0;
    return VORDA_OK;
}

// What an execution left in the driver must not reach the next one: a number of sets that is not
// its own, and the addresses of released buffers.
bool ODBCSourceImpl::UndoLastExecution() {
    if (m_isBatched) {
        if (!StatementPassed(SetSets(1), m_preparedHstmt)) return false;
        m_isBatched = false;
    }
    if (m_hasStaleBindings) {
        // Whatever is not success leaves the driver with buffers that are about to go.
        SQLRETURN reset = SQLFreeStmt(m_preparedHstmt, SQL_RESET_PARAMS);
        if (!OdbcSucceeded(reset)) reset = SQL_ERROR;
        if (!StatementPassed(reset, m_preparedHstmt)) return false;
        m_hasStaleBindings = false;
    }
    return true;
}

// The driver reads as many sets as the execution names: arrays bound under another batch size would
// be read past their end.
bool ODBCSourceImpl::BatchMatchesParameters() {
    const int sets = std::max(m_odbcAttrs.ODBC_ATTR_PARAMSET_SIZE, 1);
    for (int i = 0; i < m_parameterCount; ++i) {
        const int count = m_parameters.Get(i)->Count;
        if (count > 0 && count < sets) {
            SetError(VORDA_INDEX_OUT_OF_RANGE,
                     "The batch size was raised after a parameter was bound");
            return false;
        }
    }
    return true;
}
