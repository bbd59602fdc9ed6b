#pragma once

#include <sqlite3.h>

#include <string>
#include <string_view>
#include <vector>

namespace embedded {

/// Watches what becomes of decimals given as texts. A column that takes numbers makes of a decimal
/// a 64-bit float, and digits behind the fifteenth would vanish unseen.
class DecimalWatch {
  public:
    explicit DecimalWatch(sqlite3* db) noexcept : m_db(db) {}
    DecimalWatch(const DecimalWatch&) = delete;
    DecimalWatch& operator=(const DecimalWatch&) = delete;

    /// Adds the value of parameter `number` if it is a decimal that may lose digits. Most texts are
    /// told by a look at their first bytes.
    void add(int number, std::string_view text);
    void clear() noexcept;
    bool isNeeded() const noexcept { return !m_decimals.empty(); }

    /// Looks, while it exists, at every row that is stored.
    class Watching {
      public:
        explicit Watching(DecimalWatch& watch) noexcept;
        Watching(const Watching&) = delete;
        Watching& operator=(const Watching&) = delete;
        ~Watching();

      private:
        DecimalWatch& m_watch;
    };

    /// Throws 22003 when a column has stored another number than it was given. In a column of
    /// floats that is no loss: it was asked for one.
    void check() const;

  private:
    struct Decimal {
        int number;
        std::string text;
        std::string digits;  ///< plain, without zeros at the end
        double value;        ///< what becomes of it
    };
    struct Loss {
        size_t decimal;
        std::string schema;
        std::string table;
        int column;
        std::string stored;  ///< in its place

        bool operator==(const Loss&) const = default;
    };

    static void look(void* watch, sqlite3* db, int operation, const char* schema, const char* table,
                     sqlite3_int64, sqlite3_int64);
    void lookAtRow(const char* schema, const char* table);

    sqlite3* const m_db;
    std::vector<Decimal> m_decimals;
    std::vector<Loss> m_losses;
    bool m_outOfMemory = false;
};

}  // namespace embedded
