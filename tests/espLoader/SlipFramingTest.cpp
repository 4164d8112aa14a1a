#include "FakeLoaderPort.h"
#include "slip.h"

#include <gtest/gtest.h>

using fakeport::Bytes;

namespace {

class Slip : public fakeport::PortTest {
protected:
    void SetUp() override {
        PortTest::SetUp();
        port().startTimer(1000);
    }

    esp_loader_error_t receive(uint32_t capacity, Bytes& out) {
        out.assign(capacity, 0xAA);
        uint32_t received = 0xFFFF;
        const esp_loader_error_t result = SLIP_receive_packet(out.data(), capacity, &received);
        if (result == ESP_LOADER_SUCCESS) {
            out.resize(received);
        }
        return result;
    }
};

} // namespace

TEST_F(Slip, SendWritesPlainRunsAndEachEscapeSeparately) {
    const std::pair<Bytes, std::vector<Bytes>> cases[] = {
        {{}, {}},
        {{0x00, 0xC0, 0xDB, 0x01}, {{0x00}, {0xDB, 0xDC}, {0xDB, 0xDD}, {0x01}}},
        {{1, 2, 3, 4, 5}, {{1, 2, 3, 4, 5}}},
        {{0xC0, 0xC0}, {{0xDB, 0xDC}, {0xDB, 0xDC}}}, // no empty run behind an escape
    };
    for (const auto& [data, writes] : cases) {
        port().writes.clear();
        ASSERT_EQ(SLIP_send(data.data(), static_cast<uint32_t>(data.size())), ESP_LOADER_SUCCESS);
        EXPECT_EQ(port().writes, writes) << data.size();
    }
    port().writes.clear();
    ASSERT_EQ(SLIP_send_delimiter(), ESP_LOADER_SUCCESS);
    EXPECT_EQ(port().writes, std::vector<Bytes>{{0xC0}});

    // Runs longer than one port write are split.
    port().writes.clear();
    Bytes big(70000, 0x11);
    ASSERT_EQ(SLIP_send(big.data(), static_cast<uint32_t>(big.size())), ESP_LOADER_SUCCESS);
    ASSERT_EQ(port().writes.size(), 2u);
    EXPECT_EQ(port().writes[0].size(), 65535u);
    EXPECT_EQ(port().writes[1].size(), 70000u - 65535u);

    port().writeResult = ESP_LOADER_ERROR_FAIL;
    const uint8_t escaped[] = {0x00, 0xC0};
    EXPECT_EQ(SLIP_send(escaped, 2), ESP_LOADER_ERROR_FAIL);
    EXPECT_EQ(SLIP_send_delimiter(), ESP_LOADER_ERROR_FAIL);
}

TEST_F(Slip, ReceiveSkipsGarbageAndUnescapesAllButTheFirstByte) {
    const std::tuple<Bytes, uint32_t, Bytes> cases[] = {
        {{0x12, 0x34, 0xDB, 0xC0, 0xC0, 0xC0, 0x01, 0xDB, 0xDC, 0xDB, 0xDD, 0x02, 0xC0},
         16,
         {1, 0xC0, 0xDB, 2}},
        {{0xC0, 0xDB, 0xDD, 0xC0}, 8, {0xDB, 0xDD}},
        {{0xC0, 1, 2, 3, 0xC0}, 3, {1, 2, 3}}, // exactly the capacity
    };
    for (const auto& [raw, capacity, expected] : cases) {
        port().pushRaw(raw);
        Bytes frame;
        ASSERT_EQ(receive(capacity, frame), ESP_LOADER_SUCCESS);
        EXPECT_EQ(frame, expected);
        EXPECT_EQ(port().pendingInput(), 0u);
    }
}

TEST_F(Slip, OverlongFrameIsCutAndTheRestDropped) {
    port().pushRaw({0xC0, 1, 2, 3, 4, 5, 6, 0xDB, 0x00, 7, 0xC0});
    port().pushFrame({9, 8});
    Bytes frame;
    ASSERT_EQ(receive(4, frame), ESP_LOADER_SUCCESS);
    EXPECT_EQ(frame, (Bytes{1, 2, 3, 4}));
    // The dropped tail is not unescaped, so its bad pair doesn't matter.
    ASSERT_EQ(receive(4, frame), ESP_LOADER_SUCCESS);
    EXPECT_EQ(frame, (Bytes{9, 8}));
}

TEST_F(Slip, BadEscapeSilenceAndAnExpiredTimerFail) {
    port().pushRaw({0xC0, 0x01, 0xDB, 0x00, 0x02, 0xC0});
    Bytes frame;
    EXPECT_EQ(receive(16, frame), ESP_LOADER_ERROR_INVALID_RESPONSE);

    EXPECT_EQ(receive(16, frame), ESP_LOADER_ERROR_TIMEOUT);
    port().startTimer(1000);
    port().pushRaw({0xC0, 0x01, 0x02}); // a frame that never ends
    EXPECT_EQ(receive(16, frame), ESP_LOADER_ERROR_TIMEOUT);

    port().reset();
    port().startTimer(0);
    port().pushFrame({1});
    EXPECT_EQ(receive(16, frame), ESP_LOADER_ERROR_TIMEOUT);
    EXPECT_EQ(port().readCalls, 0);
}
