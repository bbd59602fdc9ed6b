#pragma once

#include <sqlite3.h>

namespace embedded {

/// Gives `db` the function behind SQLite's operator REGEXP: whether a pattern is found anywhere in
/// a text. Takes time in proportion to the text, whatever the pattern. Throws when `db` refuses it.
void addRegexp(sqlite3* db);

}  // namespace embedded
