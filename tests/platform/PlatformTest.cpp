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
#else
    tzset();
#endif
    auto text = Platform::localTimeText(testsupport::utcEpoch(2026, 11, 5, 2, 16, 24));
    ASSERT_TRUE(text.has_value());
#ifdef _WIN32
    EXPECT_EQ(*text, "Thu Nov 05 02:16:24 2026\n"); // the Windows runtime pads the day with a zero
#else
    EXPECT_EQ(*text, "Thu Nov  5 02:16:24 2026\n");
#endif
}

TEST(Platform, EnvironmentRoundTrip) {
    const std::string name = "MERID_PLATFORM_TEST_VARIABLE";
    Platform::unsetEnv(name);
    EXPECT_FALSE(Platform::getEnv(name).has_value());
    ASSERT_TRUE(Platform::setEnv(name, "value with spaces"));
    EXPECT_EQ(Platform::getEnv(name).value_or(""), "value with spaces");
    // The C runtime's view agrees with the system's.
    const char* crt = std::getenv(name.c_str());
    ASSERT_NE(crt, nullptr);
    EXPECT_STREQ(crt, "value with spaces");
    Platform::unsetEnv(name);
    EXPECT_FALSE(Platform::getEnv(name).has_value());
}

TEST(Platform, TempDirectoryExists) {
    const std::string dir = Platform::tempDirectory();
    ASSERT_FALSE(dir.empty());
    EXPECT_TRUE(std::filesystem::is_directory(Platform::pathFromUtf8(dir)));
    EXPECT_NE(dir.back(), '/');
}

TEST(Platform, ExecutablePathNamesThisProgram) {
    const std::string path = Platform::executablePath();
    ASSERT_FALSE(path.empty());
    // UTF-8, whatever the system's narrow code page is.
    EXPECT_TRUE(std::filesystem::exists(Platform::pathFromUtf8(path)));
    EXPECT_NE(path.find("_tests"), std::string::npos);
}
