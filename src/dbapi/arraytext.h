// A column of many rows as one value.
#pragma once

#include <string>

#include "dbapi/values.h"

// An array of values as the text that PostgreSQL reads.
class ArrayText {
  public:
    void Add(const Value& value);
    // Ends the array. Its text stays until it is cleared.
    std::string_view Finish();
    void Clear() { m_text.clear(); }

  private:
    void AddQuoted(std::string_view text);
    void AddHex(std::string_view bytes);

    std::string m_text;
};
