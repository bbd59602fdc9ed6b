#include "mono/dbsource.h"

#include <string>

#include "unit/mono/sourcetest.h"

namespace {

TEST_F(ClosedSourceTest, AFailedOpenKeepsItsHandlesForTheNext) {
    FailNext("SQLDriverConnectW", 17, "no such server");
    EXPECT_EQ(Open(), VORDA_ODBC_ERROR);
    ExpectError(17, "no such server");
    EXPECT_EQ(source.IsOpen(), 0);
    EXPECT_NE(TakeLog().find("SQLErrorW(null, dbc1"), std::string::npos);
    EXPECT_EQ(Open(), VORDA_OK);
    EXPECT_EQ(TakeLog(), "\nSQLDriverConnectW(dbc1, null, \"Server=a\", -3, null, 0, null, 1)\n");
    EXPECT_EQ(source.Open("Server=another", 14), VORDA_OK);
    EXPECT_EQ(TakeLog(), "\n");
    source.Close();
    ExpectError(VORDA_OK, "");

    scripted_answer("SQLAllocHandle", scripted_call_count("SQLAllocHandle") + 1, SQL_ERROR);
    EXPECT_EQ(Open(), VORDA_NO_ENVIRONMENT);
    // An allocation that failed leaves the environment.
    scripted_answer("SQLAllocHandle", scripted_call_count("SQLAllocHandle") + 2, SQL_ERROR);
    EXPECT_EQ(Open(), VORDA_ODBC_ERROR);
    TakeLog();
    EXPECT_EQ(Open(), VORDA_OK);
    EXPECT_EQ(TakeLog().find("\nSQLAllocHandle(2, env2, dbc2)"), 0u);
}

TEST_F(SourceTest, DiagnosticsAsTheyCome) {
    constexpr char kEarlier[] = "Unknown dbsource attribute.";
    const std::string longest(1023, 'm');
    const struct {
        std::string text;
        int reportedLength, status, code;
        std::string message;
    } cases[] = {
        {"no such table", -1, SQL_SUCCESS, -208, "no such table"},
        {"unread", -1, SQL_ERROR, -1, "Unable to retrieve the error"},
        {"unread", -1, SQL_NO_DATA, VORDA_OK, ""},
        {"unread", -1, SQL_INVALID_HANDLE, 1103, kEarlier},
        {longest, -1, SQL_SUCCESS, -208, longest},
        {longest + 'm', -1, SQL_SUCCESS_WITH_INFO, 1103, kEarlier},
        // Lengths that no driver should report.
        {std::string(3000, 'm'), 3000, SQL_SUCCESS, -208, longest},
        {"message", 32767, SQL_SUCCESS, -208, "message"},
        {"message", 4, SQL_SUCCESS, -208, "mess"},
        {"message", -32768, SQL_SUCCESS, -208, ""},
    };
    scripted_answer("SQLPrepareW", 0, SQL_ERROR);
    for (const auto& c : cases) {
        source.Config(21, nullptr, 0);
        scripted_diag("42000", -208, c.text.c_str(), c.reportedLength, c.status);
        EXPECT_EQ(source.Prepare("x", 1), VORDA_ODBC_ERROR);
        ExpectError(c.code, c.message.c_str());
    }
    // Of several records the first is read.
    Diagnose(4711, "first");
    Diagnose(4712, "second");
    source.Prepare("x", 1);
    ExpectError(4711, "first");
}

}  // namespace
