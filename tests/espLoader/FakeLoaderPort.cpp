#include "FakeLoaderPort.h"

#include "loader_port.h"
#include "protocol.h"

#include <algorithm>

namespace fakeport {

uint32_t Request::word(size_t offset) const {
    return static_cast<uint32_t>(bytes.at(offset)) | static_cast<uint32_t>(bytes.at(offset + 1)) << 8 |
           static_cast<uint32_t>(bytes.at(offset + 2)) << 16 |
           static_cast<uint32_t>(bytes.at(offset + 3)) << 24;
}

void putWord(Bytes& bytes, uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
}

Bytes slipFrame(const Bytes& payload) {
    Bytes out{0xC0};
    for (uint8_t b : payload) {
        if (b == 0xC0) {
            out.insert(out.end(), {0xDB, 0xDC});
        } else if (b == 0xDB) {
            out.insert(out.end(), {0xDB, 0xDD});
        } else {
            out.push_back(b);
        }
    }
    out.push_back(0xC0);
    return out;
}

Bytes responsePacket(uint8_t opcode, uint32_t value, const Bytes& data, uint8_t status, uint8_t error) {
    Bytes packet{0x01, opcode};
    const uint16_t size = static_cast<uint16_t>(data.size() + 2);
    packet.push_back(static_cast<uint8_t>(size));
    packet.push_back(static_cast<uint8_t>(size >> 8));
    putWord(packet, value);
    packet.insert(packet.end(), data.begin(), data.end());
    packet.push_back(status);
    packet.push_back(error);
    return packet;
}

FakePort& FakePort::instance() {
    static FakePort port;
    return port;
}

void FakePort::reset() {
    writes.clear();
    requests.clear();
    timers.clear();
    prints.clear();
    enterBootloaderCalls = 0;
    resetCalls = 0;
    readCalls = 0;
    nowMs = 0;
    delayedMs = 0;
    onRequest = nullptr;
    onWrite = nullptr;
    writeResult = ESP_LOADER_SUCCESS;
    input.clear();
    deadlineMs = 0;
    frame.clear();
    inEscape = false;
    esp_stub_set_running(false);
}

void FakePort::pushRaw(const Bytes& bytes) {
    input.insert(input.end(), bytes.begin(), bytes.end());
}

void FakePort::pushFrame(const Bytes& payload) {
    pushRaw(slipFrame(payload));
}

void FakePort::pushResponse(uint8_t opcode, uint32_t value, const Bytes& data, uint8_t status,
                            uint8_t error) {
    pushFrame(responsePacket(opcode, value, data, status, error));
}

std::vector<uint8_t> FakePort::opcodes() const {
    std::vector<uint8_t> out;
    for (const Request& r : requests) {
        out.push_back(r.opcode());
    }
    return out;
}

bool FakePort::printed(const std::string& text) const {
    return std::find(prints.begin(), prints.end(), text) != prints.end();
}

// The chip's side of the framing: a frame ends at a C0 that follows data.
void FakePort::decode(uint8_t byte) {
    if (inEscape) {
        inEscape = false;
        frame.push_back(byte == 0xDC ? 0xC0 : byte == 0xDD ? 0xDB : byte);
        return;
    }
    if (byte == 0xDB) {
        inEscape = true;
        return;
    }
    if (byte != 0xC0) {
        frame.push_back(byte);
        return;
    }
    if (frame.empty()) {
        return;
    }
    Request request{frame, timers.empty() ? 0 : timers.back()};
    frame.clear();
    requests.push_back(request);
    if (onRequest) {
        onRequest(requests.back());
    }
}

esp_loader_error_t FakePort::write(const uint8_t* data, uint16_t size) {
    if (data == nullptr || size == 0) {
        return ESP_LOADER_ERROR_INVALID_PARAM;
    }
    if (writeResult != ESP_LOADER_SUCCESS) {
        return writeResult;
    }
    writes.emplace_back(data, data + size);
    for (uint16_t i = 0; i < size; ++i) {
        decode(data[i]);
    }
    if (onWrite) {
        onWrite(data, size);
    }
    return ESP_LOADER_SUCCESS;
}

esp_loader_error_t FakePort::read(uint8_t* data, uint16_t size, uint32_t timeout) {
    if (data == nullptr || size == 0) {
        return ESP_LOADER_ERROR_INVALID_PARAM;
    }
    if (timeout == 0) {
        return ESP_LOADER_ERROR_TIMEOUT;
    }
    ++readCalls;
    if (input.size() < size) {
        // Nothing more will come: the whole limit passes.
        nowMs += timeout;
        return ESP_LOADER_ERROR_TIMEOUT;
    }
    for (uint16_t i = 0; i < size; ++i) {
        data[i] = input.front();
        input.pop_front();
    }
    return ESP_LOADER_SUCCESS;
}

void FakePort::startTimer(uint32_t ms) {
    timers.push_back(ms);
    deadlineMs = nowMs + ms;
}

uint32_t FakePort::remaining() const {
    return deadlineMs > nowMs ? static_cast<uint32_t>(deadlineMs - nowMs) : 0;
}

} // namespace fakeport

using fakeport::FakePort;

ESP_LOADER_NAMESPACE_BEGIN

esp_loader_error_t loader_port_write(const uint8_t* data, uint16_t size, uint32_t) {
    return FakePort::instance().write(data, size);
}

esp_loader_error_t loader_port_read(uint8_t* data, uint16_t size, uint32_t timeout) {
    return FakePort::instance().read(data, size, timeout);
}

void loader_port_delay_ms(uint32_t ms) {
    FakePort::instance().nowMs += ms;
    FakePort::instance().delayedMs += ms;
}

void loader_port_start_timer(uint32_t ms) {
    FakePort::instance().startTimer(ms);
}

uint32_t loader_port_remaining_time() {
    return FakePort::instance().remaining();
}

void loader_port_enter_bootloader() {
    ++FakePort::instance().enterBootloaderCalls;
}

void loader_port_reset_target() {
    ++FakePort::instance().resetCalls;
}

void loader_port_debug_print(const char* text) {
    if (text != nullptr) {
        FakePort::instance().prints.emplace_back(text);
    }
}

esp_loader_error_t loader_port_change_transmission_rate(uint32_t) {
    return ESP_LOADER_SUCCESS;
}

ESP_LOADER_NAMESPACE_END
