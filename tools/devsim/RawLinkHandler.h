#pragma once

#include "SimLink.h"

#include <cstddef>
#include <cstdint>

// Takes over the link from the payload devices. The board hands its one serial
// link to another chip when the program asks for it (the frame that enters the
// ESP32 ROM loader); from then on every byte the program writes goes to this
// handler instead of the frame reader, until it calls SimLink::leaveRawMode().
// All calls come from the simulator's own thread.
class RawLinkHandler {
public:
    virtual ~RawLinkHandler() = default;
    // Bytes the program wrote, in order, in blocks as they arrived.
    virtual void onBytes(const std::uint8_t* data, std::size_t size, SimLink& link) = 0;
    // The program closed its end of the port, or opened it again. The
    // program closes and reopens the port right after asking for the switch.
    virtual void onPortClosed() {}
    virtual void onPortOpened(SimLink& link) { (void)link; }
};
