#include "PayloadFixture.h"

#include <string>

using payloadkit::Bytes;
using payloadkit::feed;

class RequestsTest : public PayloadFixture {
protected:
    void search() {
        handler.onMessage(SEARCH_DEVICES_MSG, nullptr);
        handler.generateResponse(SEARCH_DEVICES_MSG);
    }

    payloadkit::Sent setField(std::uint8_t device, std::uint8_t field) {
        MessageArgs args;
        args.device = device;
        args.field = field;
        handler.onMessage(SET_FIELD_MSG, &args);
        handler.generateResponse(SET_FIELD_MSG);
        auto sent = payloadkit::drainWithTimeouts(handler);
        // Answered, so that the next set is a new message and not a repeat.
        feed(handler, payloadkit::statusAnswer(handler.getPackNumber(), device));
        return sent.size() == 1 ? sent[0] : payloadkit::Sent{};
    }
};

TEST_F(RequestsTest, RepeatedSearchTakesTheNextPackNumber) {
    search();
    search();
    EXPECT_EQ(log.count("Send queue is full!"), 1u);
    auto sent = payloadkit::drain(handler);
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0], (Bytes{0x7E, 0x02, 0x01, 0xFF, 0x01, 0x74}));
    EXPECT_EQ(sent[1], payloadkit::frame({2, 0xFF, DEVICE_INFO_REQ}));
    // Only the answer to the newest request counts.
    feed(handler, payloadkit::deviceInfoAnswer(1, 2, "Old", 0));
    EXPECT_EQ(handler.getDeviceHandler().getDevice(2), nullptr);
    feed(handler, payloadkit::deviceInfoAnswer(2, 2, "New", 0));
    EXPECT_NE(handler.getDeviceHandler().getDevice(2), nullptr);
}

TEST_F(RequestsTest, PackNumberWrapsAndRestartsAfterAReset) {
    for (int i = 0; i < 255; ++i) {
        search();
    }
    EXPECT_EQ(handler.getPackNumber(), 255);
    search();
    EXPECT_EQ(handler.getPackNumber(), 0);
    handler.resetState();
    EXPECT_EQ(handler.getQueueSize(), 0u);
    search();
    auto sent = payloadkit::drain(handler);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0], (Bytes{0x7E, 0x02, 0x01, 0xFF, 0x01, 0x74}));
}

TEST_F(RequestsTest, SetFieldFramesTheHeldValueWithItsTimeout) {
    discover(2, 6);
    describeFields(
        2, {{8, "erase"}, {8, "eraseAll"}, {8, "eras"}, {8, "enterBootloader"}, {12, "odd"}, {5, "wide"}});
    App::Device* device = handler.getDeviceHandler().getDevice(2);
    const std::uint32_t one = 1;
    for (std::uint8_t index = 0; index < 4; ++index) {
        device->getField(index)->setData(true, &one);
    }
    EXPECT_EQ(setField(2, 0).timeout, 20000u);
    EXPECT_EQ(setField(2, 1).timeout, 20000u);
    EXPECT_EQ(setField(2, 2).timeout, 500u);
    EXPECT_TRUE(log.contains("field value set request (device 2, field 2, type #8). Pack #"));

    // A type above 11 has no value bytes.
    auto odd = setField(2, 4);
    EXPECT_EQ(odd.bytes, payloadkit::frame({handler.getPackNumber(), 2, SET_FIELD_REQ, 4, 12}));

    const std::uint64_t wide = 0x0102030405060708ull;
    device->getField(5)->setData(true, &wide);
    auto sent = setField(2, 5);
    EXPECT_EQ(sent.bytes,
              payloadkit::frame({handler.getPackNumber(), 2, SET_FIELD_REQ, 5, 5, 8, 7, 6, 5, 4, 3, 2, 1}));

    // Brought to pack 255, the next set of field 2 (type 8, value 1) is the
    // frame that switches the board to its ESP32 loader.
    while (handler.getPackNumber() != 255) {
        search();
    }
    payloadkit::drain(handler);
    EXPECT_EQ(setField(2, 2).bytes,
              (Bytes{0x7E, 0x08, 0x00, 0x02, 0x03, 0x02, 0x08, 0x01, 0x00, 0x00, 0x00, 0x1E}));
}

