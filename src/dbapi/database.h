// What is known of the database behind a connection.
#pragma once

#include <string>

#include "dbapi/values.h"
#include "dbapi/waiting.h"
#include "include/sqltypes.h"

struct Database {
    SQLHDBC connection = nullptr;  // null once closed
    std::string product;           // as the driver tells it, if it is ASCII
    bool isSqlite = false;
    bool keepsZones = false;  // of times, or says that it does not
    bool hasCells = false;    // rows come in blocks of cells that are what they are
    long timeout = 0;         // seconds that a statement may take; 0: any
    const unsigned forks = ForkCount();

    // Whether a parent process owns it: nothing of it may be touched.
    bool IsInherited() const { return forks != ForkCount(); }
    Sending HowToSend() const { return {isSqlite, keepsZones}; }
};
