#include <algorithm>
#include <climits>
#include <cstring>
#include <random>
#include <utility>

#include "model.h"

namespace {

constexpr double kRates[] = {0, 0.005, 0.02, 0.05, 0.15, 0.5};

constexpr SQLRETURN kStatuses[] = {
    SQL_SUCCESS, SQL_SUCCESS_WITH_INFO, SQL_ERROR, SQL_INVALID_HANDLE, SQL_NEED_DATA,
    SQL_NO_DATA, SQL_STILL_EXECUTING,   -12345,    SHRT_MAX,           SHRT_MIN};

// Limits that a caller may have: buffers, codes with a meaning, numbers of 16, 32 and 64 bits.
constexpr std::uint64_t kLimits[] = {0,       0,       100,      128,        200,
                                     1024,    1104,    2048,     4096,       1 << 15,
                                     1 << 16, 1 << 28, 1U << 31, 1ULL << 32, 1ULL << 63};

constexpr long long kTypes[] = {
    SQL_CHAR,      SQL_NUMERIC, SQL_DECIMAL,   SQL_INTEGER,   SQL_SMALLINT,
    SQL_FLOAT,     SQL_REAL,    SQL_DOUBLE,    SQL_DATE,      SQL_TIME,
    SQL_TIMESTAMP, SQL_VARCHAR, SQL_TYPE_DATE, SQL_TYPE_TIME, SQL_TYPE_TIMESTAMP,
    SQL_WVARCHAR,  SQL_BIT,     SQL_TINYINT,   SQL_BIGINT,    SQL_LONGVARBINARY,
    SQL_GUID,      SQL_BINARY,  SQL_WVARCHAR,  SQL_VARCHAR,   SQL_VARCHAR};

constexpr const char* kTexts[] = {"",      "1",        "-12.50", "1e5",         "text",
                                  "@name", "Infinity", "it's",   "\xe2\x82\xac"};

// The embedded runtime's own C type, and the bytes in front of such a value.
constexpr SQLSMALLINT kCellCType = 0x4001;
constexpr std::size_t kCellTag = 8;

// Where a function's output of any length is among its arguments; its size follows.
constexpr std::pair<std::string_view, std::size_t> kBuffers[] = {
    {"SQLError", 5},        {"SQLGetDiagRec", 5}, {"SQLDescribeCol", 2},
    {"SQLColAttribute", 3}, {"SQLGetInfo", 2},    {"SQLGetConnectAttr", 2}};

// After these the caller's memory, or the row that it reads, is what they said.
constexpr std::string_view kPromises[] = {"SQLBindCol",        "SQLBindParameter", "SQLFreeStmt",
                                          "SQLSetConnectAttr", "SQLSetStmtAttr",   "SQLSetPos",
                                          "SQLFetch"};

void PutBytes(char* target, std::size_t room, std::string_view bytes) {
    if (target) std::memcpy(target, bytes.data(), std::min(room, bytes.size()));
}

bool IsIn(std::string_view name, const auto& names) {
    return std::ranges::find(names, name) != std::end(names);
}

class Hostile {
  public:
    explicit Hostile(std::uint64_t seed) : m_random(seed) {
        m_rate = Pick(kRates);
        m_subjects = static_cast<unsigned>(Below(32)) | 1U << Below(5);
        // The driver manager itself does not survive such.
        if (kIsDriver) m_subjects &= ~static_cast<unsigned>(Handles);
        m_hasBlocks = Chance(0.5);
        m_truths = Below(2) * Below(300);
    }

    SQLRETURN Answer(Model& model, const Call& call, const Forward& forward) {
        if (m_truths > 0) --m_truths;
        const auto [target, kind] = TargetOf(call);
        // The embedded runtime's own marks, without which there are other ways.
        if (call.Base() == "SQLGetInfo" && !m_hasBlocks && call.Number(1) == SQL_GETDATA_EXTENSIONS)
            return SQL_ERROR;
        const bool isAlloc = call.Base() == "SQLAllocHandle";
        if (m_gaveNone && !target && !(isAlloc && call.Number(0) == SQL_HANDLE_ENV))
            return Lies(Statuses) ? AnyStatus() : SQLRETURN{SQL_INVALID_HANDLE};
        if (isAlloc) return Alloc(model, call, forward);
        const Handle* const handle = model.Use(call);
        return handle ? Do(model, call, *handle, forward) : SQLRETURN{SQL_INVALID_HANDLE};
    }

