#include "core/handle.h"
#include "fixture.h"

namespace embedded_test {
namespace {

TEST(Connect, CanBeTriedAgain) {
    Connection connection;
    EXPECT_EQ(SQL_ERROR, connection.open("Mode=rw"));
    EXPECT_EQ("HY000", connection.error().state);
    EXPECT_EQ(SQL_SUCCESS_WITH_INFO, connection.open("Database=:memory:;Colour=red;Size=1"));
    EXPECT_EQ("01S00", connection.error().state);
    EXPECT_EQ(0, connection.error().native);
    EXPECT_TRUE(connection.error().says("Colour, Size"));
    EXPECT_EQ(SQL_ERROR, connection.open("Database=:memory:"));
    EXPECT_EQ("08002", connection.error().state);
}

TEST(Handles, NullFreedAndForeignHandlesAreInvalid) {
    Connection connection("Database=:memory:");
    SQLHANDLE freed = nullptr;
    RT_SQLAllocHandle(kDriver, SQL_HANDLE_STMT, connection.handle, &freed);
    EXPECT_EQ(SQL_SUCCESS, RT_SQLFreeStmt(kDriver, freed, SQL_DROP));
    const Statement next(connection.handle);  // does not get its number
    for (SQLHANDLE bad : {SQLHANDLE{nullptr}, freed, SQLHANDLE{&freed}, connection.handle}) {
        EXPECT_EQ(SQL_INVALID_HANDLE, RT_SQLFetch(kDriver, bad));
        EXPECT_EQ(SQL_INVALID_HANDLE, RT_SQLExecDirect(kDriver, bad, chars("SELECT 1"), SQL_NTS));
        EXPECT_EQ(SQL_INVALID_HANDLE, RT_SQLFreeHandle(kDriver, SQL_HANDLE_STMT, bad));
        EXPECT_EQ(SQL_INVALID_HANDLE, RT_SQLCancel(kDriver, bad));
        EXPECT_EQ(SQL_INVALID_HANDLE, RT_SQLGetDiagRec(kDriver, SQL_HANDLE_STMT, bad, 1, nullptr,
                                                       nullptr, nullptr, 0, nullptr));
    }
}

TEST(Handles, AreFreedInOrderAndDisconnectingFreesStatements) {
    const size_t before = embedded::HandleRegistry::instance().count();
    SQLHANDLE freed = nullptr;
    {
        Connection connection;
        freed = connection.handle;
        SQLHANDLE statement = nullptr;
        const auto allocate = [&] {
            return RT_SQLAllocHandle(kDriver, SQL_HANDLE_STMT, connection.handle, &statement);
        };
        EXPECT_EQ(SQL_ERROR, allocate());
        EXPECT_EQ("08003", connection.error().state);
        EXPECT_EQ(SQL_ERROR, RT_SQLFreeHandle(kDriver, SQL_HANDLE_ENV, connection.environment));
        EXPECT_EQ("HY010", diagnosticOf(SQL_HANDLE_ENV, connection.environment).state);
        connection.open("Database=:memory:");
        for (int i = 0; i < 10; ++i) {
            EXPECT_EQ(SQL_SUCCESS, allocate());
            RT_SQLExecDirect(kDriver, statement, chars("SELECT 1 UNION SELECT 2"), SQL_NTS);
        }
        EXPECT_EQ(SQL_ERROR, RT_SQLFreeHandle(kDriver, SQL_HANDLE_DBC, connection.handle));
        RT_SQLDisconnect(kDriver, connection.handle);
        EXPECT_EQ(SQL_INVALID_HANDLE, RT_SQLFetch(kDriver, statement));
    }
    EXPECT_EQ(before, embedded::HandleRegistry::instance().count());
    EXPECT_NE(freed, Connection().handle);  // nor is a number given twice
}

TEST(Diagnostics, AreClearedByEveryCallAndConsumedByErrorOnly) {
    Connection connection("Database=:memory:");
    Statement statement(connection.handle);
    EXPECT_EQ(SQL_ERROR, statement.run("SELECT * FROM nowhere"));
    for (int reading = 0; reading < 2; ++reading) EXPECT_EQ("42S02", statement.error().state);
    SQLCHAR state[6];
    SQLCHAR message[12];
    SQLINTEGER native = 0;
    SQLSMALLINT length = 0;
    const auto take = [&] {
        return RT_SQLErrorW(kDriver, nullptr, nullptr, statement.handle, state, &native, message,
                            sizeof message, &length);
    };
    EXPECT_EQ(SQL_SUCCESS_WITH_INFO, take());
    EXPECT_STREQ("[vorda][SQL", reinterpret_cast<char*>(message));
    EXPECT_EQ(SQL_NO_DATA, take());
    EXPECT_EQ(0, native);

    // A message fits the buffer that callers have.
    const std::string monster(5000, 'x');
    EXPECT_EQ(SQL_ERROR, statement.run("SELECT 1 '" + monster + "' '" + monster + "'"));
    EXPECT_FALSE(statement.error().message.empty());
    EXPECT_LT(statement.error().message.size(), 1024U);
    EXPECT_EQ(SQL_SUCCESS, statement.run("SELECT 1"));
    EXPECT_EQ("", statement.error().state);
}

}  // namespace
}  // namespace embedded_test
