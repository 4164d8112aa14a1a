#pragma once

#include "RawLinkHandler.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

// Keeps what the program writes while the link is in raw mode, for the
// journal of merid-devsim: the bytes cut into SLIP frames (C0 to C0; bytes
// outside a frame make a piece of their own), and the port's closes and
// opens, each with its time. Everything is passed on unchanged to the
// handler that the wrapped factory makes.
class RawLinkRecorder {
public:
    using Clock = std::chrono::steady_clock;
    using Factory = std::function<std::unique_ptr<RawLinkHandler>()>;

    struct Entry {
        enum Kind { Bytes, PortClosed, PortOpened };
        Kind kind = Bytes;
        std::vector<std::uint8_t> bytes;
        Clock::time_point at;
    };

    // A factory for DeviceSimulator::setRawModeFactory whose handlers are
    // those of `inner`, recorded here. The recorder must outlive them, that
    // is the simulator they serve.
    Factory wrap(Factory inner);

    // What was recorded, in order; a frame still open comes last.
    std::vector<Entry> entries();

private:
    class Tap;

    void takeBytes(const std::uint8_t* data, std::size_t size);
    void takeEvent(Entry::Kind kind);
    void finishPiece();

    std::mutex mutex;
    std::vector<Entry> finished;
    Entry piece;
    bool inFrame = false;
};
