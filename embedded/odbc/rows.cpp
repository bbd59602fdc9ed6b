#include "odbc/rows.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <optional>
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

bool isTemporal(Form form) noexcept {
    return form == Form::Date || form == Form::Timestamp;
}

// A block of rows costs more to set up than a short result takes. A column's cells are as wide as
// the values before ask for.
constexpr size_t kSingleRows = 16;
constexpr size_t kMostRows = 64;
/// What is done for each row of so many costs more than to have the server plan the query.
constexpr size_t kManyRows = 10'000;
constexpr size_t kMostBytes = size_t{64} * 1024;  // of a column
constexpr size_t kLeastWidth = 256;

/// Memory that a statement which waits to be used again keeps bound, in bytes.
constexpr size_t kMostKept = size_t{32} * 1024;

/// Bytes that the driver puts behind a value.
size_t terminatorOf(Form form) noexcept {
    return traitsOf(form).cType == SQL_C_BINARY ? 0 : traitsOf(form).unit;
}

/// No length and no indicator of any driver.
constexpr SQLLEN kNotReported = -10'000;

/// Bytes of the longest value; servers allow no longer ones, so this is a lie.
constexpr SQLLEN kLongest = SQLLEN{1} << 30U;

constexpr const char* kContradiction = "the driver's lengths contradict each other";

constexpr const char* kNoRows = "The driver says that there are rows, and has none.";

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
        : m_manager(statement->manager()),
          m_statement(std::move(statement)),
          m_places(m_statement->places
                       ? std::static_pointer_cast<std::vector<Slot>>(m_statement->places)
                       : std::make_shared<std::vector<Slot>>()),
          m_slots(*m_places),
          m_last(last),
          m_mayBlock(m_statement->session().quirks().rowArrays &&
                     m_statement->session().rereadsBound()) {}
    ~OdbcRows() override;

    /// To be called once; an object that could not be opened unbinds what it had bound.
    void open();

    int columnCount() override { return static_cast<int>(m_columns.size()); }
    const ColumnType& type(int column) override {
        return m_columns[static_cast<size_t>(column)].type;
    }
    const std::vector<Column>& columns() override;
    bool next() override;
    Cell cell(int column) override;

  private:
    /// A column: where the driver puts its values, and the one of the current row.
    struct Slot {
        explicit Slot(Form of) : form(of), width(traitsOf(of).size), is(of) {}

        Form form;
        bool bound = false;
        size_t width;                    ///< of a cell
        std::vector<char> buffer;        ///< the block's cells
        std::vector<SQLLEN> indicators;  ///< of each
        size_t longest = 0;              ///< bytes that a value has needed
        size_t reread = 0;               ///< values of the block that were no good in their cells

        Form is;  ///< of the current row's value
        const char* value = nullptr;
        SQLLEN length = kNotReported;
        std::vector<char> whole;  ///< a value that was asked for on its own
        std::string text;         ///< of a wide text, as UTF-8
        Temporal temporal{};      ///< of a date or timestamp
    };

    bool takeBound(const std::vector<OdbcColumn>& described);
    bool unbind();
    bool mayStayBound() const;
    bool fetch();
    void layOut();
    bool setRows(size_t rows) noexcept;
    void complete(Slot& slot, SQLUSMALLINT number);
    bool isDoubtful(Slot& slot) const;
    void readWhole(Slot& slot, SQLUSMALLINT number);
    void takeBytes(Slot& slot, SQLUSMALLINT number);
    void bindColumns();
    void finish();
    [[noreturn]] void refuse(size_t index, const std::string& what);
    static bool readTemporal(Slot& slot);

    const DriverManager& m_manager;
    const std::shared_ptr<OdbcStatement> m_statement;
    const std::shared_ptr<std::vector<Slot>> m_places;
    std::vector<Slot>& m_slots;
    const bool m_last;
    std::vector<Column> m_columns;
    bool m_isNamed = false;  ///< the columns are
    bool m_ended = false;

    // The rows that one fetch brings.
    bool m_mayBlock;
    size_t m_size = 1;
    size_t m_count = 0;
    size_t m_row = 0;
    size_t m_rowsRead = 0;
    SQLULEN m_fetched = 0;
    std::vector<SQLUSMALLINT> m_status;
    std::optional<Error> m_failure;  ///< of one of them
};

void OdbcRows::open() {
    std::vector<OdbcColumn> described = describeColumns(*m_statement);
    const bool isBound = takeBound(described);
    for (OdbcColumn& column : described) {
        m_columns.push_back(std::move(column.column));
        if (!isBound) m_slots.emplace_back(column.form);
    }
    // Behind the last result nothing is described.
    if (m_last) columns();
    if (!isBound) bindColumns();
}

