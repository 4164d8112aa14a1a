#pragma once

#include "BoardResult.h"
#include "PortIdentity.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// What the report keeps of one board: when its load ran, on which station
// and adapter, the device and the ESP32 chip that answered, and the result
// of each target.
struct BoardRecord {
    std::chrono::system_clock::time_point start;
    std::chrono::system_clock::time_point end;
    std::string host;
    std::string port;
    std::optional<PortIdentity> adapter;
    // The device found by the search; empty names when none answered.
    std::string deviceName;
    std::string deviceVersion;
    std::optional<std::uint64_t> serialNumber;
    // The ESP32 as the ROM loader told it; empty when it was not reached.
    std::string chipType;
    std::string chipMac;
    std::vector<BoardResult> targets;
};
