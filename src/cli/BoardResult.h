#pragma once

#include <cstdint>
#include <string>
#include <vector>

// What became of one part of an ESP32 image on one board.
struct PartResult {
    std::uint32_t address = 0;
    std::uint64_t bytes = 0;
    std::string sha256;
    // "written", "unchanged" (the flash held it already), or "not written".
    std::string result;
};

// How the load of one target of one board ended.
struct BoardResult {
    std::string port;
    std::string target; // "stm32" or "esp32"
    std::uint64_t bytes = 0;
    double seconds = 0;
    bool ok = false;
    // "confirmed", "verified", "written" or "unchanged" for a success; for a
    // failure what went wrong and what the user can do (FailureCode).
    std::string result;
    // The SHA-256 of the image every board of the run was given; empty for
    // an ESP32 image of several parts, whose parts carry theirs.
    std::string sha256;
    // The parts of an ESP32 image, in address order.
    std::vector<PartResult> parts;
    // The failure's stable code (FailureCode); empty for a success. Last, so
    // that the fields before it keep their places in a brace list.
    std::string code;

    double kibPerSecond() const { return seconds > 0 ? static_cast<double>(bytes) / 1024.0 / seconds : 0.0; }
};
