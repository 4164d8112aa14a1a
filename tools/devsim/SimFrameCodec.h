#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

// The board's side of the framing: 0x7E, length - 1, payload, CRC-8 of the
// payload. The reader keeps its state between blocks and reports every frame
// it completes, with its raw bytes, and every byte it skipped between frames.
class SimFrameCodec {
public:
    struct Frame {
        std::vector<std::uint8_t> raw;
        bool crcOk = false;
        // The payload is raw[2 .. raw.size() - 2].
        const std::uint8_t* payload() const { return raw.data() + 2; }
        std::size_t payloadSize() const { return raw.size() - 3; }
    };

    // Feeds bytes; `onFrame` gets each complete frame, good or bad CRC. When
    // it returns false the walk stops behind that frame, as the rest of the
    // block belongs to someone else. Returns the number of bytes consumed.
    std::size_t feed(const std::uint8_t* data, std::size_t size,
                     const std::function<bool(const Frame&)>& onFrame);

    // Bytes skipped while looking for a sync byte, since construction.
    std::uint64_t strayBytes() const { return stray; }
    void reset();

    // A payload of 1 to 255 bytes as a frame; an empty or longer one gives nothing.
    static std::vector<std::uint8_t> encode(const std::vector<std::uint8_t>& payload);

private:
    enum class State { Sync, Length, Payload, Crc };
    State state = State::Sync;
    std::size_t expected = 0;
    std::vector<std::uint8_t> current;
    std::uint64_t stray = 0;
};
