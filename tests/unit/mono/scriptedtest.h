// What the tests of everything above the ODBC entry points share: they run on the scripted runtime,
// and after each of them it must hold no handle and must have seen no misuse.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "include/sqltypes.h"
#include "scripted_runtime/scripted_runtime.h"

class ScriptedTest : public ::testing::Test {
  protected:
    void SetUp() override { scripted_reset(); }
    void TearDown() override {
        EXPECT_EQ(scripted_live_handles(0), 0);
        EXPECT_EQ(scripted_errors(), 0) << scripted_log();
    }

    // The calls since the last TakeLog, a line each, for comparison with a raw string that begins
    // with a newline.
    static std::string TakeLog() {
        const std::string lines = scripted_log();
        scripted_log_clear();
        return "\n" + lines + (lines.empty() ? "" : "\n");
    }
    // A diagnostic with a true length that can be read.
    static void Diagnose(int native, const char* text) {
        scripted_diag("HY000", native, text, -1, SQL_SUCCESS);
    }
    // The next call of the function fails with this diagnostic, without acting.
    static void FailNext(const char* function, int native, const char* text) {
        scripted_answer(function, scripted_call_count(function) + 1, SQL_ERROR);
        Diagnose(native, text);
    }
    // The next call of the function acts and succeeds with this information.
    static void WarnNext(const char* function, int native, const char* text) {
        scripted_answer_after(function, scripted_call_count(function) + 1, SQL_SUCCESS_WITH_INFO);
        Diagnose(native, text);
    }
    // A result with a column for each type, and the beginning of its first row.
    static void AddResult(std::initializer_list<int> sqlTypes) {
        scripted_result();
        for (const int type : sqlTypes) scripted_column("c", type, 0, 0, 0, SQL_NULLABLE);
        scripted_row();
    }
    static void AddBytes(const std::string& value) {
        scripted_cell(SQL_C_CHAR, value.data(), static_cast<int>(value.size()));
    }
    template <typename T>
    static void AddCell(int cType, T value) {
        scripted_cell(cType, &value, sizeof value);
    }
};
