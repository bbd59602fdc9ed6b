#include "dbapi/block.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr size_t kFixedWidth = sizeof(SQL_TIMESTAMP_STRUCT);
constexpr size_t kTextWidth = 48;
constexpr size_t kWidest = size_t{48} * 1024;

// Many rows come in larger blocks from block to block. No block is larger than what a processor
// keeps at hand.
constexpr size_t kGrowth = 8;
constexpr size_t kMostRows = 256;
constexpr size_t kMostBytes = size_t{192} * 1024;
// Nor has one more than this in long values, as far as the rows before tell, unless it is one row.
constexpr size_t kMostLongBytes = size_t{1024} * 1024;
// More than this is not kept by a statement that waits to be used again.
constexpr size_t kMostKept = size_t{16} * 1024;

constexpr const char* kNotRead = "the memory did not suffice to read it";

SQLPOINTER AsPointer(size_t number) {
    return reinterpret_cast<SQLPOINTER>(number);
}

bool IsNoRow(SQLUSMALLINT status) {
    return status != SQL_ROW_SUCCESS && status != SQL_ROW_SUCCESS_WITH_INFO &&
           status != SQL_ROW_ERROR;
}

void Set(SQLHSTMT statement, SQLINTEGER attribute, SQLPOINTER value) {
    Check(SQLSetStmtAttrW(statement, attribute, value, 0), SQL_HANDLE_STMT, statement);
}

}  // namespace

Failure CellFailure::Named(const std::string& name) const {
    const Diagnostic& record = reason.Records().front();
    return Failure(record.state.c_str(), "Column " + std::to_string(column + 1) + " \"" + name +
                                             "\", row " + std::to_string(row + 1) + ": " +
                                             record.words + ".");
}

void Block::Begin(SQLHSTMT statement, const std::vector<ColumnInfo>& columns, size_t count,
                  bool& hasCells) {
    m_columns = &columns;
    m_count = m_next = 0;
    m_rowsBefore = 0;
    m_long.clear();
    m_failures.clear();
    m_nextFailure = 0;
    if (m_isBound && count == m_places.size()) return;
    m_places.assign(count, {});
    for (size_t i = 0; i < count; ++i) {
        const bool isFixed = i < columns.size() && !HasAnyLength(columns[i].sqlType);
        m_places[i].wanted = isFixed ? kFixedWidth : kTextWidth;
    }
    m_cellByCell = !hasCells;
    try {
        Resize(statement, m_cellByCell ? 1 : kFirstRows);
    } catch (const Failure& failure) {
        if (failure.Records().front().state == "HY001") throw;
        m_cellByCell = true;
        Resize(statement, 1);
        hasCells = false;
    }
}

// Memory for at most so many rows, with cells as wide as wanted.
void Block::Resize(SQLHSTMT statement, size_t rows) {
    m_isBound = false;
    // A runtime that would not forget the memory must not fetch; nor one that still has a column
    // that is no more.
    if (m_memory) Check(SQLFreeStmt(statement, SQL_UNBIND), SQL_HANDLE_STMT, statement);
    m_memory.reset();
    m_rowSize = 0;
    for (Place& place : m_places) {
        place.width = place.wanted;
        place.offset = m_rowSize;
        m_rowSize += kHead + place.width;
    }
    m_widen = false;
    m_size = std::clamp<size_t>(kMostBytes / m_rowSize, 1, std::min(rows, kMostRows));
    m_memory = std::make_unique<char[]>(m_size * m_rowSize);
    if (!m_cellByCell) {
        m_status.reserve(kMostRows);  // which stays where it is, since the runtime knows it
        m_status.assign(m_size, SQL_ROW_NOROW);
        Bind(statement);
    } else if (!m_status.empty()) {
        Set(statement, SQL_ATTR_ROW_ARRAY_SIZE, AsPointer(1));
        Set(statement, SQL_ATTR_ROW_STATUS_PTR, nullptr);
        Set(statement, SQL_ATTR_ROWS_FETCHED_PTR, nullptr);
        m_status.clear();
    }
    m_isBound = true;
}

