// The reading half of a statement: describing its columns, fetching rows, delivering values.
#include <algorithm>
#include <new>
#include <string>
#include <utility>

#include "core/error.h"
#include "core/statement.h"
#include "extensions.h"

namespace embedded {

Statement::Work& Statement::requireCursor() {
    if (hasCursor()) return *m_work;
    if (m_executed) throw Error("24000", "No cursor is open on the statement.", native::kMisuse);
    throw sequenceError("The statement has not been executed.");
}

Statement::Work& Statement::askedCursor() {
    Work& work = requireCursor();
    if (!work.asked) {
        // They can be described later, unless the program goes with the last row.
        if (!work.prepared) work.rows->columns();
        work.asked = true;
        m_connection->removeUnasked(*this);
    }
    return work;
}

/// Whether there are no columns any more, since the last execution is over and not to be repeated
/// or gave no rows.
bool Statement::isOver() const {
    if (!m_executed) {
        if (!m_work || !m_work->prepared)
            throw sequenceError("The statement is neither prepared nor executed.");
        return false;
    }
    if (m_gaveRows && m_work && m_work->prepared) return false;
    if (m_overtaken) {
        throw Error("24000",
                    "The rows were closed by what came next on the connection, before anybody "
                    "asked for them.",
                    native::kMisuse);
    }
    return true;
}

const std::vector<Column>& Statement::columns() {
    static const std::vector<Column> kNone;
    if (hasCursor()) return askedCursor().rows->columns();
    return isOver() ? kNone : requireProgram().columns();
}

int Statement::columnCount() {
    if (hasCursor()) return askedCursor().rows->columnCount();
    return isOver() ? 0 : requireProgram().columnCount();
}

SQLULEN Statement::rowNumber() const noexcept {
    return m_work && m_work->block > 0 ? m_work->rowNumber() : 0;
}

SQLRETURN Statement::fetch() {
    Work& work = askedCursor();
    const StatementOptions& options = settings().options;
    const SQLULEN most = options.rowArraySize;
    if (options.rowsFetched) *options.rowsFetched = 0;
    if (options.rowStatus) std::fill_n(options.rowStatus, most, SQL_ROW_NOROW);
    work.block = work.position = 0;
    work.live = false;
    work.kept.clear();
    if (work.failure) {
        const std::exception_ptr failure = std::exchange(work.failure, nullptr);
        closeCursor();
        std::rethrow_exception(failure);
    }
    if (work.ended) return SQL_NO_DATA;
    const Running running(*this);
    SQLULEN failed = 0;
    while (work.block < most && nextRow()) {
        // The row counts as fetched even if a value cannot be delivered, so that the next fetch
        // reads on.
        if (options.rowsFetched) *options.rowsFetched = work.block;
        SQLUSMALLINT ignored = 0;
        SQLUSMALLINT& status = options.rowStatus ? options.rowStatus[work.position] : ignored;
        status = SQL_ROW_ERROR;
        const size_t warnings = diagnostics.count();
        if (!deliverOrReport(most == 1)) {
            ++failed;
        } else {
            status = diagnostics.count() > warnings ? SQL_ROW_SUCCESS_WITH_INFO : SQL_ROW_SUCCESS;
        }
    }
    if (work.block == 0) return SQL_NO_DATA;
    const bool single = most == 1;
    if (!single) {
        work.live = false;
        work.position = 0;
        std::sort(work.kept.begin(), work.kept.end());
    }
    if ((!single || work.unbound.empty()) && !work.ended && !work.failure) lookAhead();
    return failed == work.block ? SQL_ERROR : SQL_SUCCESS;
}

/// Moves to the next row of the block; false when there is none, or a failure instead, which the
/// next fetch reports: the rows in front are the application's.
bool Statement::nextRow() {
    Work& work = *m_work;
    bool found = false;
    try {
        found = work.rows->next();
    } catch (...) {
        if (work.block > 0) {
            work.failure = std::current_exception();
            return false;
        }
        // The rows are not over, so no further fetch may say so.
        closeCursor();
        throw;
    }
    if (!found) {
        work.ended = true;
        dropProgram();
        return false;
    }
    ++work.rowsRead;
    work.position = work.block++;
    work.partColumn = 0;
    work.live = true;
    return true;
}

/// Delivers the current row; false when it failed, which is thrown if it is a `single` one.
bool Statement::deliverOrReport(bool single) {
    try {
        deliverRow();
        return true;
    } catch (const Error& error) {
        if (single) throw;
        diagnostics.rowError(error, m_work->rowNumber());
    } catch (const std::bad_alloc&) {
        if (single) throw;
        diagnostics.outOfMemory();
    }
    return false;
}

// An application that reads the one row it expects never asks for the end, and its statement would
// keep other connections from writing. With every column bound nothing of the row is left to ask
// for but what is kept.
void Statement::lookAhead() {
    Work& work = *m_work;
    const Ahead ahead = work.rows->lookAhead();
    if (ahead != Ahead::Unknown) work.live = false;
    if (ahead == Ahead::End) dropProgram();
}

// All is described and read: a statement that cannot be executed again is over.
void Statement::dropProgram() noexcept {
    if (!m_work->prepared && !settings().options.execution.allResults) m_work->program.reset();
}

void Statement::chooseRoutes() {
    Work& work = *m_work;
    const StatementOptions& options = settings().options;
    const bool byRow = options.rowSize != SQL_BIND_BY_COLUMN;
    const std::vector<ColumnBinding>& bindings = settings().columns;
    const auto count = static_cast<size_t>(work.rows->columnCount());
    work.routes.clear();
    work.routes.reserve(count);
    work.unbound.clear();
    for (size_t i = 0; i < count; ++i) {
        const int index = static_cast<int>(i);
        if (i >= bindings.size() || !bindings[i].target) {
            work.unbound.push_back(index);
            continue;
        }
        const ColumnBinding& binding = bindings[i];
        const ColumnType& type = work.rows->type(index);
        const size_t size = elementSize(binding.cType, type);
        work.routes.push_back({converterFor(binding.cType, type), index, &type,
                               Target{binding.target, binding.capacity, binding.indicator, nullptr,
                                      binding.cType == kCellCType},
                               byRow      ? options.rowSize
                               : size > 0 ? size
                                          : static_cast<size_t>(binding.capacity),
                               byRow ? options.rowSize : sizeof(SQLLEN)});
    }
    work.routed = true;
}

void Statement::deliverRow() {
    Work& work = *m_work;
    if (!work.routed) chooseRoutes();
    const StatementOptions& options = settings().options;
    const bool single = options.rowArraySize == 1;
    const size_t offset = options.rowOffset ? *options.rowOffset : 0;
    if (!single) {
        for (const int column : work.unbound) keep(column, work.rows->cell(column));
    }
    const auto moved = [&](void* first, size_t step) {
        return first ? static_cast<char*>(first) + offset + work.position * step : nullptr;
    };
    for (const Route& route : work.routes) {
        Target target = route.target;
        if (work.position > 0 || offset > 0) {
            target.buffer = moved(target.buffer, route.valueStep);
            target.indicator =
                reinterpret_cast<SQLLEN*>(moved(target.indicator, route.indicatorStep));
        }
        const Cell cell = work.rows->cell(route.index);
        if (deliver(route.convert, cell, route.index, *route.type, target) != Delivery::Truncated)
            continue;
        if (!single || work.unbound.empty()) keep(route.index, cell);
        if (target.tagged) continue;  // its indicator tells all
        diagnostics.warning("01004",
                            place(route.index) + ": the value was cut to the size of its buffer.");
    }
}

void Statement::keep(int column, const Cell& cell) {
    m_work->kept.push_back({m_work->position, column, cell, std::string(cell.bytes),
                            cell.temporal ? *cell.temporal : Temporal{}});
}

/// The value in the 0-based column of the current row.
Cell Statement::currentCell(int column) {
    Work& work = *m_work;
    if (work.live) return work.rows->cell(column);
    const KeptCell wanted{work.position, column, {}, {}, {}};
    const auto kept = std::lower_bound(work.kept.begin(), work.kept.end(), wanted);
    if (kept == work.kept.end() || wanted < *kept) {
        throw Error("07009",
                    "All of the value was delivered when the row was fetched, and cannot be read "
                    "again.",
                    native::kMisuse);
    }
    Cell cell = kept->cell;
    cell.bytes = kept->bytes;
    if (cell.temporal) cell.temporal = &kept->temporal;
    return cell;
}

Delivery Statement::deliver(const Converter& convert, const Cell& cell, int column,
                            const ColumnType& type, const Target& target) {
    try {
        return cell.kind == Cell::Kind::Null ? deliverNull(target) : convert(cell, type, target);
    } catch (const ConversionError& error) {
        throw Error(error.state(), place(column) + ": " + error.what() + ".", native::kMismatch);
    }
}

std::string Statement::place(int column) const {
    const std::string& name = m_work->rows->columns()[static_cast<size_t>(column)].name;
    return "Column " + std::to_string(column + 1) + " \"" + name + "\", row " +
           std::to_string(m_work->rowNumber());
}

void Statement::setPosition(SQLULEN row) {
    Work& work = requireCursor();
    if (work.block == 0) throw Error("24000", "The cursor is not on a row.", native::kMisuse);
    if (row == 0 || row > work.block) {
        throw Error("HY107", "There is no row " + std::to_string(row) + " in the last fetch.",
                    native::kRange);
    }
    work.position = row - 1;
    work.partColumn = 0;
}

SQLRETURN Statement::getData(SQLUSMALLINT column, SQLSMALLINT cType, Target target) {
    Work& work = requireCursor();
    if (work.block == 0) throw Error("24000", "The cursor is not on a row.", native::kMisuse);
    if (column == 0 || column > work.rows->columnCount()) {
        throw Error("07009", "There is no column " + std::to_string(column) + ".", native::kRange);
    }
    const Cell cell = currentCell(column - 1);
    if (work.partColumn != column) {
        work.partColumn = column;
        work.partOffset = 0;
    }
    const ColumnType& type = work.rows->type(column - 1);
    target.partOffset = &work.partOffset;
    target.tagged = cType == kCellCType;
    switch (deliver(converterFor(cType, type), cell, column - 1, type, target)) {
        case Delivery::Nothing:
            return SQL_NO_DATA;
        case Delivery::Truncated:
            diagnostics.warning("01004", place(column - 1) + ": there is more of the value.");
            return SQL_SUCCESS_WITH_INFO;
        default:
            return SQL_SUCCESS;
    }
}

}  // namespace embedded
