#pragma once

#include "BaseLogger.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <ostream>
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

    // A logger writing to another stream; the singleton writes to std::cout.
    explicit ConsoleLogger(std::ostream* stream = nullptr);

    void log(const std::string& message, MessageType type, const std::string& tag) override;

    std::size_t descriptorCount();

private:
    std::map<BaseLogger::MessageType, LogDescriptor> descriptors;
    std::mutex mutex;
    std::ostream* out;

    static std::mutex instanceMutex;
};
