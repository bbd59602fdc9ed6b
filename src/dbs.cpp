#include "include/dbs.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <new>
#include <utility>

#include "dbhandler.h"

namespace {

constexpr DBSSMALLINT kConnectionHandle = 2;
constexpr DBSINTEGER kParamsetSize = 22;
constexpr int kFirstBufferSize = 256;
constexpr int kColumnNameSize = 128;

// A handle, a flag, a text with its code, a buffer with its size.
static_assert(sizeof(Dbs) == 544, "programs reserve this much for one");

}  // namespace

bool ColumnDescription::operator==(const ColumnDescription& other) const {
    return std::strcmp(Name, other.Name) == 0 && DataType == other.DataType &&
           Precision == other.Precision && Scale == other.Scale && IsNullable == other.IsNullable;
}

Dbs::Dbs()
    : buffer(new (std::nothrow) char[kFirstBufferSize]),
      currentBufferSize(buffer ? kFirstBufferSize : 0) {}

Dbs::~Dbs() = default;

int Dbs::Init() {
    return DBSAllocHandle(kConnectionHandle, nullptr, &handler);
}

int Dbs::Captured(int status) {
    if (status == VORDA_OUT_OF_MEMORY) {
        errCode = status;
        std::strcpy(errMsg, "out of memory");
    } else if (status != VORDA_OK) {
        GetLastErrAndMsg();
    }
    return status;
}

int Dbs::Open(char* connStr, int len) {
    const int status = DBSDriverConnect(handler, connStr, static_cast<DBSSMALLINT>(len));
    if (status == VORDA_OK) opened = 1;
    return Captured(status);
}

int Dbs::Close() {
    // Not only when opened: a failed Open keeps the handles that it got until the source is closed.
    DBSDisconnect(handler);
    DBSFreeHandle(kConnectionHandle, handler);
    handler = nullptr;
    opened = 0;
    return VORDA_OK;
}

int Dbs::SetBatchSize(int size) {
    return Captured(DBSSetStmtAttr(handler, kParamsetSize,
                                   reinterpret_cast<DBSPOINTER>(static_cast<intptr_t>(size)),
                                   sizeof size));
}

int Dbs::CountPlaceholders(const char* sql, int& count) {
    return Captured(DBSCountPlaceholders(handler, sql, &count));
}

int Dbs::Prepare(char* sql, int len) {
    return Captured(DBSPrepare(handler, sql, len, nullptr));
}

int Dbs::AddParam(int index, int type, void* data, int len, int* lenPtr) {
    return Captured(DBSBindParameter(handler, static_cast<DBSUSMALLINT>(index), 0,
                                     static_cast<DBSSMALLINT>(type), 0, 0, 0, data, len, lenPtr));
}

int Dbs::Execute() {
    return Captured(DBSExecute(handler));
}

int Dbs::Execute(char* sql, int len) {
    return Captured(DBSExecDirect(handler, sql, len));
}

int Dbs::Next() {
    lastFetch = DBSFetch(handler);
    return lastFetch == VORDA_NO_MORE_DATA ? 0 : 1;
}

bool Dbs::ReadFetchError() {
    return ReadError(DBSFetchError) == VORDA_OK;
}

unsigned long long Dbs::GetResultNumber() const {
    return handler != nullptr ? handler->resultNumber : 0;
}

int Dbs::GetRowCount() {
    DBSLEN count = 0;
    DBSRowCount(handler, &count);
    return count;
}

int Dbs::GetColumnCount() {
    DBSSMALLINT count = 0;
    return DBSNumResultCols(handler, &count) == VORDA_OK ? count : 0;
}

DbColumnInfo Dbs::GetColumnInfo(int index) {
    DBSSMALLINT nameLength = 0, dataType = 0, precision = 0, decimalDigits = 0, nullable = 0;
    DBSULEN columnSize = 0;
    const auto describe = [&](DBSCHAR* name) {
        DBSDescribeCol(handler, index, name, &nameLength, &dataType, &columnSize, &precision,
                       &decimalDigits, &nullable);
    };
    describe(nullptr);
    ResizeBufferSize(nameLength);
    const bool hasRoom = currentBufferSize >= kColumnNameSize;
    describe(hasRoom ? buffer.get() : nullptr);
    const char* const name = hasRoom ? buffer.get() : "";
    return DbColumnInfo(name, static_cast<int>(std::strlen(name)), dataType,
                        static_cast<int>(columnSize), precision, decimalDigits, nullable);
}

