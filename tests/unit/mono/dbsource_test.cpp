#include "mono/dbsource.h"

#include <string>

#include "unit/mono/sourcetest.h"

namespace {

// --- Opening and closing
// -----------------------------------------------------------------------------

TEST_F(ClosedSourceTest, OpensAndClosesStepByStep) {
    EXPECT_EQ(source.IsOpen(), 0);
    EXPECT_EQ(source.Open("Server=a;Name=\xC5\xBE", 3), VORDA_OK);
    EXPECT_EQ(source.IsOpen(), 1);
    EXPECT_EQ(TakeLog(), R"(
SQLAllocHandle(1, null, env1)
SQLSetEnvAttr(env1, 200, 3)
SQLAllocHandle(2, env1, dbc1)
SQLDriverConnectW(dbc1, null, "Server=a;Name=)"
                         "\xC5\xBE"
                         R"(", -3, null, 0, null, 1)
)");
    ExpectError(VORDA_OK, "");

    EXPECT_EQ(source.Open("Server=another", 14), VORDA_OK);
    EXPECT_EQ(TakeLog(), "\n");

    EXPECT_EQ(source.Prepare("x", 1), VORDA_OK);
    TakeLog();
    EXPECT_EQ(source.Close(), VORDA_OK);
    EXPECT_EQ(source.IsOpen(), 0);
    EXPECT_EQ(TakeLog(), R"(
SQLFreeStmt(stmt1, 1)
SQLDisconnect(dbc1)
SQLFreeHandle(2, dbc1)
SQLFreeHandle(1, env1)
)");
    EXPECT_EQ(source.Close(), VORDA_OK);
    EXPECT_EQ(TakeLog(), "\n");
}

struct OpenStep {
    const char* function;
    int nth;
    // The handle whose diagnostic is read; null when none is.
    const char* diagnosed;
    // The calls of the Open after the failed one.
    const char* next;
};
constexpr char kConnectAgain[] = R"(
SQLDriverConnectW(dbc1, null, "Server=a", -3, null, 0, null, 1)
)";
constexpr char kAllocateConnectionAgain[] = R"(
SQLAllocHandle(2, env1, dbc1)
SQLDriverConnectW(dbc1, null, "Server=a", -3, null, 0, null, 1)
)";
constexpr OpenStep kOpenSteps[] = {
    {"SQLSetEnvAttr", 1, "SQLErrorW(env1, null, null, ", kAllocateConnectionAgain},
    {"SQLAllocHandle", 2, "SQLErrorW(env1, null, null, ", kAllocateConnectionAgain},
    {"SQLDriverConnectW", 1, "SQLErrorW(null, dbc1, null, ", kConnectAgain},
};

TEST_F(ClosedSourceTest, AFailedOpenKeepsItsHandlesForTheNext) {
    for (const OpenStep& step : kOpenSteps) {
        SCOPED_TRACE(step.function);
        scripted_reset();
        scripted_answer(step.function, step.nth, SQL_ERROR);
        Diagnose(17, "no such server");
        EXPECT_EQ(Open(), VORDA_ODBC_ERROR);
        ExpectError(17, "no such server");
        EXPECT_EQ(source.IsOpen(), 0);
        EXPECT_NE(TakeLog().find(step.diagnosed), std::string::npos);

        EXPECT_EQ(Open(), VORDA_OK);
        EXPECT_EQ(TakeLog(), step.next);
        source.Close();
        EXPECT_EQ(scripted_live_handles(0), 0);
    }
}

TEST_F(ClosedSourceTest, CloseAfterAFailedOpenFreesItsHandles) {
    FailNext("SQLDriverConnectW", 17, "no such server");
    EXPECT_EQ(Open(), VORDA_ODBC_ERROR);
    EXPECT_EQ(scripted_live_handles(0), 2);
    EXPECT_EQ(source.Close(), VORDA_OK);
    EXPECT_EQ(scripted_live_handles(0), 0);
    ExpectError(VORDA_OK, "");
}

TEST_F(ClosedSourceTest, WithoutAnEnvironmentNothingElseIsTried) {
    scripted_answer("SQLAllocHandle", 1, SQL_ERROR);
    EXPECT_EQ(Open(), VORDA_NO_ENVIRONMENT);
    ExpectError(1101, "Unable to alloc env handle");
    EXPECT_EQ(scripted_call_count(nullptr), 1);
    EXPECT_EQ(Open(), VORDA_OK);
}

