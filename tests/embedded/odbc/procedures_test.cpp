// Calls of procedures, and the table of their parameters.
#include "driver_fixture.h"

namespace embedded_test {
namespace {

struct DriverProcedures : DriverTest {
    /// The driver's catalogue: names of parameters with their kinds; in schemas where that is set.
    void parameters(const std::vector<std::pair<std::u16string, SQLSMALLINT>>& all,
                    const std::u16string& second = u"") {
        constexpr size_t kColumns = 18;
        Result& catalog = script.catalog = {};
        catalog.columns.assign(kColumns, {u"x"});
        catalog.columns[4].type = catalog.columns[17].type = SQL_INTEGER;
        for (const auto& [name, kind] : all) {
            std::vector<Cell> row(kColumns, wide(u"INTEGER"));
            row[1] = wide(second.empty() || catalog.rows.empty() ? u"public" : second);
            row[3] = wide(name);
            row[4] = number(kind);
            row[17] = number(static_cast<SQLBIGINT>(catalog.rows.size()) + 1);
            catalog.rows.push_back(row);
        }
    }
};

TEST_F(DriverProcedures, GetTheirArgumentsInDeclaredOrder) {
    const SQLINTEGER values[] = {10, 20, 30};
    SQLLEN lengths[] = {4, 4, 4};
    const struct {
        std::string sql;
        std::string called;  ///< or the state of the failure
        Rows bound{};
        std::string searched{};
    } kCases[] = {
        {"EXECUTE p a=@1 , b=@2 ", "{call p(?, ?)}", {"1=10", "2=20"}, "p"},
        {"exec p b=@1 , a=@2 ;", "{call p(?, ?)}", {"1=20", "2=10"}, "p"},
        {"EXEC p b=?, a=?", "{call p(?, ?)}", {"1=20", "2=10"}, "p"},
        {"EXEC p b=?, a=@1 ", "{call p(?, ?)}", {"1=10", "2=10"}, "p"},
        {"EXEC p B=f(?, 'x,y'), @A=-1", "{call p(-1, f(? , 'x,y'))}", {"1=10"}, "p"},
        {"EXEC p @1 , b=@2 ", "{call p(?, ?)}", {"1=10", "2=20"}, "p"},
        {"EXEC p @2 , @1 ", "{call p(?, ?)}", {"1=20", "2=10"}},
        {"EXEC p", "{call p()}"},
        {"EXEC Sales.\"P_%\" a=1, b=2", "{call Sales.\"P_%\"(1, 2)}", {}, "sales.P\\_\\%"},
        {"EXEC p a=1, b=@2 , c=3", "42000"},
        {"EXEC p a=1", "42000"},
        {"EXEC p a=1, a=2", "42000"},
        {"EXEC p a=1, b=2, 3", "42000"},
        {"EXEC p 1, a=2", "42000"},
        {"EXEC p a=1, b=", "42000"},
        {"EXEC p a=1,", "42000"},
        // The server's own.
        {"EXECUTE prepared(1)", "EXECUTE prepared(1)"},
        {"EXECUTE s USING @x", "EXECUTE s USING @x"},
        {"EXECUTE IMMEDIATE 'DROP TABLE t'", "EXECUTE IMMEDIATE 'DROP TABLE t'"},
    };
    parameters({{u"result", SQL_RETURN_VALUE},
                {u"@a", SQL_PARAM_INPUT},
                {u"b", SQL_PARAM_INPUT_OUTPUT},
                {u"out", SQL_PARAM_OUTPUT}});
    Connection connection(kDriverText);
    for (const auto& given : kCases) {
        SCOPED_TRACE(given.sql);
        Statement statement(connection.handle);
        calls({});
        if (statement.prepare(given.sql) == SQL_ERROR) {
            EXPECT_EQ(given.called, statement.error().state) << statement.error().message;
            continue;
        }
        SQLSMALLINT count = 0;
        RT_SQLNumParams(kDriver, statement.handle, &count);
        for (SQLUSMALLINT i = 0; i < count; ++i) {
            statement.bind(static_cast<SQLUSMALLINT>(i + 1), SQL_C_LONG, values + i, lengths + i);
        }
        EXPECT_EQ(SQL_SUCCESS, statement.execute()) << statement.error().message;
        Rows expected;
        if (!given.searched.empty()) expected.push_back("SQLProcedureColumnsW " + given.searched);
        for (const std::string& bound : given.bound)
            expected.push_back("SQLBindParameter " + bound);
        expected.push_back("SQLExecDirectW " + given.called);
        EXPECT_EQ(expected, calls({"SQLProcedure", "SQLBindParameter", "SQLExec"}));
    }
    // Two procedures of that name.
    parameters({{u"a", SQL_PARAM_INPUT}, {u"b", SQL_PARAM_INPUT}}, u"other");
    connection.expect("EXEC p a=1, b=2 => !HYC00");
    // And in one schema, where the numbers of the parameters begin anew.
    parameters({{u"a", SQL_PARAM_INPUT}, {u"b", SQL_PARAM_INPUT}});
    script.catalog.rows[1][17] = number(1);
    connection.expect("EXEC p a=1, b=2 => !HYC00");
    script.answers["SQLProcedureColumnsW"] = failing();
    connection.expect("EXEC p a=1, b=2 => !no catalogue");
}

TEST_F(DriverProcedures, ShowTheirParametersInATable) {
    parameters({{u"a", SQL_PARAM_INPUT}, {u"result", SQL_PARAM_OUTPUT}, {u"b", SQL_PARAM_INPUT}});
    Connection connection(kDriverText);
    connection.expect(R"(
SELECT * FROM sys_procedureparameters WHERE ProcedureName = 'p' => p|a|1|INTEGER, p|b|2|INTEGER
SELECT OrdinalPosition, ColumnName FROM sys_procedureparameters WHERE ProcedureName = 'p'
 => 1|a, 2|b
SELECT x FROM sys_procedureparameters WHERE ProcedureName = 'p' => !HYC00
SELECT * FROM sys_procedureparameters WHERE ProcedureName = p => !HYC00
SELECT * FROM sys_procedureparameters WHERE ProcedureName = 'p' OR 1 = 1 => !HYC00
SELECT * FROM sys_procedureparameters => !HYC00
)");
    dialect(u"MariaDB");
    Connection(kDriverText)
        .expect(
            "SELECT ColumnName FROM sys_procedureparameters WHERE ProcedureName = \"p\" => a, b");
    script.texts[SQL_PROCEDURES] = u"N";
    script.catalog.rows.clear();
    connection.expect("SELECT * FROM sys_procedureparameters WHERE ProcedureName = 'p' => !HYC00");
}

}  // namespace
}  // namespace embedded_test
