#pragma once

#include "BaseLogger.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

// The one front every part of the program reports through.
class LoggerManager {
public:
    enum Level : std::uint8_t { FULL = 0, IMPORTANT = 1, MINIMUM = 2 };
    enum LoggerType : std::uint8_t { CONSOLE = 0, FILE = 1 };

    static LoggerManager& getInstance();

    void addLogger(LoggerType type);
    void removeLogger(LoggerType type);
    void setActiveLoggers(const std::vector<LoggerType>& loggers);
    void clearAllLoggers();
    bool checkLoggerExists(LoggerType type);
    void setGlobalLevel(Level level);
    Level getGlobalLevel() const;
    BaseLogger* getLoggerInstance(LoggerType type);
    void log(const std::string& message, BaseLogger::MessageType type, const std::string& tag);
    // Whether a report of this type would reach any sink now.
    bool wants(BaseLogger::MessageType type) const;

    // Applies MERID_LOG_LEVEL: "OFF", "FULL", "IMPORTANT", "MINIMUM" in any
    // case; anything else is ignored.
    void applyLevelFromEnvironment();

    // Puts `sink` in place of a built-in one, which then gets the reports with
    // type and tag apart (tests read them in-process, merid-flash hands them
    // to its log and its parent); null restores.
    void overrideSink(LoggerType type, BaseLogger* sink);

    LoggerManager(const LoggerManager&) = delete;
    LoggerManager& operator=(const LoggerManager&) = delete;

private:
    LoggerManager() = default;
    BaseLogger* sinkFor(LoggerType type);
    bool passes(BaseLogger::MessageType type) const;

    std::vector<LoggerType> activeLoggers;
    Level globalLevel = FULL;
    mutable std::mutex mutex;
    std::map<LoggerType, BaseLogger*> overrides;
};