TEST_F(ClosedSourceTest, InformationWhileOpeningIsRecorded) {
    for (const OpenStep& step : kOpenSteps) {
        SCOPED_TRACE(step.function);
        scripted_reset();
        scripted_answer_after(step.function, step.nth, SQL_SUCCESS_WITH_INFO);
        Diagnose(5701, "changed database");
        EXPECT_EQ(Open(), VORDA_OK);
        EXPECT_EQ(source.IsOpen(), 1);
        ExpectError(5701, "changed database");
        EXPECT_NE(TakeLog().find(step.diagnosed), std::string::npos);
        source.Close();
        ExpectError(VORDA_OK, "");
    }
}

TEST_F(ClosedSourceTest, OtherResultsWhileOpeningAndClosingArePassedOver) {
    scripted_answer_after("SQLSetEnvAttr", 1, SQL_NO_DATA);
    scripted_answer_after("SQLDriverConnectW", 1, SQL_INVALID_HANDLE);
    for (const char* const function : {"SQLFreeStmt", "SQLDisconnect", "SQLFreeHandle"}) {
        scripted_answer_after(function, 1, SQL_ERROR);
    }
    EXPECT_EQ(Open(), VORDA_OK);
    EXPECT_EQ(source.Prepare("x", 1), VORDA_OK);
    EXPECT_EQ(source.Close(), VORDA_OK);
    EXPECT_EQ(scripted_call_count("SQLErrorW"), 0);
    ExpectError(VORDA_OK, "");
}

TEST_F(ClosedSourceTest, NothingRunsOnAClosedSource) {
    const int value = 1, length = 4;
    int rows = 7;
    IntDbResultSet rs;
    const auto refused = [this](int status) {
        EXPECT_EQ(status, VORDA_NOT_OPEN);
        ExpectError(1102, "The connection is not open.");
        source.Close();
    };
    refused(source.Prepare("x", 1));
    refused(source.AddParam("@1", 2, DBTYPE_INTEGER, &value, 4, &length));
    refused(source.Execute(&rs, &rows));
    refused(source.Execute("x", 1, &rs, &rows));
    EXPECT_EQ(rows, 7);
    EXPECT_EQ(scripted_call_count(nullptr), 0);
}

TEST_F(SourceTest, OnlyTheBatchSizeCanBeConfigured) {
    EXPECT_EQ(SetBatchSize(3), VORDA_OK);
    void* const fifty = reinterpret_cast<void*>(50);
    for (const int attribute : {21, 23, 0, -22}) {
        EXPECT_EQ(source.Config(attribute, fifty, 4), VORDA_UNKNOWN_ATTRIBUTE);
        ExpectError(1103, "Unknown dbsource attribute.");
    }
    source.Prepare("x", 1);
    EXPECT_EQ(source.Execute(nullptr, nullptr), VORDA_OK);
    EXPECT_NE(TakeLog().find("SQLSetStmtAttr(stmt1, 22, 3)"), std::string::npos);
}

// --- Diagnostics
// -------------------------------------------------------------------------------------

class DiagnosticTest : public SourceTest {
  protected:
    // An error that is there before, then a failure whose diagnostic comes with this status.
    void Fail(const std::string& text, int reportedLength, int status) {
        source.Config(21, nullptr, 0);
        scripted_answer("SQLPrepareW", 0, SQL_ERROR);
        scripted_diag("42000", -208, text.c_str(), reportedLength, status);
        EXPECT_EQ(source.Prepare("x", 1), VORDA_ODBC_ERROR);
    }
    void ExpectThePreviousError() { ExpectError(1103, "Unknown dbsource attribute."); }
};

TEST_F(DiagnosticTest, OnlyTheFirstRecordIsRead) {
    Diagnose(4711, "first");
    Fail("second", -1, SQL_SUCCESS);
    ExpectError(4711, "first");
    EXPECT_EQ(TakeLog(), R"(
SQLAllocHandle(3, dbc1, stmt1)
SQLPrepareW(stmt1, "x", 1)
SQLErrorW(null, null, stmt1, ptr, ptr, ptr, 1024, ptr)
)");
}