/// Whether the columns are bound already, since the execution before had the same.
bool OdbcRows::takeBound(const std::vector<OdbcColumn>& described) {
    if (!m_statement->places) return false;
    m_statement->places.reset();
    const bool isSame = std::equal(
        m_slots.begin(), m_slots.end(), described.begin(), described.end(),
        [](const Slot& slot, const OdbcColumn& column) { return slot.form == column.form; });
    if (!isSame) m_statement->handle().check(unbind() ? SQL_SUCCESS : SQL_ERROR);
    for (Slot& slot : m_slots) slot.longest = 0;
    return isSame;
}

bool OdbcRows::unbind() {
    const bool done = SQL_SUCCEEDED(m_manager.SQLFreeStmt(m_statement->get(), SQL_UNBIND));
    if (done) m_slots.clear();
    return done;
}

const std::vector<Column>& OdbcRows::columns() {
    if (!m_isNamed) nameColumns(*m_statement, m_columns);
    m_isNamed = true;
    return m_columns;
}

/// Whether it is worth it for the next execution.
bool OdbcRows::mayStayBound() const {
    size_t bytes = 0;
    for (const Slot& slot : m_slots) bytes += slot.buffer.size() + slot.whole.size();
    const bool isComplete =
        std::all_of(m_slots.begin(), m_slots.end(), [](const Slot& slot) { return slot.bound; });
    return m_statement->prepared && isComplete && m_status.empty() && bytes <= kMostKept;
}

OdbcRows::~OdbcRows() {
    m_statement->hasManyRows |= m_rowsRead >= kManyRows;
    const bool closed = m_statement->keepsResults ||
                        SQL_SUCCEEDED(m_manager.SQLFreeStmt(m_statement->get(), SQL_CLOSE));
    const bool stays = mayStayBound();
    if (stays) m_statement->places = m_places;
    const bool unbound = stays || unbind();
    const bool single = m_status.empty() || setRows(1);
    if (!closed || !unbound || !single || m_statement->interrupted) m_statement->unusable = true;
}

/// Has the driver fetch so many rows at once, and tell of each; a single one says it all itself.
bool OdbcRows::setRows(size_t rows) noexcept {
    const auto set = [&](SQLINTEGER attribute, SQLPOINTER value) {
        return SQL_SUCCEEDED(m_statement->set(attribute, value));
    };
    const bool several = rows > 1;
    return set(SQL_ATTR_ROW_STATUS_PTR, several ? m_status.data() : nullptr) &&
           set(SQL_ATTR_ROWS_FETCHED_PTR, several ? &m_fetched : nullptr) &&
           set(SQL_ATTR_ROW_ARRAY_SIZE, reinterpret_cast<SQLPOINTER>(rows));
}

/// Prepares for the next fetch: of many rows, unless these are few or their values long.
void OdbcRows::layOut() {
    size_t rows = m_mayBlock && m_rowsRead >= kSingleRows ? kMostRows : 1;
    for (const Slot& slot : m_slots)
        rows = std::clamp<size_t>(kMostBytes / std::max<size_t>(slot.longest, 1), 1, rows);
    if (rows != m_size) {
        m_status.resize(kMostRows);
        m_statement->handle().check(setRows(rows) ? SQL_SUCCESS : SQL_ERROR);
        m_size = rows;
    }
    for (Slot& slot : m_slots) {
        if (isTemporal(slot.form) && slot.reread > 0) slot.form = Form::Ascii;
        const FormTraits& traits = traitsOf(slot.form);
        slot.width = traits.size;
        if (traits.unit == 0) continue;
        if (rows > 1) slot.width = std::min(kLeastWidth, traits.size);
        slot.width = std::max(slot.width, slot.longest);
    }
    bindColumns();
}

// Values of any length are bound, too, where the rest of a long one can be asked for. Elsewhere
// they are asked for one by one, and a driver may insist on the order of the columns.
void OdbcRows::bindColumns() {
    for (size_t i = 0; i < m_slots.size(); ++i) {
        Slot& slot = m_slots[i];
        const FormTraits& traits = traitsOf(slot.form);
        if (traits.unit > 0 && !m_statement->session().rereadsBound()) return;
        slot.buffer.resize(m_size * slot.width);
        slot.indicators.resize(m_size);
        m_statement->handle().check(m_manager.SQLBindCol(
            m_statement->get(), static_cast<SQLUSMALLINT>(i + 1), traits.cType, slot.buffer.data(),
            static_cast<SQLLEN>(slot.width), slot.indicators.data()));
        slot.bound = true;
    }
}

