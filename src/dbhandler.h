// What is behind a DBSHANDLE. For dbsapi.cpp and dbs.cpp only.
#pragma once

#include <memory>
#include <string>

#include "mono/dbsource.h"
#include "mono/resultset.h"

struct _dbhandler {
    std::unique_ptr<IntDbSource> S;     // null after DBSDisconnect
    std::unique_ptr<IntDbResultSet> R;  // of the last execution, if its kind has one
    int affectedRows = 0;
    int verb = 0;

    // Counts what there is to read: another one means that what is known of an earlier result, its
    // cells among it, holds no longer.
    unsigned long long resultNumber = 0;
    // The last one that was closed: the next execution takes it again.
    std::unique_ptr<IntDbResultSet> spare;
    // The last statement and what became of it, since programs run one statement many times.
    struct {
        std::string Text;
        DynStr Normalized;
        int Verb = 0;
        int ParamCount = 0;
    } last;

    void EndResultSet() {
        ++resultNumber;
        if (!R) return;
        R->Close();
        spare = std::move(R);
    }
};
