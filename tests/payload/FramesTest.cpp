#include "FastCrc8.h"
#include "PayloadTestKit.h"

#include <string>
#include <tuple>

using namespace payloadtest;

TEST(FastCrc8, CheckValueAndTable) {
    const std::string check = "123456789";
    EXPECT_EQ(FastCrc8::update(0, check.data(), check.size()), 0xA1);
    for (unsigned value = 0; value < 256; ++value) {
        EXPECT_EQ(FastCrc8::table()[value], referenceCrc({static_cast<std::uint8_t>(value)})) << value;
    }
}

TEST_F(PayloadTest, EachRequestWithItsTimeout) {
    // The frame that the ESP32 flow holds as a constant, with pack number 0.
    const unsigned char set[] = {0x00, 0x02, 0x03, 0x02, 0x08, 0x01, 0x00, 0x00, 0x00};
    handler.castCommand(set, sizeof(set), 500);
    EXPECT_EQ(drain().at(0).bytes,
              (Bytes{0x7E, 0x08, 0x00, 0x02, 0x03, 0x02, 0x08, 0x01, 0x00, 0x00, 0x00, 0x1E}));

    discover(2, 5);
    describe(2, {{8, "erase"}, {8, "eraseAll"}, {8, "eras"}, {12, "odd"}, {5, "wide"}});
    App::Device* device = handler.getDeviceHandler().getDevice(2);
    ASSERT_NE(device, nullptr);
    const std::uint64_t values[] = {0x55AA, 1, 1, 0xFF, 0x0102030405060708ull};
    for (std::uint8_t index = 0; index < 5; ++index) {
        device->getField(index)->setData(true, &values[index]);
    }
    // After a reset every request goes out under pack number 1.
    const std::tuple<MessageType, std::uint8_t, Bytes, unsigned> rows[] = {
        {SEARCH_DEVICES_MSG, 0, {1, 255, DEVICE_INFO_REQ}, 3000},
        {FIELD_INFO_MSG, 0, {1, 2, FIELD_INFO_REQ, 0}, 500},
        {GET_FIELD_MSG, 3, {1, 2, GET_FIELD_REQ, 3}, 100},
        {SET_FIELD_MSG, 0, {1, 2, SET_FIELD_REQ, 0, 8, 0xAA, 0x55, 0, 0}, 20000},
        {SET_FIELD_MSG, 1, {1, 2, SET_FIELD_REQ, 1, 8, 1, 0, 0, 0}, 20000}, // begins with "erase"
        {SET_FIELD_MSG, 2, {1, 2, SET_FIELD_REQ, 2, 8, 1, 0, 0, 0}, 500},
        {SET_FIELD_MSG, 3, {1, 2, SET_FIELD_REQ, 3, 12}, 500}, // a type above 11 has no value
        {SET_FIELD_MSG, 4, {1, 2, SET_FIELD_REQ, 4, 5, 8, 7, 6, 5, 4, 3, 2, 1}, 500},
    };
    for (const auto& [type, field, payload, timeout] : rows) {
        handler.resetState();
        ask(type, 2, field);
        auto sent = drain();
        ASSERT_EQ(sent.size(), 1u);
        EXPECT_EQ(sent[0].bytes, frame(payload)) << int(type) << "/" << int(field);
        EXPECT_EQ(sent[0].timeout, timeout) << int(type) << "/" << int(field);
    }

    // The update-mode request is no frame: 30 fixed bytes, and no answer awaited.
    ask(DFU_MSG, 2);
    auto sent = drain();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].bytes, (Bytes{0x3C, 0x91, 0x12, 0x01, 0x00, 0x4E, 0x7A, 0x3C, 0x91, 0x36,
                                    0x01, 0x13, 0xD6, 0x2B, 0xA7, 0x5E, 0x00, 0x06, 0x00, 0x00,
                                    0x00, 0x00, 0xA7, 0x5E, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00}));
    EXPECT_FALSE(handler.getPendingMessage(DFU_MSG));

    // A set for a device that has gone sends nothing and leaves nothing pending.
    handler.resetState();
    handler.getDeviceHandler().clearDeviceList();
    ask(SET_FIELD_MSG, 2, 0);
    EXPECT_EQ(handler.getPendingCount(), 0u);
    EXPECT_EQ(handler.getQueueSize(), 0u);
}

TEST_F(PayloadTest, PackNumberWrapsAndAResetStartsOverAtOne) {
    // Repeats of one search pile up on the queue; a plain clear waits for 26 of them.
    for (int i = 0; i < 25; ++i) {
        ask(SEARCH_DEVICES_MSG);
    }
    handler.clearQueue(false);
    EXPECT_EQ(handler.getQueueSize(), 25u);
    ask(SEARCH_DEVICES_MSG);
    handler.clearQueue(false);
    EXPECT_EQ(handler.getQueueSize(), 0u);
    while (pack() != 255) {
        ask(SEARCH_DEVICES_MSG);
    }
    EXPECT_EQ(log.count("Send queue is full!"), 254u);
    ask(SEARCH_DEVICES_MSG);
    EXPECT_EQ(drain().back().bytes, frame({0, 255, DEVICE_INFO_REQ}));
    discover(2, 0);
    ask(SEARCH_DEVICES_MSG);
    handler.loadProgress = 42;
    handler.resetState();
    EXPECT_EQ(handler.getQueueSize(), 0u);
    EXPECT_EQ(handler.getPendingCount(), 0u);
    EXPECT_EQ(handler.loadProgress.load(), 0);
    EXPECT_NE(handler.getDeviceHandler().getDevice(2), nullptr);
    ask(SEARCH_DEVICES_MSG);
    EXPECT_EQ(drain().back().bytes, (Bytes{0x7E, 0x02, 0x01, 0xFF, 0x01, 0x74}));
}