TEST_F(DiagnosticTest, FourOutcomes) {
    Fail("no such table", -1, SQL_SUCCESS);
    ExpectError(-208, "no such table");
    Fail("unread", -1, SQL_ERROR);
    ExpectError(-1, "Unable to retrieve the error");
    Fail("unread", -1, SQL_NO_DATA);
    ExpectError(VORDA_OK, "");
    Fail("unread", -1, SQL_INVALID_HANDLE);
    ExpectThePreviousError();
}

TEST_F(DiagnosticTest, LengthsOfTheMessage) {
    Fail(std::string(1023, 'm'), -1, SQL_SUCCESS);
    ExpectError(-208, std::string(1023, 'm').c_str());
    Fail(std::string(1024, 'm'), -1, SQL_SUCCESS_WITH_INFO);
    ExpectThePreviousError();
    // Lengths that no driver should report.
    Fail(std::string(3000, 'm'), 3000, SQL_SUCCESS);
    ExpectError(-208, std::string(1023, 'm').c_str());
    Fail("message", 32767, SQL_SUCCESS);
    ExpectError(-208, "message");
    Fail("message", 4, SQL_SUCCESS);
    ExpectError(-208, "mess");
    Fail("message", -32768, SQL_SUCCESS);
    ExpectError(-208, "");
}

// --- Preparing
// ---------------------------------------------------------------------------------------

TEST_F(SourceTest, PrepareReplacesTheStatement) {
    EXPECT_EQ(source.Prepare("SELECT 1 and more", 8), VORDA_OK);
    EXPECT_EQ(source.Prepare("", 0), VORDA_OK);
    EXPECT_EQ(TakeLog(), R"(
SQLAllocHandle(3, dbc1, stmt1)
SQLPrepareW(stmt1, "SELECT 1", 8)
SQLFreeStmt(stmt1, 1)
SQLAllocHandle(3, dbc1, stmt2)
SQLPrepareW(stmt2, "", 0)
)");
}

TEST_F(SourceTest, AFailedPrepareKeepsItsStatementUntilTheNext) {
    FailNext("SQLAllocHandle", 11, "no statement");
    EXPECT_EQ(source.Prepare("x", 1), VORDA_ODBC_ERROR);
    ExpectError(11, "no statement");
    EXPECT_EQ(source.Execute(nullptr, nullptr), VORDA_NOT_PREPARED);
    EXPECT_NE(TakeLog().find("SQLErrorW(null, dbc1, null, "), std::string::npos);

    FailNext("SQLPrepareW", 12, "syntax");
    EXPECT_EQ(source.Prepare("x", 1), VORDA_ODBC_ERROR);
    ExpectError(12, "syntax");
    EXPECT_EQ(scripted_live_handles(SQL_HANDLE_STMT), 1);

    WarnNext("SQLPrepareW", 13, "slow");
    EXPECT_EQ(source.Prepare("x", 1), VORDA_OK);
    ExpectError(13, "slow");
    EXPECT_EQ(scripted_live_handles(SQL_HANDLE_STMT), 1);
}

// --- Executing what was prepared
// ---------------------------------------------------------------------

TEST_F(SourceTest, PreparedExecution) {
    source.Prepare("x", 1);
    TakeLog();
    EXPECT_EQ(source.Execute(nullptr, nullptr), VORDA_OK);
    EXPECT_EQ(TakeLog(), "\nSQLExecute(stmt1)\n");

    // The statement stays when no result set takes it over.
    scripted_row_count(3);
    int rows = -1;
    EXPECT_EQ(source.Execute(nullptr, &rows), VORDA_OK);
    EXPECT_EQ(rows, 3);
    EXPECT_EQ(TakeLog(), "\nSQLExecute(stmt1)\nSQLRowCount(stmt1, ptr)\n");

    // An update of no rows.
    scripted_answer_after("SQLExecute", 3, SQL_NO_DATA);
    EXPECT_EQ(source.Execute(nullptr, &rows), VORDA_OK);
    EXPECT_EQ(rows, 0);
    ExpectError(VORDA_OK, "");
}

