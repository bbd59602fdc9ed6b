#include "odbc/rows.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <utility>

#include "core/error.h"
#include "odbc/columns.h"
#include "values/text.h"

namespace embedded {
namespace {

struct FormTraits {
    SQLSMALLINT cType;
    size_t unit;  ///< bytes of one element of a value of any length; 0 for a fixed size
    size_t size;  ///< bytes bound at first
};

constexpr size_t kFirstBytes = 4096;

constexpr FormTraits kForms[] = {
    {SQL_C_SBIGINT, 0, sizeof(SQLBIGINT)},
    {SQL_C_BIT, 0, sizeof(SQLCHAR)},
    {SQL_C_DOUBLE, 0, sizeof(SQLDOUBLE)},
    {SQL_C_WCHAR, sizeof(SQLWCHAR), kFirstBytes},
    {SQL_C_BINARY, sizeof(SQLCHAR), kFirstBytes},
    {SQL_C_CHAR, sizeof(SQLCHAR), 128},
    {SQL_C_BINARY, sizeof(SQLCHAR), kFirstBytes},
    {SQL_C_TYPE_DATE, 0, sizeof(SQL_DATE_STRUCT)},
    {SQL_C_TYPE_TIMESTAMP, 0, sizeof(SQL_TIMESTAMP_STRUCT)},
};

const FormTraits& traitsOf(Form form) noexcept {
    return kForms[static_cast<size_t>(form)];
}

/// Bytes that the driver puts behind a value.
size_t terminatorOf(Form form) noexcept {
    return traitsOf(form).cType == SQL_C_BINARY ? 0 : traitsOf(form).unit;
}

/// No length and no indicator of any driver.
constexpr SQLLEN kNotReported = -10'000;

/// Bytes of the longest value; servers allow no longer ones, so this is a lie.
constexpr SQLLEN kLongest = SQLLEN{1} << 30U;

constexpr const char* kContradiction = "the driver's lengths contradict each other";

/// Bytes of the longest character. A driver may leave the end of a part free for not cutting one.
constexpr size_t kCharacter = 4;

/// Makes a number of the text as which alone the driver delivers it right; what is none stays one.
void readNumber(Cell& cell, SQLSMALLINT sqlType) noexcept {
    const std::string_view text = cell.bytes;
    const auto parse = [&](auto& number, Cell::Kind kind) {
        auto value = number;
        const auto parsed = std::from_chars(text.data(), text.data() + text.size(), value);
        if (parsed.ec != std::errc{} || parsed.ptr != text.data() + text.size()) return;
        number = value;
        cell.kind = kind;
    };
    if (sqlType == SQL_DOUBLE) parse(cell.real, Cell::Kind::Real);
    if (sqlType == SQL_SMALLINT || sqlType == SQL_INTEGER || sqlType == SQL_BIGINT)
        parse(cell.integer, Cell::Kind::Integer);
}

class OdbcRows final : public ResultSet {
  public:
    OdbcRows(std::shared_ptr<OdbcStatement> statement, bool last)
        : m_manager(statement->manager()), m_statement(std::move(statement)), m_last(last) {}
    ~OdbcRows() override;

    /// To be called once; an object that could not be opened unbinds what it had bound.
    void open();

    const std::vector<Column>& columns() override { return m_columns; }
    bool next() override;
    Cell cell(int column) override;

  private:
    /// Where the driver puts the values of one column.
    struct Slot {
        Form form;
        bool bound = false;
        std::vector<char> buffer;
        SQLLEN indicator = kNotReported;
        std::string text;     ///< of a wide text, as UTF-8
        Temporal temporal{};  ///< of a date or timestamp
    };

    void complete(Slot& slot, SQLUSMALLINT number);
    void readWhole(Slot& slot, SQLUSMALLINT number);
    void requireTerminator(const Slot& slot, SQLUSMALLINT number) const;
    void bindColumns();
    void finish();
    [[noreturn]] void refuse(size_t index, const std::string& what) const;
    const Temporal& temporalOf(Slot& slot, size_t index) const;

