#pragma once

#include "BaseLogger.h"

#include <fstream>
#include <mutex>
#include <string>

// Plain lines in one log file per process start.
class FileLogger : public BaseLogger {
public:
    // The singleton; every call retries opening the file while none is open.
    static FileLogger& getInstance();

    FileLogger() = default;
    ~FileLogger() override;

    bool createLogFile(std::string& prefix);
    void log(const std::string& message, MessageType type, const std::string& tag) override;

    // For diagnostics: the path of the open file, empty while none is open.
    std::string getLogFilePath();

private:
    std::string logFilePath;
    std::ofstream logFile;
    bool isInitialized = false;
    std::mutex mutex;

    static std::mutex instanceMutex;
};
