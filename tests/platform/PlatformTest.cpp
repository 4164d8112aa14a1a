#include "Platform.h"
#include "PlatformPaths.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>

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
