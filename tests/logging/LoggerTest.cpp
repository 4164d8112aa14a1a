#include "ConsoleLogger.h"
#include "FileLogger.h"
#include "LoggerManager.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

namespace fs = std::filesystem;
using namespace testsupport;

namespace {

// A standard stream's output, kept in a string while the object lives.
struct Capture {
    explicit Capture(std::ostream& s) : stream(s), old(s.rdbuf(buffer.rdbuf())) {}
    ~Capture() { stream.rdbuf(old); }
    std::string text() const { return buffer.str(); }
    long lines() const {
        const std::string all = text();
        return std::count(all.begin(), all.end(), '\n');
    }
    std::ostream& stream;
    std::ostringstream buffer;
    std::streambuf* old;
};

// In text mode: the log is a text file, with CRLF line ends on Windows.
std::string readText(const fs::path& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

const long long kNov15 = utcEpoch(2026, 11, 15, 2, 16, 24);
const std::string kLogName = "application_5_Nov_2026.log";

} // namespace

TEST(TimeDescription, DayKeepsOnlyTheUnitsDigit) {
    const std::pair<int, std::string> table[] = {{3, "3"}, {10, "0"}, {15, "5"}, {25, "5"}};
    for (const auto& [day, digit] : table) {
        FixedClock clock(utcEpoch(2026, 11, day, 2, 16, 24));
        BaseLogger::TimeDescription t;
        t.updateTime();
        EXPECT_EQ(t.day + "/" + t.month + "/" + t.year + " " + t.time, digit + "/Nov/2026 02:16:24");
    }
}

TEST(ConsoleLogger, LinesAreByteExact) {
    FixedClock clock(kNov15);
    Capture out(std::cout);
    auto& console = ConsoleLogger::getInstance();
    console.log("Connection success", BaseLogger::INFO, "ConnectionDialog: ");
    for (auto type :
         {BaseLogger::DEBUG, BaseLogger::WARNING, BaseLogger::ERROR, BaseLogger::FATAL, BaseLogger::FATAL}) {
        console.log("x", type, "T: ");
    }
    // FATAL has no colours: its first line adds an empty descriptor, which stays.
    EXPECT_EQ(out.text(),
              "\x1b[1;49;32m[02:16:24, 5/Nov/2026][INFO]ConnectionDialog: Connection success [INFO]\x1b[0m\n"
              "\x1b[1;49;34m[02:16:24, 5/Nov/2026][DEBUG]T: x [DEBUG]\x1b[0m\n"
              "\x1b[1;49;33m[02:16:24, 5/Nov/2026][WARNING]T: x [WARNING]\x1b[0m\n"
              "\x1b[1;49;31m[02:16:24, 5/Nov/2026][ERROR]T: x [ERROR]\x1b[0m\n"
              "\x1b[0;0;0m[02:16:24, 5/Nov/2026][]T: x []\x1b[0m\n"
              "\x1b[0;0;0m[02:16:24, 5/Nov/2026][]T: x []\x1b[0m\n");
}

TEST(LoggerManager, LevelFromEnvironmentFiltersByType) {
    // Which of DEBUG, INFO, WARNING, ERROR and FATAL reach the console, and
    // are wanted.
    const std::pair<const char*, const char*> table[] = {
        {"", "11111"}, {"verbose", "11111"}, {"important", "00111"}, {"MiNiMuM", "00010"}, {"oFf", "00000"}};
    auto& manager = LoggerManager::getInstance();
    auto passing = [&] {
        std::string got;
        for (int type = 0; type < 5; ++type) {
            Capture out(std::cout);
            const auto messageType = static_cast<BaseLogger::MessageType>(type);
            manager.log("probe", messageType, "T: ");
            got += std::to_string(out.lines());
            // A report is asked for exactly when it would reach a sink.
            EXPECT_EQ(manager.wants(messageType), out.lines() > 0) << type;
        }
        return got;
    };
    for (auto [value, passes] : table) {
        manager.setActiveLoggers({LoggerManager::CONSOLE});
        manager.setGlobalLevel(LoggerManager::FULL);
        ScopedEnv env("MERID_LOG_LEVEL", std::string(value));
        manager.applyLevelFromEnvironment();
        EXPECT_EQ(passing(), passes) << value;
    }
    manager.setActiveLoggers({LoggerManager::CONSOLE});
    manager.setGlobalLevel(LoggerManager::FULL);
    manager.addLogger(LoggerManager::CONSOLE);
    EXPECT_EQ(passing(), "11111") << "addLogger does not add a type twice";
    manager.setActiveLoggers({LoggerManager::CONSOLE, LoggerManager::CONSOLE});
    EXPECT_EQ(passing(), "22222") << "setActiveLoggers keeps duplicates";
    manager.removeLogger(LoggerManager::CONSOLE);
    EXPECT_EQ(passing(), "00000");
}

TEST(LoggerManager, FailingSinksAreReportedAndTheFileIsRetried) {
    FixedClock clock(kNov15);
    TempDir dir;
    const fs::path deep = fs::path(dir.path()) / "a" / "b"; // made when the file finds its place
    ScopedEnv logDir("MERID_LOG_DIR", deep.string());
    auto& manager = LoggerManager::getInstance();
    const auto unknown = static_cast<LoggerManager::LoggerType>(5);
    manager.setActiveLoggers({unknown, LoggerManager::FILE, LoggerManager::CONSOLE});
    {
        // A temporary directory that is no directory makes the file search throw.
        ScopedTempDirEnv badTmp(dir.path() + "/file");
        std::ofstream(dir.path() + "/file") << "x";
        Capture err(std::cerr);
        Capture out(std::cout);
        manager.log("lost for the file", BaseLogger::ERROR, "X: ");
        EXPECT_EQ(out.lines(), 1) << "the console still gets the report";
        EXPECT_EQ(err.lines(), 2);
        EXPECT_EQ(err.text().rfind("Logger error: Unknown logger type\nLogger error: ", 0), 0u) << err.text();
    }
    // The next report finds the file's place; FATAL has a label here.
    manager.setActiveLoggers({LoggerManager::FILE});
    manager.log("Connection success", BaseLogger::INFO, "ConnectionDialog: ");
    manager.log("boom", BaseLogger::FATAL, "X: ");
    manager.clearAllLoggers();
    EXPECT_EQ(readText(deep / kLogName), "[02:16:24, 5/Nov/2026][INFO] ConnectionDialog: Connection success\n"
                                         "[02:16:24, 5/Nov/2026][FATAL] X: boom\n");
}

TEST(FileLogger, UnusableFolderFallsBackToTemp) {
    FixedClock clock(kNov15);
    TempDir tmp;
    ScopedTempDirEnv tmpdir(tmp.path());
    std::string prefix = "application";
    const std::string aFile = tmp.path() + "/file";
    std::ofstream(aFile) << "x";
    // A file where the folder should be, then an empty value: the temporary
    // directory's own folder, truncated by the second start.
    for (const std::string& value : {aFile, std::string()}) {
        ScopedEnv logDir("MERID_LOG_DIR", value);
        FileLogger logger;
        ASSERT_TRUE(logger.createLogFile(prefix));
        logger.log(value, BaseLogger::ERROR, "");
        EXPECT_EQ(readText(fs::path(tmp.path()) / "MeridKestalUtility" / kLogName),
                  "[02:16:24, 5/Nov/2026][ERROR] " + value + "\n");
    }
}

#ifndef _WIN32
// Links are POSIX's concern here: on Windows the temporary folder is the
// user's own, and making a link there takes a privilege.
//
// In the shared temporary folder, neither a link planted in the log's place
// nor a folder that is a link is followed: the log goes to the next place,
// and what the links point at is left alone.
TEST(FileLogger, LinksPlantedInTheTemporaryFolderAreNotFollowed) {
    FixedClock clock(kNov15);
    TempDir tmp;
    TempDir work;
    TempDir elsewhere;
    ScopedTempDirEnv tmpdir(tmp.path());
    ScopedEnv logDir("MERID_LOG_DIR", std::string());
    const fs::path before = fs::current_path();
    fs::current_path(work.path());
    const fs::path folder = fs::path(tmp.path()) / "MeridKestalUtility";
    const fs::path victim = fs::path(elsewhere.path()) / "victim";
    std::ofstream(victim) << "keep";
    fs::create_directories(folder);
    fs::create_symlink(victim, folder / kLogName);
    auto logOnce = [](const std::string& text) {
        std::string prefix = "application";
        FileLogger logger;
        ASSERT_TRUE(logger.createLogFile(prefix));
        logger.log(text, BaseLogger::ERROR, "");
    };
    logOnce("planted file");
    fs::remove_all(folder);
    fs::create_directory_symlink(elsewhere.path(), folder);
    logOnce("planted folder");
    fs::current_path(before);
    EXPECT_EQ(readText(victim), "keep");
    EXPECT_FALSE(fs::exists(fs::path(elsewhere.path()) / kLogName));
    EXPECT_EQ(readText(fs::path(work.path()) / kLogName), "[02:16:24, 5/Nov/2026][ERROR] planted folder\n");
}
#endif
