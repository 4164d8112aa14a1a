#include "EarlyLog.h"
#include "ShellTestSupport.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <regex>
#include <thread>
#include <vector>

// Lines written from several threads at once never interleave.
TEST(EarlyLogThreads, ConcurrentLinesStayWhole) {
    testsupport::TempDir dir;
    const std::string path = dir.path() + "/early.log";
    ASSERT_TRUE(openEarlyLog(path));
    constexpr int kThreads = 4;
    constexpr int kLines = 250;
    std::vector<std::thread> writers;
    for (int thread = 0; thread < kThreads; ++thread) {
        writers.emplace_back([thread] {
            for (int line = 0; line < kLines; ++line) {
                const std::string text = "thread " + std::to_string(thread) + " line " + std::to_string(line);
                if (line % 50 == 0) {
                    writeCrashLogLine("Crash", G_LOG_LEVEL_CRITICAL, text);
                } else {
                    writeLogLine("Worker", G_LOG_LEVEL_INFO, text);
                }
            }
        });
    }
    for (auto& writer : writers) {
        writer.join();
    }
    const auto lines = shelltest::fileLines(path);
    ASSERT_EQ(lines.size(), 2u + kThreads * kLines);
    const std::regex whole(R"(\S+Z \[(INFO\] \[Worker|CRITICAL\] \[Crash)\] thread \d line \d+)");
    for (std::size_t index = 2; index < lines.size(); ++index) {
        EXPECT_TRUE(std::regex_match(lines[index], whole)) << lines[index];
    }
}
