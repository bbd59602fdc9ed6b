#include "dbapi/framereader.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <limits>

#include "dbapi/block.h"
#include "dbapi/framevalues.h"
#include "dbapi/waiting.h"

// How values of a format are read.
struct ForeignType {
    std::string_view format;  // the beginning, where it ends with a colon
    const char* name;         // as SQL, for the face
    std::int64_t buffers;     // with the bits that tell NULLs; so many at least for views
    void (*read)(ForeignColumn&, std::int64_t index, Value&, const Sending&);
};

namespace {

// A decimal of as many digits comes back from a double as it was.
constexpr size_t kDigitsOfDouble = 15;

template <class T>
T At(const ForeignColumn& column, std::int64_t index, int buffer = 1) {
    T value{};
    std::memcpy(&value,
                static_cast<const char*>(column.array->buffers[buffer]) +
                    static_cast<size_t>(index) * sizeof value,
                sizeof value);
    return value;
}

bool BitAt(const void* bits, std::int64_t index) {
    return (static_cast<const unsigned char*>(bits)[index / 8] >> index % 8 & 1) != 0;
}

void Set(Value& value, SQLSMALLINT cType, SQLSMALLINT sqlType) {
    value.cType = cType;
    value.sqlType = sqlType;
}

// ---- a value of each type

void ReadNull(ForeignColumn&, std::int64_t, Value& value, const Sending&) {
    value.isNull = true;
}

void ReadBoolean(ForeignColumn& column, std::int64_t index, Value& value, const Sending&) {
    Set(value, SQL_C_BIT, SQL_BIT);
    value.integer = BitAt(column.array->buffers[1], index) ? 1 : 0;
}

template <class T>
void ReadInteger(ForeignColumn& column, std::int64_t index, Value& value, const Sending& sending) {
    const T integer = At<T>(column, index);
    Set(value, SQL_C_SBIGINT, SQL_BIGINT);
    value.integer = static_cast<SQLBIGINT>(+integer);
    if (integer <= T{0} || value.integer > 0) return;
    // Beyond 63 bits.
    if (sending.toSqlite) throw Failure("22003", "the integer exceeds 64 bits");
    Set(value, SQL_C_CHAR, SQL_DECIMAL);
    column.text = std::to_string(integer);
    value.bytes = column.text;
}

template <class T>
void ReadReal(ForeignColumn& column, std::int64_t index, Value& value, const Sending&) {
    Set(value, SQL_C_DOUBLE, SQL_DOUBLE);
    value.real = At<T>(column, index);
}

void ReadDecimal(ForeignColumn& column, std::int64_t index, Value& value, const Sending& sending) {
    const auto width = static_cast<size_t>(column.width);
    const char* const bytes =
        static_cast<const char*>(column.array->buffers[1]) + static_cast<size_t>(index) * width;
    Wide number{};
    const bool isNegative = (static_cast<unsigned char>(bytes[width - 1]) & 0x80U) != 0;
    std::memset(&number, isNegative ? 0xFF : 0, sizeof number);
    std::memcpy(&number, bytes, width);
    column.text = TextOf(number, column.scale);
    value.bytes = column.text;
    Set(value, SQL_C_CHAR, SQL_DECIMAL);
    const Digits digits = TakeApart(value.bytes);
    if (!sending.toSqlite || digits.whole.size() + digits.fraction.size() > kDigitsOfDouble) return;
    // SQLite has no decimals; one of more digits goes as a text, which the runtime refuses where a
    // column would round it.
    double real = 0;
    std::from_chars(column.text.data(), column.text.data() + column.text.size(), real);
    Set(value, SQL_C_DOUBLE, SQL_DOUBLE);
    value.bytes = {};
    value.real = real;
}

void SetBytes(Value& value, bool isText, const char* data, std::int64_t size) {
    value.bytes = {size > 0 ? data : "", static_cast<size_t>(size)};
    Set(value, isText ? SQL_C_WCHAR : SQL_C_BINARY, isText ? SQL_WVARCHAR : SQL_VARBINARY);
    if (isText && !IsUtf8(value.bytes)) throw Failure("22021", "the text is not valid UTF-8");
}

template <class Offset, bool IsText>
void ReadBytes(ForeignColumn& column, std::int64_t index, Value& value, const Sending&) {
    const std::int64_t begin = At<Offset>(column, index);
    const std::int64_t end = At<Offset>(column, index + 1);
    const auto* const data = static_cast<const char*>(column.array->buffers[2]);
    if (begin < 0 || end < begin || (end > begin && !data))
        throw Failure("22000", "the stream tells of bytes that are not there");
    SetBytes(value, IsText, data + begin, end - begin);
}

// The bytes are in the view, or in one of several buffers, of which the last tells the sizes.
template <bool IsText>
void ReadView(ForeignColumn& column, std::int64_t index, Value& value, const Sending&) {
    struct View {
        std::int32_t size;
        char beginning[4];
        std::int32_t buffer;
        std::int32_t offset;
    };
    constexpr std::int32_t kMostInside = 12;
    constexpr std::int32_t kFirst = 2;
    const auto view = At<View>(column, index);
    const char* const inside = static_cast<const char*>(column.array->buffers[1]) +
                               static_cast<size_t>(index) * sizeof view + sizeof view.size;
    if (view.size >= 0 && view.size <= kMostInside) {
        SetBytes(value, IsText, inside, view.size);
        return;
    }
    const std::int64_t count = column.array->n_buffers - kFirst - 1;
    const void* const* const buffers = column.array->buffers;
    if (view.size < 0 || view.offset < 0 || view.buffer < 0 || view.buffer >= count ||
        !buffers[kFirst + view.buffer] || !buffers[kFirst + count] ||
        static_cast<const std::int64_t*>(buffers[kFirst + count])[view.buffer] - view.offset <
            view.size)
        throw Failure("22000", "the stream tells of bytes that are not there");
    SetBytes(value, IsText, static_cast<const char*>(buffers[kFirst + view.buffer]) + view.offset,
             view.size);
}

void ReadFixed(ForeignColumn& column, std::int64_t index, Value& value, const Sending&) {
    const auto* const data = static_cast<const char*>(column.array->buffers[1]);
    SetBytes(value, false, data + index * column.width, column.width);
}

// Whole units of what others are parts of; throws where something is left.
std::int64_t Whole(std::int64_t parts, std::int64_t unit) {
    if (parts % unit != 0) throw Failure("22008", "the time has fractions of microseconds");
    return parts / unit;
}

template <class T, std::int64_t PerDay>
void ReadDate(ForeignColumn& column, std::int64_t index, Value& value, const Sending&) {
    Set(value, SQL_C_TYPE_DATE, SQL_TYPE_DATE);
    value.day = DayOf(Whole(At<T>(column, index), PerDay));
}

// So many times a microsecond, or of so many microseconds each.
template <class T, std::int64_t Parts, std::int64_t Times>
std::int64_t MicrosecondsAt(const ForeignColumn& column, std::int64_t index) {
    constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max() / Times;
    const std::int64_t number = Whole(At<T>(column, index), Parts);
    if (number > kMost || number < -kMost)
        throw Failure("22008", "the date is not in the years 1 to 9999");
    return number * Times;
}

// As a text: the standard's structure has no fraction.
template <class T, std::int64_t Parts, std::int64_t Times>
void ReadTime(ForeignColumn& column, std::int64_t index, Value& value, const Sending&) {
    constexpr std::int64_t kDay = 86400000000;
    const std::int64_t time = MicrosecondsAt<T, Parts, Times>(column, index);
    if (time < 0 || time >= kDay) throw Failure("22008", "the time is not one of a day");
    const SQL_TIMESTAMP_STRUCT parts = StampOf(time);
    char text[32];
    std::snprintf(text, sizeof text, "%02d:%02d:%02d.%06d", parts.hour, parts.minute, parts.second,
                  static_cast<int>(time % 1000000));
    column.text = text;
    Set(value, SQL_C_WCHAR, SQL_WVARCHAR);
    value.bytes = column.text;
}

template <std::int64_t Parts, std::int64_t Times>
void ReadStamp(ForeignColumn& column, std::int64_t index, Value& value, const Sending&) {
    Set(value, SQL_C_TYPE_TIMESTAMP, SQL_TYPE_TIMESTAMP);
    value.stamp = StampOf(MicrosecondsAt<std::int64_t, Parts, Times>(column, index));
}

constexpr std::int64_t kMillisecondsPerDay = 86400000;

constexpr ForeignType kTypes[] = {
    {"n", "text", 0, ReadNull},
    {"b", "boolean", 2, ReadBoolean},
    {"c", "smallint", 2, ReadInteger<std::int8_t>},
    {"C", "smallint", 2, ReadInteger<std::uint8_t>},
    {"s", "smallint", 2, ReadInteger<std::int16_t>},
    {"S", "integer", 2, ReadInteger<std::uint16_t>},
    {"i", "integer", 2, ReadInteger<std::int32_t>},
    {"I", "bigint", 2, ReadInteger<std::uint32_t>},
    {"l", "bigint", 2, ReadInteger<std::int64_t>},
    {"L", "ubigint", 2, ReadInteger<std::uint64_t>},
    {"f", "double", 2, ReadReal<float>},
    {"g", "double", 2, ReadReal<double>},
    {"d:", "decimal", 2, ReadDecimal},
    {"u", "text", 3, ReadBytes<std::int32_t, true>},
    {"U", "text", 3, ReadBytes<std::int64_t, true>},
    {"vu", "text", 3, ReadView<true>},
    {"z", "binary", 3, ReadBytes<std::int32_t, false>},
    {"Z", "binary", 3, ReadBytes<std::int64_t, false>},
    {"vz", "binary", 3, ReadView<false>},
    {"w:", "binary", 2, ReadFixed},
    {"tdD", "date", 2, ReadDate<std::int32_t, 1>},
    {"tdm", "date", 2, ReadDate<std::int64_t, kMillisecondsPerDay>},
    {"tts", "time", 2, ReadTime<std::int32_t, 1, 1000000>},
    {"ttm", "time", 2, ReadTime<std::int32_t, 1, 1000>},
    {"ttu", "time", 2, ReadTime<std::int64_t, 1, 1>},
    {"ttn", "time", 2, ReadTime<std::int64_t, 1000, 1>},
    {"tss:", "timestamp", 2, ReadStamp<1, 1000000>},
    {"tsm:", "timestamp", 2, ReadStamp<1, 1000>},
    {"tsu:", "timestamp", 2, ReadStamp<1, 1>},
    {"tsn:", "timestamp", 2, ReadStamp<1000, 1>},
};

// ---- what the stream says of its columns

// The numbers behind the colon of a format; false where they are others.
bool ReadNumbers(std::string_view text, std::initializer_list<int*> numbers) {
    const char* at = text.data();
    const char* const end = at + text.size();
    for (int* const number : numbers) {
        if (at != text.data()) {
            if (at == end) return *number > 0;  // the last may be left out
            if (*at++ != ',') return false;
        }
        const auto [behind, error] = std::from_chars(at, end, *number);
        if (error != std::errc()) return false;
        at = behind;
    }
    return at == end;
}

bool ReadDetails(ForeignColumn& column, std::string_view details) {
    if (column.type->format == "d:") {
        int bits = 128;
        const bool isRead = ReadNumbers(details, {&column.precision, &column.scale, &bits});
        column.width = bits / 8;
        return isRead && (bits == 32 || bits == 64 || bits == 128 || bits == 256) &&
               column.precision > 0 && column.precision <= kDigitsOf256 && column.scale >= 0 &&
               column.scale <= column.precision;
    }
    if (column.type->format == "w:") {
        int width = 0;
        const bool isRead = ReadNumbers(details, {&width});
        column.width = width;
        return isRead && width >= 0;
    }
    return details.empty();
}

void Describe(ForeignColumn& column, const ArrowSchema& schema, size_t number) {
    column.name = schema.name ? schema.name : "";
    const std::string_view format = schema.format ? schema.format : "";
    const auto* const type =
        std::find_if(std::begin(kTypes), std::end(kTypes), [format](const ForeignType& entry) {
            const bool isBeginning = entry.format.back() == ':';
            return isBeginning ? format.starts_with(entry.format) : format == entry.format;
        });
    const auto refuse = [&](const std::string& why) {
        throw Failure("07006", "Column " + std::to_string(number) + " \"" + column.name +
                                   "\" of the stream: " + why + ".");
    };
    const bool isFound = type != std::end(kTypes);
    if (isFound) column.type = type;
    if (!isFound || schema.n_children != 0 ||
        !ReadDetails(column, format.substr(type->format.size()))) {
        if (format.starts_with("ts")) {
            refuse("times with a time zone are not sent, since a column without one would lose it");
        }
        refuse("the type " + std::string(format) + " of Arrow cannot be sent");
    }
    if (!schema.dictionary) return;
    column.dictionary = std::make_unique<ForeignColumn>();
    Describe(*column.dictionary, *schema.dictionary, number);
    if (column.dictionary->dictionary || std::strchr("cCsSiIlL", format.front()) == nullptr)
        refuse("its dictionary is none");
}

// ---- what it says of its rows

[[noreturn]] void RefuseBatch(const char* why) {
    throw Failure("HY000", std::string("The Arrow stream is damaged: ") + why + ".");
}

bool HasRoom(const ArrowArray& array, std::int64_t rows) {
    constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max() / 64;
    return array.length >= rows && array.offset >= 0 && array.offset <= kMost &&
           array.length <= kMost;
}

// Points a column to the values of so many rows, from one on.
void Point(ForeignColumn& column, const ArrowArray* array, std::int64_t first, std::int64_t rows) {
    if (!array) RefuseBatch("a column is not there");
    if (!HasRoom(*array, first + rows))
        RefuseBatch("a column has not the rows that it should have");
    const bool isView = column.type->format.front() == 'v';
    if (isView ? array->n_buffers < column.type->buffers : array->n_buffers != column.type->buffers)
        RefuseBatch("a column has not the buffers of its type");
    if (array->n_buffers > 0 && !array->buffers) RefuseBatch("a column has no buffers");
    if (array->n_buffers > 1 && array->length > 0 && !array->buffers[1])
        RefuseBatch("a column has no values");
    if (array->null_count < -1 || array->null_count > array->length ||
        (array->n_buffers > 0 && array->null_count > 0 && !array->buffers[0]))
        RefuseBatch("a column does not tell which values are NULL");
    column.array = array;
    column.first = array->offset + first;
    if (!column.dictionary) return;
    if (!array->dictionary) RefuseBatch("a column has no dictionary");
    Point(*column.dictionary, array->dictionary, 0, 0);
}

bool IsNull(const ForeignColumn& column, std::int64_t index) {
    const ArrowArray& array = *column.array;
    return array.n_buffers > 0 && array.null_count != 0 && array.buffers[0] &&
           !BitAt(array.buffers[0], index);
}

void ReadCell(ForeignColumn& column, std::int64_t index, Value& value, const Sending& sending) {
    if (IsNull(column, index)) {
        value.isNull = true;
        return;
    }
    column.type->read(column, index, value, sending);
    if (!column.dictionary) return;
    ForeignColumn& dictionary = *column.dictionary;
    const SQLBIGINT entry = value.integer;
    if (!value.bytes.empty() || entry < 0 || entry >= dictionary.array->length)
        throw Failure("22000", "the stream tells of an entry that its dictionary has not");
    value = Value();
    ReadCell(dictionary, dictionary.first + entry, value, sending);
}

}  // namespace