void Block::Bind(SQLHSTMT statement) {
    Set(statement, SQL_ATTR_ROW_BIND_TYPE, AsPointer(m_rowSize));
    Set(statement, SQL_ATTR_ROW_ARRAY_SIZE, AsPointer(m_size));
    Set(statement, SQL_ATTR_ROW_STATUS_PTR, m_status.data());
    Set(statement, SQL_ATTR_ROWS_FETCHED_PTR, &m_fetched);
    for (size_t i = 0; i < m_places.size(); ++i) {
        char* const indicator = m_memory.get() + m_places[i].offset;
        Check(SQLBindCol(statement, static_cast<SQLUSMALLINT>(i + 1), kCellCType,
                         indicator + sizeof(SQLLEN),
                         static_cast<SQLLEN>(kCellTag + m_places[i].width),
                         reinterpret_cast<SQLLEN*>(indicator)),
              SQL_HANDLE_STMT, statement);
    }
}

bool Block::Load(SQLHSTMT statement) {
    const bool wasFull = m_count > 0 && m_count == m_size;
    m_rowsBefore += m_count;
    m_count = m_next = 0;
    m_nextFailure = 0;
    m_long.clear();
    m_failures.clear();
    if (m_cellByCell) return LoadCellByCell(statement);
    if (wasFull) Grow(statement);
    m_longBytes = 0;
    if (!m_isBound) Resize(statement, m_size);  // which failed the last time
    m_fetched = 0;
    std::fill(m_status.begin(), m_status.end(), SQLUSMALLINT{SQL_ROW_NOROW});
    const SQLRETURN status = SQLFetch(statement);
    if (status == SQL_NO_DATA) return false;
    // From here on there are rows: what fails for one of them is told when it is taken. Those of
    // which nothing is said are what an earlier fetch has left.
    const auto said = std::find_if(m_status.begin(), m_status.end(), IsNoRow) - m_status.begin();
    m_count = std::min({static_cast<size_t>(m_fetched), m_size, static_cast<size_t>(said)});
    const bool isShort = m_count < m_fetched;
    if (status != SQL_SUCCESS) NoteFailures(statement, status);
    ReadLong(statement);
    if (isShort || m_count == 0)
        throw Failure("HY000", "The driver says that there are rows, and has none.");
    return true;
}

void Block::Grow(SQLHSTMT statement) {
    const size_t most = std::max<size_t>(1, std::min(kMostRows, kMostBytes / m_rowSize));
    const size_t bearable = std::max<size_t>(1, m_size * kMostLongBytes / (m_longBytes + 1));
    const size_t rows = std::min({m_size * kGrowth, most, bearable});
    if (m_widen || rows != m_size) Resize(statement, rows);
}

// A row that fails has one diagnostic of its own; they come in the order of the rows.
void Block::NoteFailures(SQLHSTMT statement, SQLRETURN status) {
    SQLSMALLINT number = 0;
    for (size_t row = 0; row < m_count; ++row) {
        if (m_status[row] != SQL_ROW_ERROR) continue;
        m_failures.emplace_back(row,
                                Failure(ReadDiagnostics(SQL_HANDLE_STMT, statement, ++number, 1)));
    }
    // A fetch that fails has rows only if it says so of each.
    if (OdbcSucceeded(status) || (m_count > 0 && m_failures.size() == m_count)) return;
    m_count = 0;
    m_failures.clear();
    Check(status, SQL_HANDLE_STMT, statement);
}

void Block::ReadLong(SQLHSTMT statement) {
    auto failure = m_failures.begin();
    for (size_t row = 0; row < m_count; ++row) {
        if (failure != m_failures.end() && failure->first == row) {
            ++failure;
            continue;
        }
        bool isPositioned = false;
        for (size_t column = 0; column < m_places.size(); ++column) {
            SQLLEN length = 0;
            std::memcpy(&length, At(row, column), sizeof length);
            if (length <= static_cast<SQLLEN>(m_places[column].width)) continue;
            if (!isPositioned) {
                Check(SQLSetPos(statement, row + 1, SQL_POSITION, SQL_LOCK_NO_CHANGE),
                      SQL_HANDLE_STMT, statement);
                isPositioned = true;
            }
            LongValue value{row, column, {}};
            ReadWhole(statement, static_cast<SQLUSMALLINT>(column + 1), static_cast<size_t>(length),
                      value.bytes);
            const size_t size = value.bytes.size();
            m_longBytes += size;
            m_long.push_back(std::move(value));
            if (size > kWidest) continue;
            ++m_places[column].longValues;
            m_places[column].longest = std::max(m_places[column].longest, size);
        }
    }
    // A column where such values are no exception gets wider cells with the next block.
    for (Place& place : m_places) {
        place.wanted = place.width;
        if (place.longValues > m_count / 8) {
            while (place.wanted < place.longest) place.wanted *= 4;
            m_widen = true;
        }
        place.longValues = place.longest = 0;
    }
}