TEST_F(SourceTest, AResultSetTakesThePreparedStatementOver) {
    source.Prepare("x", 1);
    TakeLog();
    IntDbResultSet rs;
    int rows = -1;
    EXPECT_EQ(source.Execute(&rs, &rows), VORDA_OK);
    EXPECT_EQ(rows, 0);
    EXPECT_EQ(TakeLog(), R"(
SQLExecute(stmt1)
SQLColAttributeW(stmt1, 1, 0, null, 0, null, ptr)
SQLRowCount(stmt1, ptr)
)");
    IntDbResultSet second;
    EXPECT_EQ(source.Execute(&second, &rows), VORDA_NOT_PREPARED);
    ExpectError(1103, "The prepared statement is required");
    rs.Close();
}

TEST_F(SourceTest, FailuresAndInformationOfAPreparedExecution) {
    SetBatchSize(2);
    source.Prepare("x", 1);
    int rows = 7;
    const char* const steps[] = {"SQLSetStmtAttr", "SQLExecute", "SQLRowCount"};
    for (int i = 0; i < 3; ++i) {
        SCOPED_TRACE(steps[i]);
        TakeLog();
        FailNext(steps[i], 20 + i, "refused");
        EXPECT_EQ(source.Execute(nullptr, &rows), VORDA_ODBC_ERROR);
        ExpectError(20 + i, "refused");
        EXPECT_NE(TakeLog().find("SQLErrorW(null, null, stmt1, "), std::string::npos);
    }
    EXPECT_EQ(rows, 7);
    EXPECT_EQ(scripted_call_count("SQLExecute"), 2);
    for (int i = 0; i < 3; ++i) {
        WarnNext(steps[i], 30 + i, "done, but");
        EXPECT_EQ(source.Execute(nullptr, &rows), VORDA_OK);
        ExpectError(30 + i, "done, but");
        EXPECT_EQ(rows, 0);
        rows = 7;
    }
}

TEST_F(SourceTest, TheBatchSizeIsSetAroundEachExecution) {
    SetBatchSize(10);
    source.Prepare("x", 1);
    // The result of putting it back does not matter.
    scripted_answer_after("SQLSetStmtAttr", 2, SQL_SUCCESS_WITH_INFO);
    TakeLog();
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(source.Execute(nullptr, nullptr), VORDA_OK);
        EXPECT_EQ(TakeLog(), R"(
SQLSetStmtAttr(stmt1, 22, 10)
SQLExecute(stmt1)
SQLSetStmtAttr(stmt1, 22, 1)
)");
    }
    for (const int size : {1, 0, -5}) {
        SetBatchSize(size);
        EXPECT_EQ(source.Execute(nullptr, nullptr), VORDA_OK);
        EXPECT_EQ(TakeLog(), "\nSQLExecute(stmt1)\n");
    }
    EXPECT_EQ(scripted_call_count("SQLErrorW"), 0);
}

// A driver that still counts on three sets would read past the one that is bound.
TEST_F(SourceTest, ABatchThatStayedSetIsPutBackBeforeASingleExecution) {
    const int values[] = {1, 2, 3}, lengths[] = {4, 4, 4};
    for (const char* const function : {"SQLExecute", "SQLSetStmtAttr"}) {
        SCOPED_TRACE(function);
        source.Prepare("x", 1);
        SetBatchSize(3);
        source.AddParam("@1", 2, DBTYPE_INTEGER, values, 4, lengths);
        // The execution itself, or the call after it.
        const bool executes = std::string(function) == "SQLExecute";
        scripted_answer(function, scripted_call_count(function) + (executes ? 1 : 2), SQL_ERROR);
        EXPECT_EQ(source.Execute(nullptr, nullptr), executes ? VORDA_ODBC_ERROR : VORDA_OK);

        SetBatchSize(1);
        source.AddParam("@1", 2, DBTYPE_INTEGER, values, 4, lengths);
        TakeLog();
        EXPECT_EQ(source.Execute(nullptr, nullptr), VORDA_OK);
        const std::string log = TakeLog();
        EXPECT_NE(log.find(", 22, 1)\nSQLExecute("), std::string::npos) << log;
        EXPECT_NE(log.find("  1: values=[1], lens=[4]\n"), std::string::npos) << log;
        EXPECT_EQ(source.Execute(nullptr, nullptr), VORDA_OK);
        EXPECT_EQ(TakeLog().find("SQLSetStmtAttr"), std::string::npos);
    }
}

