#include <climits>
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

struct TypeCase {
    int dbType;
    std::string value;
    // What the call says about the type, and what the driver finds at execution.
    const char* type;
    const char* sent;
};

TEST_F(ParameterTest, EveryTypeIsSentInItsODBCForm) {
    using namespace std::string_literals;
    const TypeCase cases[] = {
        {12, Bytes(-9007199254740993LL), "ctype=-25, sqltype=-5, size=8, digits=0, buflen=8",
         "values=[-9007199254740993], lens=[8]"},
        {8, Bytes(0.1), "ctype=8, sqltype=8, size=8, digits=0, buflen=8", "values=[0.1], lens=[8]"},
        {15, Bytes(0.1), "ctype=7, sqltype=6, size=4, digits=0, buflen=4",
         "values=[0.1], lens=[4]"},
        {15, Bytes(16777217.0), "ctype=7, sqltype=6, size=4, digits=0, buflen=4",
         "values=[16777216], lens=[4]"},
        {3, "\1"s, "ctype=-7, sqltype=-7, size=1, digits=0, buflen=1", "values=[1], lens=[1]"},
        {2, "\x85"s, "ctype=-6, sqltype=-6, size=1, digits=0, buflen=1", "values=[-123], lens=[1]"},
        {10, Bytes(short{SHRT_MIN}), "ctype=5, sqltype=5, size=2, digits=0, buflen=2",
         "values=[-32768], lens=[2]"},
        {11, Bytes(INT_MIN), "ctype=4, sqltype=4, size=4, digits=0, buflen=4",
         "values=[-2147483648], lens=[4]"},
        {1, "\0\xff\0"s, "ctype=-2, sqltype=-2, size=3, digits=0, buflen=3",
         "values=[x'00ff00'], lens=[3]"},
        {16, "\xC5\xBE\0'"s, "ctype=-8, sqltype=-9, size=4, digits=0, buflen=4",
         "values=[\"\xC5\xBE\\x00'\"], lens=[4]"},
        {13, "", "ctype=-8, sqltype=-9, size=0, digits=0, buflen=0", "values=[\"\"], lens=[0]"},
        {4, "a", "ctype=-8, sqltype=-9, size=1, digits=0, buflen=1", "values=[\"a\"], lens=[1]"},
        {99, "a", "ctype=-8, sqltype=-9, size=1, digits=0, buflen=1", "values=[\"a\"], lens=[1]"},
        {5, Bytes(_db_date_{2024, 2, 29}), "ctype=9, sqltype=9, size=6, digits=0, buflen=6",
         "values=[2024-02-29], lens=[6]"},
        {17, Bytes(_db_time_{2, 23, 59, 58, 999}),
         "ctype=10, sqltype=10, size=6, digits=0, buflen=6", "values=[23:59:58], lens=[6]"},
    };
    for (const TypeCase& c : cases) {
        SCOPED_TRACE(c.dbType);
        TakeLog();
        const int len = static_cast<int>(c.value.size());
        EXPECT_EQ(Bind(c.dbType, c.value, len, {len}), VORDA_OK);
        const std::string bound = TakeLog();
        EXPECT_NE(bound.find("SQLBindParameter(stmt1, 1, in, "s + c.type + ", "), std::string::npos)
            << bound;
        EXPECT_EQ(Run(), "\nSQLExecute(stmt1)\n  1: "s + c.sent + "\n");
    }
}

TEST_F(ParameterTest, FractionsOfASecond) {
    const struct {
        int dbType, fraction;
        const char* sent;
    } cases[] = {
        {DBTYPE_DATETIME, 0, "000000000"},
        {DBTYPE_DATETIME, 250, "250000000"},
        {DBTYPE_DATETIME, 999, "999000000"},
        {DBTYPE_DATETIME_MICRO, 0, "000000000"},
        {DBTYPE_DATETIME_MICRO, 1, "000001000"},
        {DBTYPE_DATETIME_MICRO, 999999, "999999000"},
        // Impossible ones stay within their second.
        {DBTYPE_DATETIME, 1000, "999000000"},
        {DBTYPE_DATETIME, INT_MAX, "999000000"},
        {DBTYPE_DATETIME, -1, "000000000"},
        {DBTYPE_DATETIME_MICRO, 1000000, "999999000"},
        {DBTYPE_DATETIME_MICRO, INT_MIN, "000000000"},
    };
    for (const auto& [dbType, fraction, sent] : cases) {
        const _db_datetime_ stamp = {9999, 12, 31, 23, 59, 58, fraction};
        TakeLog();
        EXPECT_EQ(Bind(dbType, Bytes(stamp), sizeof stamp, {sizeof stamp}), VORDA_OK);
        EXPECT_NE(TakeLog().find("ctype=11, sqltype=11, size=16, digits=0, buflen=16"),
                  std::string::npos);
        EXPECT_EQ(Run(), std::string("\nSQLExecute(stmt1)\n  1: values=[9999-12-31 23:59:58.") +
                             sent + "], lens=[16]\n");
    }
}

