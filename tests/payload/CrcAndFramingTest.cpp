#include "FastCrc8.h"
#include "PayloadFixture.h"

#include <numeric>
#include <string>

using payloadkit::Bytes;

TEST(FastCrc8, CheckValueAndTable) {
    const std::string check = "123456789";
    EXPECT_EQ(FastCrc8::update(0, check.data(), check.size()), 0xA1);
    const auto& table = FastCrc8::table();
    for (unsigned value = 0; value < 256; ++value) {
        EXPECT_EQ(table[value], payloadkit::referenceCrc({static_cast<std::uint8_t>(value)})) << value;
    }
}

TEST(FastCrc8, RunsOnAcrossPiecesAndIgnoresNothing) {
    Bytes data(1000);
    std::iota(data.begin(), data.end(), 0);
    const unsigned char whole = FastCrc8::update(0, data.data(), data.size());
    unsigned char running = 0;
    for (std::size_t at = 0; at < data.size(); at += 7) {
        running = FastCrc8::update(running, data.data() + at, std::min<std::size_t>(7, data.size() - at));
    }
    EXPECT_EQ(running, whole);
    EXPECT_EQ(whole, payloadkit::referenceCrc(data));
    EXPECT_EQ(FastCrc8::update(0x42, data.data(), 0), 0x42);
    EXPECT_EQ(FastCrc8::update(0x42, nullptr, 10), 0x42);
}

class FramingTest : public PayloadFixture {};

TEST_F(FramingTest, BroadcastSearchIsTheKnownFrame) {
    handler.onMessage(SEARCH_DEVICES_MSG, nullptr);
    handler.generateResponse(SEARCH_DEVICES_MSG);
    auto sent = payloadkit::drainWithTimeouts(handler);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].bytes, (Bytes{0x7E, 0x02, 0x01, 0xFF, 0x01, 0x74}));
    EXPECT_EQ(sent[0].timeout, 3000u);
    EXPECT_EQ(handler.getLastCommand(), DEVICE_INFO_REQ);
    EXPECT_EQ(handler.getCurrentMessage(), SEARCH_DEVICES_MSG);
}

TEST_F(FramingTest, WorkedSetFieldFrame) {
    const unsigned char payload[] = {0x00, 0x02, 0x03, 0x02, 0x08, 0x01, 0x00, 0x00, 0x00};
    handler.castCommand(payload, sizeof(payload), 500);
    auto sent = payloadkit::drain(handler);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0], (Bytes{0x7E, 0x08, 0x00, 0x02, 0x03, 0x02, 0x08, 0x01, 0x00, 0x00, 0x00, 0x1E}));
    EXPECT_EQ(handler.getLastCommand(), SET_FIELD_REQ);
}

TEST_F(FramingTest, LargestPayloadAndTheSyncByteInside) {
    Bytes payload(255, 0x7E);
    payload[2] = FILE_WRITE_REQ;
    handler.castCommand(payload.data(), 255, 500);
    auto sent = payloadkit::drain(handler);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0], payloadkit::frame(payload));
    EXPECT_EQ(sent[0][1], 254);
    EXPECT_EQ(sent[0].size(), 258u);
}

TEST_F(FramingTest, ShortMissingAndEmptyPayloads) {
    const unsigned char two[] = {1, 2};
    handler.castCommand(two, 2, 500);
    handler.castCommand(nullptr, 4, 500);
    EXPECT_EQ(handler.getQueueSize(), 0u);
    EXPECT_TRUE(log.contains("castCommand", BaseLogger::ERROR));

    // An empty message is queued with its command.
    const unsigned char payload[] = {9, 2, FILE_READ_REQ};
    handler.castCommand(payload, 0, 123);
    auto sent = payloadkit::drainWithTimeouts(handler);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_TRUE(sent[0].bytes.empty());
    EXPECT_EQ(sent[0].timeout, 123u);
    EXPECT_EQ(handler.getLastCommand(), FILE_READ_REQ);
}

TEST_F(FramingTest, QueueKeepsCopiesAndClearsFromTwentySix) {
    unsigned char payload[] = {1, 2, 3, 4};
    for (int i = 0; i < 25; ++i) {
        handler.addToQueue(payload, sizeof(payload), 7);
    }
    payload[0] = 99; // the queue holds its own copy
    EXPECT_EQ(handler.fetchToQueue().data[0], 1);
    handler.clearQueue(false);
    EXPECT_EQ(handler.getQueueSize(), 25u);
    handler.addToQueue(payload, sizeof(payload), 7);
    handler.clearQueue(false);
    EXPECT_EQ(handler.getQueueSize(), 0u);
    handler.clearQueue(true);
    handler.freeFrontFromQueue(); // an empty queue stays as it is
    EXPECT_EQ(handler.getQueueSize(), 0u);
    EXPECT_EQ(handler.fetchToQueue().data, nullptr);
    EXPECT_EQ(handler.getType(), 0);
}