void Dbs::DescribeColumn(int index, ColumnDescription& description) {
    DBSSMALLINT nameLength = 0;
    DBSULEN columnSize = 0;
    DBSDescribeCol(handler, index, description.Name, &nameLength, &description.DataType,
                   &columnSize, &description.Precision, &description.Scale,
                   &description.IsNullable);
}

bool Dbs::GetCell(int index, DbCell& cell) {
    return DBSGetCell(handler, index, &cell) == VORDA_OK;
}

int Dbs::GetInt(int i, int* v) {
    return DBSGetData(handler, i, DBTYPE_INTEGER, v, 0, nullptr);
}

int Dbs::GetBigint(int i, long long* v) {
    return DBSGetData(handler, i, DBTYPE_BIGINT, v, 0, nullptr);
}

int Dbs::GetDouble(int i, double* v) {
    return DBSGetData(handler, i, DBTYPE_DOUBLE, v, 0, nullptr);
}

int Dbs::GetDate(int i, _db_date_* v) {
    return DBSGetData(handler, i, DBTYPE_DATE, v, 0, nullptr);
}

int Dbs::GetTime(int i, _db_time_* v) {
    return DBSGetData(handler, i, DBTYPE_TIME, v, 0, nullptr);
}

int Dbs::GetDateTime(int i, _db_datetime_* v) {
    return DBSGetData(handler, i, DBTYPE_DATETIME, v, 0, nullptr);
}

int Dbs::GetStringAsUTF8(int i, char** out, int* len) {
    return ReadText(i, out, len);
}

int Dbs::GetStringAsUCS2(int i, char** out, int* len) {
    return ReadText(i, out, len);
}

int Dbs::ReadText(int i, char** out, int* len) {
    DBSLEN length = 0;
    DBSGetData(handler, i, DBTYPE_STRING, nullptr, 0, &length);
    ResizeBufferSize(length * 2);
    if (currentBufferSize < length * 2) return VORDA_OUT_OF_MEMORY;
    const int status = DBSGetData(handler, i, DBTYPE_STRING, buffer.get(), 0, &length);
    if (status == VORDA_OK) {
        *len = length;
        *out = buffer.get();
    }
    return status;
}

DBSRETURN Dbs::ReadError(ErrorReader read) {
    DBSINTEGER native = 0;
    DBSSMALLINT length = 0;
    if (const DBSRETURN status = read(handler, &native, nullptr, &length); status != VORDA_OK) {
        return status;
    }
    errCode = static_cast<int>(native);
    errMsg[0] = '\0';
    // The text may be longer than errMsg, which keeps as much of it as fits.
    const std::unique_ptr<char[]> text(new (std::nothrow) char[static_cast<size_t>(length) + 1]);
    if (!text) return VORDA_OK;
    read(handler, &native, text.get(), &length);
    const size_t kept = std::min(std::strlen(text.get()), sizeof errMsg - 1);
    std::memcpy(errMsg, text.get(), kept);
    errMsg[kept] = '\0';
    return VORDA_OK;
}

int Dbs::GetLastError() {
    return errCode;
}

const char* Dbs::GetLastErrorMessage() {
    return errMsg;
}

int Dbs::IsOpen() {
    return opened;
}

void Dbs::GetLastErrAndMsg() {
    ReadError(DBSError);
}

void Dbs::ResizeBufferSize(int size) {
    ResizeBufferSizeInternal(size + 2);
}

void Dbs::ResizeBufferSizeInternal(int size) {
    if (currentBufferSize >= size) return;
    int grown = std::max(currentBufferSize, kFirstBufferSize);
    while (grown < size) grown = grown > INT_MAX / 2 ? INT_MAX : grown * 2;
    std::unique_ptr<char[]> room(new (std::nothrow) char[static_cast<size_t>(grown)]);
    if (!room) return;
    buffer = std::move(room);
    currentBufferSize = grown;
}