TEST_F(RequestsTest, SetOfAFieldOfAGoneDeviceIsAnError) {
    discover(2, 1);
    describeFields(2, {{8, "erase"}});
    handler.getDeviceHandler().clearDeviceList();
    setField(2, 0);
    EXPECT_TRUE(log.contains("field value set error - no field data! (device 2, field 0). Pack #" +
                                 std::to_string(handler.getPackNumber()),
                             BaseLogger::ERROR));
    EXPECT_FALSE(handler.getPendingMessage(SET_FIELD_MSG));
    EXPECT_EQ(handler.getCurrentMessage(), kNoMessage);
    EXPECT_EQ(handler.getQueueSize(), 0u);
}

TEST_F(RequestsTest, DfuRequestGoesOutAsItStands) {
    discover(2, 0);
    const std::uint8_t lastCommand = handler.getLastCommand();
    const unsigned char device = 2;
    handler.onMessage(DFU_MSG, const_cast<unsigned char*>(&device));
    handler.generateResponse(DFU_MSG);
    auto sent = payloadkit::drainWithTimeouts(handler);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].bytes, (Bytes{0x3C, 0x91, 0x12, 0x01, 0x00, 0x4E, 0x7A, 0x3C, 0x91, 0x36,
                                    0x01, 0x13, 0xD6, 0x2B, 0xA7, 0x5E, 0x00, 0x06, 0x00, 0x00,
                                    0x00, 0x00, 0xA7, 0x5E, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00}));
    EXPECT_EQ(sent[0].timeout, 500u);
    EXPECT_EQ(handler.getLastCommand(), lastCommand);
    EXPECT_FALSE(handler.getPendingMessage(DFU_MSG));
    EXPECT_EQ(handler.getCurrentMessage(), DFU_MSG);
    feed(handler, payloadkit::statusAnswer(handler.getPackNumber(), 2));
    EXPECT_TRUE(log.contains("received unexpected message (device 2, message 0"));
}

TEST_F(RequestsTest, MessageTableOfOnMessage) {
    const unsigned char device = 6;
    handler.onMessage(REFRESH_DEVICE_MSG, const_cast<unsigned char*>(&device));
    EXPECT_EQ(handler.getPendingMessage(DEVICE_AUX_MSG)->device, 6);
    EXPECT_EQ(handler.getPendingMessage(FIELD_INFO_MSG)->device, 6);
    EXPECT_FALSE(handler.getPendingMessage(REFRESH_DEVICE_MSG));
    handler.generateResponse(REFRESH_DEVICE_MSG);
    EXPECT_EQ(handler.getCurrentMessage(), kNoMessage);
    handler.generateResponse(DEVICE_AUX_MSG);
    EXPECT_EQ(handler.getCurrentMessage(), DEVICE_AUX_MSG);
    EXPECT_EQ(handler.getQueueSize(), 0u);

    for (int ignored : {0, 6, 15, 16, 17, 18, 21, 255}) {
        handler.onMessage(static_cast<MessageType>(ignored), const_cast<unsigned char*>(&device));
    }
    EXPECT_EQ(handler.getPendingCount(), 2u);

    // A message that needs a device is refused without one.
    handler.onMessage(SET_FIELD_MSG, nullptr);
    handler.onMessage(FILE_WRITE_MSG, nullptr);
    EXPECT_EQ(handler.getPendingCount(), 2u);
    EXPECT_TRUE(log.contains("needs a device", BaseLogger::ERROR));
    EXPECT_EQ(PayloadHandler::getDefaultTimeout(), 500u);
}

TEST_F(RequestsTest, ResetEmptiesTheHandlerButKeepsTheDevices) {
    discover(2, 3);
    MessageArgs args;
    args.device = 2;
    handler.onMessage(FIELD_INFO_MSG, &args);
    handler.generateResponse(FIELD_INFO_MSG);
    search();
    search();
    handler.loadProgress = 42;
    ASSERT_EQ(handler.getQueueSize(), 3u);
    handler.resetState();
    EXPECT_EQ(handler.getQueueSize(), 0u);
    EXPECT_EQ(handler.getPendingCount(), 0u);
    EXPECT_EQ(handler.loadProgress.load(), 0);
    EXPECT_EQ(handler.getPackNumber(), 0);
    EXPECT_EQ(handler.getLastCommand(), 0);
    EXPECT_EQ(handler.getCurrentMessage(), kNoMessage);
    EXPECT_NE(handler.getDeviceHandler().getDevice(2), nullptr);
}
