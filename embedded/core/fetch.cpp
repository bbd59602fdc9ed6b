// The reading half of a statement: describing its columns, fetching rows, delivering values.
#include <string>

#include "core/error.h"
#include "core/statement.h"

namespace embedded {

Statement::Work& Statement::requireCursor() {
    if (hasCursor()) return *m_work;
    if (m_executed) throw Error("24000", "No cursor is open on the statement.", native::kMisuse);
    throw sequenceError("The statement has not been executed.");
}

Statement::Work& Statement::askedCursor() {
    Work& work = requireCursor();
    if (!work.described) {
        // Types of expressions come from the first row, which is still there.
        work.described = &work.rows->columns();
        m_connection->removeUnasked(*this);
    }
    return work;
}

const std::vector<Column>& Statement::columns() {
    static const std::vector<Column> kNone;
    if (hasCursor()) return *askedCursor().described;
    if (m_work && m_work->prepared) return requireProgram().columns();
    if (!m_executed) throw sequenceError("The statement is neither prepared nor executed.");
    return kNone;
}

int Statement::columnCount() {
    if (hasCursor()) return static_cast<int>(askedCursor().described->size());
    if (m_work && m_work->prepared) return requireProgram().columnCount();
    if (!m_executed) throw sequenceError("The statement is neither prepared nor executed.");
    return 0;
}

SQLULEN Statement::rowNumber() const noexcept {
    return m_work && m_work->onRow ? m_work->rowNumber : 0;
}

SQLRETURN Statement::fetch() {
    Work& work = askedCursor();
    const StatementOptions& options = settings().options;
    if (options.rowsFetched) *options.rowsFetched = 0;
    if (options.rowStatus) *options.rowStatus = SQL_ROW_NOROW;
    work.onRow = work.passed = false;
    if (work.ended) return SQL_NO_DATA;
    if (!work.routed) chooseRoutes();
    const Running running(*this);
    try {
        work.onRow = work.rows->next();
    } catch (...) {
        // The rows are not over, so no further fetch may say so.
        closeCursor();
        throw;
    }
    if (!work.onRow) {
        work.ended = true;
        // All is described and read: a statement that cannot be executed again is over.
        if (!work.prepared) work.program.reset();
        return SQL_NO_DATA;
    }
    // The row counts as fetched even if a value cannot be delivered, so that the next fetch reads
    // on.
    ++work.rowNumber;
    work.partColumn = 0;
    if (options.rowsFetched) *options.rowsFetched = 1;
    if (options.rowStatus) *options.rowStatus = SQL_ROW_ERROR;
    deliverRow();
    if (options.rowStatus) {
        *options.rowStatus = diagnostics.count() ? SQL_ROW_SUCCESS_WITH_INFO : SQL_ROW_SUCCESS;
    }
    if (work.allBound) lookAhead();
    return SQL_SUCCESS;
}

// An application that reads the one row it expects never asks for the end, and its statement would
// keep other connections from writing. With every column bound nothing of the row is left to ask
// for.
void Statement::lookAhead() {
    Work& work = *m_work;
    const Ahead ahead = work.rows->lookAhead();
    work.passed = ahead != Ahead::Unknown;
    if (ahead == Ahead::End && !work.prepared) work.program.reset();
}

void Statement::chooseRoutes() {
    Work& work = *m_work;
    const std::vector<ColumnBinding>& bindings = settings().columns;
    const std::vector<Column>& described = work.rows->columns();
    work.routes.clear();
    for (size_t i = 0; i < bindings.size() && i < described.size(); ++i) {
        const ColumnBinding& binding = bindings[i];
        if (!binding.target) continue;
        work.routes.push_back(
            {converterFor(binding.cType, described[i].type), static_cast<int>(i), &described[i],
             Target{binding.target, binding.capacity, binding.indicator, nullptr}});
    }
    work.routed = true;
    work.allBound = work.routes.size() == described.size();
}

void Statement::deliverRow() {
    for (const Route& route : m_work->routes) {
        if (deliver(route.convert, route.index, *route.column, route.target) == Delivery::Cut) {
            diagnostics.warning("01004", place(*route.column, route.index) +
                                             ": the value was cut to the size of its buffer.");
        }
    }
}

Delivery Statement::deliver(const Converter& convert, int index, const Column& column,
                            const Target& target) {
    const Cell cell = m_work->rows->cell(index);
    try {
        return cell.kind == Cell::Kind::Null ? deliverNull(target)
                                             : convert(cell, column.type, target);
    } catch (const ConversionError& error) {
        throw Error(error.state(), place(column, index) + ": " + error.what() + ".",
                    native::kMismatch);
    }
}

std::string Statement::place(const Column& column, int index) const {
    return "Column " + std::to_string(index + 1) + " \"" + column.name + "\", row " +
           std::to_string(m_work->rowNumber);
}

SQLRETURN Statement::getData(SQLUSMALLINT column, SQLSMALLINT cType, Target target) {
    Work& work = requireCursor();
    if (!work.onRow) throw Error("24000", "The cursor is not on a row.", native::kMisuse);
    const std::vector<Column>& described = work.rows->columns();
    if (column == 0 || column > described.size()) {
        throw Error("07009", "There is no column " + std::to_string(column) + ".", native::kRange);
    }
    if (work.passed) {
        throw Error("07009",
                    "All columns were bound when the row was fetched; their values are delivered "
                    "and cannot be read again.",
                    native::kMisuse);
    }
    if (work.partColumn != column) {
        work.partColumn = column;
        work.partOffset = 0;
    }
    const Column& source = described[column - 1U];
    target.partOffset = &work.partOffset;
    switch (deliver(converterFor(cType, source.type), column - 1, source, target)) {
        case Delivery::Nothing:
            return SQL_NO_DATA;
        case Delivery::Cut:
            diagnostics.warning("01004",
                                place(source, column - 1) + ": there is more of the value.");
            return SQL_SUCCESS_WITH_INFO;
        default:
            return SQL_SUCCESS;
    }
}

}  // namespace embedded