    const DriverManager& m_manager;
    const std::shared_ptr<OdbcStatement> m_statement;
    const bool m_last;
    std::vector<Column> m_columns;
    std::vector<Slot> m_slots;
    bool m_ended = false;
};

void OdbcRows::open() {
    for (OdbcColumn& described : describeColumns(*m_statement)) {
        m_columns.push_back(std::move(described.column));
        m_slots.emplace_back().form = described.form;
        m_slots.back().buffer.resize(traitsOf(described.form).size);
    }
    bindColumns();
}

OdbcRows::~OdbcRows() {
    const bool closed = m_statement->keepsResults ||
                        SQL_SUCCEEDED(m_manager.SQLFreeStmt(m_statement->get(), SQL_CLOSE));
    const bool unbound = SQL_SUCCEEDED(m_manager.SQLFreeStmt(m_statement->get(), SQL_UNBIND));
    if (!closed || !unbound || m_statement->interrupted) m_statement->unusable = true;
}

// Values of any length are bound, too, where the rest of a long one can be asked for. Elsewhere
// they are asked for one by one, and a driver may insist on the order of the columns.
void OdbcRows::bindColumns() {
    for (size_t i = 0; i < m_slots.size(); ++i) {
        Slot& slot = m_slots[i];
        const FormTraits& traits = traitsOf(slot.form);
        if (traits.unit > 0 && !m_statement->session().rereadsBound()) return;
        m_statement->handle().check(m_manager.SQLBindCol(
            m_statement->get(), static_cast<SQLUSMALLINT>(i + 1), traits.cType, slot.buffer.data(),
            static_cast<SQLLEN>(slot.buffer.size()), &slot.indicator));
        slot.bound = true;
    }
}

bool OdbcRows::next() {
    if (m_ended) return false;
    // A value that the driver does not report is neither NULL nor that of the row before.
    for (Slot& slot : m_slots) slot.indicator = kNotReported;
    const SQLRETURN result =
        m_statement->run([&] { return m_manager.SQLFetch(m_statement->get()); });
    if (result == SQL_NO_DATA) {
        // Rows that are cancelled are over, or out of order, for the driver manager.
        if (m_statement->interrupted) throw OdbcStatement::whyOutOfOrder();
        m_ended = true;
        if (m_last) finish();
        return false;
    }
    for (size_t i = 0; i < m_slots.size(); ++i) {
        complete(m_slots[i], static_cast<SQLUSMALLINT>(i + 1));
    }
    return true;
}

// Errors of what follows in the same text must not pass unseen.
void OdbcRows::finish() {
    while (m_statement->run([&] { return m_manager.SQLMoreResults(m_statement->get()); }) !=
           SQL_NO_DATA) {
    }
    m_manager.SQLFreeStmt(m_statement->get(), SQL_CLOSE);
}

/// Gets what the fetch has not put into the slot.
void OdbcRows::complete(Slot& slot, SQLUSMALLINT number) {
    const FormTraits& traits = traitsOf(slot.form);
    if (slot.bound && slot.indicator != kNotReported) {
        if (slot.indicator == SQL_NULL_DATA) return;
        if (traits.unit == 0) {
            if (slot.indicator < 0) refuse(number - 1U, kContradiction);
            return;
        }
        const bool fits = slot.indicator >= 0 && static_cast<size_t>(slot.indicator) <=
                                                     slot.buffer.size() - terminatorOf(slot.form);
        if (fits) {
            requireTerminator(slot, number);
            return;
        }
    }
    readWhole(slot, number);
    if (slot.bound) {
        // The buffer may have moved. Some drivers set the indicator.
        const SQLLEN length = slot.indicator;
        m_statement->handle().check(
            m_manager.SQLBindCol(m_statement->get(), number, traits.cType, slot.buffer.data(),
                                 static_cast<SQLLEN>(slot.buffer.size()), &slot.indicator));
        slot.indicator = length;
    }
}

// A length in characters instead of bytes, say, would truncate the text unseen.
void OdbcRows::requireTerminator(const Slot& slot, SQLUSMALLINT number) const {
    const size_t terminator = terminatorOf(slot.form);
    const char* const end = slot.buffer.data() + slot.indicator;
    const bool whole = terminator <= 1 || slot.indicator % 2 == 0;
    if (!whole || std::count(end, end + terminator, '\0') != static_cast<long>(terminator)) {
        refuse(number - 1U, kContradiction);
    }
}

/// Asks for a value, in as many parts as it takes.
void OdbcRows::readWhole(Slot& slot, SQLUSMALLINT number) {
    const FormTraits& traits = traitsOf(slot.form);
    const size_t terminator = terminatorOf(slot.form);
    const auto require = [&](bool holds) {
        if (!holds) refuse(number - 1U, kContradiction);
    };
    size_t got = 0;
    const bool mayBeNull = !slot.bound || slot.indicator == kNotReported;
    SQLLEN whole = mayBeNull ? SQL_NO_TOTAL : slot.indicator;
    for (;;) {
        require(whole <= kLongest && got <= size_t{kLongest});
        if (traits.unit > 0) {
            // Lengths are the driver's word: no part is larger than this.
            constexpr size_t kLargestPart = size_t{64} << 20U;
            const size_t wanted = whole >= 0 ? static_cast<size_t>(whole) + terminator
                                             : std::max(2 * got, kFirstBytes);
            const size_t room = std::min(wanted, got + kLargestPart);
            if (slot.buffer.size() < room) slot.buffer.resize(room + room % traits.unit);
        }
        char* const part = slot.buffer.data() + got;
        const size_t room = slot.buffer.size() - got - terminator;
        // To see afterwards how far the driver has come.
        std::fill(part + room + terminator - std::min(kCharacter, room) * (terminator > 0),
                  part + room + terminator, '\xFF');
        SQLLEN rest = kNotReported;
        const SQLRETURN result = m_statement->run([&] {
            return m_manager.SQLGetData(m_statement->get(), number, traits.cType, part,
                                        static_cast<SQLLEN>(room + terminator), &rest);
        });
        require(result != SQL_NO_DATA);
        if (rest == SQL_NULL_DATA && got == 0 && mayBeNull) {
            slot.indicator = SQL_NULL_DATA;
            return;
        }
        require(rest >= 0 || (rest == SQL_NO_TOTAL && traits.unit > 0));
        require(rest <= kLongest);
        const SQLLEN all = rest >= 0 ? static_cast<SQLLEN>(got) + rest : SQL_NO_TOTAL;
        require(whole < 0 || all < 0 || all == whole);
        if (traits.unit == 0 || (rest >= 0 && static_cast<size_t>(rest) <= room)) {
            slot.indicator = all;
            if (traits.unit > 0) requireTerminator(slot, number);
            return;
        }
        whole = all;
        size_t filled = room;
        if (terminator > 0) {
            const auto ends = [&] {
                return part[filled] == 0 && part[filled + terminator - 1] == 0;
            };
            while (!ends()) {
                require(filled >= terminator && room - filled < kCharacter);
                filled -= terminator;
            }
        }
        got += filled;
    }
}

void OdbcRows::refuse(size_t index, const std::string& what) const {
    throw Error(
        "22018",
        "Column " + std::to_string(index + 1) + " \"" + m_columns[index].name + "\": " + what + ".",
        native::kMismatch);
}

template <class T>
T read(const std::vector<char>& buffer) noexcept {
    T value;
    std::memcpy(&value, buffer.data(), sizeof value);
    return value;
}

const Temporal& OdbcRows::temporalOf(Slot& slot, size_t index) const {
    DateTime& value = slot.temporal.value;
    bool valid = false;
    if (slot.form == Form::Date) {
        const auto date = read<SQL_DATE_STRUCT>(slot.buffer);
        slot.temporal.shape = TemporalShape::Date;
        value = {.year = date.year, .month = date.month, .day = date.day};
        valid = isValidDate(value);
    } else {
        const auto stamp = read<SQL_TIMESTAMP_STRUCT>(slot.buffer);
        slot.temporal.shape = TemporalShape::Both;
        value = {stamp.year,   stamp.month,  stamp.day,     stamp.hour,
                 stamp.minute, stamp.second, stamp.fraction};
        valid = isValidDate(value) && isValidTime(value);
    }
    if (!valid) refuse(index, "the date is none that exists");
    return slot.temporal;
}

Cell OdbcRows::cell(int column) {
    const auto index = static_cast<size_t>(column);
    Slot& slot = m_slots[index];
    Cell cell;
    if (slot.indicator == SQL_NULL_DATA) return cell;
    const auto length = static_cast<size_t>(std::max<SQLLEN>(slot.indicator, 0));
    switch (slot.form) {
        case Form::Integer:
            cell.kind = Cell::Kind::Integer;
            cell.integer = read<SQLBIGINT>(slot.buffer);
            break;
        case Form::Bit:
            cell.kind = Cell::Kind::Integer;
            cell.integer = read<SQLCHAR>(slot.buffer);
            break;
        case Form::Real:
            cell.kind = Cell::Kind::Real;
            cell.real = read<SQLDOUBLE>(slot.buffer);
            break;
        case Form::Wide:
            slot.text.clear();
            appendNarrow(reinterpret_cast<const SQLWCHAR*>(slot.buffer.data()),
                         length / sizeof(SQLWCHAR), slot.text);
            cell.kind = Cell::Kind::Text;
            cell.bytes = slot.text;
            break;
        case Form::Utf8:
        case Form::Ascii:
        case Form::Binary:
            cell.kind = slot.form == Form::Binary ? Cell::Kind::Binary : Cell::Kind::Text;
            cell.bytes = {slot.buffer.data(), length};
            if (slot.form == Form::Utf8)
                requireUtf8(cell.bytes, "The driver delivered a text that is not UTF-8.");
            if (slot.form == Form::Ascii) readNumber(cell, m_columns[index].type.sqlType);
            break;
        case Form::Date:
        case Form::Timestamp:
            cell.kind = Cell::Kind::Temporal;
            cell.temporal = &temporalOf(slot, index);
            break;
    }
    return cell;
}

}  // namespace

std::unique_ptr<ResultSet> makeOdbcRows(std::shared_ptr<OdbcStatement> statement, bool last) {
    auto rows = std::make_unique<OdbcRows>(std::move(statement), last);
    rows->open();
    return rows;
}

}  // namespace embedded
