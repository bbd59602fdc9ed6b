// The SQL scanner and the procedure parser of the embedded runtime against SQLite itself: where its
// tokens end, and what it makes of the texts that the parser cuts out.
#include "sqlite/procedureparser.h"

#include <sqlite3.h>

#include <memory>

#include "core/error.h"
#include "fuzz.h"
#include "sql/scanner.h"
#include "sqlite/sqltext.h"

namespace {

using namespace embedded;
using fuzz::require;
using Kind = SqlScanner::Kind;

struct Close {
    void operator()(sqlite3* db) const { sqlite3_close(db); }
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, Close>;

sqlite3* database() {
    static const std::unique_ptr<sqlite3, Close> db = [] {
        sqlite3* opened = nullptr;
        sqlite3_open(":memory:", &opened);
        sqlite3_exec(opened, "CREATE TABLE t (a, b); CREATE TABLE p (a, b)", nullptr, nullptr,
                     nullptr);
        return std::unique_ptr<sqlite3, Close>(opened);
    }();
    return db.get();
}

/// Compiles the first statement of `sql`; `tail` receives what is left.
Statement compile(const std::string& sql, std::string& tail) {
    sqlite3_stmt* statement = nullptr;
    const char* rest = nullptr;
    sqlite3_prepare_v2(database(), sql.c_str(), -1, &statement, &rest);
    tail = rest != nullptr ? rest : "";
    return Statement(statement);
}

enum class Found { Token, Illegal, Nothing };

/// The first token of `text` as SQLite reads it: nothing but a semicolon can follow either of these
/// beginnings, and the message of the syntax error shows what does.
Found sqliteToken(std::string_view text, std::string& token) {
    constexpr std::string_view kNear = "near \"";
    constexpr std::string_view kNearEnd = "\": syntax error";
    std::string tail;
    if (compile("SAVEPOINT a/**/" + std::string(text), tail)) {
        compile("EXPLAIN QUERY PLAN/**/" + std::string(text), tail);
    }
    const std::string_view message = sqlite3_errmsg(database());
    if (message.starts_with("unrecognized token: ")) return Found::Illegal;
    if (message == "incomplete input") return Found::Nothing;
    require(message.starts_with(kNear) && message.ends_with(kNearEnd), message);
    token = message.substr(kNear.size(), message.size() - kNear.size() - kNearEnd.size());
    return Found::Token;
}

/// Every token of SQLite's must end where one of the scanner's does, and only numbers and
/// operators may be several of the scanner's. Answers how far SQLite could read.
std::size_t checkBoundaries(const std::string& sql) {
    struct Piece {
        Kind kind;
        std::size_t begin;
        std::size_t end;
    };
    std::vector<Piece> pieces;
    SqlScanner scanner(sql);
    for (auto token = scanner.next(); token.kind != Kind::End; token = scanner.next()) {
        const std::size_t end = scanner.position();
        pieces.push_back({token.kind, end - token.text.size(), end});
        require(sql.substr(pieces.back().begin, token.text.size()) == token.text,
                "the token's place");
    }
    std::size_t done = 0;
    for (std::size_t i = 0; i < pieces.size(); ++i) {
        const Piece& first = pieces[i];
        std::string token;
        const Found found = sqliteToken(std::string_view(sql).substr(done), token);
        if (found == Found::Illegal) return done;
        require(found == Found::Token, "SQLite sees a token");
        fuzz::requireSame(sql.substr(first.begin, token.size()), token, "SQLite's token");
        done = first.begin + token.size();
        // Hexadecimal digits end a number in the middle of a word.
        if (token.size() > 2 && (token[1] == 'x' || token[1] == 'X')) return first.begin;
        const bool whole = pieces[i].end == done;
        while (!whole && i < pieces.size() && pieces[i].end <= done) {
            require(pieces[i].kind == Kind::Word || pieces[i].kind == Kind::Punctuation,
                    "a token within SQLite's token");
            if (pieces[i].end == done) break;
            ++i;
        }
        require(i < pieces.size() && pieces[i].end == done, "SQLite's token ends at one");
        const bool variable = std::string_view("?@:$#").find(token.front()) != std::string::npos;
        require(variable == (first.kind == Kind::Marker || first.kind == Kind::Variable),
                "variables");
    }
    std::string token;
    const Found behind = sqliteToken(std::string_view(sql).substr(done), token);
    require(behind == Found::Nothing, "SQLite sees nothing behind the last token");
    return sql.size();
}

void checkScanner(const std::string& sql) {
    const std::size_t known = checkBoundaries(sql);
    std::string numbered;
    try {
        numbered = readSql(sql).sql;
    } catch (const Error&) {  // an ALTER with a name of the runtime's
        return;
    }
    require(numbered.size() == sql.size(), "markers keep their length");
    for (std::size_t i = 0; i < known; ++i) {
        if (numbered[i] == sql[i]) continue;
        std::string token;
        require(sqliteToken(std::string_view(sql).substr(i), token) == Found::Token &&
                    token.front() == '@' && token.size() > 1 &&
                    token.find_first_not_of("0123456789", 1) == std::string::npos,
                "only markers are rewritten");
        require(numbered[i] == '?', "to question marks");
        const std::string number = numbered.substr(i + 1, token.size() - 1);
        require(number == token.substr(1) || number.find_first_not_of(' ') == std::string::npos,
                "with their numbers or none");
        i += number.size();
    }
    std::string tail;
    if (isBlankSql(sql)) {
        require(compile(sql, tail) == nullptr && sqlite3_errcode(database()) == SQLITE_OK,
                "SQLite finds the text blank, too");
    }
}

// ---- procedures

void check(const ProcedureDefinition& definition) {
    require(!definition.body.empty(), "a body has statements");
    fuzz::tell("create", definition.name, definition.replaces);
    for (const std::string& statement : definition.body) {
        fuzz::tell(statement);
        require(!isBlankSql(statement), "no statement of a body is blank");
        if (statement.find('\0') != std::string::npos) continue;
        std::string tail;
        if (compile(statement, tail)) require(isBlankSql(tail), "it is one statement for SQLite");
    }
}
void check(const ProcedureRemoval& removal) {
    fuzz::tell("drop", removal.name, removal.ifExists);
}
void check(const ProcedureCall& call) {
    fuzz::tell("call", call.name);
    for (const Argument& argument : call.arguments) fuzz::tell(argument.name, argument.value);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string sql(fuzz::Input(data, size).rest());
    // SQLite's texts end at the first NUL.
    if (sql.size() <= 400) checkScanner(sql.substr(0, sql.find('\0')));
    try {
        const auto command = parseProcedureCommand(sql);
        if (command) std::visit([](const auto& read) { check(read); }, *command);
    } catch (const Error& error) {
        fuzz::tell("refused", error.what());
    }
    return 0;
}
