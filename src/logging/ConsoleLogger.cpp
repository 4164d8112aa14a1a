#include "ConsoleLogger.h"

#include <iostream>

std::mutex ConsoleLogger::instanceMutex;

ConsoleLogger& ConsoleLogger::getInstance() {
    static ConsoleLogger instance;
    return instance;
}

ConsoleLogger::ConsoleLogger() {
    descriptors[DEBUG] = {"DEBUG", 1, 34, 49};
    descriptors[INFO] = {"INFO", 1, 32, 49};
    descriptors[WARNING] = {"WARNING", 1, 33, 49};
    descriptors[ERROR] = {"ERROR", 1, 31, 49};
    // FATAL has no row: its first line adds an empty one.
}

void ConsoleLogger::log(const std::string& message, MessageType type, const std::string& tag) {
    std::lock_guard<std::mutex> lock(mutex);
    TimeDescription time;
    time.updateTime();
    const LogDescriptor& d = descriptors[type];

    // Background before foreground; the label closes the line again, and the
    // reset travels in the same write so a line never leaks its colour.
    std::string line;
    line += "\x1b[" + std::to_string(d.style) + ";" + std::to_string(d.background) + ";" +
            std::to_string(d.foreground) + "m";
    line += "[" + time.time + ", " + time.day + "/" + time.month + "/" + time.year + "]";
    line += "[" + d.label + "]";
    line += tag + message;
    line += " [" + d.label + "]";
    line += "\x1b[0m";

    std::cout << line << '\n';
    std::cout.flush();
}
