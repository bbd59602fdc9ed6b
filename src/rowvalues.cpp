// Making a Row of the provider's current row. How each column is read is worked out once a result.
// A row then goes in two passes. The first reads every column into an object that CPython can make
// without running any Python code; the second finishes the values that need some (a class of the
// program's choosing, a warning), and no longer touches the provider, which that code may have
// closed. Where a column cannot be read, the columns before it are finished all the same: the first
// one that fails is the one to tell.
#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "include/conversion.h"
#include "include/errors.h"
#include "include/pydatetime.h"
#include "include/row.h"

namespace {

struct ColumnPlan;

// Makes the object for a value that is not NULL: a new reference, or null. Null without an error
// set means that the value needs a closer look, by ReadWithCare.
using Reader = PyObject* (*)(const ColumnPlan&);

struct ColumnPlan {
    Reader Read;
    DbCell Cell;
};

template <class Value>
PyObject* ReadInt(const ColumnPlan& column) {
    static_assert(sizeof(Value) <= sizeof(long));
    return PyLong_FromLong(column.Cell.As<Value>());
}

template <class Value>
PyObject* ReadFloat(const ColumnPlan& column) {
    return PyFloat_FromDouble(static_cast<double>(column.Cell.As<Value>()));
}

PyObject* ReadBool(const ColumnPlan& column) {
    return PyBool_FromLong(column.Cell.As<std::uint8_t>());
}

PyObject* ReadDate(const ColumnPlan& column) {
    const auto moment = column.Cell.As<DbMoment>();
    return PyDate_FromDate(moment.Year, moment.Month, moment.Day);
}

PyObject* ReadTime(const ColumnPlan& column) {
    const auto moment = column.Cell.As<DbMoment>();
    return PyTime_FromTime(moment.Hour, moment.Minute, moment.Second,
                           column.Cell.Microseconds(moment));
}

PyObject* ReadDateTime(const ColumnPlan& column) {
    const auto moment = column.Cell.As<DbMoment>();
    return PyDateTime_FromDateAndTime(moment.Year, moment.Month, moment.Day, moment.Hour,
                                      moment.Minute, moment.Second,
                                      column.Cell.Microseconds(moment));
}

// Null without an error set when the text is not UTF-8. A codec that reported that itself could run
// a handler of the program's own ("strict" can be replaced), and the collector.
PyObject* DecodeText(const char* text, Py_ssize_t length) {
    PyRef value(PyUnicode_DecodeUTF8(text, length, "surrogateescape"));
    if (!value) return nullptr;
    // There are no surrogates among characters of one byte.
    const bool isUtf8 =
        PyUnicode_KIND(value.Get()) == PyUnicode_1BYTE_KIND || !HasSurrogate(value.Get());
    return isUtf8 ? value.Release() : nullptr;
}

// The row is given up, so that now any code may run: with copies of what is the provider's.
PyRef RaiseNotUtf8(const char* text, Py_ssize_t length, const std::string column) {
    const PyRef bytes(PyBytes_FromStringAndSize(text, length));
    if (!bytes) return PyRef();
    const PyRef decoded(PyUnicode_DecodeUTF8(PyBytes_AS_STRING(bytes.Get()), length, "strict"));
    constexpr const char* kMessage = "The text of column '%s' is not valid UTF-8.";
    if (decoded) return Raise(DatabaseError, kMessage, column.c_str());
    if (!PyErr_ExceptionMatches(PyExc_UnicodeError)) return PyRef();
    return RaiseFromCurrent(DatabaseError, kMessage, column.c_str());
}

// Decimals too arrive as text.
PyObject* ReadText(const ColumnPlan& column) {
    if (!column.Cell.IsWholeText()) return nullptr;
    return DecodeText(column.Cell.Text, *column.Cell.Length);
}

// A binary column, or one that is not bound.
PyObject* ReadNothing(const ColumnPlan&) {
    return nullptr;
}

Reader ReaderFor(int dataType) {
    switch (dataType) {
        case DBTYPE_BINARY:
            return ReadNothing;
        case DBTYPE_TINYINT:
            return ReadInt<std::uint8_t>;
        case DBTYPE_SMALLINT:
            return ReadInt<std::int16_t>;
        case DBTYPE_INTEGER:
            return ReadInt<std::int32_t>;
        case DBTYPE_BIGINT:
            return ReadInt<std::int64_t>;
        case DBTYPE_BIT:
            return ReadBool;
        case DBTYPE_DOUBLE:
            return ReadFloat<double>;
        case DBTYPE_FLOAT:
            return ReadFloat<float>;
        case DBTYPE_DATE:
            return ReadDate;
        case DBTYPE_TIME:
            return ReadTime;
        case DBTYPE_DATETIME:
            return ReadDateTime;
        default:
            return ReadText;
    }
}

ColumnPlan PlanColumn(Dbs& dbs, int index) {
    // A column that is not bound, or of a type that is refused, is never looked at for NULL.
    static const std::ptrdiff_t notNull = 0;
    ColumnPlan column = {};
    const bool isBound = dbs.GetCell(index, column.Cell);
    column.Read = isBound ? ReaderFor(column.Cell.DataType) : ReadNothing;
    if (column.Read == ReadNothing) column.Cell.Length = &notNull;
    return column;
}

}  // namespace

