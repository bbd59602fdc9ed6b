#include "dbapi/framebuilder.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <limits>
#include <new>

#include "dbapi/framevalues.h"

// What a column of a type is in Arrow, and how cells become its values.
struct ArrowType {
    CellKind kind;
    const char* format;
    const char* name;  // of values, in messages
    size_t width;      // of a value as long as the column grows
    bool hasBytes;     // and the values are where theirs end
    // Appends cells of the rows from one to another until it meets one that is not of this type;
    // where it has stopped.
    size_t (*append)(GrowingColumn&, const Block&, size_t column, size_t row, size_t end);
    void (*finish)(GrowingColumn&, size_t rows);  // or null
};

namespace {

// Batches of large values have fewer rows.
constexpr size_t kMostBytes = size_t{64} * 1024 * 1024;
// A double has every integer up to here.
constexpr std::int64_t kMostExact = std::int64_t{1} << 53U;

void MarkNull(FrameColumn& column, size_t row) {
    while (column.validity.Size() <= row / 8) *column.validity.Append<unsigned char>(1) = 0xFF;
    column.validity.As<unsigned char>()[row / 8] &= static_cast<unsigned char>(~(1U << row % 8));
    ++column.nulls;
}

// ---- values of one size

bool ReadInteger(const Cell& cell, std::int64_t& value, GrowingColumn&) {
    if (cell.kind == CellKind::Integer) value = Load<std::int64_t>(cell.bytes);
    return cell.kind == CellKind::Integer;
}

bool ReadReal(const Cell& cell, double& value, GrowingColumn&) {
    if (cell.kind == CellKind::Real) {
        value = Load<double>(cell.bytes);
        return true;
    }
    if (cell.kind != CellKind::Integer) return false;
    const auto integer = Load<std::int64_t>(cell.bytes);
    value = static_cast<double>(integer);
    return integer >= -kMostExact && integer <= kMostExact;
}

bool ReadBoolean(const Cell& cell, unsigned char& value, GrowingColumn&) {
    if (cell.kind != CellKind::Boolean) return false;
    const auto integer = Load<std::int64_t>(cell.bytes);
    value = integer != 0;
    return integer == 0 || integer == 1;
}

bool ReadDate(const Cell& cell, std::int32_t& value, GrowingColumn&) {
    if (cell.kind == CellKind::Date) value = DaysOf(Load<SQL_TIMESTAMP_STRUCT>(cell.bytes));
    return cell.kind == CellKind::Date;
}

bool ReadTime(const Cell& cell, std::int64_t& value, GrowingColumn&) {
    if (cell.kind == CellKind::Time) value = MicrosecondsOf(Load<SQL_TIMESTAMP_STRUCT>(cell.bytes));
    return cell.kind == CellKind::Time;
}

bool ReadStamp(const Cell& cell, std::int64_t& value, GrowingColumn&) {
    if (cell.kind != CellKind::Timestamp) return false;
    const auto stamp = Load<SQL_TIMESTAMP_STRUCT>(cell.bytes);
    value = DaysOf(stamp) * std::int64_t{86400000000} + MicrosecondsOf(stamp);
    return true;
}

// ---- decimals

// Room for so many digits before and behind the point, as long as the type may change.
void Widen(GrowingColumn& column, int before, int behind) {
    const int scale = std::max(column.scale, behind);
    before = std::max(column.digits, before);
    if (!column.mayChange || before + scale > kDigitsOf256) {
        throw Failure("22003",
                      "the number does not fit decimal(" +
                          std::to_string(column.digits + column.scale) + ", " +
                          std::to_string(column.scale) +
                          "), which the declaration or the first rows ask for; CAST gives all of "
                          "them one type");
    }
    auto* const numbers = column.values.As<Wide>();
    for (; column.scale < scale; ++column.scale) {
        for (size_t i = 0; i < column.values.Size() / sizeof(Wide); ++i)
            numbers[i].MultiplyAndAdd(10, 0);
    }
    column.digits = before;
}

bool ReadDecimal(const Cell& cell, Wide& value, GrowingColumn& column) {
    if (cell.kind != CellKind::Decimal) return false;
    const Digits digits = TakeApart(cell.bytes);
    constexpr size_t kTooMany = size_t{2} * kDigitsOf256;  // by far, but countable
    const auto before = static_cast<int>(std::min(digits.whole.size(), kTooMany));
    const auto behind = static_cast<int>(std::min(digits.fraction.size(), kTooMany));
    if (behind > column.scale || before > column.digits) Widen(column, before, behind);
    value = NumberOf(digits, column.scale);
    return true;
}

// ---- appending

template <class T, bool (*Read)(const Cell&, T&, GrowingColumn&)>
size_t AppendValues(GrowingColumn& column, const Block& block, size_t number, size_t row,
                    size_t end) {
    for (; row < end; ++row) {
        const Cell cell = block.CellOf(row, number);
        T value{};
        if (cell.kind == CellKind::Null) {
            MarkNull(column, column.values.Size() / sizeof(T));
        } else if (!Read(cell, value, column)) {
            return row;
        }
        *column.values.Append<T>(1) = value;
    }
    return row;
}

template <CellKind Kind>
size_t AppendBytes(GrowingColumn& column, const Block& block, size_t number, size_t row,
                   size_t end) {
    if (column.values.Size() == 0) *column.values.Append<std::int32_t>(1) = 0;
    for (; row < end; ++row) {
        const Cell cell = block.CellOf(row, number);
        if (cell.kind == CellKind::Null) {
            MarkNull(column, column.values.Size() / sizeof(std::int32_t) - 1);
        } else if (cell.kind != Kind) {
            return row;
        }
        if (Kind == CellKind::Text && !IsUtf8(cell.bytes)) {
            throw Failure("22021", "the text is not valid UTF-8; CAST(… AS BLOB) reads its bytes");
        }
        if (cell.bytes.size() > std::numeric_limits<std::int32_t>::max() - column.bytes.Size()) {
            throw Failure("22001", "a batch has no room for more than 2 GB; ask for fewer rows");
        }
        std::copy(cell.bytes.begin(), cell.bytes.end(),
                  column.bytes.Append<char>(cell.bytes.size()));
        *column.values.Append<std::int32_t>(1) = static_cast<std::int32_t>(column.bytes.Size());
    }
    return row;
}

// ---- what columns are at last

void FinishBooleans(GrowingColumn& column, size_t rows) {
    auto* const bits = column.values.As<unsigned char>();
    for (size_t first = 0; first < rows; first += 8) {
        unsigned byte = 0;
        for (size_t i = first; i < std::min(rows, first + 8); ++i)
            byte |= unsigned{bits[i]} << i % 8U;
        bits[first / 8] = static_cast<unsigned char>(byte);
    }
    column.values.Shrink((rows + 7) / 8);
}

// Its type is the declared one if that has sufficed, else as wide as it can be without cost.
void FinishDecimals(GrowingColumn& column, size_t rows) {
    if (column.mayChange && column.digits + column.scale != column.precision) {
        const bool isLong = column.digits + column.scale > kDigitsOf128;
        column.precision = isLong ? kDigitsOf256 : kDigitsOf128;
        column.digits = column.precision - column.scale;
    }
    if (column.precision > kDigitsOf128) return;
    const auto* const numbers = column.values.As<Wide>();
    auto* const halves = column.values.As<std::uint64_t>();
    for (size_t i = 0; i < rows; ++i) {
        halves[2 * i] = numbers[i].words[0];
        halves[2 * i + 1] = numbers[i].words[1];
    }
    column.values.Shrink(rows * sizeof(Wide) / 2);
}

template <class T, bool (*Read)(const Cell&, T&, GrowingColumn&)>
constexpr ArrowType Values(CellKind kind, const char* format, const char* name,
                           void (*finish)(GrowingColumn&, size_t) = nullptr) {
    return {kind, format, name, sizeof(T), false, AppendValues<T, Read>, finish};
}

template <CellKind Kind>
constexpr ArrowType Bytes(const char* format, const char* name) {
    return {Kind, format, name, sizeof(std::int32_t), true, AppendBytes<Kind>, nullptr};
}

constexpr ArrowType kTypes[] = {
    Values<std::int64_t, ReadInteger>(CellKind::Integer, "l", "integers"),
    Values<double, ReadReal>(CellKind::Real, "g", "doubles"),
    Values<unsigned char, ReadBoolean>(CellKind::Boolean, "b", "Booleans", FinishBooleans),
    Values<Wide, ReadDecimal>(CellKind::Decimal, "d", "decimals", FinishDecimals),
    Values<std::int32_t, ReadDate>(CellKind::Date, "tdD", "dates"),
    Values<std::int64_t, ReadTime>(CellKind::Time, "ttu", "times"),
    Values<std::int64_t, ReadStamp>(CellKind::Timestamp, "tsu:", "timestamps"),
    Bytes<CellKind::Text>("u", "texts"),
    Bytes<CellKind::Blob>("z", "binary data"),
};

const ArrowType& TypeFor(CellKind kind) {
    const auto* const found = std::find_if(std::begin(kTypes), std::end(kTypes),
                                           [kind](const auto& type) { return type.kind == kind; });
    if (found == std::end(kTypes))
        throw Failure("HY000", "the runtime's value is of an unknown kind");
    return *found;
}

// Makes a column of which there are only NULLs one of a type.
void Become(GrowingColumn& column, const ArrowType& type, size_t rows) {
    column.type = &type;
    column.hasBytes = type.hasBytes;
    column.values.Shrink(0);
    const size_t size = (rows + (type.hasBytes ? 1 : 0)) * type.width;
    std::fill_n(column.values.Append<char>(size), size, '\0');
}

void MakeReal(GrowingColumn& column) {
    const size_t rows = column.values.Size() / sizeof(double);
    for (size_t i = 0; i < rows; ++i) {
        const auto integer = column.values.As<std::int64_t>()[i];
        if (integer < -kMostExact || integer > kMostExact) return;
    }
    for (size_t i = 0; i < rows; ++i) {
        const auto real = static_cast<double>(column.values.As<std::int64_t>()[i]);
        std::memcpy(column.values.As<char>() + i * sizeof real, &real, sizeof real);
    }
    column.type = &TypeFor(CellKind::Real);
}

// Lets an open column be what a cell needs that it does not take; throws if it cannot.
void Adapt(GrowingColumn& column, CellKind kind, size_t rows) {
    const ArrowType& old = *column.type;
    const ArrowType& wanted = TypeFor(kind);
    if (column.isOpen && column.mayChange) {
        if (static_cast<size_t>(column.nulls) == rows) Become(column, wanted, rows);
        if (old.kind == CellKind::Integer && kind == CellKind::Real) MakeReal(column);
    }
    if (column.type != &old) return;
    throw Failure("22018", std::string("a value of another type (") + wanted.name +
                               ") in a column of " + old.name +
                               ", which the declaration or the first rows ask for; CAST gives all "
                               "of them one type");
}

}  // namespace

