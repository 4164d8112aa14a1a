#include "RawLinkRecorder.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

using Bytes = std::vector<std::uint8_t>;

namespace {

// Stands for the ESP32 bridge: keeps what reaches it.
class Sink : public RawLinkHandler {
public:
    explicit Sink(Bytes& received, int& events) : received(received), events(events) {}
    void onBytes(const std::uint8_t* data, std::size_t size, SimLink&) override {
        received.insert(received.end(), data, data + size);
    }
    void onPortClosed() override { ++events; }
    void onPortOpened(SimLink&) override { ++events; }

private:
    Bytes& received;
    int& events;
};

class NoLink : public SimLink {
public:
    void send(const std::uint8_t*, std::size_t) override {}
    void leaveRawMode() override {}
};

} // namespace

TEST(RawLinkRecorder, CutsTheStreamIntoFramesAndPassesEverythingOn) {
    RawLinkRecorder recorder;
    Bytes received;
    int events = 0;
    auto factory = recorder.wrap([&] { return std::make_unique<Sink>(received, events); });
    auto handler = factory();
    ASSERT_NE(handler, nullptr);
    NoLink link;

    // Noise, a frame split over two blocks, an empty pair of ends, a frame.
    const Bytes first{0x41, 0x42, 0xC0, 0x00, 0x08};
    const Bytes second{0x24, 0xC0, 0xC0, 0xC0, 0x01, 0xC0};
    handler->onBytes(first.data(), first.size(), link);
    handler->onBytes(second.data(), second.size(), link);
    handler->onPortClosed();
    handler->onPortOpened(link);
    const Bytes open{0xC0, 0x00, 0x0A};
    handler->onBytes(open.data(), open.size(), link);

    Bytes all = first;
    all.insert(all.end(), second.begin(), second.end());
    all.insert(all.end(), open.begin(), open.end());
    EXPECT_EQ(received, all);
    EXPECT_EQ(events, 2);

    const auto entries = recorder.entries();
    ASSERT_EQ(entries.size(), 6u);
    EXPECT_EQ(entries[0].bytes, (Bytes{0x41, 0x42}));
    EXPECT_EQ(entries[1].bytes, (Bytes{0xC0, 0x00, 0x08, 0x24, 0xC0}));
    EXPECT_EQ(entries[2].bytes, (Bytes{0xC0, 0x01, 0xC0}));
    EXPECT_EQ(entries[3].kind, RawLinkRecorder::Entry::PortClosed);
    EXPECT_EQ(entries[4].kind, RawLinkRecorder::Entry::PortOpened);
    // A frame still open at the end comes last, as far as it got.
    EXPECT_EQ(entries[5].kind, RawLinkRecorder::Entry::Bytes);
    EXPECT_EQ(entries[5].bytes, open);
    for (std::size_t i = 1; i < entries.size(); ++i) {
        EXPECT_LE(entries[i - 1].at, entries[i].at);
    }
}

TEST(RawLinkRecorder, AFactoryWithoutAHandlerGivesNone) {
    RawLinkRecorder recorder;
    auto factory = recorder.wrap([]() -> std::unique_ptr<RawLinkHandler> { return nullptr; });
    EXPECT_EQ(factory(), nullptr);
    EXPECT_TRUE(recorder.entries().empty());
}
