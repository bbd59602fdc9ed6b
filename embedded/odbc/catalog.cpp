#include "odbc/catalog.h"

#include "odbc/rows.h"
#include "odbc/statement.h"

namespace embedded {
namespace {

/// A search argument for the driver manager, which ends with its terminator.
class Name {
  public:
    explicit Name(const Pattern& pattern) {
        if (!pattern) return;
        refuseNul(*pattern, "name");
        m_text = wideText(*pattern);
    }
    SQLWCHAR* text() { return m_text.empty() ? nullptr : m_text.data(); }

  private:
    WideText m_text;
};

SQLRETURN ask(SQLHSTMT statement, const DriverManager& manager, const CatalogSearch& search) {
    constexpr SQLSMALLINT kEnds = SQL_NTS;
    const auto with = [&](auto function, auto... more) {
        return function(statement, Name(search.catalog).text(), kEnds, Name(search.schema).text(),
                        kEnds, Name(search.table).text(), kEnds, more...);
    };
    Name detail(search.detail);
    switch (search.what) {
        case Catalog::Tables:
            return with(manager.SQLTablesW, detail.text(), kEnds);
        case Catalog::Columns:
            return with(manager.SQLColumnsW, detail.text(), kEnds);
        case Catalog::ProcedureColumns:
            return with(manager.SQLProcedureColumnsW, detail.text(), kEnds);
        case Catalog::PrimaryKeys:
            return with(manager.SQLPrimaryKeysW);
        case Catalog::ForeignKeys:
            return with(manager.SQLForeignKeysW, Name(search.foreignCatalog).text(), kEnds,
                        Name(search.foreignSchema).text(), kEnds, Name(search.foreignTable).text(),
                        kEnds);
        case Catalog::Statistics:
            return with(manager.SQLStatisticsW, search.uniqueness, search.accuracy);
        case Catalog::Procedures:
            return with(manager.SQLProceduresW);
        case Catalog::Types:
            break;
    }
    return manager.SQLGetTypeInfoW(statement, search.type);
}

}  // namespace

std::unique_ptr<ResultSet> odbcCatalog(OdbcSession& session, const CatalogSearch& search) {
    session.require();
    auto statement = std::make_shared<OdbcStatement>(session);
    statement->run([&] { return ask(statement->get(), session.manager(), search); });
    return makeOdbcRows(std::move(statement));
}

}  // namespace embedded
