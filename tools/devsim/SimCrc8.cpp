#include "SimCrc8.h"

std::uint8_t SimCrc8::compute(const std::uint8_t* data, std::size_t size, std::uint8_t crc) {
    for (std::size_t i = 0; i < size; ++i) {
        crc ^= data[i];
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & 1u) != 0 ? static_cast<std::uint8_t>((crc >> 1) ^ 0x8Cu)
                                  : static_cast<std::uint8_t>(crc >> 1);
        }
    }
    return crc;
}
