#pragma once

#include <cstddef>
#include <cstdint>

// The device's own CRC-8/MAXIM-DOW, computed bit by bit, so that the
// simulated board checks the program's table-driven code instead of sharing it.
class SimCrc8 {
public:
    static std::uint8_t compute(const std::uint8_t* data, std::size_t size, std::uint8_t crc = 0);
};
