// The platform layer on Windows, checked against the system's own answers
// through other calls than the layer uses. Under Wine the prefix supplies
// the user's folders and the environment.
#include "Platform.h"
#include "PlatformPaths.h"
#include "TestSupport.h"

#include <windows.h>

#include <shlobj.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>

namespace fs = std::filesystem;
using testsupport::ScopedEnv;

namespace {

// A fault reporter as the shell installs one: it writes and returns.
void reportFault(unsigned long code, void* const* frames, int frameCount) {
    std::fprintf(stderr, "fault %lX %s frames\n", code,
                 frameCount > 0 && frames[0] != nullptr ? "with" : "without");
    std::fflush(stderr);
}

} // namespace

// An exception nobody handles reaches the reporter with the faulting thread's
// return addresses; the process then ends with the exception's code.
TEST(PlatformWindowsDeathTest, UnhandledExceptionReachesTheFaultReporter) {
    EXPECT_EXIT(
        {
            Platform::installFaultReporter(&reportFault);
            RaiseException(EXCEPTION_ACCESS_VIOLATION, EXCEPTION_NONCONTINUABLE, 0, nullptr);
        },
        ::testing::ExitedWithCode(static_cast<int>(EXCEPTION_ACCESS_VIOLATION)),
        "fault C0000005 with frames");
}

// The known folders, as the older shell call names them.
TEST(PlatformWindows, UserFoldersAreTheSystemsKnownFolders) {
    for (const auto& [dir, csidl] : {std::pair{Platform::localAppDataDirectory(), CSIDL_LOCAL_APPDATA},
                                     std::pair{Platform::desktopDirectory(), CSIDL_DESKTOPDIRECTORY}}) {
        wchar_t path[MAX_PATH] = {};
        ASSERT_TRUE(SUCCEEDED(SHGetFolderPathW(nullptr, csidl, nullptr, SHGFP_TYPE_CURRENT, path)));
        ASSERT_TRUE(dir.has_value());
        EXPECT_EQ(Platform::pathFromUtf8(*dir), fs::path(path));
    }
}

// GetTempPathW takes TMP first; the separator it adds goes, except at a
// drive's root, and a name outside ASCII comes back intact.
TEST(PlatformWindows, TempDirectoryFollowsTmp) {
    testsupport::TempDir base;
    const fs::path dir = (fs::path(base.path()) / fs::path(u8"Временные файлы")).make_preferred();
    fs::create_directories(dir);
    const std::string text = Platform::pathToUtf8(dir);
    for (const auto& [tmp, expected] :
         {std::pair{text, text}, {text + "\\", text}, {std::string("C:\\"), std::string("C:\\")}}) {
        ScopedEnv variable("TMP", tmp);
        EXPECT_EQ(Platform::tempDirectory(), expected);
    }
}

// scripts/test-windows.sh runs the tests from a folder whose name is not
// ASCII and names the file in MERID_TEST_EXECUTABLE.
TEST(PlatformWindows, ExecutablePathIsTheRunningProgram) {
    const auto expected = Platform::getEnv("MERID_TEST_EXECUTABLE");
    if (expected && !expected->empty()) {
        EXPECT_EQ(Platform::executablePath(), *expected);
    }
    EXPECT_EQ(Platform::pathFromUtf8(Platform::executablePath()).extension(), ".exe");
}

// SetEnvironmentVariableW serves the system's readers and child processes,
// _wputenv the runtime's copy that getenv reads; both see every change.
TEST(PlatformWindows, SetEnvReachesTheSystemsView) {
    const wchar_t* name = L"MERID_PLATFORM_BOTH_VIEWS";
    ASSERT_TRUE(Platform::setEnv("MERID_PLATFORM_BOTH_VIEWS", "C:\\Данные программы\\share"));
    wchar_t value[MAX_PATH] = {};
    EXPECT_GT(GetEnvironmentVariableW(name, value, MAX_PATH), 0u);
    EXPECT_EQ(std::wstring(value), L"C:\\Данные программы\\share");
    ASSERT_NE(_wgetenv(name), nullptr);
    EXPECT_EQ(std::wstring(_wgetenv(name)), L"C:\\Данные программы\\share");
    Platform::unsetEnv("MERID_PLATFORM_BOTH_VIEWS");
    EXPECT_EQ(GetEnvironmentVariableW(name, value, MAX_PATH), 0u);
    EXPECT_EQ(_wgetenv(name), nullptr);
}

// The toolkit's schemas and icons ship in "share" beside the program: that
// folder follows the given one, once, and only when it is there.
TEST(PlatformWindows, DataDirsEndWithTheShareFolderBesideTheProgram) {
    const fs::path share = Platform::pathFromUtf8(Platform::executablePath()).parent_path() / "share";
    const std::string shareText = Platform::pathToUtf8(share);
    const std::string tree = "C:\\Temp\\MeridKestalUtility-runtime-x\\share";
    std::error_code error;
    const bool made = fs::create_directory(share, error);
    ASSERT_FALSE(error) << shareText;
    EXPECT_EQ(Platform::dataDirsWith(tree), tree + ";" + shareText);
    EXPECT_EQ(Platform::dataDirsWith(shareText), shareText);
    if (made) {
        fs::remove(share);
        EXPECT_EQ(Platform::dataDirsWith(tree), tree);
    }
}