  private:
    enum Subject : unsigned { Statuses = 1, Handles = 2, Metadata = 4, Cells = 8, Diags = 16 };

    std::uint64_t Below(std::uint64_t limit) { return m_random() % limit; }
    bool Chance(double probability) {
        return static_cast<double>(Below(10000)) < probability * 10000;
    }
    template <typename T, std::size_t N>
    T Pick(const T (&choices)[N]) {
        return choices[Below(N)];
    }
    bool Lies(Subject subject, double least = 0) {
        return m_truths == 0 && (m_subjects & subject) != 0 && Chance(std::max(m_rate, least));
    }
    long long AnyNumber() {
        const std::uint64_t number = Pick(kLimits) + Below(7) - 3;
        return static_cast<long long>(Chance(0.3) ? 0 - number : number);
    }

    // Thousands of columns take their time, so they are rare.
    long long AnyCount() {
        const long long number = Chance(0.3) ? Pick(kTypes) : AnyNumber();
        return number > 300 && number <= SHRT_MAX && Chance(0.9) ? -number : number;
    }

    SQLRETURN AnyStatus() {
        const SQLRETURN status = Chance(0.9) ? Pick(kStatuses) : static_cast<SQLRETURN>(m_random());
        // The driver manager lets go of no statement that waits for something.
        const bool isWaiting = status == SQL_NEED_DATA || status == SQL_STILL_EXECUTING;
        return kIsDriver && isWaiting ? SQLRETURN{SQL_ERROR} : status;
    }

    // Some begin with a small number, as the kind of a cell.
    std::string AnyBytes(std::size_t size) {
        if (Chance(0.3)) return Pick(kTexts) + std::string(1, '\0');
        std::string bytes(size, '\0');
        const bool isAscii = Chance(0.5);
        for (char& byte : bytes) byte = static_cast<char>(isAscii ? 'a' + Below(26) : Below(256));
        const auto kind = static_cast<SQLINTEGER>(Below(10));
        if (Chance(0.5) && size > sizeof kind) std::memcpy(bytes.data(), &kind, sizeof kind);
        return bytes;
    }

    SQLRETURN Alloc(Model& model, const Call& call, const Forward& forward) {
        auto* const output = call.Pointer<SQLHANDLE>(2);
        if (!Lies(Handles)) {
            const SQLRETURN status = forward();
            if (OdbcSucceeded(status))
                Register(model, *output, static_cast<int>(call.Number(0)), call.Handle(1));
            return status;
        }
        const SQLRETURN status = AnyStatus();
        m_gaveNone = m_gaveNone || status != SQL_ERROR;
        // Not a handle, whether or not it is said to be one.
        if (Chance(0.5))
            *output = status == SQL_ERROR ? reinterpret_cast<SQLHANDLE>(0xdead0) : nullptr;
        return status;
    }

    SQLRETURN Do(Model& model, const Call& call, const Handle& handle, const Forward& forward) {
        const bool isEnd = call.Base() == "SQLFreeHandle" || call.Base() == "SQLDisconnect" ||
                           (call.Base() == "SQLEndTran" && call.Number(2) == SQL_ROLLBACK) ||
                           (call.Base() == "SQLFreeStmt" && call.Number(1) == SQL_DROP);
        // The driver manager keeps what a driver would not give back.
        const bool isLie = !(kIsDriver && isEnd) && Lies(Statuses);
        const SQLRETURN lie = AnyStatus();
        const bool isPromise =
            IsIn(call.Base(), kPromises) || (kIsDriver && call.Base() == "SQLDriverConnect");
        // An end is made whatever the status says: the caller cannot do more than ask.
        if (isLie && !isEnd && (isPromise ? !OdbcSucceeded(lie) : Chance(0.5))) return lie;
        const SQLRETURN status = forward();
        if (OdbcSucceeded(status) && (isEnd || isPromise || call.Base() == "SQLDriverConnect"))
            Act(model, call);
        if (call.Base() == "SQLFetch") {
            LieAboutRows(handle);
        } else if (call.Base() == "SQLGetData") {
            if (Lies(Cells)) LieAboutPart(BindingOf(call, 2, 3));
        } else if (!isPromise) {
            LieInOutputs(call);
        }
        if (call.Base().starts_with("SQLExec")) LieAboutSets(handle);
        return isLie && (!isPromise || OdbcSucceeded(status)) ? lie : status;
    }