void Buffer::Shrink(size_t size) {
    m_size = size;
    if (size < m_capacity) Resize(std::max<size_t>(size, 1));
}

void Buffer::Resize(size_t capacity) {
    auto* const memory = static_cast<char*>(std::realloc(m_data.get(), capacity));
    if (!memory) throw std::bad_alloc();
    static_cast<void>(m_data.release());
    m_data.reset(memory);
    m_capacity = capacity;
}

void FrameBuilder::Begin(const std::vector<ColumnInfo>& columns) {
    m_columns.resize(columns.size());
    for (size_t i = 0; i < columns.size(); ++i) {
        m_names.push_back(columns[i].name);
        if (!IsUtf8(m_names.back())) {
            std::replace_if(
                m_names.back().begin(), m_names.back().end(),
                [](char c) { return static_cast<unsigned char>(c) >= 0x80; }, '?');
        }
        GrowingColumn& column = m_columns[i];
        Become(column, TypeFor(KindOf(columns[i].sqlType)), 0);
        column.isOpen = columns[i].isOpen;
        column.precision = static_cast<int>(std::min<SQLULEN>(columns[i].size, kDigitsOf256));
        column.scale = std::clamp<int>(columns[i].digits, 0, column.precision);
        column.digits = column.precision - column.scale;
    }
}

