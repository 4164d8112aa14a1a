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

    // Public for tests only: each folder case needs a fresh search; the singleton searches once.
    FileLogger() = default;
    ~FileLogger() override;

    bool createLogFile(std::string& prefix);
    void log(const std::string& message, MessageType type, const std::string& tag) override;

private:
    std::string logFilePath;
    std::ofstream logFile;
    bool isInitialized = false;
    std::mutex mutex;

    static std::mutex instanceMutex;
};
