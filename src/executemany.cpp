// Cursor.executemany: each parameter column is bound as an array of its values in all rows, and the
// statement runs once. As in execute, everything that can run Python code comes first: the values
// are gathered, the cursor is looked at again, and only then does the provider hear of the batch.
#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include "include/binding.h"
#include "include/conversion.h"
#include "include/cursor.h"
#include "include/errors.h"
#include "include/metadata.h"

namespace {

struct Batch {
    int Rows = 0;
    int Columns = 0;
    std::vector<PyRef> Values;  // row by row; dates and times of the first row's kind as their text
    // By column, with the first row of each: what execute would drop.
    struct Unlike {
        Py_ssize_t Row;
        Py_ssize_t Column;
        ParamKind Kind;
        unsigned Losses;
    };
    std::vector<Unlike> Unlikes;
    std::vector<unsigned> Noted;

    PyObject* At(int row, int column) const {
        return Values[static_cast<size_t>(row) * static_cast<size_t>(Columns) +
                      static_cast<size_t>(column)]
            .Get();
    }
};

bool IsDateOrTime(ParamKind kind) {
    return kind == ParamKind::DateTime || kind == ParamKind::Date || kind == ParamKind::Time;
}

bool RowError(const char* what, Py_ssize_t row, Py_ssize_t position) {
    Raise(ProgrammingError, "%s at row [%zd], position [%zd] of executemany.", what, row, position);
    return false;
}

// A text, also that of a date or a time, is sent whole here, and by execute not.
void NoteLosses(PyObject* value, ParamKind kind, Py_ssize_t row, Py_ssize_t column, Batch& batch) {
    unsigned& noted = batch.Noted[static_cast<size_t>(column)];
    const unsigned losses = LossesOf(value) & ~noted;
    if (losses == 0) return;
    noted |= losses;
    batch.Unlikes.push_back({row, column, kind, losses});
}

bool GatherRow(PyObject* row, Py_ssize_t number, std::vector<ParamKind>& kinds, Batch& batch) {
    if (!PySequence_Check(row)) {
        Raise(ProgrammingError, "Row [%zd] of executemany is not a sequence.", number);
        return false;
    }
    const Py_ssize_t size = PySequence_Size(row);
    if (size < 0) return false;
    if (number == 0) {
        if (size > USHRT_MAX) return RowError("There is no room for a parameter", 0, USHRT_MAX);
        batch.Columns = static_cast<int>(size);
        batch.Values.reserve(static_cast<size_t>(batch.Rows) * static_cast<size_t>(size));
    } else if (size != batch.Columns) {
        return RowError(size < batch.Columns ? "A value is missing" : "There is a value too many",
                        number, std::min<Py_ssize_t>(size, batch.Columns));
    }
    for (Py_ssize_t i = 0; i < size; ++i) {
        const PyRef value(PySequence_GetItem(row, i));
        if (!value) return false;
        const ParamKind kind = ParamKindOf(value.Get());
        if (number == 0) kinds.push_back(kind);
        if (number == 0) batch.Noted.push_back(0);
        const ParamKind firstKind = kinds[static_cast<size_t>(i)];
        // After a None or a value that cannot be sent, the rest of the column is not looked at.
        const bool any = firstKind == ParamKind::None || firstKind == ParamKind::Unsupported;
        if (!any && kind != firstKind) {
            return RowError("The value is of another type than in the first row", number, i);
        }
        if (kind != ParamKind::Int && kind != ParamKind::Float) {
            NoteLosses(value.Get(), kind, number, i, batch);
        }
        // A date or a time is sent as its text, which is made here, since a subclass makes it with
        // code of its own.
        PyRef kept =
            IsDateOrTime(firstKind) ? DateTimeAsText(value.Get()) : PyRef::Borrow(value.Get());
        if (!kept) return false;
        batch.Values.push_back(std::move(kept));
    }
    return true;
}

bool GatherRows(PyObject* rows, std::vector<ParamKind>& kinds, Batch& batch) {
    const Py_ssize_t count = PySequence_Size(rows);
    if (count < 0) return false;
    if (count == 0) {
        Raise(ProgrammingError, "The second parameter to executemany must not be empty.");
        return false;
    }
    if (count > INT_MAX) {
        Raise(ProgrammingError, "The second parameter to executemany has too many rows.");
        return false;
    }
    batch.Rows = static_cast<int>(count);
    for (Py_ssize_t r = 0; r < count; ++r) {
        const PyRef row(PySequence_GetItem(rows, r));
        if (!row || !GatherRow(row.Get(), r, kinds, batch)) return false;
    }
    return true;
}

// A None in the first row makes the whole column None, whatever the other rows hold.
bool WarnAboutLostValues(const std::vector<ParamKind>& kinds, const Batch& batch) {
    for (int column = 0; column < batch.Columns; ++column) {
        if (kinds[static_cast<size_t>(column)] != ParamKind::None) continue;
        int row = 1;
        while (row < batch.Rows && batch.At(row, column) == Py_None) ++row;
        if (row < batch.Rows &&
            PyErr_WarnFormat(PyExc_RuntimeWarning, 1,
                             "The values at position [%d] of executemany are not sent, since the "
                             "first row has None there (the first one lost is in row [%d]).",
                             column, row) < 0) {
            return false;
        }
    }
    return true;
}

bool WarnAboutUnlikeValues(const Batch& batch) {
    constexpr struct {
        unsigned Loss;
        const char* How;
    } kHows[] = {
        {kBehindNul, "whole, although execute cuts it at its NUL character"},
        {kFraction, "with its fraction of a second, which execute drops"},
        {kTimeZone, "with its time zone, which execute drops"},
    };
    for (const Batch::Unlike& unlike : batch.Unlikes) {
        const char* const what = unlike.Kind == ParamKind::Text   ? "text"
                                 : unlike.Kind == ParamKind::Time ? "time"
                                                                  : "datetime";
        for (const auto& [loss, how] : kHows) {
            if ((unlike.Losses & loss) != 0 &&
                PyErr_WarnFormat(PyExc_RuntimeWarning, 1,
                                 "The %s at row [%zd], position [%zd] of executemany is sent %s.",
                                 what, unlike.Row, unlike.Column, how) < 0) {
                return false;
            }
        }
    }
    return true;
}

// Binds arrays of a batch to the prepared statement, column by column. The layer below copies them.
class ColumnBinder {
  public:
    ColumnBinder(Dbs& dbs, const Batch& batch) : m_dbs(dbs), m_batch(batch) {}

