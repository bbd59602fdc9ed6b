// Cursor.executemany: each parameter column is bound as an array of its values in all rows, and the
// statement runs once. As in execute, everything that can run Python code comes first: the values
// are gathered, the cursor is looked at again, and only then does the provider hear of the batch.
#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <vector>

#include "include/binding.h"
#include "include/conversion.h"
#include "include/cursor.h"
#include "include/errors.h"
#include "include/metadata.h"

namespace {

// A column of the batch, as its value in the first row decides.
struct Column {
    const ParamKind* Kind;  // null: cannot be sent
    PyTypeObject* Type;
    // After a None or a value that cannot be sent, the rest of the column is not looked at.
    bool IsLookedAt;

    explicit Column(PyObject* first)
        : Kind(ParamKindOf(first)),
          Type(Py_TYPE(first)),
          IsLookedAt(Kind != nullptr && Kind->Batch.Type != DBTYPE_NONE) {}
    // Dates and times go as their text.
    bool IsMadeText() const { return Kind->Batch.IsText() && !Kind->Single.IsText(); }
};

struct Batch {
    // What execute would drop of a value.
    struct Lost {
        unsigned Losses;
        Py_ssize_t Row, Column;
    };

    int Rows = 0;
    int Width = 0;  // in columns
    std::vector<Column> Columns;
    std::vector<PyRef> Values;  // row by row; dates and times as their text
    std::vector<Lost> Losses;   // each the first of its kind in its column

    PyObject* At(int row, int column) const {
        return Values[static_cast<size_t>(row) * static_cast<size_t>(Width) +
                      static_cast<size_t>(column)]
            .Get();
    }
    const Column& At(Py_ssize_t column) const { return Columns[static_cast<size_t>(column)]; }
};

bool RowError(const char* what, Py_ssize_t row, Py_ssize_t position) {
    RaiseFromCurrent(ProgrammingError, "%s at row [%zd], position [%zd] of executemany.", what, row,
                     position);
    return false;
}

void NoteLosses(unsigned losses, Py_ssize_t row, Py_ssize_t column, Batch& batch) {
    for (const Batch::Lost& noted : batch.Losses) {
        if (noted.Column == column) losses &= ~noted.Losses;
    }
    if (losses != 0) batch.Losses.push_back({losses, row, column});
}

bool GatherValue(PyRef&& value, Py_ssize_t row, Py_ssize_t position, Batch& batch) {
    if (row == 0) batch.Columns.emplace_back(value.Get());
    const Column& column = batch.At(position);
    if (column.IsLookedAt) {
        if (Py_TYPE(value.Get()) != column.Type && !column.Kind->Fits(value.Get())) {
            return RowError("The value is of another type than in the first row", row, position);
        }
        if (column.Kind->Losses != nullptr) {
            const unsigned losses = column.Kind->Losses(value.Get());
            if (losses != 0) NoteLosses(losses, row, position, batch);
        }
        // Made here, since a subclass makes its text with code of its own.
        if (column.IsMadeText()) value = DateTimeAsText(value.Get());
        if (!value) return false;
    }
    batch.Values.push_back(std::move(value));
    return true;
}

bool GatherRow(PyObject* row, Py_ssize_t number, Batch& batch) {
    // Most rows are tuples, which need nobody to be asked for their items.
    const bool isTuple = PyTuple_CheckExact(row);
    if (!isTuple && !PySequence_Check(row)) {
        Raise(ProgrammingError, "Row [%zd] of executemany is not a sequence.", number);
        return false;
    }
    const Py_ssize_t size = isTuple ? PyTuple_GET_SIZE(row) : PySequence_Size(row);
    if (size < 0) return false;
    if (number == 0) {
        if (size > USHRT_MAX) return RowError("There is no room for a parameter", 0, USHRT_MAX);
        batch.Width = static_cast<int>(size);
        batch.Values.reserve(static_cast<size_t>(batch.Rows) * static_cast<size_t>(size));
    } else if (size != batch.Width) {
        return RowError(size < batch.Width ? "A value is missing" : "There is a value too many",
                        number, std::min<Py_ssize_t>(size, batch.Width));
    }
    for (Py_ssize_t i = 0; i < size; ++i) {
        PyRef value =
            isTuple ? PyRef::Borrow(PyTuple_GET_ITEM(row, i)) : PyRef(PySequence_GetItem(row, i));
        if (!value || !GatherValue(std::move(value), number, i, batch)) return false;
    }
    return true;
}

bool GatherRows(PyObject* rows, Batch& batch) {
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
        if (!row || !GatherRow(row.Get(), r, batch)) return false;
    }
    return true;
}

