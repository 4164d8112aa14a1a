#pragma once

// A bit-by-bit check code, so that the tests do not trust the table they test,
// and a handler whose queued frames a test takes off and answers as a device.

#include "GlobalHandlerEvents.h"
#include "PayloadHandler.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace payloadtest {

using testsupport::Bytes;

inline std::uint8_t referenceCrc(const Bytes& data) {
    std::uint8_t crc = 0;
    for (std::uint8_t byte : data) {
        crc ^= byte;
        for (int bit = 0; bit < 8; ++bit) {
            crc = static_cast<std::uint8_t>((crc & 1u) != 0 ? (crc >> 1) ^ 0x8C : crc >> 1);
        }
    }
    return crc;
}

inline Bytes frame(const Bytes& payload) {
    Bytes out{0x7E, static_cast<std::uint8_t>(payload.size() - 1)};
    out.insert(out.end(), payload.begin(), payload.end());
    out.push_back(referenceCrc(payload));
    return out;
}

struct Sent {
    Bytes bytes;
    unsigned timeout = 0;
};

class PayloadTest : public ::testing::Test {
protected:
    void SetUp() override { GlobalHandlerEvents::getInstance().clearAllHandlers(); }
    void TearDown() override { GlobalHandlerEvents::getInstance().clearAllHandlers(); }

    // Enters a message and issues it, as every flow does.
    void ask(MessageType type, std::uint8_t device = 0, std::uint8_t field = 0, std::string path = {}) {
        MessageArgs args{device, field, std::move(path)};
        handler.onMessage(type, &args);
        handler.generateResponse(type == FILE_START_MSG ? FILE_WRITE_MSG : type);
    }

    std::vector<Sent> drain() {
        std::vector<Sent> out;
        for (; handler.getQueueSize() != 0; handler.freeFrontFromQueue()) {
            const QueuedMessage message = handler.fetchToQueue();
            out.push_back(Sent{Bytes(message.data, message.data + message.size), message.timeout});
        }
        return out;
    }

    std::uint8_t pack() { return handler.getPackNumber(); }
    unsigned long long feed(const Bytes& bytes) { return handler.update(bytes.data(), bytes.size()); }
    void answer(std::uint8_t address, std::uint8_t status = 0) { feed(frame({pack(), address, status})); }

    // Searches, and the device at `address` answers.
    void discover(std::uint8_t address, std::uint8_t fieldCount, const std::string& name = "Board") {
        ask(SEARCH_DEVICES_MSG);
        drain();
        Bytes payload{
            pack(), address, 0, 1, 4, 0, 0, fieldCount, 0, 0, 0, 4, static_cast<std::uint8_t>(name.size())};
        payload.insert(payload.end(), name.begin(), name.end());
        payload.resize(76);
        feed(frame(payload));
    }

    // Asks for the device's fields and answers each request in turn.
    void describe(std::uint8_t address, const std::vector<std::pair<std::uint8_t, std::string>>& fields) {
        ask(FIELD_INFO_MSG, address);
        for (const auto& [type, name] : fields) {
            drain();
            Bytes payload{pack(), address, 0, type, static_cast<std::uint8_t>(name.size())};
            payload.insert(payload.end(), name.begin(), name.end());
            feed(frame(payload));
        }
        drain();
    }

    testsupport::CapturingLogger log;
    PayloadHandler handler;
};

} // namespace payloadtest