TEST_F(ParameterTest, ABatchIsTakenAtTheCallersStride) {
    SetBatchSize(3);
    struct Slot {
        int value, other;
    };
    const Slot slots[] = {{1, -1}, {2, -1}, {3, -1}};
    EXPECT_EQ(Bind(DBTYPE_INTEGER, Bytes(slots), sizeof(Slot), {4, SQL_NULL_DATA, 4}), VORDA_OK);
    EXPECT_EQ(Bind(DBTYPE_STRING, "abcdefghijkl", 4, {2, 0, 4}), VORDA_OK);
    EXPECT_EQ(Bind(DBTYPE_BINARY, "abcdefghijkl", 4, {SQL_NULL_DATA, 4, 1}), VORDA_OK);
    EXPECT_EQ(Run(), R"(
SQLSetStmtAttr(stmt1, 22, 3)
SQLExecute(stmt1)
  1: values=[1, NULL, 3], lens=[4, -1, 4]
  2: values=["ab", "", "ijkl"], lens=[2, 0, 4]
  3: values=[NULL, x'65666768', x'69'], lens=[-1, 4, 1]
SQLSetStmtAttr(stmt1, 22, 1)
)");
}

TEST_F(ParameterTest, NullsAndEmptyTextsNeedNoMemory) {
    SetBatchSize(2);
    const int nulls[] = {SQL_NULL_DATA, SQL_NULL_DATA}, zeros[] = {0, 0};
    EXPECT_EQ(source.AddParam("@1", 2, DBTYPE_STRING, nullptr, 0, nulls), VORDA_OK);
    EXPECT_EQ(source.AddParam("@2", 2, DBTYPE_DATETIME, nullptr, 8, nulls), VORDA_OK);
    EXPECT_EQ(source.AddParam("@3", 2, DBTYPE_STRING, nullptr, 8, zeros), VORDA_OK);
    EXPECT_EQ(source.AddParam("@4", 2, DBTYPE_INTEGER, nullptr, 8, zeros),
              VORDA_INDEX_OUT_OF_RANGE);
    EXPECT_EQ(Run(), R"(
SQLSetStmtAttr(stmt1, 22, 2)
SQLExecute(stmt1)
  1: values=[NULL, NULL], lens=[-1, -1]
  2: values=[NULL, NULL], lens=[-1, -1]
  3: values=["", ""], lens=[0, 0]
SQLSetStmtAttr(stmt1, 22, 1)
)");
}

TEST_F(ParameterTest, ANumericIsRefusedAndKeepsItsNumber) {
    EXPECT_EQ(BindInt(1), VORDA_OK);
    for (const int dbType : {DBTYPE_NUMERIC, DBTYPE_DECIMAL}) {
        source.Config(21, nullptr, 0);
        EXPECT_EQ(Bind(dbType, std::string(19, '\0'), 19, {19}), VORDA_UNKNOWN_PARAMETER_TYPE);
        ExpectError(1105, "Unknown parameter data type.");
    }
    EXPECT_EQ(BindInt(4), VORDA_OK);
    // A NULL needs no conversion.
    EXPECT_EQ(Bind(DBTYPE_DECIMAL, "", 0, {SQL_NULL_DATA}), VORDA_OK);
    EXPECT_EQ(Run(), R"(
SQLExecute(stmt1)
  1: values=[1], lens=[4]
  4: values=[4], lens=[4]
  5: values=[NULL], lens=[-1]
)");
}

TEST_F(ParameterTest, ALengthBeyondItsSlotIsRefused) {
    const struct {
        int dbType, len;
        std::vector<int> lengths;
    } cases[] = {
        {DBTYPE_STRING, 4, {4, 5}},       {DBTYPE_STRING, 4, {INT_MAX, 4}},
        {DBTYPE_STRING, 4, {4, -2}},      {DBTYPE_BINARY, 4, {SQL_NTS, 4}},
        {DBTYPE_BINARY, -1, {1, 1}},      {DBTYPE_STRING, 0, {0, 1}},
        {DBTYPE_BINARY, 4, {INT_MIN, 4}},
    };
    SetBatchSize(2);
    for (const auto& [dbType, len, lengths] : cases) {
        EXPECT_EQ(Bind(dbType, "abcdefgh", len, lengths), VORDA_INDEX_OUT_OF_RANGE);
        ExpectError(1106, "The parameter length is out of range");
    }
    EXPECT_EQ(scripted_call_count("SQLBindParameter"), 0);
}

