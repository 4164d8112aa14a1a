#include "FileLogger.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;
using testsupport::FixedClock;
using testsupport::ScopedEnv;
using testsupport::TempDir;
using testsupport::utcEpoch;

namespace {

std::string readAll(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

void touch(const fs::path& path, const std::string& content = "x") { std::ofstream(path) << content; }

// Changes the working directory for the life of the object.
class ScopedCwd {
public:
    explicit ScopedCwd(const fs::path& dir) : old(fs::current_path()) { fs::current_path(dir); }
    ~ScopedCwd() { fs::current_path(old); }

private:
    fs::path old;
};

class FileLoggerPlaces : public ::testing::Test {
protected:
    FixedClock clock{utcEpoch(2026, 11, 5, 8, 0, 0)};
    TempDir tmp;
    testsupport::ScopedTempDirEnv tmpdir{tmp.path()};
    std::string prefix = "application";
    const std::string name = "application_5_Nov_2026.log";
};

} // namespace

TEST_F(FileLoggerPlaces, LogDirIsCreatedAndUsedDirectly) {
    const fs::path deep = fs::path(tmp.path()) / "a" / "b" / "c";
    ScopedEnv logDir("MERID_LOG_DIR", deep.string());
    FileLogger logger;
    ASSERT_TRUE(logger.createLogFile(prefix));
    EXPECT_TRUE(fs::exists(deep / name)) << "no extra MeridKestalUtility level under MERID_LOG_DIR";
}

TEST_F(FileLoggerPlaces, EmptyOrUnusableLogDirFallsBackToTemp) {
    const fs::path expected = fs::path(tmp.path()) / "MeridKestalUtility" / name;
    {
        ScopedEnv logDir("MERID_LOG_DIR", std::string(""));
        FileLogger logger;
        ASSERT_TRUE(logger.createLogFile(prefix));
        EXPECT_EQ(fs::path(logger.getLogFilePath()), expected);
    }
    fs::remove_all(fs::path(tmp.path()) / "MeridKestalUtility");
    {
        const fs::path aFile = fs::path(tmp.path()) / "plain-file";
        touch(aFile);
        ScopedEnv logDir("MERID_LOG_DIR", aFile.string());
        FileLogger logger;
        ASSERT_TRUE(logger.createLogFile(prefix));
        EXPECT_EQ(fs::path(logger.getLogFilePath()), expected);
    }
}

TEST_F(FileLoggerPlaces, SecondStartTruncatesAndDaysShareAFile) {
    ScopedEnv logDir("MERID_LOG_DIR", tmp.path());
    {
        FileLogger first;
        ASSERT_TRUE(first.createLogFile(prefix));
        first.log("from the first run", BaseLogger::INFO, "");
    }
    FixedClock laterDay(utcEpoch(2026, 11, 15, 9, 0, 0)); // the 15th names the same file as the 5th
    FileLogger second;
    ASSERT_TRUE(second.createLogFile(prefix));
    second.log("from the second run", BaseLogger::INFO, "");
    const std::string content = readAll(fs::path(tmp.path()) / name);
    EXPECT_EQ(content.find("first run"), std::string::npos);
    EXPECT_NE(content.find("second run"), std::string::npos);
}

TEST_F(FileLoggerPlaces, NoPlaceMeansNoFileUntilOneAppears) {
    // A directory standing where the log file would go blocks every candidate.
    const fs::path logDir = fs::path(tmp.path()) / "logs";
    const fs::path tempPlace = fs::path(tmp.path()) / "MeridKestalUtility";
    const fs::path cwdPlace = fs::path(tmp.path()) / "cwd";
    for (const auto& dir : {logDir, tempPlace, cwdPlace}) {
        fs::create_directories(dir / name);
    }
    ScopedEnv logDirEnv("MERID_LOG_DIR", logDir.string());
    ScopedCwd cwd(cwdPlace);
    FileLogger logger;
    EXPECT_FALSE(logger.createLogFile(prefix));
    logger.log("lost", BaseLogger::ERROR, "");
    EXPECT_EQ(logger.getLogFilePath(), "");

    // Once a place is free, the next attempt takes it.
    fs::remove(tempPlace / name);
    EXPECT_TRUE(logger.createLogFile(prefix));
    EXPECT_EQ(fs::path(logger.getLogFilePath()), tempPlace / name);
    logger.log("kept", BaseLogger::ERROR, "");
    const std::string content = readAll(tempPlace / name);
    EXPECT_EQ(content.find("lost"), std::string::npos);
    EXPECT_NE(content.find("kept"), std::string::npos);
}

#ifndef _WIN32
TEST_F(FileLoggerPlaces, TemporaryDirectoryErrorLeavesTheCall) {
    // A temporary directory that is no directory makes the search throw, as
    // the standard library does; the manager turns that into "Logger error: ".
    const fs::path aFile = fs::path(tmp.path()) / "not-a-dir";
    touch(aFile);
    ScopedEnv badTmp("TMPDIR", aFile.string());
    FileLogger logger;
    EXPECT_THROW(logger.createLogFile(prefix), fs::filesystem_error);
}
#endif
