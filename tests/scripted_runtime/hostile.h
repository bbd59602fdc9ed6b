// The mode in which the runtime answers from a seed. Internal to this folder.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <string_view>

#include "model.h"

// Answers mostly as a provider would, with results that it invents, and lies at a rate and about
// things that the seed chooses. Whatever it says, it stays a legal callee: it writes only within
// the lengths that it was given, and reads what is bound only while its own answers promise that.
class Hostile {
  public:
    explicit Hostile(std::uint64_t seed);
    SQLRETURN Answer(Model& model, const Call& call);

  private:
    enum Subject : unsigned {
        Statuses = 1,
        Handles = 2,
        Metadata = 4,
        Cells = 8,
        Diags = 16,
        Counts = 32
    };

    std::uint64_t Below(std::uint64_t limit) { return m_random() % limit; }
    bool Chance(double probability) {
        return static_cast<double>(Below(10000)) < probability * 10000;
    }
    template <typename T, std::size_t N>
    T Pick(const T (&choices)[N]) {
        return choices[Below(N)];
    }
    bool Lies(Subject subject) { return (m_subjects & subject) != 0 && Chance(m_rate); }
    long long AnyNumber();
    SQLRETURN AnyStatus();
    std::string AnyBytes(std::size_t size);
    std::string AnyText();

    SQLRETURN Alloc(Model& model, const Call& call);
    SQLRETURN Free(Model& model, const Call& call, Handle& handle);
    SQLRETURN Execute(Model& model, const Call& call);
    SQLRETURN ColAttribute(Model& model, const Call& call);
    SQLRETURN Fetch(Handle& statement);
    SQLRETURN Error(const Call& call);
    SQLRETURN Do(Model& model, const Call& call, Handle& handle);
    Result AnyResult();
    bool Deliver(const Binding& target);

    std::mt19937_64 m_random;
    double m_rate = 0;
    unsigned m_subjects = 0;
    // The function that lies most of the time, if any.
    std::string_view m_habit;
    bool m_isEndless = false;
    // Rows handed out so far; bounded, so that whoever wants all rows of an endless result gets
    // done.
    int m_fetched = 0;
    // An allocation brought no handle: from then on null ones are used, which only earns a status.
    bool m_gaveNone = false;
};
