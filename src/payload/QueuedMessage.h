#pragma once

#include <cstdint>

// One frame on the send queue. The queue owns `data` (an array) and frees it
// when the element leaves; a copy handed out by fetchToQueue only borrows it.
struct QueuedMessage {
    unsigned char* data = nullptr;
    std::uint64_t size = 0;
    // How long the listener waits for the answer, in milliseconds.
    std::uint32_t timeout = 0;
};
