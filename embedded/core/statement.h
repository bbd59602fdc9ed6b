#pragma once

#include <sql.h>
#include <sqlext.h>

#include <atomic>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/connection.h"
#include "core/handle.h"
#include "core/parameters.h"
#include "values/convert.h"

namespace embedded {

/// One SQLBindCol call.
struct ColumnBinding {
    SQLSMALLINT cType = 0;
    void* target = nullptr;  ///< null: not bound
    SQLLEN capacity = 0;
    SQLLEN* indicator = nullptr;
};

/// The statement attributes that can be changed.
struct StatementOptions {
    SQLULEN parameterSets = 1;
    ParameterLayout layout;              ///< without the offset
    SQLULEN* parameterOffset = nullptr;  ///< SQL_ATTR_PARAM_BIND_OFFSET_PTR
    ParameterReport parameterReport;
    SQLULEN rowArraySize = 1;
    SQLULEN rowSize = SQL_BIND_BY_COLUMN;  ///< SQL_ATTR_ROW_BIND_TYPE
    SQLULEN* rowOffset = nullptr;          ///< SQL_ATTR_ROW_BIND_OFFSET_PTR
    SQLUSMALLINT* rowStatus = nullptr;
    SQLULEN* rowsFetched = nullptr;
    ExecutionOptions execution;

    /// The layout with the offset that the application's variable holds now.
    ParameterLayout currentLayout() const noexcept {
        return {layout.rowSize, parameterOffset ? *parameterOffset : 0};
    }
};

/// A statement handle.
///
/// Applications leave many of them behind, executed and never freed. What a statement needs to run
/// and to be read is therefore made when it is needed and dropped when it is over; an idle
/// statement is a few pointers.
class Statement final : public Handle, public Attached {
  public:
    static constexpr SQLSMALLINT kHandleType = SQL_HANDLE_STMT;

    explicit Statement(std::shared_ptr<Connection> connection);
    ~Statement();

    std::mutex& mutex() noexcept { return m_connection->mutex(); }
    Connection& connection() noexcept { return *m_connection; }
    bool inherited() const noexcept { return m_connection->inherited(); }

    void prepare(std::string_view sql);
    SQLRETURN execute();
    SQLRETURN executeDirect(std::string_view sql);

    /// Presents what the catalogue has as the result of this statement.
    void openCatalog(const CatalogSearch& search);

    /// Reads as many rows as the application's arrays hold. Of several, a row that fails is
    /// reported with its number and does not keep back the others.
    SQLRETURN fetch();

    /// Makes the 1-based `row` of those that were fetched together the current one.
    void setPosition(SQLULEN row);

    /// Delivers the value in the 1-based column of the current row, in parts if it is long.
    SQLRETURN getData(SQLUSMALLINT column, SQLSMALLINT cType, Target target);

    /// Ends the rows of this result for those of the next one.
    SQLRETURN moreResults();

    /// Interrupts the call that is running on this statement, if there is one, until it ends.
    /// Callable from any thread, without the lock.
    void cancel() noexcept;

    /// Number of parameter markers of the prepared text.
    int parameterCount() const;

    /// Of the 1-based parameter; throws HYC00 where nobody knows it.
    ParameterType parameterType(int number) const;

    /// The result columns, also of a statement that is prepared only; none for one without rows.
    const std::vector<Column>& columns();
    int columnCount();

    /// Rows changed by the last execution; -1 when that is no question.
    SQLLEN rowCount() const;

    /// The number that the last row inserted by the last execution was given, if it was given one.
    std::optional<std::int64_t> lastRow() const noexcept { return m_lastRow; }

    /// Number of the current row from 1; 0 when there is none.
    SQLULEN rowNumber() const noexcept;

    void bindParameter(SQLUSMALLINT number, const ParameterBinding& binding);
    void unbindParameters() noexcept;
    void bindColumn(SQLUSMALLINT number, const ColumnBinding& binding);
    void unbindColumns() noexcept;

    bool hasCursor() const noexcept { return m_work && m_work->rows; }

    void closeCursor() noexcept override;
    void overtake() noexcept override;
    void drop() noexcept override;

    const StatementOptions& options() const noexcept { return settings().options; }
    StatementOptions& changeOptions() {
        if (m_work) m_work->routed = false;
        return changeSettings().options;
    }

