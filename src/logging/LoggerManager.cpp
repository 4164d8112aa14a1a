#include "LoggerManager.h"

#include "ConsoleLogger.h"
#include "FileLogger.h"
#include "Platform.h"

#include <algorithm>
#include <cctype>
#include <iostream>
#include <stdexcept>

LoggerManager& LoggerManager::getInstance() {
    static LoggerManager instance;
    return instance;
}

void LoggerManager::addLogger(LoggerType type) {
    std::lock_guard<std::mutex> lock(mutex);
    if (std::find(activeLoggers.begin(), activeLoggers.end(), type) == activeLoggers.end()) {
        activeLoggers.push_back(type);
    }
}

void LoggerManager::removeLogger(LoggerType type) {
    std::lock_guard<std::mutex> lock(mutex);
    activeLoggers.erase(std::remove(activeLoggers.begin(), activeLoggers.end(), type), activeLoggers.end());
}

void LoggerManager::setActiveLoggers(const std::vector<LoggerType>& loggers) {
    std::lock_guard<std::mutex> lock(mutex);
    if (&loggers != &activeLoggers) {
        activeLoggers = loggers;
    }
}

void LoggerManager::clearAllLoggers() {
    std::lock_guard<std::mutex> lock(mutex);
    activeLoggers.clear();
}

bool LoggerManager::checkLoggerExists(LoggerType type) {
    // Read under the lock all the same: the list may change on another thread.
    std::lock_guard<std::mutex> lock(mutex);
    return std::find(activeLoggers.begin(), activeLoggers.end(), type) != activeLoggers.end();
}

void LoggerManager::setGlobalLevel(Level level) {
    std::lock_guard<std::mutex> lock(mutex);
    globalLevel = level;
}

LoggerManager::Level LoggerManager::getGlobalLevel() const {
    std::lock_guard<std::mutex> lock(mutex);
    return globalLevel;
}

BaseLogger* LoggerManager::getLoggerInstance(LoggerType type) {
    std::lock_guard<std::mutex> lock(mutex);
    return sinkFor(type);
}

void LoggerManager::overrideSink(LoggerType type, BaseLogger* sink) {
    std::lock_guard<std::mutex> lock(mutex);
    if (sink == nullptr) {
        overrides.erase(type);
    } else {
        overrides[type] = sink;
    }
}

BaseLogger* LoggerManager::sinkFor(LoggerType type) {
    auto found = overrides.find(type);
    if (found != overrides.end()) {
        return found->second;
    }
    switch (type) {
    case CONSOLE:
        return &ConsoleLogger::getInstance();
    case FILE:
        // Fetched anew for each report: this is what retries a log file
        // that could not be opened yet.
        return &FileLogger::getInstance();
    }
    throw std::invalid_argument("Unknown logger type");
}

// The level filter. MINIMUM lets ERROR alone through: FATAL is held back too.
bool LoggerManager::passes(BaseLogger::MessageType type) const {
    if (globalLevel == MINIMUM && type != BaseLogger::ERROR) {
        return false;
    }
    return globalLevel != IMPORTANT || (type >= BaseLogger::WARNING && type <= BaseLogger::FATAL);
}

bool LoggerManager::wants(BaseLogger::MessageType type) const {
    std::lock_guard<std::mutex> lock(mutex);
    return !activeLoggers.empty() && passes(type);
}

void LoggerManager::log(const std::string& message, BaseLogger::MessageType type, const std::string& tag) {
    // One dispatch at a time, so both sinks see the same order.
    std::lock_guard<std::mutex> lock(mutex);
    if (!passes(type)) {
        return;
    }
    // Each sink in order; a failing sink does not stop the next.
    for (LoggerType entry : activeLoggers) {
        try {
            sinkFor(entry)->log(message, type, tag);
        } catch (const std::exception& error) {
            std::cerr << "Logger error: " << error.what() << std::endl;
        }
    }
}

void LoggerManager::applyLevelFromEnvironment() {
    auto value = Platform::getEnv("MERID_LOG_LEVEL");
    if (!value || value->empty()) {
        return;
    }
    std::string upper = *value;
    for (char& c : upper) {
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    if (upper == "OFF") {
        clearAllLoggers();
    } else if (upper == "FULL") {
        setGlobalLevel(FULL);
    } else if (upper == "IMPORTANT") {
        setGlobalLevel(IMPORTANT);
    } else if (upper == "MINIMUM") {
        setGlobalLevel(MINIMUM);
    }
}
