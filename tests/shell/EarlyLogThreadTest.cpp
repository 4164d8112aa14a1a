#include "EarlyLog.h"
#include "ShellTestSupport.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <regex>
#include <thread>
#include <vector>

// Lines written from several threads at once, by the crash path too, never
// interleave and none is lost.
TEST(EarlyLogThreads, ConcurrentLinesStayWhole) {
    testsupport::TempDir dir;
    ASSERT_TRUE(openEarlyLog(dir.path() + "/early.log"));
    std::vector<std::thread> writers;
    for (int thread = 0; thread < 4; ++thread) {
        writers.emplace_back([thread] {
            for (int line = 0; line < 250; ++line) {
                const std::string text = "thread " + std::to_string(thread) + " line " + std::to_string(line);
                line % 50 == 0 ? writeCrashLogLine("Crash", G_LOG_LEVEL_CRITICAL, text)
                               : writeLogLine("Worker", G_LOG_LEVEL_INFO, text);
            }
        });
    }
    for (auto& writer : writers) {
        writer.join();
    }
    const auto lines = shelltest::logBodies(dir.path() + "/early.log");
    ASSERT_EQ(lines.size(), 1000u);
    const std::regex whole(R"(\[(INFO\] \[Worker|CRITICAL\] \[Crash)\] thread \d line \d+)");
    for (const auto& line : lines) {
        EXPECT_TRUE(std::regex_match(line, whole)) << line;
    }
}
