// The built pair of libraries as a caller meets it: opened by path with global scope.
#include <dlfcn.h>

#include "fixture.h"

namespace embedded_test {
namespace {

class LibraryTest : public ::testing::Test {
  protected:
    static void* open(const char* path) {
        void* library = dlopen(path, RTLD_NOW | RTLD_GLOBAL);
        EXPECT_NE(nullptr, library) << dlerror();
        return library;
    }
};

TEST_F(LibraryTest, RunsAQueryAndExportsOnlyWhatItImplements) {
    void* library = open(VORDA_EMBEDDED_LIBRARY);
    void* companion = open(VORDA_EMBEDDED_COMPANION);
    ASSERT_TRUE(library && companion);
    const auto function = [library]<class F>(F*, const char* name) {
        return reinterpret_cast<F*>(dlsym(library, name));
    };
    const auto version = function(&RT_Version, "RT_Version");
    ASSERT_NE(nullptr, version);
    EXPECT_EQ(6, version());
    EXPECT_NE(&RT_Version, version) << "the library's own, not the one linked into this program";
    for (const char* missing : {"RT_SQLProcedures", "RT_SQLSetPos", "SQLExecDirect"}) {
        EXPECT_EQ(nullptr, dlsym(library, missing)) << missing;
    }

    const auto alloc = function(&RT_SQLAllocHandle, "RT_SQLAllocHandle");
    const auto release = function(&RT_SQLFreeHandle, "RT_SQLFreeHandle");
    const auto connect = function(&RT_SQLDriverConnectW, "RT_SQLDriverConnectW");
    const auto run = function(&RT_SQLExecDirectW, "RT_SQLExecDirectW");
    const auto disconnect = function(&RT_SQLDisconnect, "RT_SQLDisconnect");
    ASSERT_TRUE(alloc && release && connect && run && disconnect);
    SQLHANDLE environment = nullptr;
    SQLHANDLE connection = nullptr;
    SQLHANDLE statement = nullptr;
    EXPECT_EQ(SQL_SUCCESS, alloc(kDriver, SQL_HANDLE_ENV, nullptr, &environment));
    EXPECT_EQ(SQL_SUCCESS, alloc(kDriver, SQL_HANDLE_DBC, environment, &connection));
    EXPECT_EQ(SQL_SUCCESS, connect(kDriver, connection, nullptr, chars("Database=:memory:"),
                                   SQL_NTS, nullptr, 0, nullptr, SQL_DRIVER_COMPLETE));
    EXPECT_EQ(SQL_SUCCESS, alloc(kDriver, SQL_HANDLE_STMT, connection, &statement));
    EXPECT_EQ(SQL_SUCCESS, run(kDriver, statement, chars("SELECT 1"), SQL_NTS));
    // Its handles are its own: the runtime linked into this program does not know them.
    EXPECT_EQ(SQL_INVALID_HANDLE, RT_SQLFetch(kDriver, statement));
    EXPECT_EQ(SQL_SUCCESS, disconnect(kDriver, connection));
    EXPECT_EQ(SQL_SUCCESS, release(kDriver, SQL_HANDLE_DBC, connection));
    EXPECT_EQ(SQL_SUCCESS, release(kDriver, SQL_HANDLE_ENV, environment));
    dlclose(companion);
    dlclose(library);
}

}  // namespace
}  // namespace embedded_test