// A None in the first row makes the whole column None, whatever the other rows hold.
bool WarnAboutHiddenValues(const Batch& batch) {
    for (int column = 0; column < batch.Width; ++column) {
        const ParamKind* const kind = batch.At(column).Kind;
        if (kind == nullptr || kind->Batch.Type != DBTYPE_NONE) continue;
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

// A text, also that of a date or a time, is sent whole here, and by execute not.
bool WarnAboutLosses(const Batch& batch) {
    constexpr struct {
        unsigned Loss;
        const char* How;
    } kHows[] = {
        {kBehindNul, "whole, although execute truncates it at its NUL character"},
        {kFraction, "with its fraction of a second, which execute drops"},
        {kTimeZone, "with its time zone, which execute drops"},
    };
    for (const Batch::Lost& lost : batch.Losses) {
        for (const auto& [loss, how] : kHows) {
            if ((lost.Losses & loss) != 0 &&
                PyErr_WarnFormat(PyExc_RuntimeWarning, 1,
                                 "The %s at row [%zd], position [%zd] of executemany is sent %s.",
                                 batch.At(lost.Column).Kind->Name, lost.Row, lost.Column,
                                 how) < 0) {
                return false;
            }
        }
    }
    return true;
}

// One column of a batch as an array, in the form in which the layer below copies it.
class ColumnArray {
  public:
    // False with an error set when a value cannot be sent.
    bool Make(const Batch& batch, int column) {
        const Encoding& encoding = batch.At(column).Kind->Batch;
        if (encoding.Put != nullptr) return PutFixed(batch, column, encoding);
        if (encoding.IsText()) return PutTexts(batch, column);
        m_lengths.resize(static_cast<size_t>(batch.Rows));
        return true;
    }

    int Add(Dbs& dbs, int column, int type) const {
        return dbs.AddParam(column, type, m_slots.get(), static_cast<int>(m_width),
                            m_lengths.data());
    }

  private:
    void MakeSlots(size_t width, int rows) {
        if (width > INT_MAX) throw std::bad_alloc();
        m_width = width;
        m_slots.reset(new char[width * static_cast<size_t>(rows) + 1]);
    }

    bool PutFixed(const Batch& batch, int column, const Encoding& encoding) {
        MakeSlots(static_cast<size_t>(encoding.Size), batch.Rows);
        m_lengths.assign(static_cast<size_t>(batch.Rows), encoding.Size);
        char* slot = m_slots.get();
        for (int row = 0; row < batch.Rows; ++row, slot += m_width) {
            if (!encoding.Put(batch.At(row, column), slot)) {
                return RowError("Invalid value", row, column);
            }
        }
        return true;
    }

    bool PutTexts(const Batch& batch, int column) {
        // The encoded forms, all alive until the widest is known. An ASCII text is its own.
        std::vector<const char*> texts(static_cast<size_t>(batch.Rows));
        std::vector<PyRef> encoded;
        m_lengths.resize(texts.size());
        Py_ssize_t width = 0;
        for (int row = 0; row < batch.Rows; ++row) {
            PyObject* const value = batch.At(row, column);
            const char*& text = texts[static_cast<size_t>(row)];
            Py_ssize_t length;
            if (PyUnicode_IS_COMPACT_ASCII(value)) {
                text = static_cast<const char*>(PyUnicode_DATA(value));
                length = PyUnicode_GET_LENGTH(value);
            } else {
                if (HasSurrogate(value)) return RowError("Invalid value", row, column);
                PyRef bytes(PyUnicode_AsUTF8String(value));
                if (!bytes) return false;
                text = PyBytes_AS_STRING(bytes.Get());
                length = PyBytes_GET_SIZE(bytes.Get());
                encoded.push_back(std::move(bytes));
            }
            width = std::max(width, length);
            m_lengths[static_cast<size_t>(row)] = static_cast<int>(length);
        }
        MakeSlots(static_cast<size_t>(width), batch.Rows);
        char* slot = m_slots.get();
        for (size_t row = 0; row < texts.size(); ++row, slot += m_width) {
            std::memcpy(slot, texts[row], static_cast<size_t>(m_lengths[row]));
        }
        return true;
    }

    std::unique_ptr<char[]> m_slots;
    size_t m_width = 0;
    std::vector<int> m_lengths;
};

// Binds a column to the prepared statement; false with an error set.
bool BindColumn(Dbs& dbs, const Batch& batch, int column) {
    const ParamKind* const kind = batch.At(column).Kind;
    if (kind == nullptr) {
        Raise(NotSupportedError, "Unsupported data type at position [%d] of arguments.", column);
        return false;
    }
    ColumnArray array;
    if (!array.Make(batch, column)) return false;
    const int status = array.Add(dbs, column, kind->Batch.Type);
    if (status != VORDA_OK) RaiseProviderError(dbs, status);
    return status == VORDA_OK;
}

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

PyRef ExecuteBatch(PyCursor* cursor, const Utf8Text& sql, const Batch& batch) {
    Dbs& dbs = *cursor->dbs;
    BatchSize batchSize(cursor->Connection);
    int status = batchSize.Set(batch.Rows);
    if (status == VORDA_OK) status = dbs.Prepare(sql.Deref(), sql.Length());
    if (status != VORDA_OK) return RaiseProviderError(dbs, status);

    for (int column = 0; column < batch.Width; ++column) {
        if (!BindColumn(dbs, batch, column)) return PyRef();
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
    const auto sql = AsUtf8(PyTuple_GET_ITEM(args, 0));
    if (!sql) {
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
    Batch batch;
    if ((sql->IsTruncated() && !WarnAboutNul(PyTuple_GET_ITEM(args, 0), "statement", 0)) ||
        !GatherRows(rows.Get(), batch) || !WarnAboutHiddenValues(batch) ||
        !WarnAboutLosses(batch) || !CompareMarkers(self, sql->Deref(), batch.Width)) {
        return PyRef();
    }
    return ExecuteBatch(cursor, *sql, batch);
}
