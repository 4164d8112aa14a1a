#include "slip.h"

#include "loader_port.h"

#include <algorithm>

ESP_LOADER_NAMESPACE_BEGIN

namespace {

const uint8_t DELIMITER[] = {0xC0};
const uint8_t C0_REPLACEMENT[] = {0xDB, 0xDC};
const uint8_t DB_REPLACEMENT[] = {0xDB, 0xDD};

constexpr uint8_t kEnd = 0xC0;
constexpr uint8_t kEscape = 0xDB;
constexpr uint8_t kEscapedEnd = 0xDC;
constexpr uint8_t kEscapedEscape = 0xDD;

// The port takes at most 65535 bytes a call; a longer run goes in pieces.
esp_loader_error_t writeRun(const uint8_t* data, uint32_t size) {
    while (size > 0) {
        const uint16_t piece = static_cast<uint16_t>(std::min<uint32_t>(size, UINT16_MAX));
        LOADER_TRY(loader_port_write(data, piece, loader_port_remaining_time()));
        data += piece;
        size -= piece;
    }
    return ESP_LOADER_SUCCESS;
}

esp_loader_error_t readByte(uint8_t* byte) {
    return loader_port_read(byte, 1, loader_port_remaining_time());
}

} // namespace

esp_loader_error_t SLIP_send(const uint8_t* data, uint32_t size) {
    uint32_t runStart = 0;
    for (uint32_t i = 0; i < size; ++i) {
        if (data[i] != kEnd && data[i] != kEscape) {
            continue;
        }
        LOADER_TRY(writeRun(data + runStart, i - runStart));
        const uint8_t* replacement = data[i] == kEnd ? C0_REPLACEMENT : DB_REPLACEMENT;
        LOADER_TRY(loader_port_write(replacement, 2, loader_port_remaining_time()));
        runStart = i + 1;
    }
    return writeRun(data + runStart, size - runStart);
}

esp_loader_error_t SLIP_send_delimiter() {
    return loader_port_write(DELIMITER, 1, loader_port_remaining_time());
}

esp_loader_error_t SLIP_receive_packet(uint8_t* buffer, uint32_t capacity, uint32_t* received) {
    uint8_t byte = 0;

    // Garbage in front of the frame goes here.
    do {
        LOADER_TRY(readByte(&byte));
    } while (byte != kEnd);

    // A run of delimiters counts as one.
    do {
        LOADER_TRY(readByte(&byte));
    } while (byte == kEnd);
    if (capacity == 0) {
        // No room at all: the frame is dropped up to its end.
        while (byte != kEnd) {
            LOADER_TRY(readByte(&byte));
        }
        *received = 0;
        return ESP_LOADER_SUCCESS;
    }
    buffer[0] = byte;

    for (uint32_t i = 1; i < capacity; ++i) {
        LOADER_TRY(readByte(&byte));
        if (byte == kEscape) {
            LOADER_TRY(readByte(&byte));
            if (byte == kEscapedEnd) {
                buffer[i] = kEnd;
            } else if (byte == kEscapedEscape) {
                buffer[i] = kEscape;
            } else {
                return ESP_LOADER_ERROR_INVALID_RESPONSE;
            }
        } else if (byte == kEnd) {
            *received = i;
            return ESP_LOADER_SUCCESS;
        } else {
            buffer[i] = byte;
        }
    }

    // Capacity used up: an overlong frame is cut, not refused.
    do {
        LOADER_TRY(readByte(&byte));
    } while (byte != kEnd);
    *received = capacity;
    return ESP_LOADER_SUCCESS;
}

ESP_LOADER_NAMESPACE_END
