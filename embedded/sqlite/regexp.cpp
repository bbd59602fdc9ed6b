// Patterns: . [] [^] ( ) (?: ) | * + ? {n,m} ^ $ \d \w \s \b with their capitals, and (?i) in
// front. All paths through a pattern are followed at once, so none is tried again.
#include "sqlite/regexp.h"

#include <cstdint>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "sqlite/sqliteerror.h"
#include "values/text.h"

namespace embedded {
namespace {

constexpr size_t kMostSteps = 5000;
constexpr int kMostNested = 100;
constexpr unsigned kMostRepeats = 1000;

/// The character at `at`, which moves behind it; a byte that is no UTF-8 is U+FFFD.
char32_t take(std::string_view text, size_t& at) noexcept {
    const auto byte = [&](size_t i) -> unsigned {
        return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
    };
    const unsigned first = byte(at++);
    if (first < 0x80) return first;
    const size_t more = first >= 0xF0 ? 3 : first >= 0xE0 ? 2 : first >= 0xC0 ? 1 : 0;
    char32_t value = first & (0x3FU >> more);
    for (size_t i = 0; i < more; ++i) {
        if ((byte(at + i) & 0xC0U) != 0x80U) return 0xFFFD;
        value = value << 6U | (byte(at + i) & 0x3FU);
    }
    at += more;
    return more ? value : 0xFFFD;
}

struct Set {
    std::vector<std::pair<char32_t, char32_t>> ranges;
    bool negated = false;

    void add(char32_t first, char32_t last) { ranges.emplace_back(first, last); }
    void addAllBut(const Set& other) {
        char32_t next = 0;
        for (const auto& [first, last] : other.ranges) {  // in order
            if (first > next) add(next, first - 1);
            next = last + 1;
        }
        add(next, 0x10FFFF);
    }
    bool has(char32_t c) const noexcept {
        for (const auto& [first, last] : ranges) {
            if (c >= first && c <= last) return !negated;
        }
        return negated;
    }
};

bool isWordCharacter(char32_t c) noexcept {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
}

struct Step {
    enum class Kind : std::uint8_t { Character, Set, Fork, Jump, Start, End, Word, NoWord, Found };
    Kind kind;
    char32_t character = 0;
    size_t set = 0;
    int jump = 0;  ///< from here; a fork also goes to the next step
};

using Steps = std::vector<Step>;
using Kind = Step::Kind;

class Pattern {
  public:
    /// Throws std::invalid_argument for a text that is no pattern.
    explicit Pattern(std::string_view text) : m_text(text) {
        if (m_text.starts_with("(?i)")) {
            m_anyCase = true;
            m_at = 4;
        }
        m_steps = alternatives(0);
        if (m_at < m_text.size()) fail("an unmatched )");
        m_steps.push_back({Kind::Found});
        m_seen.resize(m_steps.size());
        m_text = {};  // the caller's
    }

    bool isIn(std::string_view text);

  private:
    [[noreturn]] static void fail(const char* what) {
        throw std::invalid_argument(std::string("REGEXP: ") + what + " in the pattern");
    }
    bool accept(char c) noexcept {
        if (m_at >= m_text.size() || m_text[m_at] != c) return false;
        ++m_at;
        return true;
    }
    bool atEnd() const noexcept { return m_at >= m_text.size(); }

    static void append(Steps& steps, const Steps& more) {
        if (steps.size() + more.size() > kMostSteps) fail("too many repetitions");
        steps.insert(steps.end(), more.begin(), more.end());
    }
    static Step jump(Kind kind, size_t distance, int sign = 1) {
        return {.kind = kind, .jump = sign * static_cast<int>(distance)};
    }
    Steps one(Set set) {
        m_sets.push_back(std::move(set));
        return {{.kind = Kind::Set, .set = m_sets.size() - 1}};
    }

    Steps alternatives(int depth);
    Steps sequence(int depth);
    Steps atom(int depth);
    Steps repeated(Steps item);
    static Steps repeatedTimes(const Steps& item, unsigned least, unsigned most, bool endless);
    unsigned number();
    char32_t escaped(Set& set);
    Steps brackets();

    bool matches(const Step& step, char32_t c) const noexcept;
    void reach(size_t step, char32_t before, bool atStart, char32_t behind, bool atEnd);

    std::string_view m_text;
    size_t m_at = 0;
    bool m_anyCase = false;
    Steps m_steps;
    std::vector<Set> m_sets;