    // False with an error set.
    bool Bind(int column, ParamKind kind) {
        switch (kind) {
            case ParamKind::Text:
            case ParamKind::DateTime:
            case ParamKind::Date:
            case ParamKind::Time:
                return BindTexts(column);
            case ParamKind::Int:
                return BindFixed<long long>(column, DBTYPE_BIGINT, [](PyObject* v, long long& out) {
                    int overflow = 0;
                    out = PyLong_AsLongLongAndOverflow(v, &overflow);
                    return overflow == 0;
                });
            case ParamKind::Float:
                return BindFixed<double>(column, DBTYPE_DOUBLE, [](PyObject* v, double& out) {
                    GetPyObjectAsDouble(v, out);
                    return true;
                });
            case ParamKind::None:
                return BindNones(column);
            case ParamKind::Unsupported:
                break;
        }
        Raise(NotSupportedError, "Unsupported data type at position [%d] of arguments.", column);
        return false;
    }

  private:
    bool Added(int status) {
        if (status != VORDA_OK) RaiseProviderError(m_dbs, status);
        return status == VORDA_OK;
    }

    template <class Value, class Convert>
    bool BindFixed(int column, int type, Convert convert) {
        std::vector<Value> values(static_cast<size_t>(m_batch.Rows));
        for (int row = 0; row < m_batch.Rows; ++row) {
            if (!convert(m_batch.At(row, column), values[static_cast<size_t>(row)])) {
                return RowError("Invalid value", row, column);
            }
        }
        const std::vector<int> lengths(values.size(), int{sizeof(Value)});
        return Added(
            m_dbs.AddParam(column, type, values.data(), int{sizeof(Value)}, lengths.data()));
    }

    bool BindTexts(int column) {
        // The encoded forms, all alive until the widest is known. An ASCII text is its own.
        std::vector<std::string_view> texts;
        std::vector<PyRef> encoded;
        texts.reserve(static_cast<size_t>(m_batch.Rows));
        size_t width = 0;
        for (int row = 0; row < m_batch.Rows; ++row) {
            PyObject* const value = m_batch.At(row, column);
            if (PyUnicode_IS_COMPACT_ASCII(value)) {
                texts.emplace_back(static_cast<const char*>(PyUnicode_DATA(value)),
                                   static_cast<size_t>(PyUnicode_GET_LENGTH(value)));
            } else {
                if (HasSurrogate(value)) return RowError("Invalid value", row, column);
                PyRef text(PyUnicode_AsUTF8String(value));
                if (!text) return false;
                texts.emplace_back(PyBytes_AS_STRING(text.Get()),
                                   static_cast<size_t>(PyBytes_GET_SIZE(text.Get())));
                encoded.push_back(std::move(text));
            }
            width = std::max(width, texts.back().size());
        }
        if (width > INT_MAX) throw std::bad_alloc();
        std::unique_ptr<char[]> slots(new char[width * static_cast<size_t>(m_batch.Rows) + 1]);
        std::vector<int> lengths;
        lengths.reserve(texts.size());
        char* slot = slots.get();
        for (const std::string_view text : texts) {
            std::memcpy(slot, text.data(), text.size());
            lengths.push_back(static_cast<int>(text.size()));
            slot += width;
        }
        return Added(m_dbs.AddParam(column, DBTYPE_STRING, slots.get(), static_cast<int>(width),
                                    lengths.data()));
    }