bool OdbcRows::next() {
    if (m_ended) return false;
    if (++m_row >= m_count && !fetch()) return false;
    if (m_size > 1) {
        const SQLUSMALLINT status = m_status[m_row];
        if (status == SQL_ROW_ERROR) throw Error(*m_failure);
        if (status != SQL_ROW_SUCCESS && status != SQL_ROW_SUCCESS_WITH_INFO)
            throw Error("HY000", kNoRows);
    }
    for (size_t i = 0; i < m_slots.size(); ++i) {
        complete(m_slots[i], static_cast<SQLUSMALLINT>(i + 1));
    }
    return true;
}

bool OdbcRows::fetch() {
    // A column where values that do not fit are no exception gets other cells.
    const bool fits = std::none_of(m_slots.begin(), m_slots.end(), [this](const Slot& slot) {
        return slot.bound && slot.reread > m_size / 8;
    });
    if (!fits || (m_mayBlock && m_rowsRead == kSingleRows)) layOut();
    // A value that the driver does not report is neither NULL nor that of the row before.
    for (Slot& slot : m_slots) {
        std::fill(slot.indicators.begin(), slot.indicators.end(), kNotReported);
        slot.reread = 0;
    }
    std::fill(m_status.begin(), m_status.end(), SQLUSMALLINT{SQL_ROW_NOROW});
    m_fetched = 0;
    const SQLRETURN result =
        m_statement->run([&] { return m_manager.SQLFetch(m_statement->get()); });
    if (result == SQL_NO_DATA) {
        // Rows that are cancelled are over, or out of order, for the driver manager.
        if (m_statement->interrupted) throw OdbcStatement::whyOutOfOrder();
        m_ended = true;
        if (m_last) finish();
        return false;
    }
    m_row = 0;
    m_count = m_size > 1 ? std::min<size_t>(m_fetched, m_size) : 1;
    if (m_count == 0) throw Error("HY000", kNoRows);
    if (std::find(m_status.begin(), m_status.end(), SQL_ROW_ERROR) != m_status.end())
        m_failure = m_statement->handle().failure();
    m_rowsRead += m_count;
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
    slot.is = slot.form;
    slot.length = kNotReported;
    if (slot.bound) {
        slot.value = slot.buffer.data() + m_row * slot.width;
        slot.length = slot.indicators[m_row];
    }
    if (slot.length != kNotReported) {
        if (slot.length == SQL_NULL_DATA) return;
        if (traits.unit == 0) {
            if (slot.length < 0) refuse(number - 1U, kContradiction);
            if (!isDoubtful(slot)) return;
            slot.is = Form::Ascii;
        } else if (slot.length >= 0 &&
                   static_cast<size_t>(slot.length) <= slot.width - terminatorOf(slot.form)) {
            takeBytes(slot, number);
            return;
        }
    }
    ++slot.reread;
    readWhole(slot, number);
}

/// Whether the value is to be asked for as a text: the driver may have made it up.
bool OdbcRows::isDoubtful(Slot& slot) const {
    OdbcSession& session = m_statement->session();
    if (!session.quirks().makesUpToday || !isTemporal(slot.form)) return false;
    if (!readTemporal(slot)) return true;
    const DateTime& value = slot.temporal.value;
    return !value.hasTimeOfDay() && session.mayBeToday(value.month, value.day);
}

/// Takes a value of any length as it lies there. A length in characters instead of bytes, say,
/// would truncate a text unseen.
void OdbcRows::takeBytes(Slot& slot, SQLUSMALLINT number) {
    const size_t terminator = terminatorOf(slot.is);
    const char* const end = slot.value + slot.length;
    const bool whole = terminator <= 1 || slot.length % 2 == 0;
    if (!whole || std::count(end, end + terminator, '\0') != static_cast<long>(terminator)) {
        refuse(number - 1U, kContradiction);
    }
    slot.longest = std::max(slot.longest, static_cast<size_t>(slot.length) + terminator);
}

