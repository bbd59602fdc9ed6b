// Rows of a result as Arrow's columns.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "dbapi/block.h"

// Memory that grows at its end, for values of one kind.
class Buffer {
  public:
    // Room for so many values more, not set; throws std::bad_alloc.
    template <class T>
    T* Append(size_t count) {
        Reserve(m_size + count * sizeof(T));
        m_size += count * sizeof(T);
        return As<T>() + m_size / sizeof(T) - count;
    }
    template <class T>
    T* As() const {
        return reinterpret_cast<T*>(m_data.get());
    }
    size_t Size() const { return m_size; }
    // Keeps the first bytes, and memory for no more.
    void Shrink(size_t size);

  private:
    struct Freed {
        void operator()(char* memory) const { std::free(memory); }
    };
    void Reserve(size_t size) {
        if (size > m_capacity) Resize(size < 2 * m_capacity ? 2 * m_capacity : size);
    }
    void Resize(size_t capacity);

    std::unique_ptr<char, Freed> m_data;
    size_t m_size = 0;
    size_t m_capacity = 0;
};

// The values of one column, and whether they are there.
struct FrameColumn {
    Buffer validity;  // a bit for each row, empty when there are no NULLs
    Buffer values;    // or where texts begin and end
    Buffer bytes;     // of texts and binary data
    bool hasBytes = false;
    std::int64_t nulls = 0;
};

// Rows that do not change any more: many may hold them, in any thread.
struct FrameBatch {
    std::int64_t rows = 0;
    std::vector<FrameColumn> columns;
};

struct FrameField {
    std::string name;
    std::string format;  // as Arrow writes types
};
using FrameSchema = std::vector<FrameField>;

struct ArrowType;

// A column while it grows.
struct GrowingColumn : FrameColumn {
    const ArrowType* type = nullptr;
    bool isOpen = false;    // its first value decides what type it has
    bool mayChange = true;  // no batch is finished
    int precision = 0;      // of decimals: as declared, at last as it is
    int digits = 0;         // before the point, for which there is room
    int scale = 0;
};

// Makes batches of the rows of blocks. Needs no interpreter lock.
class FrameBuilder {
  public:
    // For batches of at most so many rows; fewer, where they are large.
    explicit FrameBuilder(size_t rows) : m_most(rows) {}
    bool HasBegun() const { return !m_columns.empty(); }
    bool IsEmpty() const { return m_rows == 0; }
    void Begin(const std::vector<ColumnInfo>& columns);
    bool IsFull() const;
    // Takes rows that are at hand; throws a CellFailure, after which it is of no use.
    void Append(Block& block);
    // The rows so far. From here on the types stay as they are.
    std::shared_ptr<const FrameBatch> Finish();
    FrameSchema Schema() const;

  private:
    const size_t m_most;
    size_t m_rows = 0;
    std::vector<std::string> m_names;
    std::vector<GrowingColumn> m_columns;
};