    void LieInOutputs(const Call& call) {
        const bool isDiagnostic = call.Base() == "SQLError" || call.Base() == "SQLGetDiagRec";
        const Subject subject = isDiagnostic ? Diags : Metadata;
        for (const auto& [name, buffer] : kBuffers) {
            if (name != call.Base() || !Lies(subject)) continue;
            const auto room = static_cast<std::size_t>(std::max(call.Number(buffer + 1), 0LL));
            PutBytes(call.Pointer<char>(buffer), room, AnyBytes(room));
            // The driver manager trusts that it ends.
            if (kIsDriver && call.Pointer<char>(buffer) && room > 0)
                call.Pointer<char>(buffer)[room - 1] = '\0';
        }
        constexpr std::size_t kStateSize = 6;
        if (isDiagnostic && Lies(subject))
            PutBytes(call.Pointer<char>(3), kStateSize, AnyBytes(kStateSize));
        for (const Argument& argument : call.arguments) {
            if (argument.kind != Argument::Kind::Pointer || !argument.value || !Lies(subject))
                continue;
            const long long number = AnyCount();
            std::memcpy(reinterpret_cast<void*>(argument.value), &number, argument.size);
        }
    }

    // Where the length is none, the bytes are not those of another row.
    void LieAboutCell(const Binding& target) {
        const FixedType* const fixed = FindFixed(target.cType);
        const auto room = static_cast<std::size_t>(
            fixed ? fixed->size : std::max<SQLLEN>(target.bufferLength, 0));
        const bool isNull = Chance(0.3);
        if (!isNull) {
            PutBytes(target.data, room, std::string(room, '~'));
            PutBytes(target.data, room, AnyBytes(room));
        }
        if (isNull || Chance(0.6)) Put(target.indicators, isNull ? SQL_NULL_DATA : AnyNumber());
    }

    // Or it is shorter than it was told to be with the row; where nothing was told it would pass.
    void LieAboutPart(const Binding& target) {
        const auto room = static_cast<std::size_t>(std::max<SQLLEN>(target.bufferLength, 0));
        if (target.cType != kCellCType || room <= kCellTag || Chance(0.5))
            return LieAboutCell(target);
        const std::size_t kept = kCellTag + Below(room - kCellTag);
        PutBytes(target.data + kept, room - kept, std::string(room - kept, '~'));
        Put(target.indicators, static_cast<SQLLEN>(kept - kCellTag));
    }

    void LieAboutSets(const Handle& statement) {
        auto* const states = statement.Pointer<SQLUSMALLINT>(SQL_ATTR_PARAM_STATUS_PTR);
        for (long long set = 0; states && set < statement.ParameterSets(); ++set)
            if (Lies(Cells)) states[set] = static_cast<SQLUSMALLINT>(Below(10));
        auto* const done = statement.Pointer<SQLULEN>(SQL_ATTR_PARAMS_PROCESSED_PTR);
        if (done && Lies(Cells, 0.1)) *done = static_cast<SQLULEN>(AnyNumber());
    }

    void LieAboutRows(const Handle& statement) {
        auto* const fetched = statement.Pointer<SQLULEN>(SQL_ATTR_ROWS_FETCHED_PTR);
        auto* const states = statement.Pointer<SQLUSMALLINT>(SQL_ATTR_ROW_STATUS_PTR);
        const auto stride = statement.Attribute(SQL_ATTR_ROW_BIND_TYPE);
        const SQLULEN rows = fetched ? *fetched : 1;
        for (SQLULEN row = 0; row < rows; ++row) {
            const auto offset = static_cast<long long>(row) * stride;
            for (auto [number, target] : statement.columns) {
                if (!target.data || !Lies(Cells)) continue;
                target.data += offset;
                target.indicators += offset / static_cast<long long>(sizeof(SQLLEN));
                LieAboutCell(target);
            }
            if (states && Lies(Cells)) states[row] = static_cast<SQLUSMALLINT>(Below(7));
        }
        if (fetched && Lies(Cells, 0.1))
            *fetched = Chance(0.5) ? static_cast<SQLULEN>(AnyNumber()) : rows + Below(300);
    }

    std::mt19937_64 m_random;
    double m_rate = 0;
    unsigned m_subjects = 0;
    bool m_hasBlocks = false;
    std::uint64_t m_truths = 0;  // calls before the first lie
    // An allocation brought no handle: from then on null ones are used, which only earns a status.
    bool m_gaveNone = false;
};

}  // namespace

Answers HostileAnswers(std::uint64_t seed) {
    return
        [hostile = Hostile(seed)](Model& model, const Call& call, const Forward& forward) mutable {
            return hostile.Answer(model, call, forward);
        };
}
