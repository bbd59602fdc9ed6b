#pragma once

#include <span>
#include <string_view>

#include "sql/scanner.h"

namespace embedded {

/// What differs between data sources and cannot be asked of their drivers.
struct Dialect {
    SqlSyntax syntax = {};

    // How it keeps transactions.
    bool commitsBySchemaChange = false;
    const char* inTransaction = nullptr;  ///< a query that answers 1 inside a transaction
    const char* isNode = nullptr;         ///< one that answers 1 where other nodes change data, too
    bool savepointBegins = false;         ///< SAVEPOINT opens a transaction where none is
    /// SQLSTATEs of texts that the server cannot even read. The driver's savepoint is in the same
    /// message, and so was never made: the driver rolls back the whole transaction.
    std::span<const std::string_view> unreadable = {};
    /// The native codes behind which the server itself, or its driver, has rolled back the whole
    /// transaction, with its savepoints.
    std::span<const int> undone = {};
    /// What has to come before the first savepoint of a transaction; null for nothing.
    const char* beforeSavepoint = nullptr;
    const char* savepoint = "SAVEPOINT ";
    const char* rollbackTo = "ROLLBACK TO SAVEPOINT ";
    const char* release = "RELEASE SAVEPOINT ";  ///< null: there is none, and no need
    /// What the server says to a savepoint that it does not have; null for nothing of its own.
    const char* noSavepoint = nullptr;

    /// What the server says to the driver's call escape for a procedure that has to be called with
    /// CALL; null where no such thing happens.
    const char* wrongCall = nullptr;
    /// A query for the name of a parameter's type, for drivers that tell one type for times with
    /// and without a time zone: the parameter of the statement prepared last whose number stands
    /// for #; null where nobody tells.
    const char* typeOfParameter = nullptr;
    /// What the server says when the plan of a prepared statement is out of date; null where it
    /// makes a new one by itself.
    const char* stalePlan = nullptr;
    /// What the server says when it cannot guess the type of a prepared statement's parameter,
    /// which it knows from the value when that stands in the text; null where it does not guess.
    const char* unguessed = nullptr;
    int staleQueryCode = 0;  ///< the same of queries only, by the native code; 0: none
    /// A 0 or 1 for a Boolean has to be sent as one.
    bool strictBooleans = false;
};

/// The dialect of the database that its driver names so (SQL_DBMS_NAME); plain SQL for others.
const Dialect& dialectOf(std::string_view dbms) noexcept;

struct WordPair {
    std::string_view first;
    std::string_view second;  ///< empty: any
};

/// How a statement begins, and what stands further on in it.
struct StatementPattern {
    WordPair start;
    WordPair inside = {};          ///< empty: anything
    std::string_view unless = {};  ///< stands in a word or text of it; empty: nothing does
};

/// What is to be known about a driver and cannot be asked of it.
struct DriverQuirks {
    /// To be added to the connection string unless it has this key; null for nothing.
    const char* key = nullptr;
    const char* value = nullptr;
    bool arrays = true;                             ///< its arrays of parameters can be used
    std::span<const StatementPattern> single = {};  ///< not with these statements
    bool describesScales = true;                    ///< of times and timestamps
    bool utf8Texts = false;  ///< texts come and go whole only as bytes, which are UTF-8
    bool rowArrays = false;  ///< it fetches many rows at once, and gives longer values of each
    /// It takes a date that it does not understand for today, unless it delivers a text.
    bool makesUpToday = false;
    /// Which values, besides texts, it delivers right only as texts.
    enum class AsText { None, Temporals, All } comesAsText = AsText::None;
    bool keepsNul = false;       ///< a parameter's text goes on behind a NUL character
    bool textTemporals = false;  ///< dates and times have to be sent as texts
    std::span<const StatementPattern> unreadable = {};  ///< it must not be given these
    /// It splits texts at their semicolons, those of a body too, behind which it must not be asked
    /// for the next result; what is not read of several results keeps everything else waiting.
    bool splitsTexts = false;
    /// What it is to execute once it sends along with its preparation. Where the server refuses
    /// that, it executes the statement that was prepared before, whichever that is.
    bool mistakesDirect = false;
    bool copiesPrepared = false;  ///< it keeps the rows of what is prepared twice, for a while
    bool staleTypes = false;      ///< a prepared statement keeps a table's old column types
    bool narrow = false;          ///< it knows no wide functions, and takes UTF-8 in the others
    /// Where a connection is lost it may say HY000, and knows without asking the server.
    bool hidesLoss = false;
    int cancelled = 0;  ///< the native code of what was cancelled, where its state does not say so
};

/// The quirks of the driver library `file` (SQL_DRIVER_NAME).
const DriverQuirks& quirksOf(std::string_view file);

/// The quirks of the driver that a connection string calls `name`, if that is enough to know it.
const DriverQuirks& quirksOfNamed(std::string_view name);

}  // namespace embedded
