// Making a Row of the provider's current row. It goes in two passes. The first reads every column
// into an object that CPython can make without running any Python code; the second finishes the
// values that need some (a class of the program's choosing, a warning), and no longer touches the
// provider, which that code may have closed.
#include <memory>
#include <vector>

#include "include/conversion.h"
#include "include/errors.h"
#include "include/pydatetime.h"
#include "include/row.h"

namespace {

class RowReader {
  public:
    RowReader(Dbs& dbs, PyRow* row) : m_dbs(dbs), m_row(row) {}

    bool ReadColumns() {
        for (int column = 0; column < m_row->columns; ++column) {
            PyRef value = ReadColumn(column);
            if (!value) return false;
            Store(column, std::move(value));
        }
        return true;
    }

    bool Finish() { return WarnAboutCuts() && MakeDecimals(); }

  private:
    struct Cut {
        DynStr ColumnName;
        int Kept = 0;
        long long Reported = 0;
    };

    void Store(int column, PyRef value) {
        const PyRef old(std::exchange(m_row->values[column], value.Release()));
    }

    // Reads a value with a getter and makes an object of it; NULL becomes None.
    template <class Value, class Make>
    PyRef Read(int column, int (Dbs::*getter)(int, Value*), Make make) {
        Value value{};
        const int status = (m_dbs.*getter)(column, &value);
        if (status == VORDA_OK) return PyRef(make(value));
        return status > 0 ? RaiseProviderError(m_dbs, status) : PyRef::Borrow(Py_None);
    }

    // The provider's nanoseconds. GetTime hands them on whole, for a timestamp column too.
    int Fraction(int column) {
        _db_time_ time{};
        m_dbs.GetTime(column, &time);
        return time.Millisecond;
    }

    PyRef ReadText(int column, const DbColumnInfo& info) {
        char* text = nullptr;
        int length = 0;
        const int status = m_dbs.GetStringAsUTF8(column, &text, &length);
        if (status > 0) return RaiseProviderError(m_dbs, status);
        if (status < 0) return PyRef::Borrow(Py_None);
        PyRef value(PyUnicode_DecodeUTF8(text, length, "strict"));
        if (!value) {
            if (!PyErr_ExceptionMatches(PyExc_UnicodeError)) return PyRef();
            return RaiseFromCurrent(DatabaseError, "The text of column '%s' is not valid UTF-8.",
                                    info.ColumnName.Deref());
        }
        NoteCut(column, info, length);
        return value;
    }

    void NoteCut(int column, const DbColumnInfo& info, int length) {
        long long reported = 0;
        if (!m_dbs.IsCut(column, &reported)) return;
        auto cut = std::make_unique<Cut>();
        cut->ColumnName.Set(info.ColumnName.Deref(), info.ColumnName.Length());
        cut->Kept = length;
        cut->Reported = reported;
        m_cuts.push_back(std::move(cut));
    }

    PyRef ReadColumn(int column) {
        const DbColumnInfo info = m_dbs.GetColumnInfo(column);
        const int scale = info.Scale;
        switch (info.DataType) {
            case DBTYPE_BINARY:
                return Raise(NotSupportedError, "Binary type not supported yet");
            case DBTYPE_TINYINT:
            case DBTYPE_SMALLINT:
            case DBTYPE_INTEGER:
                return Read(column, &Dbs::GetInt, [](int v) { return PyLong_FromLong(v); });
            case DBTYPE_BIT:
                return Read(column, &Dbs::GetInt, [](int v) { return PyBool_FromLong(v); });
            case DBTYPE_BIGINT:
                return Read(column, &Dbs::GetBigint,
                            [](long long v) { return PyLong_FromLongLong(v); });
            case DBTYPE_DOUBLE:
            case DBTYPE_FLOAT:
                return Read(column, &Dbs::GetDouble,
                            [](double v) { return PyFloat_FromDouble(v); });
            case DBTYPE_DATE:
                return Read(column, &Dbs::GetDate, [](const _db_date_& v) {
                    return PyDate_FromDate(v.Year, v.Month, v.Day);
                });
            case DBTYPE_DATETIME:
                return Read(column, &Dbs::GetDateTime, [&](const _db_datetime_& v) {
                    return PyDateTime_FromDateAndTime(v.Year, v.Month, v.Day, v.Hour, v.Minute,
                                                      v.Second,
                                                      MicrosecondsFrom(Fraction(column), scale));
                });
            case DBTYPE_TIME:
                return Read(column, &Dbs::GetTime, [&](const _db_time_& v) {
                    return PyTime_FromTime(v.Hour, v.Minute, v.Second,
                                           MicrosecondsFrom(v.Millisecond, scale));
                });
            case DBTYPE_NUMERIC:
            case DBTYPE_DECIMAL:
                m_decimals.push_back(column);
                return ReadText(column, info);
            default:
                return ReadText(column, info);
        }
    }

    bool WarnAboutCuts() {
        for (const auto& cut : m_cuts) {
            const char* const name = cut->ColumnName.Deref();
            const int result =
                cut->Reported >= 0
                    ? PyErr_WarnFormat(PyExc_RuntimeWarning, 1,
                                       "The text of column '%s' is cut from %lld bytes to %d.",
                                       name, cut->Reported, cut->Kept)
                    : PyErr_WarnFormat(PyExc_RuntimeWarning, 1,
                                       "The text of column '%s' is cut to %d bytes; the provider "
                                       "does not tell its whole length.",
                                       name, cut->Kept);
            if (result < 0) return false;
        }
        return true;
    }

    bool MakeDecimals() {
        for (const int column : m_decimals) {
            const PyRef text = PyRef::Borrow(m_row->values[column]);
            if (text.Get() == Py_None) continue;
            const PyRef decimalClass = GetPyClass("decimal", "Decimal");
            if (!decimalClass) return false;
            PyRef value(PyObject_CallFunctionObjArgs(decimalClass.Get(), text.Get(), nullptr));
            if (!value) return false;
            Store(column, std::move(value));
        }
        return true;
    }

    Dbs& m_dbs;
    PyRow* m_row;
    std::vector<std::unique_ptr<Cut>> m_cuts;
    std::vector<int> m_decimals;
};

}  // namespace

PyRef PyRow_New(PyCursor* cursor) {
    Dbs& dbs = *cursor->dbs;
    if (dbs.FetchFailed()) return RaiseProviderError(dbs, VORDA_ODBC_ERROR);
    PyRef row = NewRow(dbs.GetColumnCount(), cursor->Connection->encoding, cursor->Description);
    if (!row) return row;
    RowReader reader(dbs, reinterpret_cast<PyRow*>(row.Get()));
    if (!reader.ReadColumns() || !reader.Finish()) return PyRef();
    return row;
}
