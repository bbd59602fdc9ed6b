#include <algorithm>
#include <climits>
#include <cstring>
#include <iterator>
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

// Bytes of a bound column that belong to the callee.
std::size_t RoomOf(const Binding& target) {
    const FixedType* const fixed = FindFixed(target.cType);
    return static_cast<std::size_t>(fixed ? fixed->size : std::max<SQLLEN>(target.bufferLength, 0));
}

void PutBytes(char* target, std::size_t room, std::string_view bytes) {
    if (target) std::memcpy(target, bytes.data(), std::min(room, bytes.size()));
}

class Hostile {
  public:
    explicit Hostile(std::uint64_t seed) : m_random(seed) {
        m_rate = Pick(kRates);
        m_subjects = static_cast<unsigned>(Below(32)) | 1U << Below(5);
    }

    SQLRETURN Answer(Model& model, const Call& call) {
        if (call.name == "SQLAllocHandle") return Alloc(model, call);
        if (m_gaveNone && !TargetOf(call).handle)
            return Lies(Statuses) ? AnyStatus() : SQLRETURN{SQL_INVALID_HANDLE};
        Handle* const handle = model.Use(call);
        return handle ? Do(model, call, *handle) : SQLRETURN{SQL_INVALID_HANDLE};
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
    bool Lies(Subject subject) { return (m_subjects & subject) != 0 && Chance(m_rate); }
    long long AnyNumber() {
        const std::uint64_t number = Pick(kLimits) + Below(7) - 3;
        return static_cast<long long>(Chance(0.3) ? 0 - number : number);
    }

    SQLRETURN AnyStatus() {
        return Chance(0.9) ? Pick(kStatuses) : static_cast<SQLRETURN>(m_random());
    }

    std::string AnyBytes(std::size_t size) {
        std::string bytes(size, '\0');
        const bool isAscii = Chance(0.5);
        for (char& byte : bytes) byte = static_cast<char>(isAscii ? 'a' + Below(26) : Below(256));
        return bytes;
    }

    std::string AnyText() {
        constexpr std::size_t kSizes[] = {60, 126, 127, 128, 129, 300, 2046, 2047, 2048, 3000};
        return Chance(0.85) ? Pick(kTexts) : std::string(Pick(kSizes), 'x') + Pick(kTexts);
    }

    SQLRETURN Do(Model& model, const Call& call, Handle& handle) {
        if (call.name == "SQLErrorW") return Error(call);
        if (call.name == "SQLFreeHandle" || call.name == "SQLFreeStmt" ||
            call.name == "SQLDisconnect") {
            return Free(model, call, handle);
        }
        const bool isLie = Lies(Statuses);
        const SQLRETURN lie = AnyStatus();
        if (call.name == "SQLSetStmtAttr") {
            // What is said to be set is set: the caller's memory depends on it.
            if (!isLie || OdbcSucceeded(lie) || Chance(0.5)) Act(model, call);
            return isLie ? lie : SQLRETURN{SQL_SUCCESS};
        }
        if (isLie && Chance(0.5)) return lie;

        SQLRETURN status = SQL_SUCCESS;
        if (call.name.starts_with("SQLExec")) {
            status = Execute(model, call);
        } else if (call.name == "SQLColAttributeW") {
            status = ColAttribute(model, call);
        } else if (call.name == "SQLRowCount" && Lies(Metadata)) {
            Put(call.Pointer<SQLLEN>(1), AnyNumber());
        } else if (call.name == "SQLFetch") {
            status = Fetch(handle);
        } else {
            status = Act(model, call);
        }
        return isLie ? lie : status;
    }

    SQLRETURN Alloc(Model& model, const Call& call) {
        auto* const output = call.Pointer<SQLHANDLE>(2);
        const bool isBelowNone = call.Number(0) != SQL_HANDLE_ENV && !call.Handle(1);
        if (isBelowNone && m_gaveNone) return SQL_INVALID_HANDLE;
        if (!Lies(Handles)) return Act(model, call);
        const SQLRETURN status = AnyStatus();
        m_gaveNone = m_gaveNone || status != SQL_ERROR;
        // Not a handle, whether or not it is said to be one.
        if (Chance(0.5))
            *output = status == SQL_ERROR ? reinterpret_cast<SQLHANDLE>(0xdead0) : nullptr;
        return status;
    }

    // Always done, whatever the status says: the caller cannot do more than ask.
    SQLRETURN Free(Model& model, const Call& call, Handle& handle) {
        const SQLRETURN lie = AnyStatus();
        const bool isLie = Lies(Statuses);
        if (call.name == "SQLDisconnect" && ++handle.disconnects > 1)
            model.Error(call, "disconnected twice");
        // What says that it unbound nothing may still look at the old buffers.
        const bool isUnbinding = call.name == "SQLFreeStmt" && call.Number(1) != SQL_DROP;
        if (isUnbinding && isLie && !OdbcSucceeded(lie)) return lie;
        const SQLRETURN status = Act(model, call);
        return isLie ? lie : status;
    }

    Result AnyResult() {
        Result result;
        const std::size_t columns = Chance(0.05) ? Below(300) : Below(6);
        const bool hasOneType = Chance(0.2);
        const long long type = Pick(kTypes);
        for (std::size_t i = 0; i < columns; ++i) {
            Column& column = result.columns.emplace_back();
            column.name = Chance(0.8) ? std::string(1, static_cast<char>('a' + i % 26)) : AnyText();
            for (const long long field :
                 {SQL_COLUMN_LENGTH, SQL_COLUMN_PRECISION, SQL_COLUMN_SCALE, SQL_COLUMN_NULLABLE}) {
                column.numbers[field] = static_cast<long long>(Below(40));
            }
            column.numbers[SQL_COLUMN_TYPE] = hasOneType ? type : Pick(kTypes);
        }
        result.rowCount = static_cast<SQLLEN>(Below(10)) - 1;
        return result;
    }

    SQLRETURN Execute(Model& model, const Call& call) {
        model.results.clear();
        model.results.push_back(AnyResult());
        const SQLRETURN status = Act(model, call);
        // Here, the number of rows to come.
        model.handles[call.Handle(0)].nextRow = Below(6);
        return status;
    }

    SQLRETURN ColAttribute(Model& model, const Call& call) {
        if (!Lies(Metadata)) return Act(model, call);
        if (call.Number(2) != SQL_COLUMN_NAME) {
            const bool isType = call.Number(2) == SQL_COLUMN_TYPE && Chance(0.5);
            long long number = isType ? Pick(kTypes) : AnyNumber();
            // Thousands of columns take their time, so they are rare.
            if (number > 300 && number <= SHRT_MAX && Chance(0.9)) number = -number;
            Put(call.Pointer<SQLLEN>(6), number);
            return SQL_SUCCESS;
        }
        const auto room = static_cast<std::size_t>(std::max(call.Number(4), 0LL));
        if (Chance(0.7)) PutBytes(call.Pointer<char>(3), room, AnyBytes(room));
        Put(call.Pointer<SQLSMALLINT>(5), AnyNumber());
        return Chance(0.5) ? SQL_SUCCESS : SQL_SUCCESS_WITH_INFO;
    }

    // False when the value was cut.
    bool Deliver(const Binding& target) {
        if (!target.data) return true;
        const std::size_t room = RoomOf(target);
        long long length = static_cast<long long>(room);
        if (Lies(Cells)) {
            PutBytes(target.data, room, AnyBytes(room));
            if (Chance(0.5)) length = AnyNumber();
        } else if (target.cType == SQL_C_TIMESTAMP) {
            const SQL_TIMESTAMP_STRUCT stamp{
                2024, 2, 29, 23, 59, 59, static_cast<SQLUINTEGER>(Below(1'000'000'000))};
            std::memcpy(target.data, &stamp, sizeof stamp);
        } else if (target.bufferLength > 0) {
            const std::string text = AnyText();
            PutBytes(target.data, room, text + '\0');
            if (text.size() >= room) target.data[room - 1] = '\0';
            length = Chance(0.05) ? SQL_NO_TOTAL : static_cast<long long>(text.size());
        } else {
            PutBytes(target.data, room, AnyBytes(room));
        }
        if (Chance(0.1)) length = SQL_NULL_DATA;
        if (Lies(Cells)) length = AnyNumber();
        Put(target.indicators, length);
        return target.bufferLength == 0 || length < target.bufferLength;
    }

    SQLRETURN Fetch(Handle& statement) {
        if (!statement.isExecuted || statement.result.columns.empty()) return SQL_ERROR;
        if (statement.nextRow == 0) return SQL_NO_DATA;
        --statement.nextRow;
        bool isWhole = true;
        for (const auto& [number, target] : statement.columns) isWhole = Deliver(target) && isWhole;
        return isWhole ? SQL_SUCCESS : SQL_SUCCESS_WITH_INFO;
    }

    SQLRETURN Error(const Call& call) {
        const auto room = static_cast<std::size_t>(std::max(call.Number(6), 0LL));
        constexpr std::size_t kStateSize = 6;
        PutBytes(call.Pointer<char>(3), kStateSize, Lies(Diags) ? AnyBytes(kStateSize) : "HY000");
        Put(call.Pointer<SQLINTEGER>(4), Lies(Diags) ? AnyNumber() : 7);
        std::string text = AnyText();
        if (Lies(Diags)) text = AnyBytes(room);
        const bool isWhole = text.size() < room;
        PutBytes(call.Pointer<char>(5), room, isWhole ? text + '\0' : text);
        Put(call.Pointer<SQLSMALLINT>(7),
            Lies(Diags) ? AnyNumber() : static_cast<long long>(text.size()));
        if (Lies(Diags)) return AnyStatus();
        return isWhole ? SQL_SUCCESS : SQL_SUCCESS_WITH_INFO;
    }

    std::mt19937_64 m_random;
    double m_rate = 0;
    unsigned m_subjects = 0;
    // An allocation brought no handle: from then on null ones are used, which only earns a status.
    bool m_gaveNone = false;
};

}  // namespace

Answers HostileAnswers(std::uint64_t seed) {
    return [hostile = Hostile(seed)](Model& model, const Call& call) mutable {
        return hostile.Answer(model, call);
    };
}
