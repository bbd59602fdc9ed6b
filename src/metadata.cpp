// Classification of a statement without rewriting it.
#include <new>

#include "dbutil.h"

int NormalizeSQL(const char* originalSql, DynStr& normalizedSql, const char** verb) {
    static constexpr const char* kWords[] = {"SELECT", "UPDATE", "INSERT", "DELETE"};
    const int sqlType = MarkerWalk(originalSql).SqlType();
    *verb = nullptr;
    if (sqlType < SQLTYPE_SELECT || sqlType > SQLTYPE_DELETE) return -1;
    if (normalizedSql.Set(originalSql) != VORDA_OK) throw std::bad_alloc();
    *verb = kWords[sqlType - SQLTYPE_SELECT];
    return VORDA_OK;
}
