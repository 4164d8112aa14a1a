#include "Platform.h"
#include "PlatformPaths.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

using testsupport::ScopedEnv;

TEST(Platform, LocalTimeTextHasTheFixedLayout) {
    ScopedEnv tz("TZ", std::string("UTC"));
#ifdef _WIN32
    _tzset();
    const char* expected = "Thu Nov 05 02:16:24 2026\n"; // the Windows runtime pads the day with a zero
#else
    tzset();
    const char* expected = "Thu Nov  5 02:16:24 2026\n";
#endif
    EXPECT_EQ(Platform::localTimeText(testsupport::utcEpoch(2026, 11, 5, 2, 16, 24)), expected);
}

// What the system's view holds, the C runtime's getenv sees too.
TEST(Platform, EnvironmentReachesGetenv) {
    const std::string name = "MERID_PLATFORM_TEST_VARIABLE";
    ASSERT_TRUE(Platform::setEnv(name, "value with spaces"));
    EXPECT_EQ(Platform::getEnv(name), "value with spaces");
    ASSERT_NE(std::getenv(name.c_str()), nullptr);
    EXPECT_STREQ(std::getenv(name.c_str()), "value with spaces");
    Platform::unsetEnv(name);
    EXPECT_FALSE(Platform::getEnv(name).has_value());
    EXPECT_EQ(std::getenv(name.c_str()), nullptr);
}

TEST(Platform, TemporaryDirectoryAndExecutableExist) {
    const std::string dir = Platform::tempDirectory();
    EXPECT_TRUE(std::filesystem::is_directory(Platform::pathFromUtf8(dir))) << dir;
    EXPECT_NE(dir.back(), '/');
    const auto program = Platform::pathFromUtf8(Platform::executablePath());
    EXPECT_TRUE(std::filesystem::is_regular_file(program)) << program;
    EXPECT_TRUE(program.is_absolute()) << program;
}

// A folder in a shared temporary folder is used only when nobody else can
// change it: made when missing, closed to others when it is ours, refused
// when it is a file or a link.
TEST(Platform, PrivateDirectoryIsMadeOrRefused) {
    namespace fs = std::filesystem;
    testsupport::TempDir dir;
    const fs::path root = Platform::pathFromUtf8(dir.path());
    const fs::path made = root / "a" / "b";
    EXPECT_TRUE(Platform::ensurePrivateDirectory(Platform::pathToUtf8(made)));
    EXPECT_TRUE(fs::is_directory(made));
    std::ofstream(root / "file") << "x";
    EXPECT_FALSE(Platform::ensurePrivateDirectory(Platform::pathToUtf8(root / "file")));
#ifndef _WIN32
    fs::create_directory_symlink(made, root / "link");
    EXPECT_FALSE(Platform::ensurePrivateDirectory(Platform::pathToUtf8(root / "link")));
    fs::permissions(made, fs::perms::all);
    EXPECT_TRUE(Platform::ensurePrivateDirectory(Platform::pathToUtf8(made)));
    EXPECT_EQ(fs::status(made).permissions() & (fs::perms::group_write | fs::perms::others_write),
              fs::perms::none);
#endif
}

// The report's append: the file made by a check that writes nothing, the
// header only into an empty file, the texts in order; a folder that is not
// there is a refusal with the system's words.
TEST(Platform, AppendUnderLockWritesTheHeaderOnce) {
    testsupport::TempDir dir;
    const std::string path = dir.path() + "/boards.csv";
    std::string error;
    ASSERT_TRUE(Platform::appendLocked(path, {}, {}, error)) << error;
    EXPECT_TRUE(std::filesystem::exists(Platform::pathFromUtf8(path)));
    for (const char* text : {"a,1\r\n", "b,2\r\n"}) {
        EXPECT_TRUE(Platform::appendLocked(path, "name,n\r\n", text, error)) << error;
    }
    EXPECT_EQ(testsupport::readFile(path), "name,n\r\na,1\r\nb,2\r\n");
    EXPECT_FALSE(Platform::appendLocked(dir.path() + "/none/boards.csv", {}, "c,3\r\n", error));
    EXPECT_FALSE(error.empty());
    EXPECT_FALSE(Platform::hostName().empty());
}
