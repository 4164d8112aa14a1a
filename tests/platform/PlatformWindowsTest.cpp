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
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

namespace fs = std::filesystem;
using testsupport::ScopedEnv;

namespace {

std::wstring widen(const std::string& text) {
    const int size = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring wide(static_cast<std::size_t>(size), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), wide.data(), size);
    return wide;
}

std::string narrow(const std::wstring& wide) {
    const int size = WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), nullptr, 0,
                                         nullptr, nullptr);
    std::string text(static_cast<std::size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), text.data(), size, nullptr,
                        nullptr);
    return text;
}

// The older shell call for the same folder, as a second opinion.
std::optional<std::string> folderByCsidl(int csidl) {
    wchar_t path[MAX_PATH] = {};
    if (FAILED(SHGetFolderPathW(nullptr, csidl, nullptr, SHGFP_TYPE_CURRENT, path))) {
        return std::nullopt;
    }
    return narrow(path);
}

// The variable as the system's environment block has it.
std::optional<std::wstring> systemValue(const std::wstring& name) {
    SetLastError(0);
    const DWORD size = GetEnvironmentVariableW(name.c_str(), nullptr, 0);
    if (size == 0) {
        return std::nullopt;
    }
    std::wstring value(size, L'\0');
    const DWORD length = GetEnvironmentVariableW(name.c_str(), value.data(), size);
    value.resize(length);
    return value;
}

// The variable as the C runtime's copy has it, which getenv reads.
std::optional<std::wstring> runtimeValue(const std::wstring& name) {
    const wchar_t* value = _wgetenv(name.c_str());
    if (value == nullptr) {
        return std::nullopt;
    }
    return std::wstring(value);
}

// Runs a command line; its exit code, or -1 when it did not start.
long runProcess(std::wstring commandLine) {
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process{};
    if (!CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr,
                        nullptr, &startup, &process)) {
        return -1;
    }
    WaitForSingleObject(process.hProcess, 30000);
    DWORD code = 0;
    GetExitCodeProcess(process.hProcess, &code);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    return static_cast<long>(code);
}

// A fault reporter as the shell installs one: it writes and returns.
void reportFault(unsigned long code, void* const* frames, int frameCount) {
    const bool haveFrames = frameCount > 0 && frames[0] != nullptr;
    std::fprintf(stderr, "fault %lX %s frames\n", code, haveFrames ? "with" : "without");
    std::fflush(stderr);
}

} // namespace

// An exception nobody handles reaches the reporter through the unhandled
// exception filter, with the faulting thread's return addresses; the process
// then ends with the exception's code.
TEST(PlatformWindowsDeathTest, UnhandledExceptionReachesTheFaultReporter) {
    EXPECT_EXIT(
        {
            Platform::installFaultReporter(&reportFault);
            RaiseException(EXCEPTION_ACCESS_VIOLATION, EXCEPTION_NONCONTINUABLE, 0, nullptr);
        },
        ::testing::ExitedWithCode(static_cast<int>(EXCEPTION_ACCESS_VIOLATION)),
        "fault C0000005 with frames");
}

TEST(PlatformWindows, LocalAppDataIsTheUsersKnownFolder) {
    const auto dir = Platform::localAppDataDirectory();
    ASSERT_TRUE(dir.has_value());
    EXPECT_EQ(dir, folderByCsidl(CSIDL_LOCAL_APPDATA));
    EXPECT_TRUE(fs::is_directory(Platform::pathFromUtf8(*dir))) << *dir;
    // The system's logon environment names the same place.
    if (const auto fromEnvironment = systemValue(L"LOCALAPPDATA")) {
        EXPECT_EQ(*dir, narrow(*fromEnvironment));
    }
}

// The early log's default place: a directory of the program's own under the
// per-user application data, made when missing, with the log appended to.
TEST(PlatformWindows, EarlyLogGoesIntoLocalAppData) {
    const auto dir = Platform::localAppDataDirectory();
    ASSERT_TRUE(dir.has_value());
    const fs::path logDir = Platform::pathFromUtf8(*dir) / "MeridKestalUtility-platform-test";
    const fs::path logFile = logDir / "MeridKestalUtility.log";
    std::error_code error;
    fs::remove_all(logDir, error);
    fs::create_directories(logDir, error);
    ASSERT_FALSE(error) << error.message();
    for (const char* line : {"=== Application start ===", "second start"}) {
        std::ofstream out(logFile, std::ios::out | std::ios::app);
        ASSERT_TRUE(out.is_open());
        out << line << "\n";
    }
    std::ifstream in(logFile);
    std::string first;
    std::string second;
    std::getline(in, first);
    std::getline(in, second);
    EXPECT_EQ(first, "=== Application start ===");
    EXPECT_EQ(second, "second start");
    in.close();
    fs::remove_all(logDir, error);
}