ForeignStream::ForeignStream(PyObject* data) {
    if (PyObject_HasAttrString(data, "__arrow_c_stream__")) {
        TakeStream(data);
    } else {
        TakeArray(data);
    }
    ReadSchema();
}

ForeignStream::~ForeignStream() {
    // A release may wait for threads that want the lock.
    const Unlocked unlocked;
    m_batch.Out();
    m_stream.Out();
}

bool ForeignStream::IsOneFor(PyObject* data) {
    return PyObject_HasAttrString(data, "__arrow_c_stream__") ||
           PyObject_HasAttrString(data, "__arrow_c_array__");
}

namespace {

template <class Structure>
void TakeCapsule(Owned<Structure>& owner, PyObject* capsule, const char* name) {
    auto* const given = static_cast<Structure*>(PyCapsule_GetPointer(capsule, name));
    if (!given) throw PythonError();
    if (!owner.TakeFrom(given)) throw Failure("HY010", "The Arrow data were taken already.");
}

}  // namespace

void ForeignStream::TakeStream(PyObject* data) {
    const PyRef capsule = Checked(PyObject_CallMethod(data, "__arrow_c_stream__", nullptr));
    TakeCapsule(m_stream, capsule.Get(), kStreamCapsule);
    if (!m_stream->get_schema || !m_stream->get_next) RefuseBatch("it has no functions");
    int code = 0;
    {
        ArrowSchema* const schema = m_schema.Out();
        const Unlocked unlocked;
        code = m_stream->get_schema(m_stream.Get(), schema);
    }
    if (code != 0) Fail(code);
}

