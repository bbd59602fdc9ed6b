#pragma once

#include <memory>

#include "engine.h"

namespace embedded {

/// Whether a connection string is one for the driver manager.
bool asksForDriverManager(const ConnectString& text) noexcept;

/// The engine's entry: a data source of the ODBC driver manager. Null when the string leads the
/// driver manager back to this very library, as one does that found this runtime's caller as a
/// driver.
std::unique_ptr<Database> openOdbc(const ConnectString& text, CursorOwner& cursors,
                                   Diagnostics& diagnostics, SQLULEN loginTimeout);

/// Throws when this thread is waiting for the driver manager to connect it: the manager has come
/// back to this library. To be called before a connection string is read.
void refuseReturn();

}  // namespace embedded