TEST(PlatformWindows, DesktopIsTheUsersKnownFolder) {
    const auto dir = Platform::desktopDirectory();
    ASSERT_TRUE(dir.has_value());
    EXPECT_EQ(dir, folderByCsidl(CSIDL_DESKTOPDIRECTORY));
    EXPECT_TRUE(fs::is_directory(Platform::pathFromUtf8(*dir))) << *dir;
}

// GetTempPathW takes TMP first; the layer drops the separator the call adds,
// and a name outside ASCII comes back intact.
TEST(PlatformWindows, TempDirectoryFollowsTmp) {
    testsupport::TempDir base;
    fs::path dir = fs::path(base.path()) / fs::path(u8"Временные файлы");
    dir.make_preferred();
    fs::create_directories(dir);
    const std::string text = Platform::pathToUtf8(dir);
    {
        ScopedEnv tmp("TMP", text);
        EXPECT_EQ(Platform::tempDirectory(), text);
    }
    {
        ScopedEnv tmp("TMP", text + "\\");
        EXPECT_EQ(Platform::tempDirectory(), text);
    }
    {
        // A drive's root keeps its separator.
        ScopedEnv tmp("TMP", std::string("C:\\"));
        EXPECT_EQ(Platform::tempDirectory(), "C:\\");
    }
    EXPECT_NE(Platform::tempDirectory(), text);
}

// scripts/test-windows.sh runs this program from a folder whose name is not
// ASCII and names the file in MERID_TEST_EXECUTABLE.
TEST(PlatformWindows, ExecutablePathIsTheRunningProgram) {
    const std::string path = Platform::executablePath();
    const fs::path file = Platform::pathFromUtf8(path);
    EXPECT_TRUE(file.is_absolute()) << path;
    EXPECT_TRUE(fs::is_regular_file(file)) << path;
    EXPECT_EQ(file.extension(), ".exe");
    const auto expected = Platform::getEnv("MERID_TEST_EXECUTABLE");
    if (expected && !expected->empty()) {
        EXPECT_EQ(path, *expected);
    }
}

// SetEnvironmentVariableW serves the system's readers and child processes,
// _wputenv the runtime's copy that getenv reads; both see every change.
TEST(PlatformWindows, SetEnvReachesBothViews) {
    const std::string name = "MERID_PLATFORM_BOTH_VIEWS";
    const std::wstring wideName = widen(name);
    const std::string value = "C:\\Данные программы\\share";
    ASSERT_TRUE(Platform::setEnv(name, value));
    EXPECT_EQ(systemValue(wideName), widen(value));
    EXPECT_EQ(runtimeValue(wideName), widen(value));
    EXPECT_EQ(Platform::getEnv(name), value);

    ASSERT_TRUE(Platform::setEnv(name, "C:\\second"));
    EXPECT_EQ(systemValue(wideName), std::wstring(L"C:\\second"));
    EXPECT_EQ(runtimeValue(wideName), std::wstring(L"C:\\second"));
    const char* narrowView = std::getenv(name.c_str());
    ASSERT_NE(narrowView, nullptr);
    EXPECT_STREQ(narrowView, "C:\\second");

    Platform::unsetEnv(name);
    EXPECT_FALSE(systemValue(wideName).has_value());
    EXPECT_FALSE(runtimeValue(wideName).has_value());
    EXPECT_EQ(std::getenv(name.c_str()), nullptr);
}

TEST(PlatformWindows, ChildProcessInheritsASetVariable) {
    ScopedEnv variable("MERID_PLATFORM_CHILD", std::string("inherited"));
    EXPECT_EQ(runProcess(L"cmd.exe /c if \"%MERID_PLATFORM_CHILD%\"==\"inherited\" (exit 0) else (exit 3)"),
              0);
}
