#pragma once

#include <array>
#include <cstdint>

// CRC-8/MAXIM-DOW (the Dallas 1-Wire CRC): polynomial 0x31 reflected (0x8C),
// initial value 0, no final XOR. The one check code of the payload link: the
// frame writer, the frame reader and the whole-file checksum share this table.
class FastCrc8 {
public:
    // The running value after `size` more bytes of `data`.
    static unsigned char update(unsigned char crc, const void* data, unsigned long long size);

    static const std::array<std::uint8_t, 256>& table();
};