    // While matching: the steps that have been reached, each once a character.
    std::vector<size_t> m_reached;
    std::vector<size_t> m_seen;
    std::vector<size_t> m_open;
    size_t m_turn = 0;
    bool m_found = false;
};

// ---- reading a pattern

Steps Pattern::alternatives(int depth) {
    if (depth > kMostNested) fail("too many nested groups");
    Steps result = sequence(depth);
    while (accept('|')) {
        const Steps other = sequence(depth);
        Steps both{jump(Kind::Fork, result.size() + 2)};
        append(both, result);
        both.push_back(jump(Kind::Jump, other.size() + 1));
        append(both, other);
        result = std::move(both);
    }
    return result;
}

Steps Pattern::sequence(int depth) {
    Steps result;
    while (!atEnd() && m_text[m_at] != '|' && m_text[m_at] != ')') {
        append(result, repeated(atom(depth)));
    }
    return result;
}

Steps Pattern::atom(int depth) {
    if (accept('(')) {
        if (accept('?') && !accept(':')) fail("a group of an unknown kind");
        Steps inside = alternatives(depth + 1);
        if (!accept(')')) fail("an unmatched (");
        return inside;
    }
    if (accept('^')) return {{Kind::Start}};
    if (accept('$')) return {{Kind::End}};
    if (accept('[')) return brackets();
    if (accept('.')) {
        return one({.ranges = {{'\n', '\n'}}, .negated = true});
    }
    if (accept('\\')) {
        if (accept('b')) return {{Kind::Word}};
        if (accept('B')) return {{Kind::NoWord}};
        Set set;
        const char32_t c = escaped(set);
        return set.ranges.empty() ? Steps{{Kind::Character, c}} : one(std::move(set));
    }
    if (accept('*') || accept('+') || accept('?')) fail("nothing to repeat");
    return {{Kind::Character, take(m_text, m_at)}};
}

unsigned Pattern::number() {
    unsigned value = 0;
    const size_t start = m_at;
    while (!atEnd() && isDigit(m_text[m_at])) {
        value = value * 10 + static_cast<unsigned>(m_text[m_at++] - '0');
        if (value > kMostRepeats) fail("too many repetitions");
    }
    if (m_at == start) fail("a bad {…}");
    return value;
}

Steps Pattern::repeated(Steps item) {
    for (;;) {
        unsigned least = 0;
        unsigned most = 1;
        bool endless = false;
        if (accept('*')) {
            endless = true;
        } else if (accept('+')) {
            least = 1;
            endless = true;
        } else if (accept('{')) {
            least = number();
            most = least;
            if (accept(',')) {
                endless = !atEnd() && m_text[m_at] == '}';
                if (!endless) most = number();
            }
            if (!accept('}') || (!endless && most < least)) fail("a bad {…}");
        } else if (!accept('?')) {
            return item;
        }
        accept('?');  // how much is taken does not matter to whether there is any
        item = repeatedTimes(item, least, most, endless);
    }
}

Steps Pattern::repeatedTimes(const Steps& item, unsigned least, unsigned most, bool endless) {
    Steps result;
    for (unsigned i = 0; i < least; ++i) append(result, item);
    if (endless) {
        append(result, {jump(Kind::Fork, item.size() + 2)});
        append(result, item);
        append(result, {jump(Kind::Jump, item.size() + 1, -1)});
        return result;
    }
    for (unsigned i = least; i < most; ++i) {
        append(result, {jump(Kind::Fork, item.size() + 1)});
        append(result, item);
    }
    return result;
}

/// Behind a backslash: a kind of characters, added to `set`, or one character.
char32_t Pattern::escaped(Set& set) {
    static const Set kDigits{{{'0', '9'}}};
    static const Set kWord{{{'0', '9'}, {'A', 'Z'}, {'_', '_'}, {'a', 'z'}}};
    static const Set kSpace{{{'\t', '\r'}, {' ', ' '}}};
    if (atEnd()) fail("a \\ at the end");
    const char32_t c = take(m_text, m_at);
    const auto add = [&set](const Set& kind, bool all) {
        if (all) {
            set.ranges.insert(set.ranges.end(), kind.ranges.begin(), kind.ranges.end());
        } else {
            set.addAllBut(kind);
        }
        return char32_t{0};
    };
    switch (c) {
        case 'd':
        case 'D':
            return add(kDigits, c == 'd');
        case 'w':
        case 'W':
            return add(kWord, c == 'w');
        case 's':
        case 'S':
            return add(kSpace, c == 's');
        case 'n':
            return '\n';
        case 'r':
            return '\r';
        case 't':
            return '\t';
        default:
            if (isWordCharacter(c) && c != '_') fail("an unknown \\ escape");
            return c;
    }
}

Steps Pattern::brackets() {
    Set set;
    set.negated = accept('^');
    bool first = true;
    while (first || !accept(']')) {
        first = false;
        if (atEnd()) fail("an unmatched [");
        const size_t ranges = set.ranges.size();
        const char32_t from = accept('\\') ? escaped(set) : take(m_text, m_at);
        if (set.ranges.size() > ranges) continue;
        char32_t to = from;
        if (m_at + 1 < m_text.size() && m_text[m_at] == '-' && m_text[m_at + 1] != ']') {
            ++m_at;
            to = accept('\\') ? escaped(set) : take(m_text, m_at);
        }
        if (to < from) fail("a bad range");
        set.add(from, to);
    }
    return one(std::move(set));
}

// ---- matching

bool Pattern::matches(const Step& step, char32_t c) const noexcept {
    return step.kind == Kind::Set ? m_sets[step.set].has(c) : step.character == c;
}

/// Adds `step` to what is reached, or what can be reached from it without a character.
void Pattern::reach(size_t step, char32_t before, bool atStart, char32_t behind, bool atEnd) {
    m_open.push_back(step);
    while (!m_open.empty()) {
        const size_t at = m_open.back();
        m_open.pop_back();
        if (m_seen[at] == m_turn) continue;
        m_seen[at] = m_turn;
        const Step& here = m_steps[at];
        const bool edge =
            (!atStart && isWordCharacter(before)) != (!atEnd && isWordCharacter(behind));
        bool passes = false;
        switch (here.kind) {
            case Kind::Fork:
                m_open.push_back(at + 1);
                [[fallthrough]];
            case Kind::Jump:
                m_open.push_back(at + static_cast<size_t>(here.jump));
                break;
            case Kind::Start:
                passes = atStart;
                break;
            case Kind::End:
                passes = atEnd;
                break;
            case Kind::Word:
                passes = edge;
                break;
            case Kind::NoWord:
                passes = !edge;
                break;
            case Kind::Found:
                m_found = true;
                break;
            default:
                m_reached.push_back(at);
        }
        if (passes) m_open.push_back(at + 1);
    }
}

bool Pattern::isIn(std::string_view text) {
    std::vector<size_t> from;
    m_found = false;
    m_reached.clear();
    m_open.clear();
    char32_t before = 0;
    char32_t current = 0;
    for (size_t at = 0;; before = current) {
        const bool atStart = at == 0;
        const bool atEnd = at >= text.size();
        size_t next = at;
        const char32_t behind = atEnd ? 0 : take(text, next);
        ++m_turn;
        from.swap(m_reached);
        m_reached.clear();
        for (const size_t step : from) {
            const Step& here = m_steps[step];
            const bool swaps =
                m_anyCase && ((before >= 'A' && before <= 'Z') || (before >= 'a' && before <= 'z'));
            if (matches(here, before) || (swaps && matches(here, before ^ 0x20U))) {
                reach(step + 1, before, atStart, behind, atEnd);
            }
        }
        reach(0, before, atStart, behind, atEnd);
        if (m_found || atEnd) return m_found;
        current = behind;
        at = next;
    }
}

void regexp(sqlite3_context* context, int, sqlite3_value** arguments) {
    const auto textOf = [](sqlite3_value* value) {
        const auto* text = reinterpret_cast<const char*>(sqlite3_value_text(value));
        return std::string_view(text ? text : "", static_cast<size_t>(sqlite3_value_bytes(value)));
    };
    const auto isNull = [](sqlite3_value* value) {
        return sqlite3_value_type(value) == SQLITE_NULL;
    };
    if (isNull(arguments[0]) || isNull(arguments[1])) return;
    try {
        auto* pattern = static_cast<Pattern*>(sqlite3_get_auxdata(context, 0));
        std::unique_ptr<Pattern> made;
        if (!pattern) {
            made = std::make_unique<Pattern>(textOf(arguments[0]));
            pattern = made.get();
        }
        sqlite3_result_int(context, pattern->isIn(textOf(arguments[1])) ? 1 : 0);
        if (made) {
            sqlite3_set_auxdata(context, 0, made.release(),
                                [](void* kept) { delete static_cast<Pattern*>(kept); });
        }
    } catch (const std::invalid_argument& error) {
        sqlite3_result_error(context, error.what(), -1);
    } catch (...) {
        sqlite3_result_error_nomem(context);
    }
}

}  // namespace

void addRegexp(sqlite3* db) {
    constexpr int kFlags = SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS;
    if (sqlite3_create_function_v2(db, "regexp", 2, kFlags, nullptr, regexp, nullptr, nullptr,
                                   nullptr) != SQLITE_OK) {
        throw sqliteError(db);
    }
}

}  // namespace embedded
