#include "SimFrameCodec.h"

#include "SimCrc8.h"

std::size_t SimFrameCodec::feed(const std::uint8_t* data, std::size_t size,
                                const std::function<bool(const Frame&)>& onFrame) {
    for (std::size_t i = 0; i < size; ++i) {
        const std::uint8_t byte = data[i];
        switch (state) {
        case State::Sync:
            if (byte == 0x7E) {
                current.assign(1, byte);
                state = State::Length;
            } else {
                ++stray;
            }
            break;
        case State::Length:
            current.push_back(byte);
            if (byte == 255) {
                // Longer than any payload: not a frame, look for the next sync.
                stray += 2;
                state = State::Sync;
            } else {
                expected = static_cast<std::size_t>(byte) + 1;
                state = State::Payload;
            }
            break;
        case State::Payload:
            current.push_back(byte);
            if (current.size() == expected + 2) {
                state = State::Crc;
            }
            break;
        case State::Crc: {
            current.push_back(byte);
            Frame frame;
            frame.raw.swap(current);
            frame.crcOk = SimCrc8::compute(frame.payload(), frame.payloadSize()) == byte;
            state = State::Sync;
            if (!onFrame(frame)) {
                return i + 1;
            }
            break;
        }
        }
    }
    return size;
}

void SimFrameCodec::reset() {
    state = State::Sync;
    current.clear();
    expected = 0;
}

std::vector<std::uint8_t> SimFrameCodec::encode(const std::vector<std::uint8_t>& payload) {
    std::vector<std::uint8_t> frame;
    if (payload.empty() || payload.size() > 255) {
        return frame;
    }
    frame.reserve(payload.size() + 3);
    frame.push_back(0x7E);
    frame.push_back(static_cast<std::uint8_t>(payload.size() - 1));
    frame.insert(frame.end(), payload.begin(), payload.end());
    frame.push_back(SimCrc8::compute(payload.data(), payload.size()));
    return frame;
}
