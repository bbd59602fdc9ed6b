#include "runtime/lib.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

// A buffer of exactly `size` bytes, filled with '#', for sanitizers to watch its ends.
std::vector<char> Buffer(std::size_t size, const std::string& text = "") {
    std::vector<char> buffer(size, '#');
    std::copy_n(text.c_str(), std::min(text.size() + 1, size), buffer.begin());
    return buffer;
}

TEST(StrncpyS, CutsAtTheDestinationAndStopsAtTheSourcesEnd) {
    struct Case {
        std::size_t size;
        const char* source;
        std::size_t count;
        const char* expected;
        int status;
    };
    const Case cases[] = {
        {4, "abcdef", 6, "abc", 1}, {4, "abcdef", 3, "abc", 0}, {4, "abcdef", 2, "ab", 0},
        {4, "abcdef", 0, "", 0},    {1, "abcdef", 1, "", 1},    {8, "ab", 8, "ab", 1},
        {8, "ab", 7, "ab", 0},      {8, nullptr, 3, "", 0},     {4, "abcd", SIZE_MAX, "abc", 1},
    };
    for (const Case& c : cases) {
        std::vector<char> buffer = Buffer(c.size);
        // A source without spare storage: reading on beyond its NUL would be seen.
        std::vector<char> source;
        if (c.source) source.assign(c.source, c.source + std::strlen(c.source) + 1);
        EXPECT_EQ(strncpy_s(buffer.data(), c.size, c.source ? source.data() : nullptr, c.count),
                  c.status)
            << c.expected;
        EXPECT_STREQ(buffer.data(), c.expected);
    }
}

TEST(StrncpyS, WithoutRoomWritesNothing) {
    char untouched = '#';
    EXPECT_EQ(strncpy_s(&untouched, 0, "abc", 3), 1);
    EXPECT_EQ(strncpy_s(&untouched, 0, "abc", 0), 0);
    EXPECT_EQ(untouched, '#');
    EXPECT_EQ(strncpy_s(nullptr, 4, "abc", 3), 1);
}

TEST(ReplaceFileName, ReplacesWhatFollowsTheLastSlash) {
    struct Case {
        const char* path;
        const char* name;
        int size;
        const char* expected;
    };
    const Case cases[] = {
        {"/usr/lib/x/mod.so", "libvordart.x64.so.6", 64, "/usr/lib/x/libvordart.x64.so.6"},
        {"mod.so", "libvordart.x64.so.6", 64, "libvordart.x64.so.6"},
        {"/mod.so", "libvordart.x64.so.6", 64, "libvordart.x64.so.6"},
        {"a/b/mod.so", nullptr, 64, "a/b"},
        {"mod.so", nullptr, 64, ""},
        {"/mod.so", nullptr, 64, ""},
        {"a/", "x", 64, "a/x"},
        {"a/b", "long name", 5, "a/lo"},
        {"a/b", "x", 3, "a/"},
        {"", "x", 64, "x"},
        {"", "x", 1, ""},
    };
    for (const Case& c : cases) {
        std::vector<char> path = Buffer(static_cast<std::size_t>(c.size), c.path);
        EXPECT_EQ(ReplaceFileName(path.data(), c.name, c.size), 0);
        EXPECT_STREQ(path.data(), c.expected) << c.path;
    }
}

TEST(ReplaceFileName, StaysInsideABufferThatIsNotTerminated) {
    std::vector<char> path = {'a', '/', 'b', 'c'};
    EXPECT_EQ(ReplaceFileName(path.data(), "xyz", 4), 0);
    EXPECT_STREQ(path.data(), "a/x");

    // The only slash is the last byte: no room is left behind it.
    std::vector<char> slash = {'a', 'b', '/'};
    EXPECT_EQ(ReplaceFileName(slash.data(), "x", 3), 0);
    EXPECT_EQ(slash, (std::vector<char>{'a', 'b', '/'}));

    EXPECT_EQ(ReplaceFileName(slash.data(), "x", 0), 0);
    EXPECT_EQ(slash[0], 'a');
    EXPECT_EQ(ReplaceFileName(slash.data(), "x", -1), -1);
    EXPECT_EQ(ReplaceFileName(nullptr, "x", 3), -1);
}