bool Block::LoadCellByCell(SQLHSTMT statement) {
    const SQLRETURN status = SQLFetch(statement);
    CheckFound(status, statement);
    if (status == SQL_NO_DATA) return false;
    std::string bytes;
    try {
        for (size_t i = 0; i < m_places.size(); ++i) {
            const CellKind kind = ReadStandard(statement, static_cast<SQLUSMALLINT>(i + 1),
                                               (*m_columns)[i].sqlType, bytes);
            char* const place = m_memory.get() + m_places[i].offset;
            const auto length = static_cast<SQLLEN>(bytes.size());
            std::memcpy(place, &length, sizeof length);
            std::memcpy(place + sizeof length, &kind, sizeof kind);
            if (bytes.size() <= m_places[i].width) {
                std::copy(bytes.begin(), bytes.end(), place + kHead);
            } else {
                m_long.push_back({0, i, std::move(bytes)});
                bytes.clear();
            }
        }
    } catch (const Failure& failure) {
        // Class 22 is about data: one value cannot be delivered, and all others can.
        if (failure.Records().front().state.compare(0, 2, "22") != 0) throw;
        m_failures.emplace_back(0, failure);
    }
    m_count = 1;
    return true;
}

const std::string& Block::LongCell(size_t row, size_t column) const {
    const auto found = std::lower_bound(
        m_long.begin(), m_long.end(), std::pair(row, column),
        [](const LongValue& value, auto at) { return std::pair(value.row, value.column) < at; });
    if (found == m_long.end() || found->row != row || found->column != column)
        throw Failure("HY001", kNotRead);
    return found->bytes;
}

bool Block::HasFailed(size_t row) const {
    return m_nextFailure < m_failures.size() && m_failures[m_nextFailure].first == row;
}

void Block::CheckRow(size_t row) {
    if (HasFailed(row)) throw Failure(m_failures[m_nextFailure++].second);
    if (!m_cellByCell && m_status[row] == SQL_ROW_ERROR) throw Failure("HY001", kNotRead);
}

size_t Block::Ready() {
    size_t end = m_next;
    while (end < m_count && !HasFailed(end) && (m_cellByCell || m_status[end] != SQL_ROW_ERROR))
        ++end;
    if (end == m_next && end < m_count) CheckRow(m_next++);
    return end - m_next;
}

PyRef Block::Take() {
    const size_t row = m_next++;
    CheckRow(row);
    PyRef made = Checked(PyTuple_New(static_cast<Py_ssize_t>(m_places.size())));
    for (size_t column = 0; column < m_places.size(); ++column) {
        try {
            const Meaning meaning =
                column < m_columns->size() ? (*m_columns)[column].meaning : Meaning::Plain;
            PyTuple_SET_ITEM(made.Get(), static_cast<Py_ssize_t>(column),
                             MakeValue(CellAt(row, column), meaning).Release());
        } catch (const Failure& failure) {
            throw CellFailure{column, m_rowsBefore + row, failure};
        }
    }
    // What a row holds refers to nothing: the collector need not look at it.
    PyObject_GC_UnTrack(made.Get());
    return made;
}

void Block::End(SQLHSTMT statement) {
    m_count = m_next = 0;
    m_long = {};
    m_failures.clear();
    if (!m_isBound || m_size * m_rowSize <= kMostKept) return;
    if (!OdbcSucceeded(SQLFreeStmt(statement, SQL_UNBIND))) return;
    m_isBound = false;
    m_memory.reset();
}