  private:
    /// A bound column with the conversion chosen for it.
    struct Route {
        Converter convert;
        int index;
        const ColumnType* type;
        Target target;  ///< of the first row
        size_t valueStep;
        size_t indicatorStep;
    };

    /// A copy of a value that its row, left behind by the engine, cannot be asked for any more.
    struct KeptCell {
        SQLULEN row;
        int column;
        Cell cell;
        std::string bytes;
        Temporal temporal;

        bool operator<(const KeptCell& other) const noexcept {
            return row != other.row ? row < other.row : column < other.column;
        }
    };

    /// What exists from preparation or execution until the statement is over.
    struct Work {
        std::unique_ptr<Program> program;  ///< null when it is over, and for a catalogue function
        bool prepared = false;             ///< by `prepare`, so it outlives its cursor
        std::unique_ptr<ResultSet> rows;   // destroyed first: the program computes them
        SQLULEN rowsRead = 0;
        SQLULEN block = 0;           ///< rows of the last fetch
        SQLULEN position = 0;        ///< of the current row in them
        bool live = false;           ///< the engine stands on that row
        std::vector<KeptCell> kept;  ///< of these rows, by row and column
        bool ended = false;
        std::exception_ptr failure;  ///< of the engine, behind these rows
        bool asked = false;          ///< whether somebody has asked for `rows`
        bool routed = false;         ///< `routes` fit the bindings
        std::vector<Route> routes;
        std::vector<int> unbound;  ///< the columns that no route leads to
        SQLUSMALLINT partColumn =
            0;  ///< column of the last `getData` on this row, and how far it got
        size_t partOffset = 0;

        SQLULEN rowNumber() const noexcept { return rowsRead - block + position + 1; }

        /// Forgets all that is known about the rows, which are gone.
        void forgetRows() noexcept;
    };

    /// What the application has set; outlives executions.
    struct Settings {
        std::vector<ParameterBinding> parameters;
        std::vector<ColumnBinding> columns;
        StatementOptions options;
        int surplusParameter = 0;  ///< highest number bound beyond the markers of the prepared text
    };

    /// Marks the statement as running for `cancel`. One that comes holds until the mark goes, and
    /// no longer: it must not stop what runs next.
    class Running {
      public:
        explicit Running(Statement& statement) noexcept : m_statement(statement) {
            m_statement.m_call.store(Call::Running, std::memory_order_relaxed);
        }
        ~Running() {
            if (end() == Call::Interrupted) m_statement.m_connection->forgetInterrupt();
        }
        Running(const Running&) = delete;
        Running& operator=(const Running&) = delete;

      private:
        Call end() noexcept {
            std::atomic<Call>& call = m_statement.m_call;
            if (!isOnlyThread()) return call.exchange(Call::None);
            const Call was = call.load(std::memory_order_relaxed);
            call.store(Call::None, std::memory_order_relaxed);
            return was;
        }

        Statement& m_statement;
    };

    static const Settings kUntouched;
    const Settings& settings() const noexcept { return m_settings ? *m_settings : kUntouched; }
    Settings& changeSettings();
    Work& requireCursor();
    Work& askedCursor();

    SQLRETURN run();
    void checkParameters() const;
    Program& requireProgram() const;
    void endWork() noexcept;
    void watchRows();
    bool isOver() const;

    void chooseRoutes();
    bool nextRow();
    bool deliverOrReport(bool single);
    void lookAhead();
    void dropProgram() noexcept;
    void deliverRow();
    void keep(int column, const Cell& cell);
    Cell currentCell(int column);
    Delivery deliver(const Converter& convert, const Cell& cell, int column, const ColumnType& type,
                     const Target& target);
    std::string place(int column) const;

    const std::shared_ptr<Connection> m_connection;
    std::unique_ptr<Work> m_work;
    std::unique_ptr<Settings> m_settings;
    SQLLEN m_rowCount = -1;
    std::optional<std::int64_t> m_lastRow;
    bool m_executed = false;
    bool m_gaveRows = false;   ///< the last execution
    bool m_overtaken = false;  ///< and they were closed before anybody asked
    std::atomic<Call> m_call = Call::None;
};

}  // namespace embedded
