// Many threads at once; worth most under ThreadSanitizer (./dev sanitize).
#include <array>
#include <atomic>
#include <numeric>
#include <thread>

#include "core/handle.h"
#include "fixture.h"

namespace embedded_test {
namespace {

/// Runs `work(n)` in threads 0 to `count` - 1, which all begin at the same moment.
template <class Work>
void together(int count, Work work) {
    std::atomic<int> missing = count;
    std::vector<std::thread> threads;
    for (int n = 0; n < count; ++n) {
        threads.emplace_back([&, n] {
            for (--missing; missing > 0;) std::this_thread::yield();
            work(n);
        });
    }
    for (std::thread& thread : threads) thread.join();
}

constexpr int kThreads = 4;
constexpr int kRounds = 5;
constexpr size_t kBatch = 50;

/// What a program does with a connection of its own; `mine` is the thread's mark in its rows.
void session(const std::string& database, int mine) {
    Connection connection(database);
    const std::string mark = std::to_string(mine);
    const std::string procedure = "note" + mark;
    connection.must("CREATE OR REPLACE PROCEDURE " + procedure +
                    " (a INTEGER) AS INSERT INTO t VALUES (-1, $a, 'p'); SELECT count(*) FROM t"
                    " WHERE owner = -1 AND n = $a");

    std::array<SQLINTEGER, kBatch> numbers{};
    std::array<SQLLEN, kBatch> lengths{};
    std::iota(numbers.begin(), numbers.end(), 0);
    lengths.fill(sizeof(SQLINTEGER));
    for (int round = 1; round <= kRounds; ++round) {
        Statement insert(connection.handle);
        ASSERT_EQ(SQL_SUCCESS, insert.prepare("INSERT INTO t VALUES (" + mark + ", ?, 'row')"));
        insert.set(SQL_ATTR_PARAMSET_SIZE, kBatch);
        insert.bind(1, SQL_C_LONG, numbers.data(), lengths.data());
        ASSERT_EQ(SQL_SUCCESS, insert.execute()) << insert.error().message;
        EXPECT_EQ(SQLLEN{kBatch}, insert.rowCount());

        const size_t expected = kBatch * static_cast<size_t>(round);
        EXPECT_EQ(expected, connection.query("SELECT n, v FROM t WHERE owner = " + mark).size());
        EXPECT_EQ(Rows{std::to_string(round)}, connection.query("EXEC " + procedure + " " + mark));

        EXPECT_EQ(SQL_ERROR, connection.run("SELECT * FROM nowhere" + mark));
        EXPECT_TRUE(connection.last.says("nowhere" + mark)) << connection.last.message;
        connection.autocommit(false);
        connection.must("DELETE FROM t WHERE owner = " + mark);
        EXPECT_EQ(SQL_SUCCESS, connection.end(SQL_ROLLBACK));
        connection.autocommit(true);
    }
}

TEST(Threads, HaveConnectionsOfTheirOwnToOneFileAndToMany) {
    const size_t before = embedded::HandleRegistry::instance().count();
    const TemporaryFolder folder;
    const std::string common = "Timeout=60;Database=" + folder.file("common.db");
    Connection(common).must("CREATE TABLE t (owner INTEGER, n INTEGER, v TEXT)");
    together(kThreads, [&](int n) {
        session(common, n);
        const std::string own = "Database=" + folder.file(std::to_string(n));
        Connection(own).must("CREATE TABLE t (owner INTEGER, n INTEGER, v TEXT)");
        session(own, n);
    });
    EXPECT_EQ(Rows{std::to_string(kThreads * kRounds * (kBatch + 1))},
              Connection(common).query("SELECT count(*) FROM t"));
    EXPECT_EQ(before, embedded::HandleRegistry::instance().count());
}

TEST(Threads, FreeingAHandleInUseMakesItInvalidForTheOthers) {
    Connection connection("Database=:memory:");
    connection.must("CREATE TABLE t (a INTEGER)");
    for (int round = 0; round < 50; ++round) {
        SQLHANDLE handle = nullptr;
        ASSERT_EQ(SQL_SUCCESS,
                  RT_SQLAllocHandle(kDriver, SQL_HANDLE_STMT, connection.handle, &handle));
        std::atomic<int> freed = 0;
        together(kThreads, [&](int n) {
            if (n > 1) {
                freed += RT_SQLFreeHandle(kDriver, SQL_HANDLE_STMT, handle) == SQL_SUCCESS;
                return;
            }
            SQLCHAR* const insert = chars("INSERT INTO t VALUES (1)");
            SQLRETURN result = SQL_SUCCESS;
            while (result != SQL_INVALID_HANDLE) {
                EXPECT_EQ(SQL_SUCCESS, result);
                result = RT_SQLExecDirectW(kDriver, handle, insert, SQL_NTS);
            }
        });
        EXPECT_EQ(1, freed);
    }
}

}  // namespace
}  // namespace embedded_test