void ForeignStream::TakeArray(PyObject* data) {
    const PyRef pair = Checked(PyObject_CallMethod(data, "__arrow_c_array__", nullptr));
    PyObject *schema = nullptr, *array = nullptr;
    if (!PyArg_ParseTuple(pair.Get(), "OO", &schema, &array)) throw PythonError();
    TakeCapsule(m_schema, schema, kSchemaCapsule);
    TakeCapsule(m_batch, array, kArrayCapsule);
}

void ForeignStream::ReadSchema() {
    if (!m_schema.IsThere() || !m_schema->format || std::strcmp(m_schema->format, "+s") != 0 ||
        m_schema->n_children < 0 ||
        m_schema->n_children > std::numeric_limits<SQLSMALLINT>::max() ||
        (m_schema->n_children > 0 && !m_schema->children))
        throw Failure("07006", "The Arrow data are no table: they have no columns.");
    m_columns.resize(static_cast<size_t>(m_schema->n_children));
    for (size_t i = 0; i < m_columns.size(); ++i) {
        if (!m_schema->children[i]) RefuseBatch("a column is not there");
        Describe(m_columns[i], *m_schema->children[i], i + 1);
    }
}

void ForeignStream::Fail(int code) {
    const char* const words =
        m_stream->get_last_error ? m_stream->get_last_error(m_stream.Get()) : nullptr;
    throw Failure("HY000", std::string("The Arrow stream has failed: ") +
                               (words ? words : std::strerror(code)));
}