// --- Executing a text
// --------------------------------------------------------------------------------

TEST_F(SourceTest, DirectExecution) {
    source.Prepare("prepared", 8);
    SetBatchSize(5);
    TakeLog();
    scripted_row_count(3);
    EXPECT_EQ(source.Execute("UPDATE t and more", 8, nullptr, nullptr), VORDA_OK);
    EXPECT_EQ(TakeLog(), R"(
SQLAllocHandle(3, dbc1, stmt2)
SQLExecDirectW(stmt2, "UPDATE t", 8)
SQLRowCount(stmt2, ptr)
)");
    scripted_row_count((1LL << 32) + 5);
    int rows = 7;
    EXPECT_EQ(source.Execute("x", 1, nullptr, &rows), VORDA_OK);
    EXPECT_EQ(rows, 5);

    // The prepared statement is still there, and the others are until the connection ends.
    EXPECT_EQ(scripted_live_handles(SQL_HANDLE_STMT), 3);
    SetBatchSize(1);
    TakeLog();
    EXPECT_EQ(source.Execute(nullptr, nullptr), VORDA_OK);
    EXPECT_EQ(TakeLog(), "\nSQLExecute(stmt1)\n");
}

TEST_F(SourceTest, FailuresAndInformationOfADirectExecution) {
    const struct {
        const char* function;
        const char* diagnosed;
    } steps[] = {{"SQLAllocHandle", "SQLErrorW(null, dbc1, null, "},
                 {"SQLExecDirectW", "SQLErrorW(null, null, stmt1, "},
                 {"SQLRowCount", "SQLErrorW(null, null, stmt2, "}};
    int rows = 7;
    for (const auto& [function, diagnosed] : steps) {
        SCOPED_TRACE(function);
        FailNext(function, 42, "refused");
        EXPECT_EQ(source.Execute("x", 1, nullptr, &rows), VORDA_ODBC_ERROR);
        ExpectError(42, "refused");
        EXPECT_NE(TakeLog().find(diagnosed), std::string::npos);
    }
    EXPECT_EQ(rows, 7);
    for (const auto& [function, diagnosed] : steps) {
        WarnNext(function, 43, "done, but");
        EXPECT_EQ(source.Execute("x", 1, nullptr, &rows), VORDA_OK);
        ExpectError(43, "done, but");
    }
    EXPECT_EQ(rows, 0);
}

// --- Handing a statement over
// ------------------------------------------------------------------------

TEST_F(SourceTest, AFailedHandOverFreesTheStatementOnce) {
    IntDbResultSet rs;
    source.Prepare("x", 1);
    scripted_answer("SQLColAttributeW", 0, SQL_ERROR);
    int rows = 7;
    EXPECT_EQ(source.Execute(&rs, &rows), VORDA_ODBC_ERROR);
    // Without an earlier message the source keeps what it knew.
    ExpectError(VORDA_OK, "");
    EXPECT_EQ(rows, 7);
    EXPECT_EQ(scripted_call_count("SQLRowCount"), 0);
    EXPECT_EQ(source.Execute(nullptr, nullptr), VORDA_NOT_PREPARED);
    rs.Close();
    EXPECT_EQ(scripted_live_handles(SQL_HANDLE_STMT), 0);
}

TEST_F(SourceTest, AFailedHandOverIsComposedWithTheEarlierMessage) {
    scripted_answer("SQLColAttributeW", 0, SQL_ERROR);
    IntDbResultSet rs;
    WarnNext("SQLExecDirectW", 5701, "truncated");
    EXPECT_EQ(source.Execute("x", 1, &rs, nullptr), VORDA_ODBC_ERROR);
    ExpectError(-1, "Unable to DbDataResult.SetStmtHandle: truncated");
    rs.Close();

    source.Prepare("x", 1);
    WarnNext("SQLExecute", 5702, "again");
    EXPECT_EQ(source.Execute(&rs, nullptr), VORDA_ODBC_ERROR);
    ExpectError(-1, "Unable to DbDataResult.SetStmtHandle: again");
    rs.Close();
    EXPECT_EQ(scripted_live_handles(SQL_HANDLE_STMT), 0);
}

}  // namespace
