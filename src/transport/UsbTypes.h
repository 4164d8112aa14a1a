#pragma once

#include <cstdint>

// Types shared by the serial port and the communication front above it.
namespace UsbTypes {

// The line speed in bits per second. A variable of this type may hold any
// other number (the connection dialog passes what the user typed); the port
// falls back to 115200 for those.
enum Baudrate : std::int32_t {
    Baud57600 = 57600,
    Baud115200 = 115200,
    Baud230400 = 230400,
    Baud460800 = 460800,
    Baud500000 = 500000,
    Baud576000 = 576000,
    Baud921600 = 921600,
    Baud1000000 = 1000000,
    Baud2000000 = 2000000,
};

// Outcome of every transport operation; 0 is success, anything above it a
// failure.
enum Status : std::int32_t {
    Ok = 0,
    NotAvailable = 1,
    CloseError = 2,
    TransmitError = 3,
    ReceiveError = 4,
    Timeout = 5,
    NotConnected = 6,
};

// What a read or a write returns: how it ended and how many bytes moved.
struct IoResult {
    Status status = Ok;
    std::uint64_t bytes = 0;
};

// True for the nine speeds a port accepts.
constexpr bool isSupportedBaudrate(std::int64_t value) {
    switch (value) {
    case Baud57600:
    case Baud115200:
    case Baud230400:
    case Baud460800:
    case Baud500000:
    case Baud576000:
    case Baud921600:
    case Baud1000000:
    case Baud2000000:
        return true;
    default:
        return false;
    }
}

} // namespace UsbTypes
