#pragma once

#include <string>
#include <vector>

// What one run of merid-flash was asked to do, as the command line says it.
struct CliSettings {
    enum class Command { Ports, Search, Stm32, Esp32 };

    Command command = Command::Ports;
    std::vector<std::string> ports;
    int baud = 115200;
    std::string file;
    bool json = false;
    std::string logPath;
    bool quiet = false;
    bool compress = true;
    bool verify = true;
    // Set in the process that a parent starts for one board: it loads that
    // board and reports to the parent on its standard output.
    bool worker = false;

    const char* targetName() const { return command == Command::Esp32 ? "esp32" : "stm32"; }
};
