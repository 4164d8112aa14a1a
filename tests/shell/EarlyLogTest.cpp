#include "EarlyLog.h"
#include "ShellTestSupport.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

using testsupport::ScopedEnv;
using testsupport::TempDir;

TEST(EarlyLog, LevelNameIsTheFirstTableBitThatIsSet) {
    // The order of the table decides; the fatal flag and user bits are no level.
    const std::vector<std::pair<int, const char*>> cases = {
        {G_LOG_LEVEL_ERROR, "ERROR"},
        {G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_DEBUG, "CRITICAL"},
        {G_LOG_LEVEL_MESSAGE | G_LOG_LEVEL_INFO, "MESSAGE"},
        {G_LOG_FLAG_FATAL | G_LOG_LEVEL_WARNING, "WARNING"},
        {G_LOG_LEVEL_INFO, "INFO"},
        {G_LOG_LEVEL_DEBUG, "DEBUG"},
        {0, "LOG"},
        {G_LOG_FLAG_FATAL | (1 << G_LOG_LEVEL_USER_SHIFT), "LOG"},
    };
    for (const auto& [level, name] : cases) {
        EXPECT_STREQ(logLevelName(static_cast<GLogLevelFlags>(level)), name) << level;
    }
}

TEST(EarlyLog, DomainBracketOnlyForANonEmptyDomain) {
    const std::string stamp = "2026-11-15T02:29:53Z";
    EXPECT_EQ(formatLogLine(stamp, "MeridKestalUtility", G_LOG_LEVEL_MESSAGE, "Creating MainWindow..."),
              "2026-11-15T02:29:53Z [MESSAGE] [MeridKestalUtility] Creating MainWindow...\n");
    EXPECT_EQ(formatLogLine(stamp, nullptr, G_LOG_LEVEL_WARNING, "text"),
              "2026-11-15T02:29:53Z [WARNING] text\n");
    EXPECT_EQ(formatLogLine(stamp, "", G_LOG_LEVEL_WARNING, "text"), "2026-11-15T02:29:53Z [WARNING] text\n");
    EXPECT_EQ(formatLogLine(stamp, "Crash", G_LOG_LEVEL_CRITICAL, nullptr),
              "2026-11-15T02:29:53Z [CRITICAL] [Crash] \n");
}

// Appended to what is there, a header, then each line flushed at once: read
// here while the file is still open.
TEST(EarlyLog, AppendsAHeaderThenOneFlushedLinePerCall) {
    TempDir dir;
    const std::string path = dir.path() + "/early.log";
    testsupport::writeFile(path, {'o', 'l', 'd', '\n'});
    ASSERT_TRUE(openEarlyLog(path));
    writeLogLine("Test", G_LOG_LEVEL_MESSAGE, "first");

    const auto bytes = testsupport::readFile(path);
    ASSERT_TRUE(bytes.has_value());
    const std::string text(bytes->begin(), bytes->end());
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
