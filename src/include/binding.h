// The Python types that can be parameters, as one table: how each is recognised, sent and warned
// of.
#pragma once

#include "include/dbs.h"
#include "include/pyref.h"

// What of a value may be lost, as bits.
enum Loss : unsigned { kBehindNul = 1, kFraction = 2, kTimeZone = 4 };

// How a value is handed to the provider.
struct Encoding {
    int Type;  // DB type code; DBTYPE_STRING for a text, DBTYPE_NONE for nothing at all
    // Of fixed size, in bytes, and then how it is written; false with an error set where it does
    // not fit.
    int Size = 0;
    bool (*Put)(PyObject* value, void* out) = nullptr;

    bool IsText() const { return Type == DBTYPE_STRING; }
};

// One kind of parameter. No value is of two kinds, and a subclass counts as its base.
struct ParamKind {
    const char* Name;  // in warnings
    bool (*Fits)(PyObject* value);
    Encoding Single;  // by execute
    Encoding Batch;   // by executemany: dates and times go as their text
    // What there is in a value that execute drops; null: such a value has nothing of the kind.
    unsigned (*Losses)(PyObject* value) = nullptr;
};

// Null for a value that cannot be sent.
const ParamKind* ParamKindOf(PyObject* value);
// How execute sends a value of this kind: a number in 32 bits where it fits.
const Encoding& SingleEncoding(const ParamKind& kind, PyObject* value);
