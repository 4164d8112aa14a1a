#pragma once

// Support for the payload tests: a bit-by-bit check code (so that the tests do
// not trust the table they test), frame builders for the device's answers and
// a way to take the handler's queued frames.

#include "PayloadHandler.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace payloadkit {

using Bytes = std::vector<std::uint8_t>;

inline std::uint8_t referenceCrc(const Bytes& data) {
    std::uint8_t crc = 0;
    for (std::uint8_t byte : data) {
        crc ^= byte;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & 1u) != 0 ? static_cast<std::uint8_t>((crc >> 1) ^ 0x8C)
                                  : static_cast<std::uint8_t>(crc >> 1);
        }
    }
    return crc;
}

inline Bytes frame(const Bytes& payload) {
    Bytes out(payload.size() + 3);
    out[0] = 0x7E;
    out[1] = static_cast<std::uint8_t>(payload.size() - 1);
    std::copy(payload.begin(), payload.end(), out.begin() + 2);
    out.back() = referenceCrc(payload);
    return out;
}

inline Bytes statusAnswer(std::uint8_t pack, std::uint8_t address, std::uint8_t status = 0) {
    return frame({pack, address, status});
}

inline Bytes deviceInfoAnswer(std::uint8_t pack, std::uint8_t address, const std::string& name,
                              std::uint8_t fieldCount, std::uint8_t major = 1, std::uint8_t minor = 4,
                              int nameLength = -1) {
    Bytes payload{pack, address, 0, major, minor, 0xAA, 0xBB, fieldCount, 1, 2, 3, 4};
    payload.push_back(static_cast<std::uint8_t>(nameLength < 0 ? static_cast<int>(name.size()) : nameLength));
    Bytes nameBytes(63, 0);
    std::memcpy(nameBytes.data(), name.data(), std::min<std::size_t>(name.size(), 63));
    payload.insert(payload.end(), nameBytes.begin(), nameBytes.end());
    return frame(payload);
}

inline Bytes fieldInfoAnswer(std::uint8_t pack, std::uint8_t address, std::uint8_t type,
                             const std::string& name) {
    Bytes payload{pack, address, 0, type, static_cast<std::uint8_t>(name.size())};
    payload.insert(payload.end(), name.begin(), name.end());
    return frame(payload);
}

// Takes every frame off the handler's queue, front first.
inline std::vector<QueuedMessage> drainMessages(PayloadHandler& handler) {
    std::vector<QueuedMessage> out;
    while (handler.getQueueSize() != 0) {
        QueuedMessage message = handler.fetchToQueue();
        auto* copy = new unsigned char[message.size];
        std::memcpy(copy, message.data, message.size);
        message.data = copy;
        out.push_back(message);
        handler.freeFrontFromQueue();
    }
    return out;
}

inline std::vector<Bytes> drain(PayloadHandler& handler) {
    std::vector<Bytes> out;
    for (auto& message : drainMessages(handler)) {
        out.emplace_back(message.data, message.data + message.size);
        delete[] message.data;
    }
    return out;
}

// The only queued frame, with its time-out.
struct Sent {
    Bytes bytes;
    unsigned timeout = 0;
};

inline std::vector<Sent> drainWithTimeouts(PayloadHandler& handler) {
    std::vector<Sent> out;
    for (auto& message : drainMessages(handler)) {
        out.push_back(Sent{Bytes(message.data, message.data + message.size), message.timeout});
        delete[] message.data;
    }
    return out;
}

inline unsigned long long feed(PayloadHandler& handler, const Bytes& bytes) {
    return handler.update(bytes.data(), bytes.size());
}

} // namespace payloadkit