TEST_F(ParameterTest, ABatchRaisedAfterBindingIsRefused) {
    SetBatchSize(2);
    const int values[] = {1, 2};
    EXPECT_EQ(Bind(DBTYPE_INTEGER, Bytes(values), 4, {4, 4}), VORDA_OK);
    SetBatchSize(3);
    EXPECT_EQ(Run(VORDA_INDEX_OUT_OF_RANGE), "\n");
    ExpectError(1106, "The batch size was raised after a parameter was bound");
    // The values are still there for a batch that fits them.
    SetBatchSize(1);
    EXPECT_EQ(Run(), "\nSQLExecute(stmt1)\n  1: values=[1], lens=[4]\n");
}

TEST_F(ParameterTest, BindingNeedsAPreparedStatement) {
    IntDbResultSet rs;
    EXPECT_EQ(source.Execute(&rs, nullptr), VORDA_OK);
    EXPECT_EQ(BindInt(1), VORDA_NOT_PREPARED);
    ExpectError(1103, "The prepared statement is required");
    rs.Close();
}

TEST_F(ParameterTest, FailuresAndInformationOfBinding) {
    FailNext("SQLBindParameter", 61, "no such parameter");
    EXPECT_EQ(BindInt(1), VORDA_ODBC_ERROR);
    ExpectError(61, "no such parameter");
    WarnNext("SQLBindParameter", 62, "converted");
    EXPECT_EQ(BindInt(2), VORDA_OK);
    ExpectError(62, "converted");
    EXPECT_EQ(Run(), "\nSQLExecute(stmt1)\n  2: values=[2], lens=[4]\n");
}

TEST_F(ParameterTest, ASecondExecutionWithoutBindingHasNoParameters) {
    for (const bool fails : {false, true}) {
        source.Prepare("x", 1);
        BindInt(1);
        if (fails) FailNext("SQLExecute", 1, "refused");
        Run(fails ? VORDA_ODBC_ERROR : VORDA_OK);
        const std::string statement = fails ? "stmt2" : "stmt1";
        EXPECT_EQ(TakeLog(), "\n");
        const std::string second = Run();
        EXPECT_NE(second.find(", 3)\nSQLExecute("), std::string::npos) << second;
        EXPECT_EQ(second.find("values="), std::string::npos) << second;
        EXPECT_EQ(Run().find("SQLFreeStmt"), std::string::npos);
    }
}

TEST_F(ParameterTest, BindingAgainStartsAtOne) {
    BindInt(1);
    BindInt(2);
    Run();
    EXPECT_EQ(BindInt(3), VORDA_OK);
    EXPECT_EQ(TakeLog(), R"(
SQLFreeStmt(stmt1, 3)
SQLBindParameter(stmt1, 1, in, ctype=4, sqltype=4, size=4, digits=0, buflen=4, values=[3], lens=[4])
)");
    EXPECT_EQ(Run(), "\nSQLExecute(stmt1)\n  1: values=[3], lens=[4]\n");
}

TEST_F(ParameterTest, ADirectExecutionClearsWhatIsBound) {
    BindInt(1);
    EXPECT_EQ(source.Execute("y", 1, nullptr, nullptr), VORDA_OK);
    EXPECT_EQ(Run(), "\nSQLFreeStmt(stmt1, 3)\nSQLExecute(stmt1)\n");
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
    EXPECT_EQ(Run(), "\nSQLFreeStmt(stmt1, 3)\nSQLExecute(stmt1)\n");
}

TEST_F(ParameterTest, PreparingAgainForgetsTheParameters) {
    BindInt(1);
    source.Prepare("y", 1);
    BindInt(2);
    EXPECT_EQ(Run(), "\nSQLExecute(stmt2)\n  1: values=[2], lens=[4]\n");
    // Nor does the new statement know anything that would have to be reset.
    source.Prepare("z", 1);
    EXPECT_EQ(Run(), "\nSQLExecute(stmt3)\n");
}

TEST(ParameterRecord, ACloneHasArraysOfItsOwn) {
    _odbc_parameter_ original;
    EXPECT_EQ(original.Clone()->Data, nullptr);
    original.ColumnSize = 2;
    original.DataType = SQL_C_WCHAR;
    original.Count = 2;
    original.Data = std::make_unique<char[]>(5);
    original.DataLen = std::make_unique<SQLLEN[]>(2);
    std::memcpy(original.Data.get(), "abcd", 5);
    original.DataLen[1] = 2;

    const auto clone = original.Clone();
    original.Data[0] = '#';
    original.DataLen[1] = 0;
    EXPECT_EQ(clone->ColumnSize, 2);
    EXPECT_EQ(clone->DataType, SQL_C_WCHAR);
    EXPECT_EQ(clone->Count, 2);
    EXPECT_EQ(std::string(clone->Data.get(), 4), "abcd");
    EXPECT_EQ(clone->DataLen[1], 2);
}

}  // namespace