/// Asks for a value, in as many parts as it takes.
void OdbcRows::readWhole(Slot& slot, SQLUSMALLINT number) {
    const FormTraits& traits = traitsOf(slot.is);
    const size_t terminator = terminatorOf(slot.is);
    const auto require = [&](bool holds) {
        if (!holds) refuse(number - 1U, kContradiction);
    };
    if (m_size > 1) {
        m_statement->handle().check(
            m_manager.SQLSetPos(m_statement->get(), m_row + 1, SQL_POSITION, SQL_LOCK_NO_CHANGE));
    }
    size_t got = 0;
    const bool mayBeNull = slot.length == kNotReported;
    SQLLEN whole = mayBeNull || slot.is != slot.form ? SQL_NO_TOTAL : slot.length;
    if (slot.whole.size() < traits.size) slot.whole.resize(traits.size);
    for (;;) {
        require(whole <= kLongest && got <= size_t{kLongest});
        if (traits.unit > 0) {
            // Lengths are the driver's word: no part is larger than this.
            constexpr size_t kLargestPart = size_t{64} << 20U;
            const size_t wanted = whole >= 0 ? static_cast<size_t>(whole) + terminator
                                             : std::max(2 * got, kFirstBytes);
            const size_t room = std::min(wanted, got + kLargestPart);
            if (slot.whole.size() < room) slot.whole.resize(room + room % traits.unit);
        }
        char* const part = slot.whole.data() + got;
        const size_t room = slot.whole.size() - got - terminator;
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
            slot.length = SQL_NULL_DATA;
            return;
        }
        require(rest >= 0 || (rest == SQL_NO_TOTAL && traits.unit > 0));
        require(rest <= kLongest);
        const SQLLEN all = rest >= 0 ? static_cast<SQLLEN>(got) + rest : SQL_NO_TOTAL;
        require(whole < 0 || all < 0 || all == whole);
        if (traits.unit == 0 || (rest >= 0 && static_cast<size_t>(rest) <= room)) {
            slot.value = slot.whole.data();
            slot.length = all;
            if (traits.unit > 0) takeBytes(slot, number);
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

void OdbcRows::refuse(size_t index, const std::string& what) {
    throw Error(
        "22018",
        "Column " + std::to_string(index + 1) + " \"" + columns()[index].name + "\": " + what + ".",
        native::kMismatch);
}

template <class T>
T read(const char* bytes) noexcept {
    T value;
    std::memcpy(&value, bytes, sizeof value);
    return value;
}

/// Takes a date or timestamp from its structure; false for one that does not exist.
bool OdbcRows::readTemporal(Slot& slot) {
    DateTime& value = slot.temporal.value;
    if (slot.is == Form::Date) {
        const auto date = read<SQL_DATE_STRUCT>(slot.value);
        slot.temporal.shape = TemporalShape::Date;
        value = {.year = date.year, .month = date.month, .day = date.day};
        return isValidDate(value);
    }
    const auto stamp = read<SQL_TIMESTAMP_STRUCT>(slot.value);
    slot.temporal.shape = TemporalShape::Both;
    value = {stamp.year,   stamp.month,  stamp.day,     stamp.hour,
             stamp.minute, stamp.second, stamp.fraction};
    return isValidDate(value) && isValidTime(value);
}

Cell OdbcRows::cell(int column) {
    const auto index = static_cast<size_t>(column);
    Slot& slot = m_slots[index];
    Cell cell;
    if (slot.length == SQL_NULL_DATA) return cell;
    const auto length = static_cast<size_t>(std::max<SQLLEN>(slot.length, 0));
    switch (slot.is) {
        case Form::Integer:
            cell.kind = Cell::Kind::Integer;
            cell.integer = read<SQLBIGINT>(slot.value);
            break;
        case Form::Bit:
            cell.kind = Cell::Kind::Integer;
            cell.integer = read<SQLCHAR>(slot.value);
            break;
        case Form::Real:
            cell.kind = Cell::Kind::Real;
            cell.real = read<SQLDOUBLE>(slot.value);
            break;
        case Form::Wide:
            slot.text.clear();
            appendNarrow(reinterpret_cast<const SQLWCHAR*>(slot.value), length / sizeof(SQLWCHAR),
                         slot.text);
            cell.kind = Cell::Kind::Text;
            cell.bytes = slot.text;
            break;
        case Form::Utf8:
        case Form::Ascii:
        case Form::Binary:
            cell.kind = slot.is == Form::Binary ? Cell::Kind::Binary : Cell::Kind::Text;
            cell.bytes = {slot.value, length};
            if (slot.is == Form::Utf8)
                requireUtf8(cell.bytes, "The driver delivered a text that is not UTF-8.");
            if (slot.is == Form::Ascii) readNumber(cell, m_columns[index].type.sqlType);
            break;
        case Form::Date:
        case Form::Timestamp:
            cell.kind = Cell::Kind::Temporal;
            cell.temporal = &slot.temporal;
            if (!readTemporal(slot)) refuse(index, "the date is none that exists");
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
