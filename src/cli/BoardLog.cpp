#include "BoardLog.h"

#include "LoggerManager.h"

namespace {

const char* levelName(BaseLogger::MessageType type) {
    switch (type) {
    case BaseLogger::DEBUG:
        return "DEBUG";
    case BaseLogger::INFO:
        return "INFO";
    case BaseLogger::WARNING:
        return "WARNING";
    case BaseLogger::ERROR:
        return "ERROR";
    default:
        return "FATAL";
    }
}

} // namespace

BoardLog::BoardLog(Writer writer) : writer(std::move(writer)) {
    LoggerManager& manager = LoggerManager::getInstance();
    manager.overrideSink(LoggerManager::CONSOLE, this);
    manager.setActiveLoggers({LoggerManager::CONSOLE});
    manager.setGlobalLevel(LoggerManager::FULL);
}

BoardLog::~BoardLog() {
    LoggerManager& manager = LoggerManager::getInstance();
    manager.clearAllLoggers();
    manager.overrideSink(LoggerManager::CONSOLE, nullptr);
}

void BoardLog::log(const std::string& message, MessageType type, const std::string& tag) {
    std::string line = std::string(levelName(type)) + " " + tag + message;
    // One report, one line, whatever the message holds.
    for (char& c : line) {
        if (c == '\n' || c == '\r') {
            c = ' ';
        }
    }
    const bool firstDropped = type >= WARNING && keep(message);
    if (writer) {
        writer(line);
        if (firstDropped) {
            writer("WARNING BoardLog: more than " + std::to_string(kKeptProblems) +
                   " warnings and errors; only the last " + std::to_string(kKeptProblems) +
                   " are kept for the result, all are counted");
        }
    }
}

bool BoardLog::keep(const std::string& message) {
    std::lock_guard<std::mutex> lock(mutex);
    problems.push_back(message);
    if (problems.size() <= kKeptProblems) {
        return false;
    }
    problems.pop_front();
    return ++dropped == 1;
}

unsigned BoardLog::problemCount() {
    std::lock_guard<std::mutex> lock(mutex);
    return dropped + static_cast<unsigned>(problems.size());
}

std::string BoardLog::lastProblem() {
    std::lock_guard<std::mutex> lock(mutex);
    return problems.empty() ? std::string() : problems.back();
}

std::string BoardLog::problemStartingWith(const std::string& start, unsigned from) {
    std::lock_guard<std::mutex> lock(mutex);
    for (std::size_t i = from > dropped ? from - dropped : 0; i < problems.size(); ++i) {
        if (problems[i].rfind(start, 0) == 0) {
            return problems[i];
        }
    }
    return {};
}
