#pragma once

// The unit tests build the loader on this line as a variant of its own,
// beside the program's (esp_loader_error.h); include this header first.
#ifdef ESP_LOADER_NAMESPACE_BEGIN
#error "FakeLoaderPort.h must come before the loader's headers"
#endif
#define MERID_ESP_LOADER_VARIANT scripted

#include "esp_loader_error.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

// An in-memory line in place of the serial port, with a virtual clock: a read
// that finds nothing waiting lets its whole time pass at once. The loader's
// loader_port_* functions are linked against this in the unit tests.
namespace fakeport {

using Bytes = std::vector<uint8_t>;

struct Request {
    Bytes bytes;          // the frame as the chip sees it, unescaped
    uint32_t timerMs = 0; // the limit set by the last loader_port_start_timer
    uint8_t opcode() const { return bytes.size() > 1 ? bytes[1] : 0; }
    uint16_t sizeField() const { return static_cast<uint16_t>(bytes[2] | bytes[3] << 8); }
    uint32_t word(size_t offset) const;
    Bytes body() const { return Bytes(bytes.begin() + 8, bytes.end()); }
};

class FakePort {
public:
    static FakePort& instance();

    // Clears everything, including the loader's stub flag.
    void reset();

    // What the chip sends.
    void pushRaw(const Bytes& bytes);
    void pushFrame(const Bytes& payload); // escaped and framed
    void pushResponse(uint8_t opcode, uint32_t value = 0, const Bytes& data = {}, uint8_t status = 0,
                      uint8_t error = 0);
    size_t pendingInput() const { return input.size(); }

    // What the loader sent: each port write as it was made, and the frames.
    std::vector<Bytes> writes;
    std::vector<Request> requests;
    std::vector<uint32_t> timers;
    std::vector<std::string> prints;
    int enterBootloaderCalls = 0;
    int resetCalls = 0;
    int readCalls = 0;
    uint64_t nowMs = 0;
    uint64_t delayedMs = 0;

    // Called with each complete request frame; may push the answer.
    std::function<void(const Request&)> onRequest;
    // Called with the bytes of each write as they stand on the wire.
    std::function<void(const uint8_t*, size_t)> onWrite;
    // A write failure to return from the next writes.
    esp_loader_error_t writeResult = ESP_LOADER_SUCCESS;

    std::vector<uint8_t> opcodes() const;
    bool printed(const std::string& text) const;

    // Port side, called by the loader_port_* functions.
    esp_loader_error_t write(const uint8_t* data, uint16_t size);
    esp_loader_error_t read(uint8_t* data, uint16_t size, uint32_t timeout);
    void startTimer(uint32_t ms);
    uint32_t remaining() const;

private:
    void decode(uint8_t byte);

    std::deque<uint8_t> input;
    uint64_t deadlineMs = 0;
    Bytes frame;
    bool inEscape = false;
};

// Frames a payload as SLIP with a delimiter on each side.
Bytes slipFrame(const Bytes& payload);
// A response packet: direction 1, opcode, size, value, data, status, error.
Bytes responsePacket(uint8_t opcode, uint32_t value, const Bytes& data, uint8_t status, uint8_t error);
void putWord(Bytes& bytes, uint32_t value);

// Starts each test on a clean line, with the loader's stub flag cleared.
class PortTest : public ::testing::Test {
protected:
    void SetUp() override { port().reset(); }
    static FakePort& port() { return FakePort::instance(); }
    // The requests of one opcode, in the order they were sent.
    static std::vector<const Request*> requestsOf(uint8_t opcode) {
        std::vector<const Request*> out;
        for (const Request& r : port().requests) {
            if (r.opcode() == opcode) {
                out.push_back(&r);
            }
        }
        return out;
    }
};

} // namespace fakeport
