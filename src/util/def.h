// Names shared by every layer: symbol visibility and the module's own status codes.
#pragma once

// The module is built with hidden visibility; what other programs may call carries this mark.
#define VORDA_EXPORT __attribute__((visibility("default")))

enum VordaStatus : int {
    VORDA_OK = 0,
    VORDA_ODBC_ERROR = -1,
    VORDA_NO_MORE_DATA = 100,
    VORDA_OUT_OF_MEMORY = 200,
    VORDA_NUMBER_OUT_OF_RANGE = 435,
    VORDA_NO_ENVIRONMENT = 1101,
    VORDA_NOT_OPEN = 1102,
    VORDA_NOT_PREPARED = 1103,
    VORDA_UNKNOWN_ATTRIBUTE = 1103,
    VORDA_NOT_EXECUTED = 1104,
    VORDA_UNKNOWN_PARAMETER_TYPE = 1105,
    VORDA_INDEX_OUT_OF_RANGE = 1106,
    VORDA_NOT_IMPLEMENTED = 1106,
    VORDA_SQL_UNEXPECTED_END = 40101,
    VORDA_SQL_UNCLOSED_QUOTE = 40102,
    VORDA_SQL_BAD_CHARACTER = 40103,
    VORDA_SQL_UNKNOWN_CHARACTER = 40104,
};
