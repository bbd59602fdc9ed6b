// An open data source, or one that the test opens itself.
#pragma once

#include <cstdint>

#include "mono/dbsource.h"
#include "unit/mono/scriptedtest.h"
#include "util/def.h"

class ClosedSourceTest : public ScriptedTest {
  protected:
    void SetUp() override {
        ScriptedTest::SetUp();
        source.Init();
    }
    void TearDown() override {
        source.Close();
        ScriptedTest::TearDown();
    }

    int Open() { return source.Open("Server=a", 8); }
    int SetBatchSize(int size) {
        return source.Config(SQL_ATTR_PARAMSET_SIZE,
                             reinterpret_cast<void*>(static_cast<std::intptr_t>(size)), 4);
    }
    void ExpectError(int code, const char* message) {
        EXPECT_EQ(source.GetLastError(), code);
        EXPECT_STREQ(source.GetLastErrorMessage(), message);
    }

    IntDbSource source;
};

class SourceTest : public ClosedSourceTest {
  protected:
    void SetUp() override {
        ClosedSourceTest::SetUp();
        ASSERT_EQ(Open(), VORDA_OK);
        TakeLog();
    }
};
