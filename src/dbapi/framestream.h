// Handing frames over to whoever takes Arrow's stream interface.
#pragma once

#include <memory>
#include <vector>

#include "dbapi/framebuilder.h"
#include "dbapi/objects.h"

// What can be handed over: a result, read as it is asked for, or all of it at any time.
extern PyTypeObject ArrowStreamType;
extern PyTypeObject ArrowTableType;

// What is left of a cursor's result: as a stream that takes it over, or as a table.
PyRef FetchArrow(CursorObject* self, Statement& statement, size_t batchRows);
PyRef FetchArrowAll(CursorObject* self, Statement& statement);
