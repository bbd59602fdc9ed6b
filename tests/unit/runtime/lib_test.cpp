#include "runtime/lib.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

constexpr char kCompat[] = "libvordart-compat.x64.so.6";

// A buffer of exactly `size` bytes, filled with '#', for sanitizers to watch its ends.
std::vector<char> Buffer(std::size_t size, const std::string& text = "") {
    std::vector<char> buffer(size, '#');
    std::copy_n(text.c_str(), std::min(text.size() + 1, size), buffer.begin());
    return buffer;
}

// Small buffers in all sizes, each function beside what std::string does.
TEST(Texts, AreCutAtTheEndOfTheirBuffer) {
    const std::string letters = "abcdefgh";
    for (std::size_t size = 1; size < 8; ++size) {
        for (std::size_t length = 0; length < 8; ++length) {
            const std::string text = letters.substr(0, length);
            // Without spare storage: reading on beyond its NUL would be seen.
            const std::vector<char> source = Buffer(length + 1, text);
            for (const std::size_t count : {0ul, 1ul, 2ul, 3ul, 5ul, 7ul, 8ul, 9ul, SIZE_MAX}) {
                std::vector<char> target = Buffer(size);
                EXPECT_EQ(strncpy_s(target.data(), size, source.data(), count), count >= size);
                EXPECT_EQ(target.data(), text.substr(0, std::min(count, size - 1)));
            }
            for (std::size_t index = 0; index <= size; ++index) {
                const std::vector<char> before = Buffer(size, text);
                std::vector<char> target = before;
                std::string expected(before.begin(), before.end());
                if (index < size) {
                    expected.insert(index, text, 0, size - index - 1).resize(size);
                    expected.back() = '\0';
                }
                EXPECT_EQ(StringInsert(target.data(), static_cast<int>(size),
                                       static_cast<int>(index), source.data()),
                          0);
                EXPECT_EQ(std::string(target.begin(), target.end()), expected);
            }
        }
    }
}

TEST(ReplaceFileName, ReplacesWhatFollowsTheLastSlash) {
    const struct {
        const char* path;
        const char* name;
        int size;
        const char* expected;
    } cases[] = {
        {"/usr/lib/x/mod.so", "new.so.6", 64, "/usr/lib/x/new.so.6"},
        {"mod.so", "new.so.6", 64, "new.so.6"},
        {"a/b/mod.so", nullptr, 64, "a/b"},
        {"/mod.so", nullptr, 64, ""},
        {"a/b", "long name", 5, "a/lo"},
        {"a/b", "x", 3, "a/"},
        {"", "x", 1, ""},
        // Not terminated.
        {"a/bc", "xyz", 4, "a/x"},
    };
    for (const auto& [path, name, size, expected] : cases) {
        std::vector<char> buffer = Buffer(static_cast<std::size_t>(size), path);
        EXPECT_EQ(ReplaceFileName(buffer.data(), name, size), 0);
        EXPECT_STREQ(buffer.data(), expected) << path;
    }
}

TEST(GetCurrentPath, NamesTheObjectThatThisCodeLivesIn) {
    char path[1024];
    EXPECT_EQ(GetCurrentPath(&path, path, sizeof path), 0);
    EXPECT_TRUE(std::filesystem::equivalent(path, "/proc/self/exe")) << path;
}

TEST(GetCoreName, AsksAnotherLibrary) {
    EXPECT_STREQ(GetCoreName(), "Vorda.PyCore.Zelqa");
    const struct {
        const char* path;
        int size;
        const char* expected;
    } cases[] = {{kCompat, 64, "Scripted.Compat"},
                 {kCompat, 4, "Scr"},
                 {kCompat, 0, "before"},
                 {"/no/such/library.so", 8, ""},
                 {nullptr, 8, ""}};
    for (const auto& [path, size, expected] : cases) {
        std::vector<char> name = Buffer(static_cast<std::size_t>(size < 1 ? 7 : size), "before");
        EXPECT_EQ(GetCoreName(path, name.data(), size), 0);
        EXPECT_STREQ(name.data(), expected);
    }
}

TEST(GetRuntimeVersion, IsMinusOneWhenItCannotBeAsked) {
    std::string runtime = "libvordart.x64.so.6", companion = kCompat, missing = "/no/such.so";
    EXPECT_EQ(GetRuntimeVersion(runtime.data()), 6);
    EXPECT_EQ(GetRuntimeVersion(companion.data()), -1);
    EXPECT_EQ(GetRuntimeVersion(missing.data()), -1);
    EXPECT_EQ(GetRuntimeVersion(nullptr), -1);
}

TEST(GetDriverLib, ReadsTheInstallersConfiguration) {
    // Stays open: the installer's caches would look leaked once it is gone.
    if (!dlopen("libodbcinst.so", RTLD_NOW)) GTEST_SKIP() << "libodbcinst.so is not installed";
    setenv("ODBCSYSINI", testing::TempDir().c_str(), 1);
    std::ofstream(testing::TempDir() + "odbcinst.ini") << "[Vorda]\nDriver = /opt/vorda.so\n";
    std::vector<char> path = Buffer(64);
    EXPECT_EQ(GetDriverLib("Vorda", path.data(), 64), 13);
    EXPECT_STREQ(path.data(), "/opt/vorda.so");
    EXPECT_LE(GetDriverLib("No such driver", path.data(), 64), 0);
    std::filesystem::remove(testing::TempDir() + "odbcinst.ini");
    unsetenv("ODBCSYSINI");
}

}  // namespace
