// What the walk over every failing call in tests/python/scripted does not show.
#include <string>

#include "unit/mono/sourcetest.h"

namespace {

TEST_F(SourceTest, EachStepsDiagnosticIsReadFromItsHandle) {
    const std::tuple<bool, const char*, std::string> steps[] = {
        {true, "SQLSetStmtAttr", "(null, null, stmt1, "},
        {true, "SQLExecute", "(null, null, stmt1, "},
        {true, "SQLRowCount", "(null, null, stmt1, "},
        {false, "SQLAllocHandle", "(null, dbc1, null, "},
        {false, "SQLExecDirectW", "(null, null, stmt2, "},
        {false, "SQLRowCount", "(null, null, stmt3, "}};
    SetBatchSize(2);
    source.Prepare("x", 1);
    for (const auto& [isPrepared, function, diagnosed] : steps) {
        FailNext(function, 20, "refused");
        int rows = 7;
        EXPECT_EQ(
            isPrepared ? source.Execute(nullptr, &rows) : source.Execute("x", 1, nullptr, &rows),
            VORDA_ODBC_ERROR);
        EXPECT_EQ(rows, 7);
        ExpectError(20, "refused");
        EXPECT_NE(TakeLog().find("SQLErrorW" + diagnosed), std::string::npos) << function;
    }
}

// A driver that still counts on three sets would read past the one that is bound.
TEST_F(SourceTest, ABatchThatStayedSetIsPutBackBeforeASingleExecution) {
    const int values[] = {1, 2, 3}, lengths[] = {4, 4, 4};
    for (const bool executes : {true, false}) {
        source.Prepare("x", 1);
        SetBatchSize(3);
        source.AddParam("@1", 2, DBTYPE_INTEGER, values, 4, lengths);
        // The execution itself fails, or the call after it.
        const char* const function = executes ? "SQLExecute" : "SQLSetStmtAttr";
        scripted_answer(function, scripted_call_count(function) + (executes ? 1 : 2), SQL_ERROR);
        EXPECT_EQ(source.Execute(nullptr, nullptr), executes ? VORDA_ODBC_ERROR : VORDA_OK);

        SetBatchSize(1);
        FailNext("SQLSetStmtAttr", 72, "cannot reset");
        EXPECT_EQ(source.Execute(nullptr, nullptr), VORDA_ODBC_ERROR);
        // Already when binding: a driver may look at the memory then.
        TakeLog();
        source.AddParam("@1", 2, DBTYPE_INTEGER, values, 4, lengths);
        EXPECT_EQ(source.Execute(nullptr, nullptr), VORDA_OK);
        const std::string log = TakeLog();
        EXPECT_EQ(log.find("\nSQLSetStmtAttr(stmt"), 0u) << log;
        EXPECT_NE(log.find(", 22, 1)\nSQLFreeStmt("), std::string::npos) << log;
        EXPECT_NE(log.find("  1: values=[1], lens=[4]\n"), std::string::npos) << log;
        EXPECT_EQ(source.Execute(nullptr, nullptr), VORDA_OK);
        EXPECT_EQ(TakeLog().find("SQLSetStmtAttr"), std::string::npos);
    }
}

}  // namespace
