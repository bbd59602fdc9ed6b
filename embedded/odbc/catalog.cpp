#include "odbc/catalog.h"

#include "odbc/rows.h"
#include "odbc/statement.h"

namespace embedded {
namespace {

/// Runs a function of the catalogue with four search arguments, each with the length that says that
/// a terminator ends it, or a null pointer.
template <class Function>
std::unique_ptr<ResultSet> run(OdbcSession& session, const CatalogSearch& search,
                               Function function) {
    session.require();
    auto statement = std::make_shared<OdbcStatement>(session);
    const auto wide = [](const Pattern& pattern) {
        return pattern ? wideText(*pattern) : WideText();
    };
    WideText catalog = wide(search.catalog);
    WideText schema = wide(search.schema);
    WideText table = wide(search.table);
    WideText detail = wide(search.detail);
    const auto text = [](WideText& given) { return given.empty() ? nullptr : given.data(); };
    statement->run([&] {
        return function(statement->get(), text(catalog), SQL_NTS, text(schema), SQL_NTS,
                        text(table), SQL_NTS, text(detail), SQL_NTS);
    });
    return makeOdbcRows(std::move(statement));
}

}  // namespace

std::unique_ptr<ResultSet> odbcTables(OdbcSession& session, const CatalogSearch& search) {
    return run(session, search, session.manager().SQLTablesW);
}

std::unique_ptr<ResultSet> odbcColumns(OdbcSession& session, const CatalogSearch& search) {
    return run(session, search, session.manager().SQLColumnsW);
}

std::unique_ptr<ResultSet> odbcProcedureColumns(OdbcSession& session, const CatalogSearch& search) {
    return run(session, search, session.manager().SQLProcedureColumnsW);
}

}  // namespace embedded
