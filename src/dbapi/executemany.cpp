// Executing a statement for many rows of parameters, in batches of bounded memory.
#include "dbapi/arraytext.h"
#include "dbapi/batch.h"
#include "dbapi/frameinput.h"
#include "dbapi/logging.h"
#include "dbapi/objects.h"

namespace {

// Makes several executions one: all of them or none.
class Atomic {
  public:
    explicit Atomic(Link& link) : m_link(link) {}
    Atomic(const Atomic&) = delete;
    Atomic& operator=(const Atomic&) = delete;
    ~Atomic() {
        using Undone = Link::Undone;
        if (m_began) m_link.Undo(m_ownTransaction ? Undone::Transaction : Undone::Savepoint);
        if (m_keepsOut) m_link.LetOthersIn();
    }

    void Begin() {
        if (m_began) return;
        // What other threads do in between would be undone, or committed, with it.
        if (!m_link.KeepsOut()) {
            m_link.KeepOthersOut();
            m_keepsOut = true;
        }
        const Link::Turn turn(m_link);
        m_link.FinishUndo();
        // One that BEGIN has opened is the user's, to commit or not.
        m_ownTransaction = m_link.Autocommit() && !m_link.InTransaction();
        if (m_ownTransaction) {
            m_link.SetAutocommit(false);
            m_began = true;  // whatever comes now
            m_link.BeginOnSqlite();
        } else {
            m_link.SetSavepoint();
        }
        m_began = true;
    }

    void Release() {
        if (!m_began) return;
        const Link::Turn turn(m_link);
        if (m_ownTransaction) {
            m_link.EndTransaction(true);
            m_link.SetAutocommit(true);
        } else {
            m_link.ReleaseSavepoint(true);
        }
        m_began = false;
    }

  private:
    Link& m_link;
    bool m_keepsOut = false;
    bool m_began = false;
    bool m_ownTransaction = false;
};

// One execution of executemany().
class Run {
  public:
    explicit Run(CursorObject* self) : m_self(self), m_within(*self->link), m_atomic(*self->link) {}

    void Add(PyObject* parameters, const PyRef& given) {
        PyRef sql = PyRef::Borrow(given.Get());
        ReadParameters(m_self, parameters, sql);
        AddValues(std::move(sql));
    }

    void AddAll(Input& input, const PyRef& sql) {
        const Sending sending = m_self->link->Behind().HowToSend();
        m_inArraysSql = std::move(input.inArrays);
        while (input.stream->NextRow()) {
            input.stream->Read(m_self->values, sending);
            AddValues(PyRef::Borrow(sql.Get()));
        }
    }

    SQLLEN Finish() {
        if (m_batch.Count() > 0) Flush();
        m_atomic.Release();
        return m_changed;
    }

  private:
    void AddValues(PyRef sql) {
        const bool isOther = m_sql && m_sql.Get() != sql.Get();
        if (isOther || !m_batch.Add(m_self->values)) {
            // There is more than one execution.
            m_atomic.Begin();
            Flush();
            m_batch.Add(m_self->values);
        }
        m_sql = std::move(sql);
        if (!m_inArraysSql) return;
        m_arrays.resize(m_self->values.size());
        for (size_t i = 0; i < m_arrays.size(); ++i) m_arrays[i].Add(m_self->values[i]);
    }

    void Flush() {
        if (!m_inArraysSql || !FlushAsArrays()) FlushRows();
        m_batch.Clear();
        for (ArrayText& array : m_arrays) array.Clear();
    }

    // All rows as one, with an array for each column. False where the data are refused, or the
    // statement: row by row it shows which of them, if any.
    bool FlushAsArrays() {
        std::vector<Value> row(m_arrays.size());
        for (size_t i = 0; i < row.size(); ++i) row[i].bytes = m_arrays[i].Finish();
        Batch arrays;
        arrays.Add(row);
        try {
            Execute(m_inArraysSql.Get(),
                    [&](Statement& statement) { return statement.ExecuteBatch(arrays); });
            return true;
        } catch (const Failure& failure) {
            const std::string kind = failure.Records().front().state.substr(0, 2);
            if (kind != "22" && kind != "23" && kind != "42") throw;
            m_inArraysSql = PyRef();
            return false;
        }
    }

    void FlushRows() {
        try {
            if (m_inArrays) {
                Execute(m_sql.Get(),
                        [&](Statement& statement) { return statement.ExecuteBatch(m_batch); });
            }
        } catch (const Failure& failure) {
            // No arrays, or not of this statement, which may yield rows.
            if (failure.Records().front().state != "HYC00") throw;
            m_inArrays = false;
        }
        if (!m_inArrays) {
            m_atomic.Begin();
            Execute(m_sql.Get(),
                    [&](Statement& statement) { return statement.ExecuteEach(m_batch); });
        }
    }

    template <class Work>
    void Execute(PyObject* sql, Work&& work) {
        Link& link = *m_self->link;
        Logged logged(sql, m_batch.Count() * m_batch.Width());
        const Link::Turn turn(link);
        Statement& statement = UseStatement(m_self, sql);
        SQLLEN changed = 0;
        link.Wait(statement.Handle(), [&] { changed = work(statement); });
        logged.Succeeded(changed);
        m_changed = Sum(m_changed, changed);
    }

    CursorObject* const m_self;
    const Link::Batch m_within;
    Atomic m_atomic;
    Batch m_batch;
    std::vector<ArrayText> m_arrays;  // of the rows in the batch
    PyRef m_sql;
    PyRef m_inArraysSql;
    bool m_inArrays = true;
    SQLLEN m_changed = 0;
};

}  // namespace

PyRef CursorExecuteMany(PyObject* object, PyObject* const* args, Py_ssize_t count) {
    if (count != 2 || !PyUnicode_Check(args[0])) {
        PyErr_SetString(PyExc_TypeError,
                        "executemany() takes a statement as str, and an iterable of parameters");
        return PyRef();
    }
    const Call call(object);
    CursorObject* const self = AsCursor(object);
    LinkOf(reinterpret_cast<PyObject*>(self->connection));
    const PyRef sql = Checked(PyUnicode_FromObject(args[0]));
    RefuseToEndBatch(*self->link, sql.Get());
    // Without any row, and where one fails, nothing is left of what came before.
    GiveStatementBack(self);
    self->rowCount = -1;
    Input input = InputOf(args[1]);
    const PyRef rows =
        input.stream ? PyRef() : Checked(InPython([&] { return PyObject_GetIter(args[1]); }));
    Run run(self);
    if (input.stream) run.AddAll(input, sql);
    const auto next = [&] { return rows ? PyIter_Next(rows.Get()) : nullptr; };
    while (const PyRef row{InPython(next)}) run.Add(row.Get(), sql);
    if (PyErr_Occurred()) throw PythonError();
    const SQLLEN changed = run.Finish();
    self->rowCount = changed;
    self->values.clear();
    return PyRef::Borrow(object);
}
