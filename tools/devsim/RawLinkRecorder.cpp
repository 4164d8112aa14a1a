#include "RawLinkRecorder.h"

namespace {

constexpr std::uint8_t kFrameEnd = 0xC0;

} // namespace

// Sits between the simulator and the real handler.
class RawLinkRecorder::Tap : public RawLinkHandler {
public:
    Tap(RawLinkRecorder& recorder, std::unique_ptr<RawLinkHandler> inner)
        : recorder(recorder), inner(std::move(inner)) {}

    void onBytes(const std::uint8_t* data, std::size_t size, SimLink& link) override {
        recorder.takeBytes(data, size);
        inner->onBytes(data, size, link);
    }

    void onPortClosed() override {
        recorder.takeEvent(Entry::PortClosed);
        inner->onPortClosed();
    }

    void onPortOpened(SimLink& link) override {
        recorder.takeEvent(Entry::PortOpened);
        inner->onPortOpened(link);
    }

private:
    RawLinkRecorder& recorder;
    std::unique_ptr<RawLinkHandler> inner;
};

RawLinkRecorder::Factory RawLinkRecorder::wrap(Factory inner) {
    return [this, inner = std::move(inner)]() -> std::unique_ptr<RawLinkHandler> {
        auto handler = inner();
        if (!handler) {
            return nullptr;
        }
        return std::make_unique<Tap>(*this, std::move(handler));
    };
}

std::vector<RawLinkRecorder::Entry> RawLinkRecorder::entries() {
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<Entry> out = finished;
    if (!piece.bytes.empty()) {
        out.push_back(piece);
    }
    return out;
}

void RawLinkRecorder::takeBytes(const std::uint8_t* data, std::size_t size) {
    std::lock_guard<std::mutex> lock(mutex);
    for (std::size_t i = 0; i < size; ++i) {
        const std::uint8_t byte = data[i];
        if (byte != kFrameEnd) {
            if (piece.bytes.empty()) {
                piece.at = Clock::now();
            }
            piece.bytes.push_back(byte);
            continue;
        }
        if (inFrame && piece.bytes.size() > 1) {
            // The end of a frame.
            piece.bytes.push_back(byte);
            finishPiece();
            inFrame = false;
        } else if (!inFrame) {
            // The start of a frame; stray bytes before it stand alone.
            finishPiece();
            piece.at = Clock::now();
            piece.bytes.push_back(byte);
            inFrame = true;
        }
        // Two C0 in a row: the second one opens the frame the first one did.
    }
}

void RawLinkRecorder::takeEvent(Entry::Kind kind) {
    std::lock_guard<std::mutex> lock(mutex);
    finishPiece();
    inFrame = false;
    Entry event;
    event.kind = kind;
    event.at = Clock::now();
    finished.push_back(std::move(event));
}

void RawLinkRecorder::finishPiece() {
    if (!piece.bytes.empty()) {
        finished.push_back(std::move(piece));
    }
    piece = Entry{};
}
