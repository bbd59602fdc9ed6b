#pragma once

#include <string>
#include <vector>

#include "core/parameters.h"
#include "odbc/statement.h"

namespace embedded {

/// How values bound with a C type reach the driver.
struct ParameterForm;

/// Hands parameter values to a driver in the forms that drivers understand. What was bound last
/// stays in this object's memory.
class OdbcParameters {
  public:
    /// `numbers` has, for every "?" of the statement, the number of its parameter.
    OdbcParameters(ParameterSets& sets, const std::vector<int>& numbers,
                   const DriverQuirks& quirks);

    size_t count() const noexcept { return m_arrays.size(); }

    /// A short text that is the same for parameters of the same types.
    std::string types() const;

    /// The ODBC type, of a time with a time zone, that the values of the marker at `position`, from
    /// 0, are bound as, which come as texts; 0 for others.
    SQLSMALLINT zonedType(size_t position) const { return m_arrays[position].zonedType; }

    /// Whether every value of the marker at `position`, from 0, is 0, 1 or NULL, and some is not
    /// NULL.
    bool mayBeBooleans(size_t position) const;

    /// Sends the integers of that marker as Booleans.
    void sendAsBooleans(size_t position);

    /// Binds arrays of the values of the sets from `first` on, as many as fit into some megabytes
    /// and `most`. Answers how many that are, one at least. Throws the failure of a value, which is
    /// reported as that of its set.
    SQLULEN bind(const OdbcStatement& statement, SQLULEN first, SQLULEN most);

  private:
    /// The values of one marker.
    struct Array {
        int number = 0;  ///< of its parameter
        const ParameterForm* form = nullptr;
        SQLSMALLINT zonedType = 0;
        size_t width = 0;        ///< bytes from value to value
        size_t wanted = 0;       ///< the same if one more set joins
        SQLSMALLINT digits = 0;  ///< of the fractions of seconds
        size_t start = 0;        ///< of the values in `data`
        std::vector<char> data;
        std::vector<SQLLEN> indicators;
    };

    Value valueOf(const Array& array, SQLULEN set);
    SQLULEN measure(SQLULEN first, SQLULEN most);
    void fill(Array& array, SQLULEN first, SQLULEN count);

    ParameterSets& m_sets;
    const bool m_keepsNul;
    std::vector<Array> m_arrays;
    std::string m_text;  ///< of the temporal value that `valueOf` answered last
};

}  // namespace embedded
