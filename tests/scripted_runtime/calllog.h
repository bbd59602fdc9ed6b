// Readable lines for the call log. Internal to this folder.
#pragma once

#include <string>

#include "model.h"

// The call with its arguments, as they are before it acts.
std::string FormatCall(const Model& model, const Call& call);

// "stmt2", "dbc1(freed)", "null" or "ptr".
std::string FormatHandle(const Model& model, SQLHANDLE handle);

// "2024-02-29 13:14:15.000000250"
std::string FormatTimestamp(const SQL_TIMESTAMP_STRUCT& timestamp);

// Logs what the bound memory of a statement's parameters holds, one line each; a length that
// reaches beyond its slot is an error.
void LogParameters(Model& model, const Call& call, const Handle& statement);
