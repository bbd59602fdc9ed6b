#include <thread>

#include "fixture.h"

namespace embedded_test {
namespace {

class ProcedureTest : public DatabaseTest {
  protected:
    ProcedureTest() { connection.must("CREATE TABLE t (a INTEGER PRIMARY KEY, b TEXT)"); }
};

TEST_F(ProcedureTest, IsStoredInTheFileListedReplacedAndDropped) {
    connection.expect(R"(
SELECT * FROM sys_procedures => no rows
SELECT * FROM sys_procedureparameters => no rows
; CREATE PROCEDURE [Add It] (b VARCHAR ( 20 ), "a" DOUBLE PRECISION, c, d DECIMAL(10,2))
 AS INSERT INTO t (b) VALUES ($b || ';' || $A); SELECT $c, $d; -- done
 ;
create procedure `none`() as select 2
SELECT length(Definition) FROM sys_procedures WHERE ProcedureName='add it' => 162
)");
    connection.must("CREATE PROCEDURE zero AS SELECT 1" + std::string("\0\0", 2));
    for (const bool reopened : {false, true}) {
        Connection other("Database=" + path + (reopened ? ";Mode=ro" : ""));
        other.expect(R"(
SELECT ProcedureName FROM sys_procedures => Add It, none, zero
SELECT ColumnName, OrdinalPosition, DataTypeName FROM sys_procedureparameters
 WHERE ProcedureName='aDD iT'
  => b|1|VARCHAR ( 20 ), a|2|DOUBLE PRECISION, c|3|NULL, d|4|DECIMAL(10,2)
EXEC Zero => 1
)");
    }
    Connection("Database=:memory:").expect(R"(
SELECT * FROM sys_procedureparameters => no rows
CREATE PROCEDURE p (x) AS SELECT $x + 1
EXECUTE p 41 => 42
)");
    Statement early(connection.handle);
    ASSERT_EQ(SQL_SUCCESS, early.prepare("EXECUTE zero"));
    connection.expect(R"(
CREATE PROCEDURE ZERO AS SELECT 2 => !42S01
CREATE OR REPLACE PROCEDURE Zero (x) AS SELECT 2
EXEC zero => !no value for its parameter 'x'
)");
    EXPECT_EQ(SQL_ERROR, early.execute());  // prepared for the old one
    connection.expect(R"(
DROP PROCEDURE zero, other => !end of the statement expected
DROP PROCEDURE "ZERO";
DROP PROCEDURE zero => !42S02
DROP PROCEDURE IF EXISTS zero
)");
}

TEST_F(ProcedureTest, IsCheckedWhenItIsCreated) {
    connection.expect(R"(
CREATE PROCEDURE 'p' AS SELECT 1 => !a procedure's name expected
CREATE PROCEDURE "p AS SELECT 1 => !does not end
CREATE PROCEDURE p AS => !needs a statement
CREATE PROCEDURE p (a,) AS SELECT 1 => !a parameter's name expected
CREATE PROCEDURE p ("a b") AS SELECT 1 => !no name for a parameter
CREATE PROCEDURE p (a, b, A INT) AS SELECT 1 => !Two parameters are named 'A'
CREATE PROCEDURE p (a) AS SELECT $a; SELECT $b => !no parameter 'b'. (procedure 'p', statement 2)
CREATE PROCEDURE p (a) AS SELECT @1  => !marker '?'
CREATE PROCEDURE p AS SELECT 1; SELEC 2 => !syntax error (procedure 'p', statement 2)
CREATE PROCEDURE p AS SELECT * FROM nowhere => !42S02
CREATE PROCEDURE p AS SELECT 1; COMMIT => !COMMIT is not possible
CREATE PROCEDURE p AS ATTACH 'x' AS y => !ATTACH is not possible
CREATE PROCEDURE p AS PRAGMA user_version = 1 => !PRAGMA is not possible
CREATE PROCEDURE p AS SELECT 1; CREATE PROCEDURE q AS SELECT 2 => !cannot create or drop
CREATE PROCEDURE p AS EXEC q => !There is no procedure 'q'
CREATE PROCEDURE p (a) AS EXEC p b=$a => !no parameter 'b'
CREATE PROCEDURE p AS CREATE TABLE u (x); INSERT INTO u VALUES (1); SELECT y FROM u => !42S22
SELECT name FROM sqlite_master => t
INSERT INTO t VALUES (1, 'old')
)");
    // A body may use what it makes, and leaves nothing of it behind when it is only checked; text
    // that looks like the end of a statement, or like a parameter, is none.
    Statement open(connection.handle);
    ASSERT_EQ(SQL_SUCCESS, open.run("SELECT 7 UNION ALL SELECT 8"));
    ASSERT_EQ(SQL_SUCCESS, open.fetch());
    connection.expect(R"(
CREATE PROCEDURE build (n) AS CREATE TABLE u (x, y);
 CREATE TEMP TRIGGER r AFTER INSERT ON u BEGIN
  UPDATE u SET y = CASE WHEN x > 1 THEN ';$q' END; DELETE FROM t; END;
 INSERT INTO u (x) VALUES ($n); SELECT x, y, /* $z; */ ';' FROM u
)");
    EXPECT_EQ(Rows{"8"}, open.rows());
    connection.expect(R"(
INSERT INTO u (x) VALUES (1) => !42S02
SELECT count(*) FROM t => 1
EXEC build 2 => 2|;$q|;
)");
}

TEST_F(ProcedureTest, ArgumentsAreMatchedAndKeepTheirTypes) {
    connection.expect(R"(
CREATE PROCEDURE p (a, b) AS SELECT typeof($a), quote($a), typeof($b), quote($b)
EXECUTE p 1, 'it''s; $a' => integer|1|text|'it''s; $a'
EXECUTE p b=NULL, a=-9223372036854775808 => integer|-9223372036854775808|null|NULL
EXECUTE p $B = .5, @A = x'00ff' ; => blob|X'00FF'|real|0.5
EXECUTE p - 1.5e-3, b=true => real|-0.0015|integer|1
EXECUTE p +0x10, False /* ; */ => integer|16|integer|0
CREATE TABLE gone (a)
CREATE PROCEDURE late AS SELECT a FROM gone
DROP TABLE gone
EXEC late => !(procedure 'late', statement 1)
EXEC p => !no value for its parameter 'a'
EXEC p 1 => !no value for its parameter 'b'
EXEC p 1, 2, 3 => !none for argument 3
EXEC p 1, 2, a=3 => !two values for its parameter 'a'
EXEC p a=1, 2 => !without a name cannot follow
EXEC p 1, 1+1 => !literal or a parameter marker expected
EXEC p 1, 5 x => !literal or a parameter marker expected
EXEC p 1, 2; SELECT 3 => !end of the statement expected
)");
}

TEST_F(ProcedureTest, RunsAllOfItsStatementsOrNone) {
    connection.expect(R"(
CREATE PROCEDURE add2 (a, b) AS INSERT INTO t VALUES ($a, 'a'); SELECT 'seen';
 INSERT INTO t VALUES ($b, 'b'), ($b + 100, 'b')
CREATE PROCEDURE change (b) AS UPDATE t SET b = $b WHERE a < 2; DELETE FROM t WHERE a = 101
EXEC add2 1, 2 => seen
SELECT * FROM t => 1|a, 2|b, 102|b
EXEC change 'new' => #1
DELETE FROM t
INSERT INTO t VALUES (2, 'old')
EXEC add2 1, 2 => !(procedure 'add2', statement 3)
BEGIN
INSERT INTO t VALUES (9, 'mine')
EXEC add2 1, 2 => !(procedure 'add2', statement 3)
EXEC add2 3, 4 => seen
COMMIT
)");
    Statement nothing(connection.handle);
    EXPECT_EQ(SQL_SUCCESS, nothing.run("EXEC change 'new'"));
    EXPECT_EQ(0, nothing.rowCount());
    const Rows kept{"2", "3", "4", "9", "104"};
    EXPECT_EQ(kept, stored("SELECT a FROM t"));
    // Also when the transaction itself cannot be ended.
    connection.expect(R"(
PRAGMA foreign_keys = ON
CREATE TABLE c (x REFERENCES t DEFERRABLE INITIALLY DEFERRED)
CREATE PROCEDURE orphan AS INSERT INTO c VALUES (77); SELECT 1
EXEC orphan => !23503
SELECT count(*) FROM c => 0
)");
    connection.autocommit(false);
    connection.must("EXEC add2 1, 5");
    connection.end(SQL_ROLLBACK);
    EXPECT_EQ(kept, stored("SELECT a FROM t"));
}

TEST_F(ProcedureTest, CallsOthersToALimit) {
    connection.expect(R"(
CREATE PROCEDURE add (a, b) AS INSERT INTO t VALUES ($a, $b); SELECT $a + 1 AS n
CREATE PROCEDURE twice (x) AS EXEC add b='lit', a=$X; EXECUTE add -1, $x
EXEC twice 5 => 0
SELECT * FROM t => -1|5, 5|lit
EXEC twice 6 => !(procedure 'add', statement 1)
CREATE PROCEDURE p0 AS SELECT 'deep'
)");
    for (int i = 1; i < 32; ++i) {
        connection.must("CREATE PROCEDURE p" + std::to_string(i) + " AS EXEC p" +
                        std::to_string(i - 1));
    }
    connection.expect(R"(
EXEC p31 => deep
CREATE PROCEDURE p32 AS EXEC p31 => !more than 32 deep
CREATE PROCEDURE loop (n) AS DELETE FROM t; EXEC loop $n
CREATE OR REPLACE PROCEDURE p0 AS EXEC p31
EXEC p31 => !more than 32 deep
EXEC p0 => !more than 32 deep
EXEC loop 50 => !more than 32 deep, the last of them 'loop'
SELECT count(*) FROM t => 2
)");
}

// Each is looked at once, however often it is called: 2^30 looks would not end.
TEST_F(ProcedureTest, ManyWaysToOneProcedureAreOneCheck) {
    connection.must("CREATE PROCEDURE p0 AS SELECT 1 WHERE 0");
    for (int i = 1; i <= 30; ++i) {
        const std::string call = " EXEC p" + std::to_string(i - 1) + ";";
        connection.must("CREATE PROCEDURE p" + std::to_string(i) + " AS" + call + call);
    }
    EXPECT_EQ(SQL_SUCCESS, Statement(connection.handle).prepare("EXEC p30"));
}

TEST_F(ProcedureTest, OrdinarySqlCannotDamageThem) {
    connection.expect(R"(
CREATE PROCEDURE p (a INT) AS SELECT $a
CREATE TRIGGER r AFTER INSERT ON t BEGIN DELETE FROM vorda_procedures; END
DELETE FROM main."VORDA_procedures" => !cannot be changed by a statement
REPLACE INTO vorda_procedures VALUES ('p', 'x') => !
UPDATE vorda_procedures SET text = '' => !
DROP TABLE vorda_procedures => !
ALTER TABLE vorda_procedures RENAME TO x => !
ALTER TABLE t RENAME TO 'sys_procedures' => !
CREATE UNIQUE INDEX i ON vorda_procedures (text) => !
INSERT INTO t VALUES (1, 'fires r') => !
CREATE TEMP TRIGGER s AFTER DELETE ON main.vorda_procedures BEGIN SELECT 1; END => !
CREATE TABLE sys_procedureparameters (ColumnName) => !
CREATE TEMP TABLE Sys_Procedures (x) => !
CREATE VIEW sys_procedures AS SELECT 1 => !
DELETE FROM sys_procedures => !
INSERT INTO sys_procedureparameters VALUES ('p', 'b', 2, '') => !
DROP TABLE sys_procedures => !
PRAGMA writable_schema = ON => !
CREATE PROCEDURE q AS DELETE FROM vorda_procedures => !
PRAGMA writable_schema
CREATE TABLE "my sys_procedures" (sys_procedures)
UPDATE "my sys_procedures" SET sys_procedures = 1
DROP TRIGGER r
PRAGMA foreign_keys = ON
CREATE TABLE f (p REFERENCES vorda_procedures ON DELETE CASCADE)
INSERT INTO f VALUES ('p')
CREATE TRIGGER c AFTER DELETE ON f BEGIN UPDATE vorda_procedures SET text = ''; END
DROP PROCEDURE p => !cannot be changed by a statement
DROP TABLE f
VACUUM
ANALYZE
SELECT text FROM vorda_procedures => CREATE PROCEDURE p (a INT) AS SELECT $a
SELECT ColumnName, DataTypeName FROM sys_procedureparameters WHERE ProcedureName='p' => a|INT
EXEC p 5 => 5
)");
    // A statement that is compiled anew in the middle of an execution does not slip through.
    Statement insert(connection.handle);
    ASSERT_EQ(SQL_SUCCESS, insert.prepare("INSERT INTO t VALUES (2, 'x')"));
    Connection(std::string("Database=") + path)
        .must("CREATE TRIGGER r AFTER INSERT ON t BEGIN DELETE FROM vorda_procedures; END");
    EXPECT_EQ(SQL_ERROR, insert.execute());
    EXPECT_EQ(SQLITE_AUTH, insert.error().native);
}

TEST_F(ProcedureTest, WaitsForOthersAndSeesWhatTheyStored) {
    connection.must(
        "CREATE PROCEDURE add (a) AS SELECT count(*) FROM t; INSERT INTO t VALUES ($a, '')");
    Connection other("Database=" + path + ";Timeout=20");
    EXPECT_EQ(Rows{"0"}, other.query("EXEC add 1"));
    connection.must("BEGIN IMMEDIATE");
    std::thread writer([&] { other.must("EXEC add 2"); });
    connection.must("INSERT INTO t VALUES (3, '')");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    connection.must("COMMIT");
    writer.join();
    EXPECT_EQ(Rows({"1", "2", "3"}), stored("SELECT a FROM t"));
    connection.must("CREATE OR REPLACE PROCEDURE add AS SELECT 'new'");
    connection.must("BEGIN IMMEDIATE");  // reading waits for nobody
    EXPECT_EQ(Rows{"new"}, other.query("EXEC add"));
}

}  // namespace
}  // namespace embedded_test
