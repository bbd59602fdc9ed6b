#include "sqlite/decimals.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <new>

#include "core/error.h"
#include "sqlite/query.h"
#include "values/columntype.h"
#include "values/numbers.h"
#include "values/text.h"

// An SQLite built without the hook lacks these; nothing is watched then.
extern "C" {
__attribute__((weak)) void* sqlite3_preupdate_hook(
    sqlite3*,
    void (*)(void*, sqlite3*, int, const char*, const char*, sqlite3_int64, sqlite3_int64), void*);
__attribute__((weak)) int sqlite3_preupdate_count(sqlite3*);
__attribute__((weak)) int sqlite3_preupdate_new(sqlite3*, int, sqlite3_value**);
}

namespace embedded {
namespace {

/// SQLite keeps so many digits of every decimal.
constexpr size_t kSafeDigits = 15;

/// Whether `text`, if it is a decimal, may lose digits.
bool mayLose(std::string_view text) noexcept {
    size_t digits = 0;
    bool scaled = false;
    for (const char c : text) {
        if (isDigit(c)) {
            ++digits;
        } else if (digits > 0 && (c == 'e' || c == 'E')) {
            scaled = true;
        } else if (c != '.' && c != '-' && c != '+' && c != ' ') {
            return false;
        }
    }
    return digits > kSafeDigits || scaled;
}

/// Plain digits without zeros at the end of a fraction, and without the sign of a zero.
std::string canonical(std::string digits) {
    if (digits.find('.') != std::string::npos) {
        digits.resize(digits.find_last_not_of('0') + 1);
        if (digits.ends_with('.')) digits.pop_back();
    }
    return digits == "-0" ? "0" : digits;
}

double valueOf(std::string_view text) noexcept {
    text = trimmed(text);
    if (text.starts_with('+')) text.remove_prefix(1);
    double value = 0;
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), value);
    if (parsed.ec != std::errc::result_out_of_range) return value;
    const bool tiny = text.find("e-") != std::string_view::npos ||
                      text.find("E-") != std::string_view::npos || text.starts_with("0.") ||
                      text.starts_with("-0.");
    const double magnitude = tiny ? 0 : std::numeric_limits<double>::infinity();
    return text.starts_with('-') ? -magnitude : magnitude;
}

bool isClose(double a, double b) noexcept {
    constexpr double kTolerance = 1e-14;
    return a == b || std::abs(a - b) <= std::abs(b) * kTolerance;
}

std::string digitsOf(sqlite3_value* value) {
    NumberBuffer buffer;
    if (sqlite3_value_type(value) == SQLITE_INTEGER) {
        return std::string(formatInteger(sqlite3_value_int64(value), buffer));
    }
    const double real = sqlite3_value_double(value);
    const auto digits = plainDecimal(real);
    return digits ? canonical(*digits) : std::string(formatDouble(real, buffer));
}

}  // namespace

void DecimalWatch::add(int number, std::string_view text) {
    if (!mayLose(text)) return;
    const double value = valueOf(text);
    auto digits = plainDecimal(text);
    if (!digits && !std::isinf(value)) return;
    if (!digits) digits = text;  // no plain digits are that many
    // A whole number of 64 bits is kept as one.
    std::int64_t integer = 0;
    const char* const end = digits->data() + digits->size();
    const bool whole = text.find_first_of(".eE") == std::string_view::npos;
    if (whole && std::from_chars(digits->data(), end, integer).ec == std::errc{}) return;
    m_decimals.push_back({number, std::string(text), canonical(*digits), value});
}

void DecimalWatch::clear() noexcept {
    m_decimals.clear();
    m_losses.clear();
    m_outOfMemory = false;
}

DecimalWatch::Watching::Watching(DecimalWatch& watch) noexcept : m_watch(watch) {
    if (sqlite3_preupdate_hook && m_watch.isNeeded()) {
        sqlite3_preupdate_hook(m_watch.m_db, look, &m_watch);
    }
}

DecimalWatch::Watching::~Watching() {
    if (sqlite3_preupdate_hook && m_watch.isNeeded()) {
        sqlite3_preupdate_hook(m_watch.m_db, nullptr, nullptr);
    }
}

void DecimalWatch::look(void* watch, sqlite3*, int operation, const char* schema, const char* table,
                        sqlite3_int64, sqlite3_int64) {
    auto& self = *static_cast<DecimalWatch*>(watch);
    if (operation == SQLITE_DELETE) return;
    try {
        self.lookAtRow(schema, table);
    } catch (...) {
        self.m_outOfMemory = true;
    }
}

void DecimalWatch::lookAtRow(const char* schema, const char* table) {
    std::vector<sqlite3_value*> row(static_cast<size_t>(sqlite3_preupdate_count(m_db)));
    for (size_t i = 0; i < row.size(); ++i) {
        if (sqlite3_preupdate_new(m_db, static_cast<int>(i), &row[i]) != SQLITE_OK) {
            throw std::bad_alloc();
        }
    }
    for (size_t i = 0; i < m_decimals.size(); ++i) {
        const Decimal& decimal = m_decimals[i];
        std::vector<Loss> losses;
        bool kept = false;
        for (size_t column = 0; column < row.size() && !kept; ++column) {
            const int type = sqlite3_value_type(row[column]);
            if (type == SQLITE_TEXT) {
                const auto size = static_cast<size_t>(sqlite3_value_bytes(row[column]));
                const auto* text = reinterpret_cast<const char*>(sqlite3_value_text(row[column]));
                kept = text && decimal.text == std::string_view(text, size);
            }
            const bool number = type == SQLITE_INTEGER || type == SQLITE_FLOAT;
            if (!number || !isClose(sqlite3_value_double(row[column]), decimal.value)) continue;
            std::string stored = digitsOf(row[column]);
            kept = stored == decimal.digits;
            losses.push_back({i, schema, table, static_cast<int>(column), std::move(stored)});
        }
        if (kept) continue;
        for (Loss& loss : losses) {
            if (std::find(m_losses.begin(), m_losses.end(), loss) == m_losses.end()) {
                m_losses.push_back(std::move(loss));
            }
        }
    }
}

void DecimalWatch::check() const {
    if (m_outOfMemory) throw std::bad_alloc();
    for (const Loss& loss : m_losses) {
        Query column(m_db,
                     "SELECT name, type FROM pragma_table_xinfo(?1, ?2) WHERE cid = " +
                         std::to_string(loss.column),
                     {loss.table, loss.schema});
        if (!column.next() || typeOfDeclaration(column.text(1)).sqlType == SQL_DOUBLE) continue;
        const Decimal& decimal = m_decimals[loss.decimal];
        throw Error("22003",
                    "Parameter " + std::to_string(decimal.number) + ": column " +
                        inQuotes(column.text(0)) + " would store " + inQuotes(decimal.text) +
                        " as " + loss.stored +
                        "; SQLite keeps 15 digits of a decimal in it, all of them in "
                        "a column of type TEXT.",
                    native::kMismatch);
    }
}

}  // namespace embedded
