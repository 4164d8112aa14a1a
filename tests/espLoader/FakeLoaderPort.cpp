#include "FakeLoaderPort.h"

#include "loader_port.h"
#include "protocol.h"

uint32_t Request::word(size_t at) const {
    return bytes.at(at) | bytes.at(at + 1) << 8 | bytes.at(at + 2) << 16 |
           static_cast<uint32_t>(bytes.at(at + 3)) << 24;
}

void putWord(Bytes& bytes, uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
}

Bytes slipFrame(const Bytes& payload) {
    Bytes out{0xC0};
    for (uint8_t b : payload) {
        if (b == 0xC0 || b == 0xDB) {
            out.insert(out.end(), {0xDB, static_cast<uint8_t>(b == 0xC0 ? 0xDC : 0xDD)});
        } else {
            out.push_back(b);
        }
    }
    out.push_back(0xC0);
    return out;
}

Bytes packet(uint8_t op, uint16_t size, uint32_t checksum, std::initializer_list<uint32_t> words,
             const Bytes& data) {
    Bytes out{0x00, op, static_cast<uint8_t>(size), static_cast<uint8_t>(size >> 8)};
    putWord(out, checksum);
    for (uint32_t w : words) {
        putWord(out, w);
    }
    out.insert(out.end(), data.begin(), data.end());
    return out;
}

FakeLine& FakeLine::get() {
    static FakeLine line;
    return line;
}

void FakeLine::reset() {
    *this = FakeLine();
    registers[0x40001000] = 0x00F01D83;
    esp_stub_set_running(false);
}

void FakeLine::respond(uint8_t op, uint32_t value, const Bytes& data, uint8_t status, uint8_t error) {
    Bytes packet{0x01, op, static_cast<uint8_t>(data.size() + 2), 0};
    putWord(packet, value);
    packet.insert(packet.end(), data.begin(), data.end());
    packet.insert(packet.end(), {status, error});
    push(slipFrame(packet));
}

// The chip's side of the framing: a frame ends at a C0 behind data.
void FakeLine::decode(uint8_t byte) {
    if (escaped) {
        escaped = false;
        frame.push_back(byte == 0xDC ? 0xC0 : byte == 0xDD ? 0xDB : byte);
    } else if (byte == 0xDB) {
        escaped = true;
    } else if (byte != 0xC0) {
        frame.push_back(byte);
    } else if (!frame.empty()) {
        requests.push_back({frame, loader_port_remaining_time()});
        frame.clear();
        if (rom) {
            answer(requests.back());
        }
    }
}

void FakeLine::answer(const Request& request) {
    const uint8_t op = request.op();
    if (silent[op]-- > 0) {
        return;
    }
    if (refused[op]-- > 0 || (op == 0x14 && !securityInfo)) {
        return respond(op, 0, {}, 1, 0xC1);
    }
    uint32_t value = 0;
    if (op == 0x0A) { // READ_REG
        value =
            busyLeft > 0 && request.word(8) == spiCmd ? (--busyLeft, 1u << 18) : registers[request.word(8)];
    } else if (op == 0x09) { // WRITE_REG; 0x40000 in cmd runs the identification
        registers[request.word(8)] = request.word(12);
        if (request.word(8) == spiCmd && request.word(12) == 0x40000) {
            registers[spiW0] = flashId;
            registers[spiCmd] = 0;
            busyLeft = busyReadings;
        }
    }
    for (int i = op == 0x08 ? 8 : 1; i > 0; --i) { // a sync is answered eight times
        respond(op, value, op == 0x14 ? *securityInfo : Bytes{});
    }
}

ESP_LOADER_NAMESPACE_BEGIN

esp_loader_error_t loader_port_write(const uint8_t* data, uint16_t size, uint32_t) {
    FakeLine& line = FakeLine::get();
    if (data == nullptr || size == 0 || line.writeResult != ESP_LOADER_SUCCESS) {
        return data == nullptr || size == 0 ? ESP_LOADER_ERROR_INVALID_PARAM : line.writeResult;
    }
    line.writes.emplace_back(data, data + size);
    std::for_each(data, data + size, [&line](uint8_t b) { line.decode(b); });
    return ESP_LOADER_SUCCESS;
}

esp_loader_error_t loader_port_read(uint8_t* data, uint16_t size, uint32_t timeout) {
    FakeLine& line = FakeLine::get();
    if (timeout == 0 || line.input.size() < size) {
        line.nowMs += timeout;
        return ESP_LOADER_ERROR_TIMEOUT;
    }
    std::copy_n(line.input.begin(), size, data);
    line.input.erase(line.input.begin(), line.input.begin() + size);
    return ESP_LOADER_SUCCESS;
}

void loader_port_delay_ms(uint32_t ms) {
    FakeLine::get().nowMs += ms;
}

void loader_port_start_timer(uint32_t ms) {
    FakeLine::get().deadlineMs = FakeLine::get().nowMs + ms;
}

uint32_t loader_port_remaining_time() {
    const FakeLine& line = FakeLine::get();
    return line.deadlineMs > line.nowMs ? static_cast<uint32_t>(line.deadlineMs - line.nowMs) : 0;
}

void loader_port_enter_bootloader() {}

void loader_port_reset_target() {}

void loader_port_debug_print(const char* text) {
    FakeLine::get().prints.emplace_back(text);
}

esp_loader_error_t loader_port_change_transmission_rate(uint32_t) {
    return ESP_LOADER_SUCCESS;
}

ESP_LOADER_NAMESPACE_END
