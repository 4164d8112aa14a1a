#pragma once

#include <cstdint>
#include <string>

// How the load of one board ended.
struct BoardResult {
    std::string port;
    std::string target; // "stm32" or "esp32"
    std::uint64_t bytes = 0;
    double seconds = 0;
    bool ok = false;
    // "verified" or "written" for a success, the log's words for a failure.
    std::string result;
    // The SHA-256 of the image every board of the run was given.
    std::string sha256;

    double kibPerSecond() const { return seconds > 0 ? static_cast<double>(bytes) / 1024.0 / seconds : 0.0; }
};
