#include "FileLogger.h"

#include "Platform.h"
#include "PlatformPaths.h"

#include <filesystem>
#include <map>
#include <system_error>
#include <vector>

std::mutex FileLogger::instanceMutex;

namespace {

struct LogDirectory {
    std::filesystem::path path;
    bool shared; // in the temporary folder, which other users may write to
};

// Makes the folder. One in the shared temporary folder is used only when
// nobody else can plant a link in it; a link in the file's own place is
// never followed.
bool prepareToOpen(const LogDirectory& directory, const std::filesystem::path& file) {
    std::error_code error;
    if (directory.shared) {
        if (!Platform::ensurePrivateDirectory(Platform::pathToUtf8(directory.path))) {
            return false;
        }
    } else {
        std::filesystem::create_directories(directory.path, error);
    }
    return !std::filesystem::is_symlink(std::filesystem::symlink_status(file, error));
}

} // namespace

FileLogger& FileLogger::getInstance() {
    static FileLogger instance;
    std::string prefix = "application";
    instance.createLogFile(prefix);
    return instance;
}

FileLogger::~FileLogger() {
    if (logFile.is_open()) {
        logFile.close();
    }
}

bool FileLogger::createLogFile(std::string& prefix) {
    // Nothing to do once a file is open: this is the fast path of every report.
    if (isInitialized || logFile.is_open()) {
        return isInitialized;
    }
    // The date suffix, with the one-digit day.
    TimeDescription time;
    time.updateTime();
    const std::string suffix = "_" + time.day + "_" + time.month + "_" + time.year;

    // Candidate directories in order of preference.
    std::vector<LogDirectory> candidates;
    auto logDir = Platform::getEnv("MERID_LOG_DIR");
    if (logDir && !logDir->empty()) {
        candidates.push_back({Platform::pathFromUtf8(*logDir), false});
    }
    candidates.push_back({std::filesystem::temp_directory_path() / "MeridKestalUtility", true});
    candidates.push_back({std::filesystem::current_path(), false});

    // The first directory where the file opens wins.
    for (const auto& directory : candidates) {
        std::filesystem::path path = directory.path / (prefix + suffix + ".log");
        if (!prepareToOpen(directory, path)) {
            continue;
        }
        logFile.open(path, std::ios::out | std::ios::trunc);
        if (logFile.is_open()) {
            auto utf8 = path.u8string();
            logFilePath.assign(utf8.begin(), utf8.end());
            isInitialized = true;
            break;
        }
        logFile.clear();
    }
    if (logFile.is_open()) {
        isInitialized = true;
    }
    return isInitialized;
}

void FileLogger::log(const std::string& message, MessageType type, const std::string& tag) {
    std::lock_guard<std::mutex> lock(mutex);
    if (!isInitialized || !logFile.is_open()) {
        return;
    }
    static const std::map<MessageType, std::string> typeLabels = {
        {DEBUG, "DEBUG"}, {INFO, "INFO"}, {WARNING, "WARNING"}, {ERROR, "ERROR"}, {FATAL, "FATAL"}};
    auto label = typeLabels.find(type);
    TimeDescription time;
    time.updateTime();
    logFile << "[" << (time.time + ", " + time.day + "/" + time.month + "/" + time.year) << "]"
            << "[" << (label != typeLabels.end() ? label->second : std::string()) << "]"
            << " " << tag << message << "\n";
    // Each line reaches the disk at once: a crash loses nothing reported.
    logFile.flush();
}
