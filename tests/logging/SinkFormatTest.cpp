#include "ConsoleLogger.h"
#include "FileLogger.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

using testsupport::FixedClock;
using testsupport::ScopedEnv;
using testsupport::TempDir;
using testsupport::utcEpoch;

namespace {

std::string readAll(const std::string& path) {
    std::ifstream in(path); // text mode: the log is a text file on every system
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

} // namespace

TEST(TimeDescription, DayKeepsOnlyTheUnitsDigit) {
    struct Case {
        int day;
        const char* expected;
    };
    const Case cases[] = {{3, "3"}, {5, "5"}, {10, "0"}, {15, "5"}, {25, "5"}, {21, "1"}};
    for (const Case& c : cases) {
        FixedClock clock(utcEpoch(2026, 11, c.day, 2, 16, 24));
        BaseLogger::TimeDescription t;
        t.updateTime();
        EXPECT_EQ(t.day, c.expected) << "day " << c.day;
        EXPECT_EQ(t.month, "Nov");
        EXPECT_EQ(t.year, "2026");
        EXPECT_EQ(t.time, "02:16:24");
    }
}

TEST(ConsoleLogger, LinesAreByteExact) {
    FixedClock clock(utcEpoch(2026, 11, 15, 2, 16, 24));
    std::ostringstream out;
    ConsoleLogger logger(&out);
    logger.log("Connection success", BaseLogger::INFO, "ConnectionDialog: ");
    logger.log("x", BaseLogger::DEBUG, "T: ");
    logger.log("x", BaseLogger::WARNING, "T: ");
    logger.log("x", BaseLogger::ERROR, "T: ");
    EXPECT_EQ(out.str(), "\x1b[1;49;32m[02:16:24, 5/Nov/2026][INFO]ConnectionDialog: Connection success "
                         "[INFO]\x1b[0m\n"
                         "\x1b[1;49;34m[02:16:24, 5/Nov/2026][DEBUG]T: x [DEBUG]\x1b[0m\n"
                         "\x1b[1;49;33m[02:16:24, 5/Nov/2026][WARNING]T: x [WARNING]\x1b[0m\n"
                         "\x1b[1;49;31m[02:16:24, 5/Nov/2026][ERROR]T: x [ERROR]\x1b[0m\n");
}

TEST(ConsoleLogger, FatalGetsAnEmptyDescriptorOnce) {
    FixedClock clock(utcEpoch(2026, 11, 15, 2, 16, 24));
    std::ostringstream out;
    ConsoleLogger logger(&out);
    EXPECT_EQ(logger.descriptorCount(), 4u);
    logger.log("text", BaseLogger::FATAL, "ConnectionDialog: ");
    EXPECT_EQ(logger.descriptorCount(), 5u);
    logger.log("text", BaseLogger::FATAL, "ConnectionDialog: ");
    EXPECT_EQ(logger.descriptorCount(), 5u);
    const std::string line = "\x1b[0;0;0m[02:16:24, 5/Nov/2026][]ConnectionDialog: text []\x1b[0m\n";
    EXPECT_EQ(out.str(), line + line);
}

TEST(ConsoleLogger, EmptyAndMultiLineMessages) {
    FixedClock clock(utcEpoch(2026, 1, 10, 23, 59, 59));
    std::ostringstream out;
    ConsoleLogger logger(&out);
    logger.log("", BaseLogger::INFO, "");
    logger.log("first\nsecond", BaseLogger::INFO, "");
    EXPECT_EQ(out.str(), "\x1b[1;49;32m[23:59:59, 0/Jan/2026][INFO] [INFO]\x1b[0m\n"
                         "\x1b[1;49;32m[23:59:59, 0/Jan/2026][INFO]first\nsecond [INFO]\x1b[0m\n");
}

TEST(FileLogger, LineFormatAndName) {
    FixedClock clock(utcEpoch(2026, 11, 15, 2, 16, 24));
    TempDir dir;
    ScopedEnv logDir("MERID_LOG_DIR", dir.path());
    FileLogger logger;
    std::string prefix = "application";
    ASSERT_TRUE(logger.createLogFile(prefix));
    const std::string path = (std::filesystem::path(dir.path()) / "application_5_Nov_2026.log").string();
    EXPECT_EQ(std::filesystem::path(logger.getLogFilePath()), std::filesystem::path(path));
    logger.log("Connection success", BaseLogger::INFO, "ConnectionDialog: ");
    logger.log("boom", BaseLogger::FATAL, "X: ");
    logger.log("odd", static_cast<BaseLogger::MessageType>(9), "X: ");
    // Flushed per line: readable while the logger is still open.
    EXPECT_EQ(readAll(path), "[02:16:24, 5/Nov/2026][INFO] ConnectionDialog: Connection success\n"
                             "[02:16:24, 5/Nov/2026][FATAL] X: boom\n"
                             "[02:16:24, 5/Nov/2026][] X: odd\n");
}
