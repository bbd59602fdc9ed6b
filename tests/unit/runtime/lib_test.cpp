#include "runtime/lib.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
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

TEST(StrncpyS, CutsAtTheDestinationAndStopsAtTheSourcesEnd) {
    const struct {
        std::size_t size;
        std::string source;
        std::size_t count;
        const char* expected;
        int status;
    } cases[] = {
        {4, "abcdef", 6, "abc", 1}, {4, "abcdef", 3, "abc", 0}, {4, "abcdef", 2, "ab", 0},
        {4, "abcdef", 0, "", 0},    {1, "abcdef", 1, "", 1},    {8, "ab", 8, "ab", 1},
        {8, "ab", 7, "ab", 0},      {8, "", 3, "", 0},          {4, "abcd", SIZE_MAX, "abc", 1},
    };
    for (const auto& [size, text, count, expected, status] : cases) {
        std::vector<char> target = Buffer(size);
        // Without spare storage: reading on beyond its NUL would be seen.
        const std::vector<char> source = Buffer(text.size() + 1, text);
        EXPECT_EQ(strncpy_s(target.data(), size, source.data(), count), status) << expected;
        EXPECT_STREQ(target.data(), expected);
    }
    char text[] = "#";
    EXPECT_EQ(strncpy_s(text, 0, "abc", 3), 1);
    EXPECT_EQ(strncpy_s(text, 0, "abc", 0), 0);
    EXPECT_STREQ(text, "#");
    EXPECT_EQ(strncpy_s(text, 2, nullptr, 1), 0);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(strncpy_s(nullptr, 4, "abc", 3), 1);
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
    // No room is left behind the only slash.
    std::vector<char> slash = {'a', 'b', '/'};
    const std::vector<char> before = slash;
    EXPECT_EQ(ReplaceFileName(slash.data(), "x", 3), 0);
    EXPECT_EQ(ReplaceFileName(slash.data(), "x", 0), 0);
    EXPECT_EQ(ReplaceFileName(slash.data(), "x", -1), -1);
    EXPECT_EQ(slash, before);
    EXPECT_EQ(ReplaceFileName(nullptr, "x", 3), -1);
}

TEST(StringInsert, ShiftsTheTailOutOfTheBuffer) {
    const struct {
        int size, index;
        const char* inserted;
        const char* expected;
    } cases[] = {
        {16, 0, "xy", "xyabcdef"}, {16, 3, "xy", "abcxydef"},   {16, 6, "xy", "abcdefxy"},
        {8, 3, "xy", "abcxyde"},   {8, 3, "uvwxyz", "abcuvwx"}, {8, 7, "xy", "abcdef"},
        {8, 0, "", "abcdef"},      {3, 2, "x", "ab"},
    };
    for (const auto& [size, index, inserted, expected] : cases) {
        std::vector<char> buffer = Buffer(static_cast<std::size_t>(size), "abcdef");
        EXPECT_EQ(StringInsert(buffer.data(), size, index, inserted), 0);
        EXPECT_STREQ(buffer.data(), expected) << index << inserted;
        EXPECT_EQ(buffer.back(), '\0');
    }
    // From the buffer itself, as it is once the tail has moved.
    std::vector<char> own = Buffer(10, "abcdef");
    EXPECT_EQ(StringInsert(own.data(), 10, 0, own.data() + 1), 0);
    EXPECT_STREQ(own.data(), "bcdeaabcd");
    std::vector<char> untouched = {'a', 'b', 'c'};
    const std::vector<char> before = untouched;
    EXPECT_EQ(StringInsert(nullptr, 3, 0, "x"), 0);
    EXPECT_EQ(StringInsert(untouched.data(), 3, 0, nullptr), 0);
    for (const auto& [size, index] : {std::pair{0, 0}, {-3, 0}, {3, -1}, {3, 3}, {3, 4}}) {
        EXPECT_EQ(StringInsert(untouched.data(), size, index, "x"), 0);
    }
    EXPECT_EQ(untouched, before);
}

TEST(GetCurrentPath, NamesTheObjectThatThisCodeLivesIn) {
    char path[1024];
    EXPECT_EQ(GetCurrentPath(&path, path, sizeof path), 0);
    EXPECT_TRUE(std::filesystem::equivalent(path, "/proc/self/exe")) << path;

    std::vector<char> small = Buffer(5);
    EXPECT_EQ(GetCurrentPath(nullptr, small.data(), 5), 0);
    EXPECT_EQ(std::string(small.data()), std::string(path, 4));
    char none = '#';
    for (const int size : {0, -1, INT_MIN}) EXPECT_EQ(GetCurrentPath(nullptr, &none, size), 0);
    EXPECT_EQ(none, '#');
    EXPECT_EQ(GetCurrentPath(nullptr, nullptr, 10), 0);
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
                 {kCompat, -1, "before"},
                 {"/no/such/library.so", 8, ""},
                 {"libvordart.x64.so.6", 8, ""},
                 {nullptr, 8, ""}};
    for (const auto& [path, size, expected] : cases) {
        std::vector<char> name = Buffer(static_cast<std::size_t>(size < 1 ? 7 : size), "before");
        EXPECT_EQ(GetCoreName(path, name.data(), size), 0);
        EXPECT_STREQ(name.data(), expected);
    }
    EXPECT_EQ(GetCoreName(kCompat, nullptr, 8), 0);
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
    char folder[] = "/tmp/vorda-odbcinst-XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const std::filesystem::path file = std::filesystem::path(folder) / "odbcinst.ini";
    std::ofstream(file) << "[Vorda]\nDriver = /opt/driver/libvorda.so\n";
    setenv("ODBCSYSINI", folder, 1);

    std::vector<char> path = Buffer(64);
    EXPECT_EQ(GetDriverLib("Vorda", path.data(), 64), 23);
    EXPECT_STREQ(path.data(), "/opt/driver/libvorda.so");
    EXPECT_LE(GetDriverLib("No such driver", path.data(), 64), 0);
    EXPECT_LE(GetDriverLib("Vorda", path.data(), -1), 0);
    EXPECT_LE(GetDriverLib("Vorda", nullptr, 64), 0);

    unsetenv("ODBCSYSINI");
    std::filesystem::remove_all(folder);
}

}  // namespace
