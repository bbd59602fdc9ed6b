#pragma once

#include <memory>

#include "engine.h"
#include "sqlite/session.h"

namespace embedded {

/// What SQLite has for the catalogue. Its databases (main, temp and the attached ones) are the
/// schemas; there are no catalogues. An empty pattern beside a "%" asks for a list of schemas,
/// catalogues or table types, as the standard has it.
std::unique_ptr<ResultSet> listCatalog(Session& session, const CatalogSearch& search);

}  // namespace embedded
