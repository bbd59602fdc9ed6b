#pragma once

#include <memory>

#include "engine.h"
#include "odbc/session.h"

namespace embedded {

/// The driver's answer about what a database holds.
std::unique_ptr<ResultSet> odbcCatalog(OdbcSession& session, const CatalogSearch& search);

}  // namespace embedded
