// A runtime that answers at once from memory, to count what the drivers themselves cost. A query
// says what it wants: "SELECT <columns> <type> <rows>", with a type of kTypes; anything else is a
// statement without rows. Put its folder on LD_LIBRARY_PATH. It trusts its caller: it is for
// measuring only.
#include <sqlext.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <vector>

#define EXPORT extern "C" __attribute__((visibility("default")))

namespace {

// What a cell of any kind is bound as: a tag of its kind, and behind it the value.
constexpr SQLSMALLINT kCellCType = 0x4001;
constexpr SQLLEN kTag = 8;

struct Type {
    const char* Name;
    SQLLEN SqlType, Precision, Scale;
    std::string_view
        Text;  // the value of a text column; others have the one of their structure below
    int NullEvery;
    std::int32_t Tag;  // of its cells
};

constexpr char kText200[] =
    "two hundred bytes of text, as an address or a remark may have: enough that copying it is "
    "seen, not so much "
    "that it is all there is; and to fill it up: Zwölf Boxkämpfer jagen Viktor quer über den "
    "Deich.";

constexpr Type kTypes[] = {
    {"int", SQL_INTEGER, 10, 0, {}, 0, 1},
    {"bigint", SQL_BIGINT, 19, 0, {}, 0, 1},
    {"bit", SQL_BIT, 1, 0, {}, 0, 9},
    {"double", SQL_DOUBLE, 15, 0, {}, 0, 2},
    {"text", SQL_WVARCHAR, 20, 0, "short text", 0, 3},
    {"text200", SQL_WVARCHAR, 200, 0, kText200, 0, 3},
    {"decimal", SQL_DECIMAL, 12, 2, "1234567.89", 0, 5},
    {"date", SQL_TYPE_DATE, 10, 0, {}, 0, 6},
    {"time", SQL_TYPE_TIME, 8, 0, {}, 0, 7},
    {"timestamp", SQL_TYPE_TIMESTAMP, 26, 6, {}, 0, 8},
    {"halfnull", SQL_INTEGER, 10, 0, {}, 2, 1},
};

struct Binding {
    SQLSMALLINT CType;
    char* Target;
    SQLLEN* Indicator;
    SQLLEN Capacity;
};

struct Statement {
    const Type* Column = nullptr;
    int Columns = 0;
    long Rows = 0, Row = 0;
    std::vector<Binding> Bindings;
    // Of the rows that are fetched at once.
    SQLULEN RowSize = 0, MostRows = 1;
    SQLUSMALLINT* Status = nullptr;
    SQLULEN* Fetched = nullptr;
};

Statement& Of(SQLHSTMT statement) {
    return *static_cast<Statement*>(statement);
}

void Understand(Statement& statement, std::string_view text) {
    char type[16] = {};
    // What is bound stays bound to the handle.
    statement.Column = nullptr;
    statement.Columns = 0;
    statement.Rows = statement.Row = 0;
    if (std::sscanf(text.data(), "SELECT %d %15s %ld", &statement.Columns, type, &statement.Rows) !=
        3)
        return;
    for (const Type& known : kTypes) {
        if (std::strcmp(known.Name, type) == 0) statement.Column = &known;
    }
    statement.Bindings.resize(static_cast<std::size_t>(statement.Columns));
}

void Deliver(const Type& type, long row, const Binding& binding) {
    if (type.NullEvery != 0 && row % type.NullEvery == 0) {
        *binding.Indicator = SQL_NULL_DATA;
        return;
    }
    const auto put = [&](const auto& value) {
        std::memcpy(binding.Target, &value, sizeof value);
        *binding.Indicator = sizeof value;
    };
    const auto putTagged = [&](const void* value, std::size_t size) {
        *binding.Indicator = static_cast<SQLLEN>(size);
        std::memcpy(binding.Target, &type.Tag, sizeof type.Tag);
        std::memcpy(binding.Target + kTag, value,
                    std::min(size, static_cast<std::size_t>(binding.Capacity - kTag)));
    };
    const auto putWhole = [&](const auto& value) {
        *binding.Indicator = sizeof value;
        std::memcpy(binding.Target, &type.Tag, sizeof type.Tag);
        std::memcpy(binding.Target + kTag, &value, sizeof value);
    };
    if (binding.CType == kCellCType) {
        switch (type.SqlType) {
            case SQL_INTEGER:
            case SQL_BIGINT:
                return putWhole(SQLBIGINT{4'000'000'000 + row});
            case SQL_BIT:
                return putWhole(SQLBIGINT{row & 1});
            case SQL_DOUBLE:
                return putWhole(static_cast<SQLDOUBLE>(row) + 0.25);
            case SQL_WVARCHAR:
            case SQL_DECIMAL:
                return putTagged(type.Text.data(), type.Text.size());
            default:
                return putWhole(SQL_TIMESTAMP_STRUCT{2026, 11, 21, 12, 34, 56, 123'456'000});
        }
    }
    switch (binding.CType) {
        case SQL_C_LONG:
            return put(static_cast<SQLINTEGER>(1'000'000 + row));
        case SQL_C_SBIGINT:
            return put(SQLBIGINT{4'000'000'000 + row});
        case SQL_C_BIT:
            return put(static_cast<SQLCHAR>(row & 1));
        case SQL_C_DOUBLE:
            return put(static_cast<SQLDOUBLE>(row) + 0.25);
        case SQL_C_TIMESTAMP:
            return put(SQL_TIMESTAMP_STRUCT{2026, 11, 21, 12, 34, 56, 123'456'000});
        default:
            *binding.Indicator = static_cast<SQLLEN>(type.Text.size());
            std::memcpy(binding.Target, type.Text.data(), type.Text.size() + 1);
    }
}

SQLLEN Number(const Type& type, SQLUSMALLINT field) {
    switch (field) {
        case SQL_COLUMN_TYPE:
            return type.SqlType;
        case SQL_COLUMN_SCALE:
            return type.Scale;
        case SQL_COLUMN_NULLABLE:
            return SQL_NULLABLE;
        default:
            return type.Precision;
    }
}

}  // namespace

EXPORT SQLRETURN RT_SQLAllocHandle(const char*, SQLSMALLINT type, SQLHANDLE, SQLHANDLE* handle) {
    static int anything;
    *handle = type == SQL_HANDLE_STMT ? static_cast<SQLHANDLE>(new Statement) : &anything;
    return SQL_SUCCESS;
}
EXPORT SQLRETURN RT_SQLFreeHandle(const char*, SQLSMALLINT type, SQLHANDLE handle) {
    if (type == SQL_HANDLE_STMT) delete &Of(handle);
    return SQL_SUCCESS;
}
EXPORT SQLRETURN RT_SQLFreeStmt(const char*, SQLHSTMT statement, SQLUSMALLINT option) {
    if (option == SQL_DROP) delete &Of(statement);
    return SQL_SUCCESS;
}
EXPORT SQLRETURN RT_SQLSetEnvAttr(const char*, SQLHENV, SQLINTEGER, SQLPOINTER, SQLINTEGER) {
    return SQL_SUCCESS;
}
EXPORT SQLRETURN RT_SQLSetStmtAttr(const char*, SQLHSTMT, SQLINTEGER, SQLPOINTER, SQLINTEGER) {
    return SQL_SUCCESS;
}
EXPORT SQLRETURN RT_SQLSetStmtAttrW(const char*, SQLHSTMT statement, SQLINTEGER attribute,
                                    SQLPOINTER value, SQLINTEGER) {
    Statement& set = Of(statement);
    switch (attribute) {
        case SQL_ATTR_ROW_BIND_TYPE:
            set.RowSize = reinterpret_cast<SQLULEN>(value);
            break;
        case SQL_ATTR_ROW_ARRAY_SIZE:
            set.MostRows = reinterpret_cast<SQLULEN>(value);
            break;
        case SQL_ATTR_ROW_STATUS_PTR:
            set.Status = static_cast<SQLUSMALLINT*>(value);
            break;
        case SQL_ATTR_ROWS_FETCHED_PTR:
            set.Fetched = static_cast<SQLULEN*>(value);
            break;
        default:
            break;
    }
    return SQL_SUCCESS;
}
EXPORT SQLRETURN RT_SQLSetConnectAttrW(const char*, SQLHDBC, SQLINTEGER attribute, SQLPOINTER,
                                       SQLINTEGER) {
    return attribute == SQL_ATTR_AUTOCOMMIT ? SQL_SUCCESS : SQL_ERROR;
}
EXPORT SQLRETURN RT_SQLGetInfoW(const char*, SQLHDBC, SQLUSMALLINT type, SQLPOINTER value,
                                SQLSMALLINT, SQLSMALLINT*) {
    // Calls of other engines may be made in another thread, whose instructions are not counted.
    if (type == SQL_DBMS_NAME) std::strcpy(static_cast<char*>(value), "SQLite");
    if (type != SQL_GETDATA_EXTENSIONS) return SQL_SUCCESS;
    const SQLUINTEGER blocks = SQL_GD_BLOCK | SQL_GD_BOUND;
    std::memcpy(value, &blocks, sizeof blocks);
    return SQL_SUCCESS;
}
EXPORT SQLRETURN RT_SQLEndTran(const char*, SQLSMALLINT, SQLHANDLE, SQLSMALLINT) {
    return SQL_SUCCESS;
}
EXPORT SQLRETURN RT_SQLDriverConnectW(const char*, SQLHDBC, SQLHWND, SQLWCHAR*, SQLSMALLINT,
                                      SQLWCHAR*, SQLSMALLINT, SQLSMALLINT*, SQLUSMALLINT) {
    return SQL_SUCCESS;
}
EXPORT SQLRETURN RT_SQLDisconnect(const char*, SQLHDBC) {
    return SQL_SUCCESS;
}
EXPORT SQLRETURN RT_SQLPrepareW(const char*, SQLHSTMT statement, SQLWCHAR* text,
                                SQLINTEGER length) {
    Understand(Of(statement),
               {reinterpret_cast<const char*>(text), static_cast<std::size_t>(length)});
    return SQL_SUCCESS;
}
EXPORT SQLRETURN RT_SQLExecDirectW(const char* path, SQLHSTMT statement, SQLWCHAR* text,
                                   SQLINTEGER length) {
    return RT_SQLPrepareW(path, statement, text, length);
}
EXPORT SQLRETURN RT_SQLExecute(const char*, SQLHSTMT statement) {
    Of(statement).Row = 0;
    return SQL_SUCCESS;
}
EXPORT SQLRETURN RT_SQLNumResultCols(const char*, SQLHSTMT statement, SQLSMALLINT* count) {
    *count = static_cast<SQLSMALLINT>(Of(statement).Columns);
    return SQL_SUCCESS;
}
EXPORT SQLRETURN RT_SQLBindParameter(const char*, SQLHSTMT, SQLUSMALLINT, SQLSMALLINT, SQLSMALLINT,
                                     SQLSMALLINT, SQLULEN, SQLSMALLINT, SQLPOINTER, SQLLEN,
                                     SQLLEN*) {
    return SQL_SUCCESS;
}
EXPORT SQLRETURN RT_SQLRowCount(const char*, SQLHSTMT, SQLLEN* count) {
    *count = 0;
    return SQL_SUCCESS;
}
EXPORT SQLRETURN RT_SQLColAttributeW(const char*, SQLHSTMT statement, SQLUSMALLINT column,
                                     SQLUSMALLINT field, SQLPOINTER text, SQLSMALLINT size,
                                     SQLSMALLINT* length, SQLLEN* number) {
    const Statement& described = Of(statement);
    if (field == SQL_COLUMN_COUNT) {
        *number = described.Columns;
    } else if (field == SQL_COLUMN_NAME) {
        *length = static_cast<SQLSMALLINT>(
            std::snprintf(static_cast<char*>(text), static_cast<std::size_t>(size), "c%d", column));
    } else {
        *number = Number(*described.Column, field);
    }
    return SQL_SUCCESS;
}
EXPORT SQLRETURN RT_SQLDescribeColW(const char*, SQLHSTMT statement, SQLUSMALLINT column,
                                    SQLWCHAR* name, SQLSMALLINT size, SQLSMALLINT* length,
                                    SQLSMALLINT* type, SQLULEN* precision, SQLSMALLINT* scale,
                                    SQLSMALLINT* nullable) {
    const Type& described = *Of(statement).Column;
    const int written =
        std::snprintf(reinterpret_cast<char*>(name), static_cast<std::size_t>(size), "c%d", column);
    if (length) *length = static_cast<SQLSMALLINT>(written);
    *type = static_cast<SQLSMALLINT>(described.SqlType);
    *precision = static_cast<SQLULEN>(described.Precision);
    *scale = static_cast<SQLSMALLINT>(described.Scale);
    *nullable = SQL_NULLABLE;
    return SQL_SUCCESS;
}
EXPORT SQLRETURN RT_SQLBindCol(const char*, SQLHSTMT statement, SQLUSMALLINT column,
                               SQLSMALLINT type, SQLPOINTER target, SQLLEN capacity,
                               SQLLEN* indicator) {
    Of(statement).Bindings[column - 1u] = {type, static_cast<char*>(target), indicator, capacity};
    return SQL_SUCCESS;
}
EXPORT SQLRETURN RT_SQLFetch(const char*, SQLHSTMT statement) {
    Statement& fetched = Of(statement);
    if (fetched.Row >= fetched.Rows) return SQL_NO_DATA;
    SQLULEN count = 0;
    for (; count < fetched.MostRows && fetched.Row < fetched.Rows; ++count, ++fetched.Row) {
        const SQLULEN offset = count * fetched.RowSize;
        for (const Binding& first : fetched.Bindings) {
            char* const indicator = reinterpret_cast<char*>(first.Indicator) + offset;
            Deliver(*fetched.Column, fetched.Row,
                    {first.CType, first.Target + offset, reinterpret_cast<SQLLEN*>(indicator),
                     first.Capacity});
        }
        if (fetched.Status) fetched.Status[count] = SQL_ROW_SUCCESS;
    }
    if (fetched.Fetched) *fetched.Fetched = count;
    return SQL_SUCCESS;
}
// Of any row: what is too long for its cell is the same in all.
EXPORT SQLRETURN RT_SQLSetPos(const char*, SQLHSTMT, SQLSETPOSIROW, SQLUSMALLINT, SQLUSMALLINT) {
    return SQL_SUCCESS;
}
EXPORT SQLRETURN RT_SQLGetData(const char*, SQLHSTMT statement, SQLUSMALLINT, SQLSMALLINT type,
                               SQLPOINTER target, SQLLEN capacity, SQLLEN* indicator) {
    const Statement& fetched = Of(statement);
    Deliver(*fetched.Column, fetched.Row, {type, static_cast<char*>(target), indicator, capacity});
    return SQL_SUCCESS;
}
EXPORT SQLRETURN RT_SQLErrorW(const char*, SQLHENV, SQLHDBC, SQLHSTMT, SQLWCHAR*, SQLINTEGER*,
                              SQLWCHAR*, SQLSMALLINT, SQLSMALLINT*) {
    return SQL_NO_DATA;
}
EXPORT int RT_Version() {
    return 1;
}
