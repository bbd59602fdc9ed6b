// Readable lines for the call log. Internal to this folder.
#pragma once

#include <string>

#include "model.h"

// The call with its arguments, as they are before it acts.
std::string FormatCall(const Model& model, const Call& call);

// "stmt2", "dbc1(freed)", "null" or "ptr".
std::string FormatHandle(const Model& model, SQLHANDLE handle);

// C types whose values have one size; the slots of all others are as wide as their buffer length.
struct FixedType {
    int cType;
    int size;
    std::string (*format)(const char* data);
};
// Null for a type that is none of them.
const FixedType* FindFixed(int cType);

// Logs what the bound memory of a statement's parameters holds, one line each; a length that
// reaches beyond its slot is an error.
void LogParameters(Model& model, const Call& call, const Handle& statement);
