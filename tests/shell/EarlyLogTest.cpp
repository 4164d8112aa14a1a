#include "EarlyLog.h"
#include "ShellTestSupport.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

using testsupport::ScopedEnv;
using testsupport::TempDir;

// The level's name is the first table bit that is set, the fatal flag and user
// bits being no level; an empty domain gets no bracket, as a null one.
TEST(EarlyLog, LevelNameAndDomainBracket) {
    const std::pair<int, const char*> cases[] = {{G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_DEBUG, "CRITICAL"},
                                                 {G_LOG_LEVEL_MESSAGE | G_LOG_LEVEL_INFO, "MESSAGE"},
                                                 {G_LOG_FLAG_FATAL | G_LOG_LEVEL_WARNING, "WARNING"},
                                                 {G_LOG_LEVEL_DEBUG, "DEBUG"},
                                                 {0, "LOG"},
                                                 {G_LOG_FLAG_FATAL | (1 << G_LOG_LEVEL_USER_SHIFT), "LOG"}};
    for (const auto& [level, name] : cases) {
        EXPECT_STREQ(logLevelName(static_cast<GLogLevelFlags>(level)), name) << level;
    }
    const std::string stamp = "2026-11-15T02:29:53Z";
    EXPECT_EQ(formatLogLine(stamp, "", G_LOG_LEVEL_WARNING, "text"), stamp + " [WARNING] text\n");
    EXPECT_EQ(formatLogLine(stamp, "Crash", G_LOG_LEVEL_CRITICAL, nullptr), stamp + " [CRITICAL] [Crash] \n");
}

// Appended to what is there, a header, then each line flushed at once: read
// here while the file is still open.
TEST(EarlyLog, AppendsAHeaderThenOneFlushedLinePerCall) {
    TempDir dir;
    const std::string path = dir.path() + "/early.log";
    testsupport::writeFile(path, {'o', 'l', 'd', '\n'});
    ASSERT_TRUE(openEarlyLog(path));
    writeLogLine("Test", G_LOG_LEVEL_MESSAGE, "first");

    const std::string text = testsupport::readFile(path);
    const std::string header = "old\n=== Application start ===\n" + path + "\n";
    ASSERT_EQ(text.substr(0, header.size()), header);
    EXPECT_TRUE(
        std::regex_match(text.substr(header.size()),
                         std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ \[MESSAGE\] \[Test\] first\n)")))
        << text;
}

TEST(EarlyLog, PathIsTheVariableElseApplicationDataElseTemporaryDirectory) {
    TempDir dir;
    testsupport::ScopedTempDirEnv temp(dir.path() + "/tmp");
    {
        // Named in a directory that is not there: nothing is made for it, the log stays off.
        ScopedEnv logPath("MERID_LOG_PATH", dir.path() + "/missing/early.log");
        EXPECT_EQ(chooseEarlyLogPath(), dir.path() + "/missing/early.log");
        EXPECT_FALSE(openEarlyLog(chooseEarlyLogPath()));
        writeLogLine("Test", G_LOG_LEVEL_MESSAGE, "goes nowhere");
        writeCrashLogLine("Crash", G_LOG_LEVEL_CRITICAL, "goes nowhere either");
        EXPECT_FALSE(std::filesystem::exists(dir.path() + "/missing"));
    }
    ScopedEnv logPath("MERID_LOG_PATH", std::string(""));
    {
        ScopedEnv state("XDG_STATE_HOME", dir.path());
        EXPECT_EQ(chooseEarlyLogPath(), dir.path() + "/MeridKestalUtility/MeridKestalUtility.log");
        EXPECT_TRUE(std::filesystem::is_directory(dir.path() + "/MeridKestalUtility"));
    }
    ScopedEnv state("XDG_STATE_HOME", std::nullopt);
    ScopedEnv home("HOME", std::nullopt);
    EXPECT_EQ(chooseEarlyLogPath(), dir.path() + "/tmp/MeridKestalUtility.log");
}
