// A runtime for tests: a library pair with the real runtime's names that records every call and
// answers as told. C++ tests link vorda_scripted_runtime; Python tests load it with ctypes and call
// these functions. Not thread-safe. All texts are 8-bit UTF-8. It models handles, prepare,
// parameters, execute, result sets, bound columns, fetch and diagnostics; every other function
// succeeds without effect.
#pragma once

#include "util/def.h"

#ifdef __cplusplus
extern "C" {
#endif

// Back to the start: no log, answers, handler, diagnostics, results, handles, counts or errors.
VORDA_EXPORT void scripted_reset(void);
// Until the reset another runtime carries out the calls that no handler answers.
VORDA_EXPORT void scripted_forward(const char* library);

// --- What was called ---

// One line per call, joined by newlines, for example
//   SQLAllocHandle(3, dbc1, stmt1)          the new handle in place of the output pointer
//   SQLBindParameter(stmt1, 1, in, ctype=4, sqltype=4, size=4, digits=0, buflen=4, values=[5], ...)
//   SQLSetStmtAttr(stmt1, 22, 3)            attribute setters come without their length
//   SQLExecute(stmt1)
//     1: values=[5, 6, NULL], lens=[4, 4, -1]      what the bound memory held, all sets
// Handles are named by kind and order of allocation, with "(freed)" once freed; other pointers are
// "ptr" or "null". Texts are in quotes with \xNN, binary values as x'00ff'. Valid
// until the next call of this function.
VORDA_EXPORT const char* scripted_log(void);
// Empties the log and nothing else.
VORDA_EXPORT void scripted_log_clear(void);
// Calls of a function ("SQLFetch") since the reset, and of all functions for a null name.
VORDA_EXPORT int scripted_call_count(const char* function);
// The path that the last call brought as its first argument.
VORDA_EXPORT const char* scripted_last_path(void);

// --- Answers ---

// The nth call of a function since the reset (0: every call that has no answer of its own) returns
// this status instead of acting: outputs stay untouched.
VORDA_EXPORT void scripted_answer(const char* function, int nth, int status);
// The same, but the call acts first and only its status is replaced.
VORDA_EXPORT void scripted_answer_after(const char* function, int nth, int status);
VORDA_EXPORT void scripted_answers_clear(void);

// Sees every call first, with all arguments after the path as 64-bit integers; returns 1 when it
// has answered, having set *status. Null removes it.
typedef int (*scripted_handler_function)(const char* name, const long long* args, int nargs,
                                         int* status);
VORDA_EXPORT void scripted_handler(scripted_handler_function handler);

// Until the reset the runtime that carries the calls out is lied about, in ways and at a rate that
// the seed chooses.
VORDA_EXPORT void scripted_hostile(unsigned long long seed);

// Appends a diagnostic. SQLErrorW takes the first one away; with none left it returns SQL_NO_DATA.
// Only the statuses 0 and 1 write anything.
// `reported_length` is the length that is claimed for the text, -1 for the true one.
VORDA_EXPORT void scripted_diag(const char* state, int native, const char* text,
                                int reported_length, int status);

// --- Results ---

// Each statement that executes takes the oldest result that was defined; with none left it yields
// no columns, no rows and row count 0. The functions below add to the newest result (the first of
// them makes one); scripted_result begins another.
VORDA_EXPORT void scripted_result(void);
VORDA_EXPORT void scripted_row_count(long long count);
// `sqltype` and the rest are reported as they are, whatever the cells hold.
VORDA_EXPORT void scripted_column(const char* name, int sqltype, int length, int precision,
                                  int scale, int nullable);
// The length reported for the last column's name in place of the true one.
VORDA_EXPORT void scripted_column_name_length(int reported_length);

// Begins a row; then one cell for each column, from the left. Missing cells are NULL.
VORDA_EXPORT void scripted_row(void);
// `ctype`: SQL_C_SBIGINT, SQL_C_DOUBLE or SQL_C_TIMESTAMP with the bytes of such a value,
// SQL_C_CHAR with any bytes, 0 for NULL.
VORDA_EXPORT void scripted_cell(int ctype, const void* bytes, int length);
// The length/indicator reported for the last cell in place of the true one. The cell is delivered
// all the same; with -1 (NULL) too.
VORDA_EXPORT void scripted_cell_indicator(long long indicator);

// A fetch writes each cell into its bound column: text (cut to the buffer, terminated), binary
// (cut), numbers by C type, timestamps. A cut value makes the fetch succeed with information,
// without a diagnostic unless scripted_diag gave one. After the last row: SQL_NO_DATA.

// --- Handles ---

// Handles not freed that an allocation reported as one, of a kind, or 0 (all). Disconnecting frees
// the connection's statements.
VORDA_EXPORT int scripted_live_handles(int kind);
// Number of log lines that begin with "ERROR:": a handle that is none was used, one was freed while
// others still hang on it, or a bound length does not fit its buffer.
VORDA_EXPORT int scripted_errors(void);

#ifdef __cplusplus
}
#endif