TEST(StringInsert, ShiftsTheTailOutOfTheBuffer) {
    struct Case {
        int size;
        int index;
        const char* inserted;
        const char* expected;
    };
    const Case cases[] = {
        {16, 0, "xy", "xyabcdef"}, {16, 3, "xy", "abcxydef"},   {16, 6, "xy", "abcdefxy"},
        {8, 3, "xy", "abcxyde"},   {8, 3, "uvwxyz", "abcuvwx"}, {8, 7, "xy", "abcdef"},
        {8, 0, "", "abcdef"},
    };
    for (const Case& c : cases) {
        std::vector<char> buffer = Buffer(static_cast<std::size_t>(c.size), "abcdef");
        EXPECT_EQ(StringInsert(buffer.data(), c.size, c.index, c.inserted), 0);
        EXPECT_STREQ(buffer.data(), c.expected) << c.index << c.inserted;
        EXPECT_EQ(buffer.back(), '\0');
    }
}

TEST(StringInsert, AtTheLastByteOnlyTerminates) {
    std::vector<char> full = {'a', 'b', 'c'};
    EXPECT_EQ(StringInsert(full.data(), 3, 2, "x"), 0);
    EXPECT_STREQ(full.data(), "ab");
}

TEST(StringInsert, LeavesTheBufferAloneForArgumentsThatMakeNoSense) {
    std::vector<char> buffer = {'a', 'b', 'c'};
    const std::vector<char> before = buffer;
    EXPECT_EQ(StringInsert(nullptr, 3, 0, "x"), 0);
    EXPECT_EQ(StringInsert(buffer.data(), 3, 0, nullptr), 0);
    for (const auto& [size, index] : {std::pair{0, 0}, {-3, 0}, {3, -1}, {3, 3}, {3, 4}}) {
        EXPECT_EQ(StringInsert(buffer.data(), size, index, "x"), 0);
    }
    EXPECT_EQ(buffer, before);
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
    std::vector<char> name = Buffer(64);
    EXPECT_EQ(GetCoreName("libvordart-compat.x64.so.6", name.data(), 64), 0);
    EXPECT_STREQ(name.data(), "Scripted.Compat");

    std::vector<char> small = Buffer(4);
    EXPECT_EQ(GetCoreName("libvordart-compat.x64.so.6", small.data(), 4), 0);
    EXPECT_STREQ(small.data(), "Scr");

    EXPECT_STREQ(GetCoreName(), "Vorda.PyCore.Zelqa");
}

TEST(GetCoreName, LeavesAnEmptyTextWhenThereIsNone) {
    for (const char* const path :
         {"/no/such/library.so", "libvordart.x64.so.6", static_cast<const char*>(nullptr)}) {
        std::vector<char> name = Buffer(8, "before");
        EXPECT_EQ(GetCoreName(path, name.data(), 8), 0);
        EXPECT_STREQ(name.data(), "");
    }
    char untouched = '#';
    EXPECT_EQ(GetCoreName("libvordart-compat.x64.so.6", &untouched, 0), 0);
    EXPECT_EQ(GetCoreName("libvordart-compat.x64.so.6", &untouched, -1), 0);
    EXPECT_EQ(GetCoreName("libvordart-compat.x64.so.6", nullptr, 8), 0);
    EXPECT_EQ(untouched, '#');
}

TEST(GetRuntimeVersion, IsMinusOneWhenItCannotBeAsked) {
    char runtime[] = "libvordart.x64.so.6";
    char companion[] = "libvordart-compat.x64.so.6";
    char missing[] = "/no/such/library.so";
    EXPECT_EQ(GetRuntimeVersion(runtime), 6);
    EXPECT_EQ(GetRuntimeVersion(companion), -1);
    EXPECT_EQ(GetRuntimeVersion(missing), -1);
    EXPECT_EQ(GetRuntimeVersion(nullptr), -1);
}

TEST(GetDriverLib, ReadsTheInstallersConfiguration) {
    void* const installer = dlopen("libodbcinst.so", RTLD_NOW);
    if (!installer) GTEST_SKIP() << "libodbcinst.so is not installed";
    // Stays open: the installer's caches would look leaked once it is gone.

    char folder[] = "/tmp/vorda-odbcinst-XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const std::filesystem::path file = std::filesystem::path(folder) / "odbcinst.ini";
    std::ofstream(file) << "[Vorda]\nDriver = /opt/driver/libvorda.so\n";
    setenv("ODBCSYSINI", folder, 1);

    std::vector<char> path = Buffer(64);
    EXPECT_EQ(GetDriverLib("Vorda", path.data(), 64), 23);
    EXPECT_STREQ(path.data(), "/opt/driver/libvorda.so");
    EXPECT_LE(GetDriverLib("No such driver", path.data(), 64), 0);
    EXPECT_LE(GetDriverLib("Vorda", path.data(), 0), 0);
    EXPECT_LE(GetDriverLib("Vorda", path.data(), -1), 0);
    EXPECT_LE(GetDriverLib("Vorda", nullptr, 64), 0);

    unsetenv("ODBCSYSINI");
    std::filesystem::remove_all(folder);
}

}  // namespace