bool ForeignStream::NextBatch() {
    if (m_isOver) return false;
    if (m_stream.IsThere()) {
        m_rowsBefore += static_cast<unsigned long long>(m_rows);
        m_rows = m_row = 0;
        int code = 0;
        {
            const Unlocked unlocked;
            code = m_stream->get_next(m_stream.Get(), m_batch.Out());
        }
        if (code != 0) Fail(code);
        m_isOver = !m_batch.IsThere();
        if (m_isOver) return false;
    } else {
        m_isOver = true;
    }
    const ArrowArray& batch = *m_batch.Get();
    if (!HasRoom(batch, 0) || batch.n_children != m_schema->n_children ||
        (batch.n_children > 0 && !batch.children))
        RefuseBatch("a batch has not the columns of the schema");
    if (batch.null_count != 0 && batch.n_buffers > 0 && batch.buffers && batch.buffers[0]) {
        for (std::int64_t row = 0; row < batch.length; ++row) {
            if (!BitAt(batch.buffers[0], batch.offset + row))
                RefuseBatch("a row is NULL as a whole");
        }
    }
    for (size_t i = 0; i < m_columns.size(); ++i)
        Point(m_columns[i], batch.children[i], batch.offset, batch.length);
    m_rows = batch.length;
    return true;
}

bool ForeignStream::NextRow() {
    if (m_row < m_rows) ++m_row;
    while (m_row == m_rows) {
        if (!NextBatch()) return false;
    }
    return true;
}

void ForeignStream::Read(std::vector<Value>& values, const Sending& sending) {
    values.clear();
    for (size_t i = 0; i < m_columns.size(); ++i) {
        ForeignColumn& column = m_columns[i];
        try {
            ReadCell(column, column.first + m_row, values.emplace_back(), sending);
        } catch (const Failure& failure) {
            throw CellFailure{i, m_rowsBefore + static_cast<unsigned long long>(m_row), failure}
                .Named(column.name);
        }
    }
}

const char* NameOfType(const ForeignColumn& column) {
    return column.type->name;
}
