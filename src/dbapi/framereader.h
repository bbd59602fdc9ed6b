// Rows of a foreign Arrow stream as parameters. Nothing that the stream says is trusted but where
// its memory begins, for which its interface has no check.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "dbapi/arrow.h"
#include "dbapi/values.h"

struct ForeignType;

// An Arrow structure that is ours to release.
template <class Structure>
class Owned {
  public:
    Owned() = default;
    ~Owned() { Release(); }
    Owned(const Owned&) = delete;
    Owned& operator=(const Owned&) = delete;

    // For who fills it.
    Structure* Out() {
        Release();
        m_structure = {};
        return &m_structure;
    }
    // Moves it from where it was handed over; false if there is none any more.
    bool TakeFrom(Structure* given) {
        *Out() = *given;
        given->release = nullptr;
        return IsThere();
    }
    bool IsThere() const { return m_structure.release != nullptr; }
    Structure* operator->() { return &m_structure; }
    Structure* Get() { return &m_structure; }

  private:
    void Release() {
        if (IsThere()) m_structure.release(&m_structure);
        m_structure.release = nullptr;
    }

    Structure m_structure{};
};

struct ForeignColumn {
    std::string name;
    const ForeignType* type = nullptr;
    int precision = 0;  // of decimals
    int scale = 0;
    std::int64_t width = 0;  // bytes of a value of one size
    std::unique_ptr<ForeignColumn> dictionary;

    // Of the batch at hand.
    const ArrowArray* array = nullptr;
    std::int64_t first = 0;  // the index of the first row's value
    std::string text;        // of the row's value, if it has to be written out
};

class ForeignStream {
  public:
    // From an object with __arrow_c_stream__ or __arrow_c_array__. Under the interpreter lock.
    explicit ForeignStream(PyObject* data);
    ~ForeignStream();
    ForeignStream(const ForeignStream&) = delete;
    ForeignStream& operator=(const ForeignStream&) = delete;
    // Whether an object is one of these.
    static bool IsOneFor(PyObject* data);

    const std::vector<ForeignColumn>& Columns() const { return m_columns; }
    // Goes on to the next row; false behind the last. Under the interpreter lock, which others get
    // while the stream works.
    bool NextRow();
    // The row's values, which refer to the stream until its next row.
    void Read(std::vector<Value>& values, const Sending& sending);

  private:
    void TakeStream(PyObject* data);
    void TakeArray(PyObject* data);
    void ReadSchema();
    bool NextBatch();
    [[noreturn]] void Fail(int code);

    Owned<ArrowArrayStream> m_stream;
    Owned<ArrowSchema> m_schema;
    Owned<ArrowArray> m_batch;
    bool m_isOver = false;
    std::vector<ForeignColumn> m_columns;
    std::int64_t m_row = 0;
    std::int64_t m_rows = 0;  // of the batch
    unsigned long long m_rowsBefore = 0;
};

// What has a column's values: its dictionary, or itself.
inline const ForeignColumn& ValuedBy(const ForeignColumn& column) {
    return column.dictionary ? *column.dictionary : column;
}
// What a column's type is as SQL, by a name that the face knows.
const char* NameOfType(const ForeignColumn& column);