bool FrameBuilder::IsFull() const {
    size_t size = 0;
    for (const GrowingColumn& column : m_columns)
        size += column.values.Size() + column.bytes.Size();
    return m_rows >= m_most || size >= kMostBytes;
}

void FrameBuilder::Append(Block& block) {
    const size_t count = std::min(block.Ready(), m_most - m_rows);
    for (size_t i = 0; i < m_columns.size(); ++i) {
        GrowingColumn& column = m_columns[i];
        size_t row = 0;
        try {
            while (row < count) {
                row = column.type->append(column, block, i, row, count);
                if (row < count) Adapt(column, block.CellOf(row, i).kind, m_rows + row);
            }
        } catch (const Failure& failure) {
            throw CellFailure{i, block.Position() + row, failure};
        }
    }
    block.Pass(count);
    m_rows += count;
}

std::shared_ptr<const FrameBatch> FrameBuilder::Finish() {
    auto batch = std::make_shared<FrameBatch>();
    batch->rows = static_cast<std::int64_t>(m_rows);
    for (GrowingColumn& column : m_columns) {
        if (column.type->finish) column.type->finish(column, m_rows);
        column.values.Shrink(column.values.Size());
        column.bytes.Shrink(column.bytes.Size());
        while (column.nulls > 0 && column.validity.Size() * 8 < m_rows)
            *column.validity.Append<unsigned char>(1) = 0xFF;
        batch->columns.push_back(std::exchange(static_cast<FrameColumn&>(column), {}));
        column.mayChange = false;
        Become(column, *column.type, 0);
    }
    m_rows = 0;
    return batch;
}

FrameSchema FrameBuilder::Schema() const {
    FrameSchema schema;
    for (size_t i = 0; i < m_columns.size(); ++i) {
        const GrowingColumn& column = m_columns[i];
        std::string format = column.type->format;
        if (column.type->kind == CellKind::Decimal) {
            format += ':' + std::to_string(column.precision) + ',' + std::to_string(column.scale);
            if (column.precision > kDigitsOf128) format += ",256";
        }
        schema.push_back({m_names[i], std::move(format)});
    }
    return schema;
}
