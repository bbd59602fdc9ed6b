#include "odbc/parameters.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "core/error.h"
#include "extensions.h"

namespace embedded {

struct ParameterForm {
    SQLSMALLINT boundType;  ///< the application's C type
    SQLSMALLINT cType;
    SQLSMALLINT sqlType;
    size_t size;  ///< bytes of a value; 0 for texts and binary data
    SQLULEN columnSize = 0;
};

namespace {

constexpr size_t kInteger = sizeof(SQLBIGINT);
constexpr size_t kStamp = sizeof(SQL_TIMESTAMP_STRUCT);

// Integers keep the SQL type of their own width: servers choose functions and operators by it.
constexpr ParameterForm kForms[] = {
    {SQL_C_LONG, SQL_C_SBIGINT, SQL_INTEGER, kInteger, 10},
    {SQL_C_SLONG, SQL_C_SBIGINT, SQL_INTEGER, kInteger, 10},
    {SQL_C_SHORT, SQL_C_SBIGINT, SQL_SMALLINT, kInteger, 5},
    {SQL_C_SSHORT, SQL_C_SBIGINT, SQL_SMALLINT, kInteger, 5},
    {SQL_C_USHORT, SQL_C_SBIGINT, SQL_INTEGER, kInteger, 10},
    {SQL_C_TINYINT, SQL_C_SBIGINT, SQL_SMALLINT, kInteger, 5},
    {SQL_C_STINYINT, SQL_C_SBIGINT, SQL_SMALLINT, kInteger, 5},
    {SQL_C_UTINYINT, SQL_C_SBIGINT, SQL_SMALLINT, kInteger, 5},
    {SQL_C_BIT, SQL_C_BIT, SQL_BIT, sizeof(SQLCHAR), 1},
    {SQL_C_DOUBLE, SQL_C_DOUBLE, SQL_DOUBLE, sizeof(SQLDOUBLE), 15},
    {SQL_C_FLOAT, SQL_C_DOUBLE, SQL_DOUBLE, sizeof(SQLDOUBLE), 15},
    {SQL_C_WCHAR, SQL_C_WCHAR, SQL_WVARCHAR, 0},
    {SQL_C_CHAR, SQL_C_WCHAR, SQL_WVARCHAR, 0},
    {SQL_C_BINARY, SQL_C_BINARY, SQL_VARBINARY, 0},
    {SQL_C_DATE, SQL_C_TYPE_DATE, SQL_TYPE_DATE, sizeof(SQL_DATE_STRUCT), 10},
    {SQL_C_TYPE_DATE, SQL_C_TYPE_DATE, SQL_TYPE_DATE, sizeof(SQL_DATE_STRUCT), 10},
    {SQL_C_TIME, SQL_C_TYPE_TIME, SQL_TYPE_TIME, sizeof(SQL_TIME_STRUCT), 8},
    {SQL_C_TYPE_TIME, SQL_C_TYPE_TIME, SQL_TYPE_TIME, sizeof(SQL_TIME_STRUCT), 8},
    {SQL_C_TIMESTAMP, SQL_C_TYPE_TIMESTAMP, SQL_TYPE_TIMESTAMP, kStamp, 19},
    {SQL_C_TYPE_TIMESTAMP, SQL_C_TYPE_TIMESTAMP, SQL_TYPE_TIMESTAMP, kStamp, 19},
};

constexpr ParameterForm kBigInteger{SQL_C_SBIGINT, SQL_C_SBIGINT, SQL_BIGINT, kInteger, 19};
/// For drivers that garble wide texts.
constexpr ParameterForm kUtf8Text{SQL_C_WCHAR, SQL_C_CHAR, SQL_VARCHAR, 0};
/// Of dates and times, for drivers that alter all but texts.
constexpr ParameterForm kTemporalText{SQL_C_TYPE_TIMESTAMP, SQL_C_CHAR, SQL_VARCHAR, 0};
constexpr ParameterForm kBoolean{SQL_C_BIT, SQL_C_BIT, SQL_BIT, sizeof(SQLCHAR), 1};

const ParameterForm& formOf(SQLSMALLINT boundType) noexcept {
    const auto found = std::find_if(
        std::begin(kForms), std::end(kForms),
        [boundType](const ParameterForm& form) { return form.boundType == boundType; });
    return found == std::end(kForms) ? kBigInteger : *found;
}

bool isTemporal(const ParameterForm& form) noexcept {
    return form.cType == SQL_C_TYPE_DATE || form.cType == SQL_C_TYPE_TIME ||
           form.cType == SQL_C_TYPE_TIMESTAMP;
}

bool isZoned(SQLSMALLINT sqlType) noexcept {
    return sqlType == kZonedTime || sqlType == kZonedTimestamp;
}

const ParameterForm& formFor(const ParameterForm& form, const DriverQuirks& quirks) noexcept {
    if (quirks.textTemporals && isTemporal(form)) return kTemporalText;
    return quirks.utf8Texts && form.cType == SQL_C_WCHAR ? kUtf8Text : form;
}

/// Longer values are announced to drivers as long ones.
constexpr SQLULEN kLongText = 4000;

SQLSMALLINT sqlTypeOf(const ParameterForm& form, SQLULEN length) noexcept {
    if (form.size > 0 || length <= kLongText) return form.sqlType;
    if (form.cType == SQL_C_BINARY) return SQL_LONGVARBINARY;
    return form.cType == SQL_C_CHAR ? SQL_LONGVARCHAR : SQL_WLONGVARCHAR;
}

/// Bytes that a value takes up in the driver's form, at most.
size_t widthOf(const ParameterForm& form, const Value& value) noexcept {
    if (form.size > 0) return form.size;
    // A character of UTF-8 has never fewer bytes than units of UTF-16.
    return value.bytes.size() * (form.cType == SQL_C_WCHAR ? sizeof(SQLWCHAR) : 1);
}

template <class T>
void put(char* slot, const T& value) noexcept {
    std::memcpy(slot, &value, sizeof value);
}

/// Writes a value that is not NULL, and answers its length.
SQLLEN store(const ParameterForm& form, const Value& value, char* slot) {
    const DateTime& when = value.temporal.value;
    const auto number = [](int part) { return static_cast<SQLUSMALLINT>(part); };
    const auto year = static_cast<SQLSMALLINT>(when.year);
    switch (form.cType) {
        case SQL_C_SBIGINT:
            put(slot, static_cast<SQLBIGINT>(value.integer));
            break;
        case SQL_C_BIT:
            put(slot, static_cast<SQLCHAR>(value.integer));
            break;
        case SQL_C_DOUBLE:
            put(slot, value.real);
            break;
        case SQL_C_TYPE_DATE:
            put(slot, SQL_DATE_STRUCT{year, number(when.month), number(when.day)});
            break;
        case SQL_C_TYPE_TIME:
            put(slot, SQL_TIME_STRUCT{number(when.hour), number(when.minute), number(when.second)});
            break;
        case SQL_C_TYPE_TIMESTAMP:
            put(slot,
                SQL_TIMESTAMP_STRUCT{year, number(when.month), number(when.day), number(when.hour),
                                     number(when.minute), number(when.second), when.nanosecond});
            break;
        case SQL_C_WCHAR: {
            WideText wide;
            appendWide(value.bytes, wide);
            const size_t bytes = wide.size() * sizeof(SQLWCHAR);
            if (bytes > 0) std::memcpy(slot, wide.data(), bytes);
            return static_cast<SQLLEN>(bytes);
        }
        case SQL_C_CHAR:
            requireUtf8(value.bytes, kNotUtf8);
            [[fallthrough]];
        default:
            std::copy(value.bytes.begin(), value.bytes.end(), slot);
            return static_cast<SQLLEN>(value.bytes.size());
    }
    return static_cast<SQLLEN>(form.size);
}

SQLSMALLINT fractionDigits(const Value& value) noexcept {
    constexpr std::uint32_t kMicrosecond = 1000;
    if (value.kind != Value::Kind::Temporal || value.temporal.value.nanosecond == 0) return 0;
    return value.temporal.value.nanosecond % kMicrosecond == 0 ? 6 : 9;
}

constexpr size_t kMostBytes = size_t{8} << 20U;

/// Where the values of several sets start. MariaDB's driver writes pointers over them if they lie
/// at the very address from which it took the statement's last single value; memory begins on
/// other boundaries, and single values with it.
constexpr size_t kArrayStart = 8;
static_assert(__STDCPP_DEFAULT_NEW_ALIGNMENT__ % (2 * kArrayStart) == 0);

}  // namespace

OdbcParameters::OdbcParameters(ParameterSets& sets, const std::vector<int>& numbers,
                               const DriverQuirks& quirks)
    : m_sets(sets), m_keepsNul(quirks.keepsNul), m_arrays(numbers.size()) {
    for (size_t i = 0; i < numbers.size(); ++i) {
        m_arrays[i].number = numbers[i];
        const ParameterBinding& binding = sets.binding(numbers[i]);
        m_arrays[i].form = &formFor(formOf(binding.cType), quirks);
        if (isZoned(binding.sqlType)) m_arrays[i].zonedType = binding.sqlType;
    }
}

void OdbcParameters::sendAsBooleans(size_t position) {
    m_arrays[position].form = &kBoolean;
}

std::string OdbcParameters::types() const {
    std::string types;
    for (const Array& array : m_arrays) {
        types += static_cast<char>(array.form->sqlType);
        if (array.zonedType != 0) types += static_cast<char>(array.zonedType);
    }
    return types;
}

bool OdbcParameters::mayBeBooleans(size_t position) const {
    bool some = false;
    for (SQLULEN set = 0; set < m_sets.count(); ++set) {
        const Value value = m_sets.value(set, m_arrays[position].number);
        if (value.kind == Value::Kind::Null) continue;
        if (value.kind != Value::Kind::Integer || value.integer < 0 || value.integer > 1)
            return false;
        some = true;
    }
    return some;
}

Value OdbcParameters::valueOf(const Array& array, SQLULEN set) {
    try {
        Value value = m_sets.value(set, array.number);
        if (array.form == &kTemporalText && value.kind == Value::Kind::Temporal) {
            m_text = formatTemporal(value.temporal);
            value.bytes = m_text;
        }
        return value;
    } catch (const Error& error) {
        throw m_sets.failed(set, error);
    }
}

// Only values of any length decide how many sets fit.
SQLULEN OdbcParameters::measure(SQLULEN first, SQLULEN most) {
    for (Array& array : m_arrays) {
        // An empty text has an address, too, and an array an element size.
        array.width = array.form->size > 0 ? array.form->size : sizeof(SQLWCHAR);
        array.digits = 0;
    }
    for (SQLULEN count = 0; count < most; ++count) {
        size_t row = 0;
        for (Array& array : m_arrays) {
            array.wanted = array.width;
            if (array.form->size == 0 || array.form->cType == SQL_C_TYPE_TIMESTAMP) {
                const Value value = valueOf(array, first + count);
                array.wanted = std::max(array.width, widthOf(*array.form, value));
                array.digits = std::max(array.digits, fractionDigits(value));
            }
            row += array.wanted + sizeof(SQLLEN);
        }
        if (count > 0 && row * (count + 1) > kMostBytes) return count;
        for (Array& array : m_arrays) array.width = array.wanted;
    }
    return most;
}

void OdbcParameters::fill(Array& array, SQLULEN first, SQLULEN count) {
    array.start = count > 1 ? kArrayStart : 0;
    array.data.assign(array.start + array.width * count, '\0');
    array.indicators.assign(count, SQL_NULL_DATA);
    for (SQLULEN i = 0; i < count; ++i) {
        const Value value = valueOf(array, first + i);
        if (value.kind == Value::Kind::Null) continue;
        try {
            const bool truncated = value.kind == Value::Kind::Text && !m_keepsNul &&
                                   value.bytes.find('\0') != std::string_view::npos;
            if (truncated) {
                throw Error("22021",
                            "Parameter " + std::to_string(array.number) +
                                ": the text contains a NUL character, which would end it.",
                            native::kMismatch);
            }
            char* const slot = array.data.data() + array.start + array.width * i;
            array.indicators[i] = store(*array.form, value, slot);
        } catch (const Error& error) {
            throw m_sets.failed(first + i, error);
        }
    }
}

SQLULEN OdbcParameters::bind(const OdbcStatement& statement, SQLULEN first, SQLULEN most) {
    const SQLULEN count = measure(first, most);
    SQLUSMALLINT position = 0;
    for (Array& array : m_arrays) {
        fill(array, first, count);
        const ParameterForm& form = *array.form;
        SQLULEN size = form.columnSize;
        if (form.size == 0) size = array.width / (form.cType == SQL_C_WCHAR ? sizeof(SQLWCHAR) : 1);
        if (array.digits > 0) size += 1U + static_cast<SQLULEN>(array.digits);
        statement.handle().check(statement.manager().SQLBindParameter(
            statement.get(), ++position, SQL_PARAM_INPUT, form.cType, sqlTypeOf(form, size), size,
            array.digits, array.data.data() + array.start, static_cast<SQLLEN>(array.width),
            array.indicators.data()));
    }
    return count;
}

}  // namespace embedded
