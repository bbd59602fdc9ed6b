#pragma once

#include <sql.h>
#include <sqlext.h>

#include <stdexcept>
#include <string>

#include "values/cell.h"
#include "values/columntype.h"

namespace embedded {

/// Where a converted value goes.
struct Target {
    void* buffer;
    SQLLEN capacity;      ///< bytes; for text and binary only
    SQLLEN* indicator;    ///< receives the length or SQL_NULL_DATA; may be null
    size_t* partOffset;   ///< bytes read before, in parts; null for a bound column
    bool tagged = false;  ///< the buffer is a `VordaCell`
};

enum class Delivery {
    Whole,
    Truncated,  ///< a text or binary value did not fit its buffer
    Nothing,    ///< all of the value was read before
};

/// A value that the bound C type cannot hold exactly. The caller adds the column and the row.
class ConversionError : public std::runtime_error {
  public:
    ConversionError(const char* state, const std::string& what)
        : std::runtime_error(what), m_state(state) {}
    const char* state() const noexcept { return m_state; }

  private:
    const char* m_state;
};

/// Stores a cell that is not NULL into a target, exactly or not at all.
using Converter = Delivery (*)(const Cell& cell, const ColumnType& column, const Target& target);

/// Whether values can be delivered in the C type `cType`. SQL_C_DEFAULT can.
bool isDeliverable(SQLSMALLINT cType) noexcept;

/// Bytes from value to value in a bound array of a deliverable C type; 0 for those whose buffer
/// length says it.
size_t elementSize(SQLSMALLINT cType, const ColumnType& column) noexcept;

/// The conversion of a column into a deliverable C type, chosen once per column, not per value.
Converter converterFor(SQLSMALLINT cType, const ColumnType& column) noexcept;

/// Stores SQL_NULL_DATA; throws 22002 when there is neither an indicator nor a tag to say so.
Delivery deliverNull(const Target& target);

}  // namespace embedded
