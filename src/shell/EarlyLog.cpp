#include "EarlyLog.h"

#include "Platform.h"
#include "RuntimeEnvironment.h"

#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <locale>
#include <mutex>
#include <sstream>
#include <thread>

namespace {

std::ofstream gLogFile;
std::mutex gLogMutex;

constexpr int kCrashLockAttempts = 200;
constexpr auto kCrashLockPause = std::chrono::milliseconds(1);

struct LevelName {
    GLogLevelFlags flag;
    const char* name;
};

constexpr LevelName kLevelNames[] = {
    {G_LOG_LEVEL_ERROR, "ERROR"},     {G_LOG_LEVEL_CRITICAL, "CRITICAL"}, {G_LOG_LEVEL_WARNING, "WARNING"},
    {G_LOG_LEVEL_MESSAGE, "MESSAGE"}, {G_LOG_LEVEL_INFO, "INFO"},         {G_LOG_LEVEL_DEBUG, "DEBUG"},
};

// Caller holds gLogMutex.
void writeLocked(const char* domain, GLogLevelFlags level, const char* message) {
    if (!gLogFile.is_open()) {
        return;
    }
    gLogFile << formatLogLine(formatTimestampUtc(), domain, level, message);
    gLogFile.flush();
}

} // namespace

std::string formatTimestampUtc() {
    const auto now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
    std::tm broken{};
    Platform::utcTime(std::chrono::system_clock::to_time_t(now), broken);
    std::ostringstream out;
    out.imbue(std::locale::classic());
    out << std::put_time(&broken, "%Y-%m-%dT%H:%M:%SZ");
    return out.str();
}

const char* logLevelName(GLogLevelFlags level) {
    for (const auto& entry : kLevelNames) {
        if ((level & entry.flag) != 0) {
            return entry.name;
        }
    }
    return "LOG";
}

std::string formatLogLine(const std::string& timestamp, const char* domain, GLogLevelFlags level,
                          const char* message) {
    std::string line = timestamp;
    line += " [";
    line += logLevelName(level);
    line += "]";
    if (domain != nullptr && *domain != '\0') {
        line += " [";
        line += domain;
        line += "]";
    }
    line += " ";
    line += message != nullptr ? message : "";
    line += "\n";
    return line;
}

void writeLogLine(const char* domain, GLogLevelFlags level, const char* message) {
    std::lock_guard<std::mutex> lock(gLogMutex);
    writeLocked(domain, level, message);
}

void writeLogLine(const char* domain, GLogLevelFlags level, const std::string& message) {
    writeLogLine(domain, level, message.c_str());
}

void writeCrashLogLine(const char* domain, GLogLevelFlags level, const std::string& message) {
    for (int attempt = 0; attempt < kCrashLockAttempts; ++attempt) {
        if (gLogMutex.try_lock()) {
            std::lock_guard<std::mutex> lock(gLogMutex, std::adopt_lock);
            writeLocked(domain, level, message.c_str());
            return;
        }
        std::this_thread::sleep_for(kCrashLockPause);
    }
}

std::string chooseEarlyLogPath() {
    const auto fromEnvironment = Platform::getEnv("MERID_LOG_PATH");
    if (fromEnvironment && !fromEnvironment->empty()) {
        return *fromEnvironment;
    }
    const std::string fileName = std::string(kAppName) + ".log";
    if (const auto appData = Platform::localAppDataDirectory()) {
        const std::filesystem::path directory = Platform::pathFromUtf8(*appData) / kAppName;
        std::error_code ignored;
        std::filesystem::create_directories(directory, ignored);
        return Platform::pathToUtf8(directory / fileName);
    }
    return Platform::pathToUtf8(getTempDirW() / fileName);
}

bool openEarlyLog(const std::string& path) {
    std::lock_guard<std::mutex> lock(gLogMutex);
    if (gLogFile.is_open()) {
        gLogFile.close();
    }
    gLogFile.clear();
    gLogFile.open(Platform::pathFromUtf8(path), std::ios::out | std::ios::app);
    if (!gLogFile.is_open()) {
        return false;
    }
    gLogFile << "=== Application start ===\n" << path << "\n";
    gLogFile.flush();
    return true;
}