// How the rows of one result are read.
struct RowPlan {
    unsigned long long ResultNumber = 0;
    std::vector<ColumnPlan> Columns;
    std::vector<int> Decimals;
    PyRef DecimalClass;  // once a decimal has been read

    void Make(Dbs& dbs) {
        // No number yet: this may end early for want of memory.
        ResultNumber = 0;
        Columns.clear();
        Decimals.clear();
        const int columns = dbs.GetColumnCount();
        Columns.reserve(static_cast<size_t>(columns));
        for (int i = 0; i < columns; ++i) {
            Columns.push_back(PlanColumn(dbs, i));
            const int type = Columns.back().Cell.DataType;
            if (type == DBTYPE_NUMERIC || type == DBTYPE_DECIMAL) Decimals.push_back(i);
        }
        ResultNumber = dbs.GetResultNumber();
    }
};

namespace {

// A row without any value yet, which `columns` counts as they are stored, or empty with an error
// set.
PyRef NewRow(size_t room, int encoding, PyObject* description) {
    // One block for the row and its values: rows are made by the million.
    void* const block = PyObject_Malloc(sizeof(PyRow) + room * sizeof(PyObject*));
    if (block == nullptr) {
        PyErr_NoMemory();
        return PyRef();
    }
    PyRef object(PyObject_Init(static_cast<PyObject*>(block), &RowType));
    const auto row = reinterpret_cast<PyRow*>(object.Get());
    row->columns = 0;
    row->encoding = encoding;
    row->Description = PyRef::Borrow(description).Release();
    row->values = reinterpret_cast<PyObject**>(row + 1);
    return object;
}

// Reads the columns that the row does not have yet, and runs no Python code. False where one needs
// a closer look: the row then ends before it. Inline, for each row goes through it.
inline bool ReadPlainColumns(const RowPlan& plan, PyRow* row) {
    PyObject** slot = row->values + row->columns;
    const auto end = plan.Columns.end();
    for (auto column = plan.Columns.begin() + row->columns; column != end; ++column) {
        PyObject* const value =
            column->Cell.IsNull() ? PyRef::Borrow(Py_None).Release() : column->Read(*column);
        if (value == nullptr) return false;
        *slot++ = value;
        ++row->columns;
    }
    return true;
}

// Goes on where ReadPlainColumns has ended.
class RowReader {
  public:
    RowReader(Dbs& dbs, RowPlan& plan, PyRow* row) : m_dbs(dbs), m_plan(plan), m_row(row) {}

    // False with an error set: that of the first column that has one.
    bool Read(bool isWhole) {
        if (isWhole || ReadOtherColumns()) {
            if (!m_truncations.empty()) return Finish();
            return m_plan.Decimals.empty() || MakeDecimals();
        }
        PyObject *type, *value, *trace;
        PyErr_Fetch(&type, &value, &trace);
        if (Finish()) {
            PyErr_Restore(type, value, trace);
        } else {
            const PyRef laterType(type), laterValue(value), laterTrace(trace);
        }
        return false;
    }

  private:
    struct Truncation {
        int Column;
        DbExtent Extent;
        std::string ColumnName;
    };

    bool ReadOtherColumns() {
        do {
            PyObject* const value = ReadWithCare(m_row->columns).Release();
            if (value == nullptr) return false;
            m_row->values[m_row->columns++] = value;
        } while (!ReadPlainColumns(m_plan, m_row));
        return true;
    }

    // Goes over the columns read, in their order.
    bool Finish() {
        auto next = m_truncations.begin();
        for (const int column : m_plan.Decimals) {
            if (column >= m_row->columns) break;
            for (; next != m_truncations.end() && next->Column <= column; ++next) {
                if (!Warn(*next)) return false;
            }
            if (!MakeDecimal(m_row->values[column])) return false;
        }
        return std::all_of(next, m_truncations.end(), Warn);
    }

