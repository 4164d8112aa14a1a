// What the load tests read back from the board and cannot check themselves.
#include "SimDevice.h"
#include "RawLinkRecorder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <vector>

using Bytes = std::vector<std::uint8_t>;

// File 1: a chunk before any erase, then erase, two chunks, a finish at the
// wrong offset and one at the right one.
TEST(SimDevice, KeepsAFileWrittenInStepsAndCountsAWriteBeforeTheErase) {
    SimDevice device = SimDevice::standard(2, "MeridKestal STM32");
    auto step = [&](std::uint8_t pack, std::uint8_t offset, const Bytes& chunk) {
        Bytes request{pack, 2, 8, 1, offset, 0, 0, 0};
        request.resize(request.size() + chunk.size());
        std::copy(chunk.begin(), chunk.end(), request.end() - static_cast<long>(chunk.size()));
        auto response = device.handle(request, 0);
        return response ? response->payload : Bytes{};
    };
    step(3, 0, {9});
    step(4, 0, {});
    step(5, 0, {1, 2, 3});
    step(6, 3, {4, 5});
    EXPECT_EQ(step(7, 4, {}), (Bytes{7, 2, SimDevice::kStatusBadRequest}));
    EXPECT_EQ(step(8, 5, {}), (Bytes{8, 2, 0}));
    EXPECT_EQ(device.finishedImage(1), (Bytes{1, 2, 3, 4, 5}));
    EXPECT_EQ(device.getCounters().writesWithoutErase, 1u);
}

namespace {

// Takes the recorded bytes and sends nothing back.
struct Null : RawLinkHandler, SimLink {
    void onBytes(const std::uint8_t*, std::size_t, SimLink&) override {}
    void send(const std::uint8_t*, std::size_t, std::chrono::milliseconds) override {}
    void leaveRawMode() override {}
};

} // namespace

// The journal of a run must not depend on how the port cut the bytes.
TEST(RawLinkRecorder, CutsTheStreamIntoFrames) {
    RawLinkRecorder recorder;
    auto handler = recorder.wrap([] { return std::make_unique<Null>(); })();
    Null link;
    // Noise, a frame split over two blocks, a frame between two ends, and a
    // frame still open at the end.
    const Bytes first{0x41, 0x42, 0xC0, 0x00, 0x08};
    const Bytes second{0x24, 0xC0, 0xC0, 0xC0, 0x01, 0xC0, 0xC0, 0x00, 0x0A};
    handler->onBytes(first.data(), first.size(), link);
    handler->onBytes(second.data(), second.size(), link);
    const auto entries = recorder.entries();
    ASSERT_EQ(entries.size(), 4u);
    EXPECT_EQ(entries[0].bytes, (Bytes{0x41, 0x42}));
    EXPECT_EQ(entries[1].bytes, (Bytes{0xC0, 0x00, 0x08, 0x24, 0xC0}));
    EXPECT_EQ(entries[2].bytes, (Bytes{0xC0, 0x01, 0xC0}));
    EXPECT_EQ(entries[3].bytes, (Bytes{0xC0, 0x00, 0x0A}));
}
