#include "dbapi/arraytext.h"

#include <charconv>
#include <cmath>
#include <cstdio>

namespace {

constexpr unsigned kNanosecondsPerMicrosecond = 1000;

template <class Number>
void AppendNumber(std::string& text, Number number) {
    char digits[32];
    const auto end = std::to_chars(digits, digits + sizeof digits, number).ptr;
    text.append(digits, end);
}

}  // namespace

void ArrayText::Add(const Value& value) {
    m_text += m_text.empty() ? '{' : ',';
    if (value.isNull) {
        m_text += "NULL";
        return;
    }
    char text[64];
    switch (value.cType) {
        case SQL_C_BIT:
            m_text += value.integer != 0 ? 't' : 'f';
            break;
        case SQL_C_SBIGINT:
            AppendNumber(m_text, value.integer);
            break;
        case SQL_C_DOUBLE:
            // Of a NaN the server knows no sign.
            if (std::isnan(value.real)) {
                m_text += "NaN";
            } else {
                AppendNumber(m_text, value.real);
            }
            break;
        case SQL_C_TYPE_DATE:
            std::snprintf(text, sizeof text, "%04d-%02d-%02d", value.day.year, value.day.month,
                          value.day.day);
            m_text += text;
            break;
        case SQL_C_TYPE_TIMESTAMP:
            std::snprintf(text, sizeof text, "\"%04d-%02d-%02d %02d:%02d:%02d.%06u\"",
                          value.stamp.year, value.stamp.month, value.stamp.day, value.stamp.hour,
                          value.stamp.minute, value.stamp.second,
                          static_cast<unsigned>(value.stamp.fraction / kNanosecondsPerMicrosecond));
            m_text += text;
            break;
        case SQL_C_BINARY:
            AddHex(value.bytes);
            break;
        default:
            AddQuoted(value.bytes);
    }
}

std::string_view ArrayText::Finish() {
    m_text += m_text.empty() ? "{}" : "}";
    return m_text;
}

void ArrayText::AddQuoted(std::string_view text) {
    m_text += '"';
    for (size_t special; (special = text.find_first_of("\"\\")) != text.npos;) {
        m_text.append(text.substr(0, special)).append(1, '\\').append(1, text[special]);
        text.remove_prefix(special + 1);
    }
    m_text.append(text).append(1, '"');
}

void ArrayText::AddHex(std::string_view bytes) {
    constexpr const char* kDigits = "0123456789abcdef";
    m_text += "\"\\\\x";
    for (const char byte : bytes) {
        const auto number = static_cast<unsigned char>(byte);
        m_text += kDigits[number >> 4U];
        m_text += kDigits[number & 0xFU];
    }
    m_text += '"';
}
