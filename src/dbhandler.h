// What is behind a DBSHANDLE. For dbsapi.cpp and dbs.cpp only.
#pragma once

#include <memory>
#include <utility>

#include "mono/dbsource.h"
#include "mono/resultset.h"
#include "statementmemory.h"

struct _dbhandler {
    std::unique_ptr<IntDbSource> S;     // null after DBSDisconnect
    std::unique_ptr<IntDbResultSet> R;  // of the last execution, if its kind has one
    int affectedRows = 0;
    int verb = 0;

    // Counts what there is to read: another one means that what is known of an earlier result, its
    // cells among it, holds no longer.
    unsigned long long resultNumber = 0;
    StatementMemory memory;

    void EndResultSet() {
        ++resultNumber;
        memory.Keep(std::move(R));
    }
};
