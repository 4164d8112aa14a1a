#include "FakeLoaderPort.h"
#include "slip.h"

#include <gtest/gtest.h>

using fakeport::Bytes;
using fakeport::FakePort;

namespace {

class Slip : public ::testing::Test {
protected:
    void SetUp() override {
        port().reset();
        port().startTimer(1000);
    }
    static FakePort& port() { return FakePort::instance(); }

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

TEST_F(Slip, EmptySendWritesNothing) {
    const uint8_t byte = 0x55;
    EXPECT_EQ(SLIP_send(&byte, 0), ESP_LOADER_SUCCESS);
    EXPECT_TRUE(port().writes.empty());
}

TEST_F(Slip, EscapesGoOutAsSeparateWritesBetweenRuns) {
    const uint8_t data[] = {0x00, 0xC0, 0xDB, 0x01};
    ASSERT_EQ(SLIP_send(data, sizeof(data)), ESP_LOADER_SUCCESS);
    const std::vector<Bytes> expected = {{0x00}, {0xDB, 0xDC}, {0xDB, 0xDD}, {0x01}};
    EXPECT_EQ(port().writes, expected);
}

TEST_F(Slip, PlainDataIsOneWriteAndTrailingEscapeLeavesNoEmptyRun) {
    const uint8_t plain[] = {1, 2, 3, 4, 5};
    ASSERT_EQ(SLIP_send(plain, sizeof(plain)), ESP_LOADER_SUCCESS);
    ASSERT_EQ(port().writes.size(), 1u);
    EXPECT_EQ(port().writes[0], Bytes(plain, plain + 5));

    port().writes.clear();
    const uint8_t escapesOnly[] = {0xC0, 0xC0};
    ASSERT_EQ(SLIP_send(escapesOnly, sizeof(escapesOnly)), ESP_LOADER_SUCCESS);
    const std::vector<Bytes> expected = {{0xDB, 0xDC}, {0xDB, 0xDC}};
    EXPECT_EQ(port().writes, expected);
}

TEST_F(Slip, RunsLongerThanOnePortWriteAreSplit) {
    Bytes big(70000, 0x11);
    ASSERT_EQ(SLIP_send(big.data(), static_cast<uint32_t>(big.size())), ESP_LOADER_SUCCESS);
    ASSERT_EQ(port().writes.size(), 2u);
    EXPECT_EQ(port().writes[0].size(), 65535u);
    EXPECT_EQ(port().writes[1].size(), 70000u - 65535u);
}

TEST_F(Slip, WriteFailureEndsTheSend) {
    port().writeResult = ESP_LOADER_ERROR_FAIL;
    const uint8_t data[] = {0x00, 0xC0};
    EXPECT_EQ(SLIP_send(data, sizeof(data)), ESP_LOADER_ERROR_FAIL);
    EXPECT_EQ(SLIP_send_delimiter(), ESP_LOADER_ERROR_FAIL);
}

TEST_F(Slip, DelimiterIsOneC0) {
    ASSERT_EQ(SLIP_send_delimiter(), ESP_LOADER_SUCCESS);
    EXPECT_EQ(port().writes, std::vector<Bytes>{{0xC0}});
}

TEST_F(Slip, GarbageAndRepeatedDelimitersBeforeAFrameAreSkipped) {
    port().pushRaw({0x12, 0x34, 0xDB, 0xC0, 0xC0, 0xC0, 0x01, 0xDB, 0xDC, 0xDB, 0xDD, 0x02, 0xC0});
    Bytes frame;
    ASSERT_EQ(receive(16, frame), ESP_LOADER_SUCCESS);
    EXPECT_EQ(frame, (Bytes{0x01, 0xC0, 0xDB, 0x02}));
    EXPECT_EQ(port().pendingInput(), 0u);
}

TEST_F(Slip, FirstByteIsStoredAsItStands) {
    // Only bytes after the first are unescaped.
    port().pushRaw({0xC0, 0xDB, 0xDD, 0xC0});
    Bytes frame;
    ASSERT_EQ(receive(8, frame), ESP_LOADER_SUCCESS);
    EXPECT_EQ(frame, (Bytes{0xDB, 0xDD}));
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

TEST_F(Slip, FrameOfExactlyTheCapacityIsWhole) {
    port().pushFrame({1, 2, 3});
    Bytes frame;
    ASSERT_EQ(receive(3, frame), ESP_LOADER_SUCCESS);
    EXPECT_EQ(frame, (Bytes{1, 2, 3}));
    EXPECT_EQ(port().pendingInput(), 0u);
}

TEST_F(Slip, BadEscapeIsAnInvalidResponse) {
    port().pushRaw({0xC0, 0x01, 0xDB, 0x00, 0x02, 0xC0});
    Bytes frame;
    EXPECT_EQ(receive(16, frame), ESP_LOADER_ERROR_INVALID_RESPONSE);
}

TEST_F(Slip, SilenceRunsOutTheTimer) {
    Bytes frame;
    EXPECT_EQ(receive(16, frame), ESP_LOADER_ERROR_TIMEOUT);
    // A frame that never ends runs it out as well.
    port().startTimer(1000);
    port().pushRaw({0xC0, 0x01, 0x02});
    EXPECT_EQ(receive(16, frame), ESP_LOADER_ERROR_TIMEOUT);
}

TEST_F(Slip, ExpiredTimerDoesNotTouchThePort) {
    port().startTimer(0);
    port().pushFrame({1});
    Bytes frame;
    EXPECT_EQ(receive(16, frame), ESP_LOADER_ERROR_TIMEOUT);
    EXPECT_EQ(port().readCalls, 0);
}
