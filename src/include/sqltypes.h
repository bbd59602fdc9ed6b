// ODBC types, constants and prototypes for the whole module. Nothing else includes the system's
// headers.
#pragma once

// Keeps the narrow and the wide names apart whatever a build defines: this system calls both.
#define SQL_NOUNICODEMAP
#include <sql.h>
#include <sqlext.h>
#include <sqlucode.h>

#include <cstdint>

// Success is judged on the low 16 bits of a status: SQL_SUCCESS or SQL_SUCCESS_WITH_INFO.
inline bool OdbcSucceeded(SQLRETURN status) {
    return static_cast<std::uint16_t>(status) < 2;
}

// The runtime's wide entry points take 8-bit UTF-8 text and count lengths in bytes, although their
// standard prototypes say SQLWCHAR*. These two conversions, and nothing else, carry such text
// across; the pointer must never be read as 16-bit units.

// Text that the callee only reads.
inline SQLWCHAR* AsWideText(const char* utf8) {
    return reinterpret_cast<SQLWCHAR*>(const_cast<char*>(utf8));
}

// A buffer that the callee fills with 8-bit text; its size, too, is passed in bytes.
inline SQLWCHAR* AsWideBuffer(char* utf8) {
    return reinterpret_cast<SQLWCHAR*>(utf8);
}
