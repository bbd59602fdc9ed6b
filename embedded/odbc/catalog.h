#pragma once

#include <memory>

#include "engine.h"
#include "odbc/session.h"

namespace embedded {

/// The driver's answers about what a database holds.
std::unique_ptr<ResultSet> odbcTables(OdbcSession& session, const CatalogSearch& search);
std::unique_ptr<ResultSet> odbcColumns(OdbcSession& session, const CatalogSearch& search);
std::unique_ptr<ResultSet> odbcProcedureColumns(OdbcSession& session, const CatalogSearch& search);

}  // namespace embedded