    // What a reader has left: a column that it does not read, a text that is not UTF-8, or one
    // whose length is not what it should be.
    PyRef ReadWithCare(int index) {
        if (PyErr_Occurred()) return PyRef();
        const ColumnPlan& column = m_plan.Columns[static_cast<size_t>(index)];
        if (column.Read == ReadNothing) {
            return column.Cell.DataType == DBTYPE_BINARY
                       ? Raise(NotSupportedError, "Binary type not supported yet")
                       : RaiseProviderError(m_dbs, VORDA_INDEX_OUT_OF_RANGE);
        }
        const DbExtent extent = column.Cell.Extent();
        const char* const text = column.Cell.Text;
        PyRef value(DecodeText(text, extent.Length));
        if (!value) {
            return PyErr_Occurred() ? PyRef() : RaiseNotUtf8(text, extent.Length, NameOf(index));
        }
        if (extent.IsTruncated) m_truncations.push_back({index, extent, NameOf(index)});
        return value;
    }

    std::string NameOf(int index) {
        ColumnDescription column;
        m_dbs.DescribeColumn(index, column);
        return column.Name;
    }

    static bool Warn(const Truncation& truncation) {
        const char* const name = truncation.ColumnName.c_str();
        const int result =
            truncation.Extent.Reported >= 0
                ? PyErr_WarnFormat(PyExc_RuntimeWarning, 1,
                                   "The text of column '%s' is truncated from %lld bytes to %d.",
                                   name, truncation.Extent.Reported, truncation.Extent.Length)
                : PyErr_WarnFormat(PyExc_RuntimeWarning, 1,
                                   "The text of column '%s' is truncated to %d bytes; the provider "
                                   "does not tell its whole length.",
                                   name, truncation.Extent.Length);
        return result == 0;
    }

    bool MakeDecimals() {
        for (const int column : m_plan.Decimals) {
            if (!MakeDecimal(m_row->values[column])) return false;
        }
        return true;
    }

    bool MakeDecimal(PyObject*& slot) {
        if (slot == Py_None) return true;
        if (!m_plan.DecimalClass) m_plan.DecimalClass = GetPyClass("decimal", "Decimal");
        if (!m_plan.DecimalClass) return false;
        PyObject* const value =
            PyObject_CallFunctionObjArgs(m_plan.DecimalClass.Get(), slot, nullptr);
        if (value == nullptr) return false;
        const PyRef text(std::exchange(slot, value));
        return true;
    }

    Dbs& m_dbs;
    RowPlan& m_plan;
    PyRow* m_row;
    std::vector<Truncation> m_truncations;
};

// Few rows come here, or to FinishRow: kept apart, they cost the others nothing.
[[gnu::noinline]] void MakePlan(PyCursor* cursor) {
    if (!cursor->Plan) cursor->Plan.reset(new RowPlan);
    cursor->Plan->Make(*cursor->dbs);
}

// What ReadPlainColumns has left of a row. The cursor goes without its plan meanwhile: the code
// that a row runs may fetch from it, too.
[[gnu::noinline]] bool FinishRow(PyCursor* cursor, PyRow* row, bool isWhole) {
    auto plan = std::move(cursor->Plan);
    const bool isMade = RowReader(*cursor->dbs, *plan, row).Read(isWhole);
    cursor->Plan = std::move(plan);
    return isMade;
}

}  // namespace

void DeleteRowPlan::operator()(RowPlan* plan) const {
    delete plan;
}

PyRef PyRow_New(PyCursor* cursor) {
    Dbs& dbs = *cursor->dbs;
    if (dbs.FetchFailed()) return RaiseProviderError(dbs, VORDA_ODBC_ERROR);
    if (!cursor->Plan || cursor->Plan->ResultNumber != dbs.GetResultNumber()) MakePlan(cursor);
    const RowPlan& plan = *cursor->Plan;
    PyRef object = NewRow(plan.Columns.size(), cursor->Connection->encoding, cursor->Description);
    if (!object) return object;
    const auto row = reinterpret_cast<PyRow*>(object.Get());
    const bool isWhole = ReadPlainColumns(plan, row);
    const bool isMade = (isWhole && plan.Decimals.empty()) || FinishRow(cursor, row, isWhole);
    return isMade ? std::move(object) : PyRef();
}
