#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "unit/mono/sourcetest.h"

namespace {

class ParameterTest : public SourceTest {
  protected:
    void SetUp() override {
        SourceTest::SetUp();
        ASSERT_EQ(source.Prepare("x", 1), VORDA_OK);
        TakeLog();
    }

    // Binds from memory that is gone afterwards: the source must have copied the values.
    int Bind(int dbType, std::string values, int len, std::vector<int> lengths) {
        const int status = source.AddParam("@1", 2, dbType, values.data(), len, lengths.data());
        std::memset(values.data(), '#', values.size());
        std::memset(lengths.data(), 0x77, lengths.size() * sizeof(int));
        return status;
    }
    int BindInt(int value) {
        return source.AddParam("@1", 2, DBTYPE_INTEGER, &value, 4, &kIntLength);
    }
    // The log of an execution.
    std::string Run(int expectedStatus = VORDA_OK) {
        TakeLog();
        EXPECT_EQ(source.Execute(nullptr, nullptr), expectedStatus);
        return TakeLog();
    }

    static constexpr int kIntLength = 4;
};

template <class T>
std::string Bytes(const T& value) {
    return {reinterpret_cast<const char*>(&value), sizeof value};
}

TEST_F(ParameterTest, EveryTypeIsSentInItsODBCForm) {
    using namespace std::string_literals;
    const auto moment = [](int fraction) {
        return Bytes(_db_datetime_{9999, 12, 31, 23, 59, 58, fraction});
    };
    const struct {
        int dbType;
        std::string value;
        // What the call says, and what the driver finds at execution.
        int cType, sqlType, size;
        std::string sent;
    } cases[] = {
        {DBTYPE_FLOAT, Bytes(16777217.0), 7, 6, 4, "16777216"},
        {DBTYPE_BIT, "\1", -7, -7, 1, "1"},
        {DBTYPE_TINYINT, "\x85", -6, -6, 1, "-123"},
        {DBTYPE_SMALLINT, Bytes(short{SHRT_MIN}), 5, 5, 2, "-32768"},
        {DBTYPE_BINARY, "\0\xff\0"s, -2, -2, 3, "x'00ff00'"},
        {DBTYPE_STRING, "\xC5\xBE\0'"s, -8, -9, 4, "\"\xC5\xBE\\x00'\""},
        {DBTYPE_DATETIME, moment(999), 11, 11, 16, "9999-12-31 23:59:58.999000000"},
        {DBTYPE_DATETIME_MICRO, moment(999999), 11, 11, 16, "9999-12-31 23:59:58.999999000"},
    };
    for (const auto& c : cases) {
        TakeLog();
        const int len = static_cast<int>(c.value.size());
        EXPECT_EQ(Bind(c.dbType, c.value, len, {len}), VORDA_OK);
        char call[128];
        std::snprintf(call, sizeof call,
                      "(stmt1, 1, in, ctype=%d, sqltype=%d, size=%d, digits=0, buflen=%d, ",
                      c.cType, c.sqlType, c.size, c.size);
        const std::string log = TakeLog();
        EXPECT_NE(log.find(call), std::string::npos) << call << log;
        EXPECT_EQ(Run(), "\nSQLExecute(stmt1)\n  1: values=[" + c.sent + "], lens=[" +
                             std::to_string(c.size) + "]\n");
    }
}

TEST_F(ParameterTest, WhatIsRefusedKeepsItsNumber) {
    EXPECT_EQ(BindInt(1), VORDA_OK);
    for (const int dbType : {DBTYPE_NUMERIC, DBTYPE_DECIMAL}) {
        EXPECT_EQ(Bind(dbType, std::string(19, '\0'), 19, {19}), VORDA_UNKNOWN_PARAMETER_TYPE);
        ExpectError(1105, "Unknown parameter data type.");
    }
    FailNext("SQLBindParameter", 61, "no such parameter");
    EXPECT_EQ(BindInt(4), VORDA_ODBC_ERROR);
    ExpectError(61, "no such parameter");
    WarnNext("SQLBindParameter", 62, "converted");
    EXPECT_EQ(BindInt(5), VORDA_OK);
    ExpectError(62, "converted");
    // A NULL needs no conversion.
    EXPECT_EQ(Bind(DBTYPE_DECIMAL, "", 0, {SQL_NULL_DATA}), VORDA_OK);
    EXPECT_NE(TakeLog().find("(stmt1, 6, in, ctype=2, sqltype=2, size=19, "), std::string::npos);
    EXPECT_EQ(Run(), R"(
SQLExecute(stmt1)
  1: values=[1], lens=[4]
  5: values=[5], lens=[4]
  6: values=[NULL], lens=[-1]
)");
}

TEST_F(ParameterTest, WhatDoesNotFitIsRefused) {
    constexpr char kLength[] = "The parameter length is out of range";
    constexpr char kValue[] = "The parameter value is out of range";
    const auto moment = [](int second, int fraction) {
        return Bytes(_db_datetime_{2026, 1, 1, 0, 0, second, fraction});
    };
    const struct {
        int dbType;
        std::string values;
        int len;
        std::vector<int> lengths;
        const char* message;
    } cases[] = {
        {DBTYPE_STRING, "abcdefgh", 4, {4, 5}, kLength},
        {DBTYPE_STRING, "abcdefgh", 4, {4, -2}, kLength},
        {DBTYPE_BINARY, "abcdefgh", 4, {SQL_NTS, 4}, kLength},
        {DBTYPE_DATETIME, moment(0, 1000), 28, {28, -1}, kValue},
        {DBTYPE_DATETIME_MICRO, moment(0, 1000000), 28, {28, -1}, kValue},
        {DBTYPE_DATE, Bytes(_db_date_{67562, 1, 1}), 12, {12, -1}, kValue},
        {DBTYPE_TIME, Bytes(_db_time_{0, 1, -1, 0, 0}), 20, {20, -1}, kValue},
    };
    SetBatchSize(2);
    for (const auto& [dbType, values, len, lengths, message] : cases) {
        EXPECT_EQ(Bind(dbType, values, len, lengths), VORDA_INDEX_OUT_OF_RANGE);
        ExpectError(1106, message);
    }
    EXPECT_EQ(scripted_call_count("SQLBindParameter"), 0);
}

// The driver must never see the address of what an execution, also a failed or a direct one, has
// released.
TEST_F(ParameterTest, AnExecutionEndsItsParameters) {
    const std::string resets = "\nSQLFreeStmt(stmt1, 3)\nSQLExecute(stmt1)\n";
    BindInt(1);
    EXPECT_EQ(Run(), "\nSQLExecute(stmt1)\n  1: values=[1], lens=[4]\n");
    EXPECT_EQ(Run(), resets);
    EXPECT_EQ(Run(), "\nSQLExecute(stmt1)\n");

    BindInt(2);
    FailNext("SQLExecute", 1, "refused");
    Run(VORDA_ODBC_ERROR);
    EXPECT_EQ(Run(), resets);

    BindInt(3);
    EXPECT_EQ(source.Execute("y", 1, nullptr, nullptr), VORDA_OK);
    EXPECT_EQ(Run(), resets);

    // Binding again starts at one.
    BindInt(4);
    BindInt(5);
    Run();
    EXPECT_EQ(BindInt(6), VORDA_OK);
    EXPECT_EQ(TakeLog().find("\nSQLFreeStmt(stmt1, 3)\nSQLBindParameter(stmt1, 1, in"), 0u);
    EXPECT_EQ(Run(), "\nSQLExecute(stmt1)\n  1: values=[6], lens=[4]\n");
}

TEST_F(ParameterTest, ABatchRaisedAfterBindingIsRefused) {
    SetBatchSize(2);
    const int values[] = {1, 2};
    EXPECT_EQ(Bind(DBTYPE_INTEGER, Bytes(values), 4, {4, 4}), VORDA_OK);
    SetBatchSize(3);
    EXPECT_EQ(Run(VORDA_INDEX_OUT_OF_RANGE), "\n");
    ExpectError(1106, "The batch size was raised after a parameter was bound");
    // As after any other execution, the next value is the first again.
    SetBatchSize(1);
    BindInt(3);
    EXPECT_EQ(Run(), "\nSQLExecute(stmt1)\n  1: values=[3], lens=[4]\n");
}

TEST_F(ParameterTest, WithoutAResetNothingRunsOnReleasedMemory) {
    BindInt(1);
    Run();
    for (const bool binds : {false, true}) {
        FailNext("SQLFreeStmt", 71, "cannot reset");
        EXPECT_EQ(binds ? BindInt(2) : source.Execute(nullptr, nullptr), VORDA_ODBC_ERROR);
        ExpectError(71, "cannot reset");
    }
    EXPECT_EQ(scripted_call_count("SQLExecute"), 1);
    EXPECT_EQ(scripted_call_count("SQLBindParameter"), 1);
    // The value that was not bound keeps its number, the one behind it does not get it.
    EXPECT_EQ(BindInt(4), VORDA_OK);
    EXPECT_EQ(Run(), "\nSQLExecute(stmt1)\n  2: values=[4], lens=[4]\n");
}

}  // namespace
