#pragma once

#include <cstdint>
#include <string>

// Wire code of a request, byte 2 of every request payload.
enum PayloadCommand : std::uint8_t {
    DEVICE_INFO_REQ = 1,
    SET_FIELD_REQ = 3,
    GET_FIELD_REQ = 4,
    FIELD_INFO_REQ = 5,
    FILE_INFO_REQ = 7,
    FILE_WRITE_REQ = 8,
    FILE_READ_REQ = 9,
};

// The program's own key of a pending message; not a wire code.
enum MessageType : std::uint8_t {
    SEARCH_DEVICES_MSG = 7,
    REFRESH_DEVICE_MSG = 8,
    FIELD_INFO_MSG = 9,
    SET_FIELD_MSG = 10,
    GET_FIELD_MSG = 11,
    DEVICE_AUX_MSG = 12,
    FILE_WRITE_MSG = 13,
    FILE_AUX_MSG = 14,
    DFU_MSG = 19,
    FILE_START_MSG = 20,
};

// No message is awaited.
inline constexpr MessageType kNoMessage = static_cast<MessageType>(0);

// What onMessage reads behind its untyped argument. A caller passes only as
// much of it as the message type reads: the device alone, device and field,
// or all three.
struct MessageArgs {
    std::uint8_t device = 0;
    std::uint8_t field = 0;
    std::string path;
};

enum PayloadReceiveState : std::uint8_t {
    WAIT_SYNC = 0,
    WAIT_LENGTH = 1,
    READ_PAYLOAD = 2,
    CHECK_CRC = 3,
    FRAME_READY = 4,
    FRAME_BAD_CRC = 5,
    FRAME_TOO_LONG = 6,
};
