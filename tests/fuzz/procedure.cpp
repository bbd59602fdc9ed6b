// The SQL scanner and the procedure parser of the embedded runtime against SQLite itself: where its
// tokens end, and what it makes of the texts that the parser cuts out.
#include "sqlite/procedureparser.h"

#include <sqlite3.h>

#include <cctype>
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
    SqlScanner scanner(sql);
    auto piece = scanner.next();
    for (std::size_t done = 0;; piece = scanner.next()) {
        std::string token;
        const Found found = sqliteToken(std::string_view(sql).substr(done), token);
        if (found == Found::Illegal) return done;
        require((found == Found::Token) == (piece.kind != Kind::End), "SQLite sees a token, too");
        if (found == Found::Nothing) return sql.size();
        const std::size_t begin = scanner.position() - piece.text.size();
        fuzz::requireSame(sql.substr(begin, token.size()), token, "SQLite's token");
        done = begin + token.size();
        // Hexadecimal digits end a number in the middle of a word.
        if (token.size() > 2 && (token[1] == 'x' || token[1] == 'X')) return begin;
        const bool variable = std::string_view("?@:$#").find(token.front()) != std::string::npos;
        require(variable == (piece.kind == Kind::Marker || piece.kind == Kind::Variable),
                "variables");
        for (; scanner.position() < done; piece = scanner.next()) {
            require(piece.kind == Kind::Word || piece.kind == Kind::Punctuation,
                    "a token within SQLite's token");
        }
        require(scanner.position() == done, "SQLite's token ends at one");
    }
}

void checkScanner(const std::string& sql) {
    const std::size_t known = checkBoundaries(sql);
    std::string numbered;
    try {
        numbered = readSql(sql).respelled.value_or(sql);
    } catch (const Error&) {  // an ALTER with a name of the runtime's
        return;
    }
    require(numbered.size() == sql.size(), "markers keep their length");
    for (std::size_t i = 0; i < known; ++i) {
        if (numbered[i] == sql[i]) continue;
        require(sql[i] == '@' && numbered[i] == '?', "only markers are rewritten");
        while (i + 1 < sql.size() && std::isdigit(static_cast<unsigned char>(sql[i + 1])) != 0) ++i;
    }
    std::string tail;
    require(!isBlankSql(sql) || (!compile(sql, tail) && sqlite3_errcode(database()) == SQLITE_OK),
            "SQLite finds the text blank, too");
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
