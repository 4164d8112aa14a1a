#pragma once

#include "BaseLogger.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

// Coloured lines on the standard output.
class ConsoleLogger : public BaseLogger {
public:
    struct LogDescriptor {
        std::string label;
        std::uint8_t style = 0;
        std::uint8_t foreground = 0;
        std::uint8_t background = 0;
    };

    static ConsoleLogger& getInstance();

    void log(const std::string& message, MessageType type, const std::string& tag) override;

private:
    ConsoleLogger();

    std::map<BaseLogger::MessageType, LogDescriptor> descriptors;
    std::mutex mutex;

    static std::mutex instanceMutex;
};
