#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

// What a raw-mode handler may do with the simulated link: answer the program
// (through the same pacing and fault machinery as the payload devices) and
// give the link back to the payload devices. An answer may be held back
// `delay` beyond the usual turnaround, as a busy chip's is.
class SimLink {
public:
    virtual ~SimLink() = default;
    virtual void send(const std::uint8_t* data, std::size_t size, std::chrono::milliseconds delay) = 0;
    virtual void leaveRawMode() = 0;
};
