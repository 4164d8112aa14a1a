#pragma once

#include "BoardResult.h"
#include "CliSettings.h"

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

// merid-flash: the window's loads without the window. Exit code 0 when every
// board succeeded, 1 when any failed, 2 for bad usage or bad input, which is
// found before anything is sent.
class FlashProgram {
public:
    int run(int argc, char** argv);

private:
    int listPorts();
    int searchPort();
    int runWorker();
    int runLoads();
    std::optional<std::string> checkLoadInput(std::uint64_t& imageBytes);
    // The log file opened; the reason when it may not be. `image` is the
    // input it must not be.
    std::optional<std::string> openLogFile(const std::string& image);
    void printResults(const std::vector<BoardResult>& results);
    // Where people read: the standard output, or the standard error when the
    // standard output carries JSON.
    std::FILE* humanOutput() const;
    static int badInput(const std::string& line);

    CliSettings settings;
    std::ofstream logFile;
};
