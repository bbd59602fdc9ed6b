// The mode in which the runtime answers from a seed. Internal to this folder.
#pragma once

#include <cstdint>
#include <functional>

#include "model.h"

using Answers = std::function<SQLRETURN(Model&, const Call&)>;

// Answers mostly as a provider would, with results that it invents, and lies at a rate and about
// things that the seed chooses. Whatever it says, it stays a legal callee: it writes only within
// the lengths that it was given, and reads what is bound only while its own answers promise that.
Answers HostileAnswers(std::uint64_t seed);
