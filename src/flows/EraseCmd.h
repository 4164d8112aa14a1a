#pragma once

#include <cstdint>

// The command word written into a device's "erase" field; each selects the
// file index of the load that follows. The loads only use the first.
enum EraseCmd : std::uint32_t {
    EraseFile0 = 0x6A1D42C7,
    EraseFile1 = 0x2F83B5E9,
    EraseFile2 = 0xB4C6170D,
};
