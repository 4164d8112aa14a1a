#include "FastCrc8.h"

namespace {

constexpr std::array<std::uint8_t, 256> makeTable() {
    std::array<std::uint8_t, 256> result{};
    for (unsigned value = 0; value < 256; ++value) {
        unsigned crc = value;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & 1u) != 0 ? (crc >> 1) ^ 0x8Cu : crc >> 1;
        }
        result[value] = static_cast<std::uint8_t>(crc);
    }
    return result;
}

constexpr std::array<std::uint8_t, 256> kTable = makeTable();

static_assert(kTable[0] == 0x00 && kTable[1] == 0x5E && kTable[2] == 0xBC && kTable[3] == 0xE2 &&
                  kTable[4] == 0x61 && kTable[5] == 0x3F && kTable[6] == 0xDD && kTable[7] == 0x83,
              "the table must start as the Dallas table does");

} // namespace

unsigned char FastCrc8::update(unsigned char crc, const void* data, unsigned long long size) {
    if (data == nullptr) {
        return crc;
    }
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    for (unsigned long long i = 0; i < size; ++i) {
        crc = kTable[static_cast<std::uint8_t>(crc ^ bytes[i])];
    }
    return crc;
}

const std::array<std::uint8_t, 256>& FastCrc8::table() {
    return kTable;
}
