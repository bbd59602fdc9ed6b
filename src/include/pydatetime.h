// CPython's datetime C API, as one table for the whole module.
#pragma once

#include "include/pyref.h"

// The system's header gives each file a pointer of its own, which a file could forget to fill.
// Renamed, it lies idle, and the header's macros meet the one below, which the import fills.
#define PyDateTimeAPI idlePyDateTimeAPI [[maybe_unused]]
#include <datetime.h>
#undef PyDateTimeAPI

extern PyDateTime_CAPI* PyDateTimeAPI;
