#pragma once

#include <chrono>
#include <cstdint>
#include <string>

class BaseLogger {
public:
    enum MessageType : std::uint8_t { DEBUG = 0, INFO = 1, WARNING = 2, ERROR = 3, FATAL = 4 };

    // Calendar pieces of a time stamp, as both sinks print them.
    struct TimeDescription {
        std::string day;
        std::string month;
        std::string year;
        std::string time;

        void updateTime();
    };

    using Clock = std::chrono::system_clock::time_point (*)();

    // For tests only: the day-digit rule needs dates no outside test can pick; null restores.
    static void setClock(Clock clock);

    virtual void log(const std::string& message, MessageType type, const std::string& tag) = 0;
    virtual ~BaseLogger() = default;
};
