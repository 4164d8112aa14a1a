#include "EarlyLog.h"
#include "ShellTestSupport.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>

using shelltest::fileLines;
using shelltest::withoutTimestamp;
using testsupport::ScopedEnv;
using testsupport::TempDir;

TEST(EarlyLogLevels, FirstSetBitOfTheTableDecides) {
    EXPECT_STREQ(logLevelName(G_LOG_LEVEL_ERROR), "ERROR");
    EXPECT_STREQ(logLevelName(G_LOG_LEVEL_CRITICAL), "CRITICAL");
    EXPECT_STREQ(logLevelName(G_LOG_LEVEL_WARNING), "WARNING");
    EXPECT_STREQ(logLevelName(G_LOG_LEVEL_MESSAGE), "MESSAGE");
    EXPECT_STREQ(logLevelName(G_LOG_LEVEL_INFO), "INFO");
    EXPECT_STREQ(logLevelName(G_LOG_LEVEL_DEBUG), "DEBUG");
    EXPECT_STREQ(logLevelName(static_cast<GLogLevelFlags>(G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_DEBUG)),
                 "CRITICAL");
    // Only the table's bits count: the fatal flag does not make a level.
    EXPECT_STREQ(logLevelName(static_cast<GLogLevelFlags>(G_LOG_FLAG_FATAL | G_LOG_LEVEL_WARNING)),
                 "WARNING");
    EXPECT_STREQ(logLevelName(static_cast<GLogLevelFlags>(0)), "LOG");
    EXPECT_STREQ(logLevelName(static_cast<GLogLevelFlags>(G_LOG_FLAG_RECURSION | G_LOG_FLAG_FATAL)), "LOG");
    EXPECT_STREQ(logLevelName(static_cast<GLogLevelFlags>(1 << G_LOG_LEVEL_USER_SHIFT)), "LOG");
}

TEST(EarlyLogFormat, DomainBracketOnlyForANonEmptyDomain) {
    const std::string stamp = "2026-11-15T02:29:53Z";
    EXPECT_EQ(formatLogLine(stamp, "MeridKestalUtility", G_LOG_LEVEL_MESSAGE, "Creating MainWindow..."),
              "2026-11-15T02:29:53Z [MESSAGE] [MeridKestalUtility] Creating MainWindow...\n");
    EXPECT_EQ(formatLogLine(stamp, nullptr, G_LOG_LEVEL_WARNING, "text"),
              "2026-11-15T02:29:53Z [WARNING] text\n");
    EXPECT_EQ(formatLogLine(stamp, "", G_LOG_LEVEL_WARNING, "text"),
              formatLogLine(stamp, nullptr, G_LOG_LEVEL_WARNING, "text"));
    EXPECT_EQ(formatLogLine(stamp, "Crash", G_LOG_LEVEL_CRITICAL, nullptr),
              "2026-11-15T02:29:53Z [CRITICAL] [Crash] \n");
}

TEST(EarlyLogFormat, TimestampIsUtcWholeSeconds) {
    const std::string stamp = formatTimestampUtc();
    EXPECT_TRUE(std::regex_match(stamp, std::regex(R"(20\d\d-[01]\d-[0-3]\dT[0-2]\d:[0-5]\d:[0-6]\dZ)")))
        << stamp;
}

TEST(EarlyLogFile, WritesNothingUntilOpenThenAppendsHeaderAndLines) {
    TempDir dir;
    const std::string path = dir.path() + "/early.log";
    writeLogLine("Test", G_LOG_LEVEL_MESSAGE, "before the log is open");
    EXPECT_FALSE(std::filesystem::exists(path));

    std::ofstream(path) << "a line of an earlier run\n";
    ASSERT_TRUE(openEarlyLog(path));
    writeLogLine("Test", G_LOG_LEVEL_MESSAGE, "first");
    writeLogLine(nullptr, G_LOG_LEVEL_WARNING, std::string("second"));

    // Flushed per line: readable while the file is still open.
    const auto lines = fileLines(path);
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[0], "a line of an earlier run");
    EXPECT_EQ(lines[1], "=== Application start ===");
    EXPECT_EQ(lines[2], path);
    EXPECT_EQ(withoutTimestamp(lines[3]), "[MESSAGE] [Test] first");
    EXPECT_EQ(withoutTimestamp(lines[4]), "[WARNING] second");
    EXPECT_EQ(lines[3].substr(0, 20).back(), 'Z');
}

TEST(EarlyLogFile, PathInAMissingDirectoryLeavesTheLogOff) {
    TempDir dir;
    const std::string missing = dir.path() + "/missing";
    EXPECT_FALSE(openEarlyLog(missing + "/early.log"));
    writeLogLine("Test", G_LOG_LEVEL_MESSAGE, "goes nowhere");
    writeCrashLogLine("Crash", G_LOG_LEVEL_CRITICAL, "goes nowhere either");
    EXPECT_FALSE(std::filesystem::exists(missing));
}

TEST(EarlyLogPath, EnvironmentVariableWinsWhenNotEmpty) {
    ScopedEnv logPath("MERID_LOG_PATH", std::string("/somewhere/else.log"));
    EXPECT_EQ(chooseEarlyLogPath(), "/somewhere/else.log");
}

TEST(EarlyLogPath, EmptyVariableFallsBackToTheApplicationDataDirectory) {
    TempDir dir;
    ScopedEnv logPath("MERID_LOG_PATH", std::string(""));
    ScopedEnv state("XDG_STATE_HOME", dir.path());
    EXPECT_EQ(chooseEarlyLogPath(), dir.path() + "/MeridKestalUtility/MeridKestalUtility.log");
    EXPECT_TRUE(std::filesystem::is_directory(dir.path() + "/MeridKestalUtility"));
}

TEST(EarlyLogPath, WithoutApplicationDataTheTemporaryDirectoryIsUsed) {
    TempDir dir;
    ScopedEnv logPath("MERID_LOG_PATH", std::nullopt);
    ScopedEnv state("XDG_STATE_HOME", std::nullopt);
    ScopedEnv home("HOME", std::nullopt);
    testsupport::ScopedTempDirEnv temp(dir.path());
    EXPECT_EQ(chooseEarlyLogPath(), dir.path() + "/MeridKestalUtility.log");
}
