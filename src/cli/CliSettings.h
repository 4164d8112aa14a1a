#pragma once

#include "MeridEspSerialFlasher.h"

#include <string>
#include <vector>

// What one run of merid-flash was asked to do, as the command line says it.
struct CliSettings {
    enum class Command { Ports, Search, Stm32, Esp32, Board };

    Command command = Command::Ports;
    std::vector<std::string> ports;
    int baud = 115200;
    // The STM32 image of `stm32` and `board`.
    std::string file;
    // The ESP32 image of `esp32` and `board`, each part at its address.
    std::vector<FlashPart> parts;
    bool json = false;
    std::string logPath;
    // Where a record of every board is appended: JSON lines, or CSV rows
    // when the name ends in ".csv".
    std::string reportPath;
    bool quiet = false;
    bool compress = true;
    bool verify = true;
    // Write every part, even one the flash already holds.
    bool force = false;
    // Set in the process that a parent starts for one board: it loads that
    // board and reports to the parent on its standard output.
    bool worker = false;

    bool loadsStm32() const { return command == Command::Stm32 || command == Command::Board; }
    bool loadsEsp32() const { return command == Command::Esp32 || command == Command::Board; }
};