    bool BindNones(int column) {
        const std::vector<int> lengths(static_cast<size_t>(m_batch.Rows), 0);
        return Added(m_dbs.AddParam(column, DBTYPE_NONE, nullptr, 0, lengths.data()));
    }

    Dbs& m_dbs;
    const Batch& m_batch;
};

// Sets the batch size for as long as it lives: whatever the way out, the next statement is a single
// one. An error on the way is an object, whose making may start the garbage collector and so any
// finaliser: what has to last is the connection, whose provider may be closed by then.
class BatchSize {
  public:
    explicit BatchSize(PyConnection* connection)
        : m_owner(PyRef::Borrow(reinterpret_cast<PyObject*>(connection))),
          m_connection(connection) {}
    ~BatchSize() {
        if (m_set && m_connection->dbs != nullptr) m_connection->dbs->SetBatchSize(1);
    }
    BatchSize(const BatchSize&) = delete;
    BatchSize& operator=(const BatchSize&) = delete;
    int Set(int rows) {
        m_set = true;
        return m_connection->dbs->SetBatchSize(rows);
    }
    int Reset() {
        m_set = false;
        return m_connection->dbs->SetBatchSize(1);
    }

  private:
    const PyRef m_owner;
    PyConnection* const m_connection;
    bool m_set = false;
};

PyRef ExecuteBatch(PyCursor* cursor, const DynStr& sql, const std::vector<ParamKind>& kinds,
                   const Batch& batch) {
    Dbs& dbs = *cursor->dbs;
    BatchSize batchSize(cursor->Connection);
    int status = batchSize.Set(batch.Rows);
    if (status == VORDA_OK) status = dbs.Prepare(sql.Deref(), sql.Length());
    if (status != VORDA_OK) return RaiseProviderError(dbs, status);

    ColumnBinder binder(dbs, batch);
    for (int column = 0; column < batch.Columns; ++column) {
        if (!binder.Bind(column, kinds[static_cast<size_t>(column)])) return PyRef();
    }
    status = dbs.Execute();
    if (status == VORDA_OK) status = batchSize.Reset();
    if (status != VORDA_OK) return RaiseProviderError(dbs, status);
    cursor->RowCount = dbs.GetRowCount();
    return PyRef::Borrow(reinterpret_cast<PyObject*>(cursor));
}

}  // namespace

PyRef PyCursor_ExecuteMany(PyObject* self, PyObject* args) {
    PyCursor* const cursor = CursorValidate(self, true, false);
    if (cursor == nullptr) return PyRef();
    cursor->RowCount = -1;
    switch (PyTuple_GET_SIZE(args)) {
        case 0:
            return Raise(ProgrammingError, "executemany() takes at least 1 argument (0 given)");
        case 1:
            return Raise(ProgrammingError,
                         "The second parameter to executemany must not be empty.");
        case 2:
            break;
        default:
            return Raise(ProgrammingError, "executemany() takes at most 2 arguments");
    }
    DynStr sql;
    if (GetArgumentAsString(args, 0, sql) != 0) {
        return Raise(ProgrammingError,
                     "The first argument to execute must be a string or unicode query.");
    }
    PyRef rows = PyRef::Borrow(PyTuple_GET_ITEM(args, 1));
    if (!PyIter_Check(rows.Get()) && !PySequence_Check(rows.Get())) {
        return Raise(ProgrammingError,
                     "The second parameter to executemany must be a sequence, iterator, or "
                     "generator.");
    }
    if (PyIter_Check(rows.Get())) {
        rows = PyRef(PySequence_Tuple(rows.Get()));
        if (!rows) {
            return RaiseFromCurrent(ProgrammingError,
                                    "The second parameter to executemany is invalid.");
        }
    }
    std::vector<ParamKind> kinds;
    Batch batch;
    if (!WarnIfCut(PyTuple_GET_ITEM(args, 0), "statement", 0) ||
        !GatherRows(rows.Get(), kinds, batch) || !WarnAboutLostValues(kinds, batch) ||
        !WarnAboutUnlikeValues(batch) || !CompareMarkers(self, sql.Deref(), batch.Columns)) {
        return PyRef();
    }
    return ExecuteBatch(cursor, sql, kinds, batch);
}
