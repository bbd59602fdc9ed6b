#include "mono/dbsource.h"

#include <string>

#include "unit/mono/sourcetest.h"

namespace {

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

}  // namespace
