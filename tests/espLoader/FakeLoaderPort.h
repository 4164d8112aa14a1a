#pragma once

// The unit tests build the loader in a variant of its own on this in-memory
// line; include this header before the loader's.
#ifdef ESP_LOADER_NAMESPACE_BEGIN
#error "FakeLoaderPort.h must come before the loader's headers"
#endif
#define MERID_ESP_LOADER_VARIANT scripted

#include "esp_loader_error.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

// One request as the chip saw it, unescaped, with the time left on the timer.
struct Request {
    Bytes bytes;
    uint32_t timerMs = 0;
    uint8_t op() const { return bytes.at(1); }
    uint32_t word(size_t at) const;
};

// The line and a small ROM loader at its far end, on a virtual clock: a read
// that finds too little waiting lets its whole limit pass at once.
struct FakeLine {
    static FakeLine& get();
    void reset(); // also clears the loader's stub flag
    void push(const Bytes& raw) { input.insert(input.end(), raw.begin(), raw.end()); }
    void respond(uint8_t op, uint32_t value = 0, const Bytes& data = {}, uint8_t status = 0,
                 uint8_t error = 0);
    bool printed(const std::string& text) const {
        return std::find(prints.begin(), prints.end(), text) != prints.end();
    }
    void decode(uint8_t byte);
    void answer(const Request& request);

    // The chip; with `rom` off the test answers by itself.
    bool rom = true;
    std::optional<Bytes> securityInfo;                // none: the command is refused
    std::map<uint32_t, uint32_t> registers;           // the magic register holds an ESP32's value
    uint32_t spiCmd = 0x3FF42000, spiW0 = 0x3FF42080; // an ESP32's flash controller
    uint32_t flashId = 0x1640EF;                      // 4 MiB
    int busyReadings = 0;                             // readings of spiCmd still busy
    std::map<uint8_t, int> silent;                    // requests of an opcode left unanswered, counted down
    std::map<uint8_t, int> refused;                   // answered with status 1 and error 0xC1, counted down

    std::vector<Bytes> writes;
    std::vector<Request> requests;
    std::vector<std::string> prints;
    uint64_t nowMs = 0, deadlineMs = 0;
    esp_loader_error_t writeResult = ESP_LOADER_SUCCESS;
    std::deque<uint8_t> input;
    Bytes frame;
    bool escaped = false;
    int busyLeft = 0;
};

Bytes slipFrame(const Bytes& payload);
// A request: direction 0, opcode, size field, checksum, 32-bit words, data.
Bytes packet(uint8_t op, uint16_t size, uint32_t checksum, std::initializer_list<uint32_t> words,
             const Bytes& data = {});
void putWord(Bytes& bytes, uint32_t value);

class LineTest : public ::testing::Test {
protected:
    void SetUp() override { line().reset(); }
    static FakeLine& line() { return FakeLine::get(); }
    static Bytes opcodes() {
        Bytes out;
        for (const Request& r : line().requests) {
            out.push_back(r.op());
        }
        return out;
    }
    static std::vector<Request> sent(uint8_t op) {
        std::vector<Request> out;
        std::copy_if(line().requests.begin(), line().requests.end(), std::back_inserter(out),
                     [op](const Request& r) { return r.op() == op; });
        return out;
    }
};
