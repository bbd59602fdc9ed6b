// A prepared statement: its parameters, the rows of its last execution, and what describes them.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "dbapi/batch.h"
#include "dbapi/block.h"
#include "dbapi/database.h"
#include "dbapi/framebuilder.h"
#include "dbapi/values.h"

// Belongs to one cursor at a time, or to the link's store. What calls the runtime is for the holder
// of the link's turn, and needs no interpreter lock; all else needs that.
class Statement {
  public:
    // One that can ask the catalogue. For the holder of the turn.
    explicit Statement(Database& database);
    ~Statement();
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    // Makes it one for a text, a str, which it keeps; its result is closed.
    void SetText(PyObject* text);
    bool IsFor(PyObject* text) const {
        return text == m_text.Get() ||
               (PyObject_Hash(text) == m_hash && PyUnicode_Compare(text, m_text.Get()) == 0);
    }
    Py_hash_t Hash() const { return m_hash; }  // of the text
    bool HasText() const { return m_text.Get() != nullptr; }
    // Whether the text came before this statement was made for it, or has come again since.
    bool CameBefore() const { return m_cameBefore; }
    void ComesAgain() { m_cameBefore = true; }
    SQLHSTMT Handle() const { return m_handle; }
    // Asks the catalogue by what calls a function of it, and loads the first rows.
    void Ask(const std::function<SQLRETURN(SQLHSTMT)>& function);
    // Executes, and loads the first rows. The values' bytes must last until the end.
    void Execute(const std::vector<Value>& values);
    // Executes for each row of a batch, at once or one by one, and answers how many rows changed;
    // rows that it yields are dropped.
    SQLLEN ExecuteBatch(Batch& batch);
    SQLLEN ExecuteEach(Batch& batch);
    // Goes on to the next result; whether there is one.
    bool NextResult();

    // Whether the last execution gave columns.
    bool HasColumns() const { return m_columnCount > 0; }
    // Rows changed, -1 when that is no question.
    SQLLEN RowCount() const { return m_rowCount; }

    // Whether no row is at hand, and more may come: time to load.
    bool WantsLoading() const {
        return m_hasRows && !m_block.HasRow() && !m_failed && !m_lost.state;
    }
    // Whether that needs no wait.
    bool KnowsEnd() const { return m_block.KnowsEnd(); }
    void Load();
    // The next row as a tuple, or null after the last. A failure behind the rows so far is thrown
    // when they are read; one of a row, when that comes; one of a cell, as a CellFailure.
    PyRef NextRow();

    // Takes rows into a batch until it is full or they are over, loading more; for the holder of
    // the turn, without the interpreter lock.
    void Fill(FrameBuilder& frame);

    bool IsDescribed() const { return m_isDescribed; }
    // What DB-API calls the description; the columns are described by the runtime at most once for
    // each result.
    void Describe();
    PyRef Description() const;
    // Of a column counted from 0; empty when it is not described.
    std::string NameOf(size_t column) const {
        return column < m_columns.size() ? m_columns[column].name : std::string();
    }

    // The id of the row inserted last; false where there is none.
    bool LastRowId(SQLBIGINT& id) const;

    // Ends the result, so that the statement can be executed again.
    void Close();
    // Why rows are over before their end: literals, since this must not fail.
    struct Reason {
        const char* state = nullptr;
        const char* words = nullptr;
    };
    // Frees the handle. Whatever is asked for later is over, for that reason.
    void Release(Reason reason) noexcept;
    // Takes the rows away, for the same.
    void Lose(Reason reason) noexcept;

  private:
    struct Parameter {
        SQLSMALLINT cType = 0;
        SQLSMALLINT sqlType = 0;
        const void* bound = nullptr;
        SQLLEN indicator = 0;
        alignas(SQLBIGINT) char fixed[sizeof(SQL_TIMESTAMP_STRUCT)] = {};
        std::string text;
    };

    // Lets the runtime forget bound parameters at the end of what binds its own.
    class Bound {
      public:
        explicit Bound(Statement& statement) : m_statement(statement) { Reset(); }
        ~Bound() { Reset(); }
        Bound(const Bound&) = delete;
        Bound& operator=(const Bound&) = delete;

      private:
        void Reset() const {
            SQLFreeStmt(m_statement.m_handle, SQL_RESET_PARAMS);
            m_statement.m_parameters.clear();
        }
        Statement& m_statement;
    };

    void SetTimeout();
    void Prepare(size_t values);
    void Bind(const std::vector<Value>& values);
    SQLLEN Changed(SQLRETURN status);
    void BindOne(size_t index, const Value& value);
    void CheckEnd();
    void Executed(SQLRETURN status);
    void Called(SQLRETURN status) const { Check(status, SQL_HANDLE_STMT, m_handle); }

    Database& m_database;
    PyRef m_text;
    Py_hash_t m_hash = -1;
    const char* m_utf8 = nullptr;
    Py_ssize_t m_length = 0;
    SQLHSTMT m_handle = nullptr;
    bool m_cameBefore = false;
    bool m_prepared = false;
    int m_parameterCount = -1;  // markers, -1 if the driver does not tell
    std::vector<Parameter> m_parameters;
    long m_timeout = 0;

    SQLSMALLINT m_columnCount = 0;
    SQLLEN m_rowCount = -1;
    bool m_hasRows = false;  // and they are not over
    bool m_isOpen = false;   // the runtime has a cursor
    bool m_isDescribed = false;
    std::vector<ColumnInfo> m_columns;
    Block m_block;
    std::unique_ptr<Failure> m_failed;
    Reason m_lost;
};
