#include "PayloadFixture.h"

#include <string>

using payloadkit::Bytes;
using payloadkit::feed;

class ReceivePathTest : public PayloadFixture {
protected:
    // Counts the payloads that reach process by the log line of an unexpected
    // answer: with nothing pending every good frame produces one.
    std::size_t processed() { return log.count("received unexpected message"); }
};

TEST_F(ReceivePathTest, FrameSplitAtEveryPositionIsReceivedWhole) {
    const Bytes whole = payloadkit::frame({0x10, 0x7E, 0x7E, 0x7E, 0x01});
    for (std::size_t cut = 0; cut <= whole.size(); ++cut) {
        log.clear();
        const Bytes first(whole.begin(), whole.begin() + static_cast<long>(cut));
        const Bytes second(whole.begin() + static_cast<long>(cut), whole.end());
        const auto frames = feed(handler, first) + feed(handler, second);
        EXPECT_EQ(frames, 1u) << "cut at " << cut;
        EXPECT_EQ(processed(), 1u) << "cut at " << cut;
        EXPECT_FALSE(log.contains("wrong CRC"));
        EXPECT_TRUE(log.contains("received unexpected message (device 126, message 126, pack #16)"));
    }
}

TEST_F(ReceivePathTest, TwoFramesInOneBlockAndStrayBytes) {
    Bytes block = payloadkit::frame({1, 2, 0});
    const Bytes second = payloadkit::frame({3, 4, 0, 9});
    block.insert(block.end(), second.begin(), second.end());
    EXPECT_EQ(feed(handler, block), 2u);
    EXPECT_EQ(processed(), 2u);
    // A block that ends right behind a frame is no stray data.
    EXPECT_FALSE(log.contains("received message is not Payload type"));

    block.resize(6); // the first frame, and a stray byte behind it
    block.push_back(0x33);
    EXPECT_EQ(feed(handler, block), 1u);
    EXPECT_TRUE(log.contains("received message is not Payload type", BaseLogger::WARNING));
    log.clear();
    EXPECT_EQ(feed(handler, Bytes{0x01, 0x02, 0x03}), 0u);
    EXPECT_EQ(log.count("received message is not Payload type"), 1u);
    EXPECT_EQ(handler.update(block.data(), 0), 0u);
}

TEST_F(ReceivePathTest, WrongCheckCodeDropsTheFrame) {
    Bytes bad = payloadkit::frame({1, 2, 0});
    bad.back() ^= 0x01;
    EXPECT_EQ(feed(handler, bad), 0u);
    EXPECT_TRUE(log.contains("received message with wrong CRC", BaseLogger::ERROR));
    EXPECT_EQ(processed(), 0u);
    EXPECT_EQ(handler.getReceiveState(), FRAME_BAD_CRC);
    // The walk goes on behind the bad frame.
    EXPECT_EQ(feed(handler, payloadkit::frame({1, 2, 0})), 1u);
}

TEST_F(ReceivePathTest, LongestPayloadAcceptedAndLengthByte255Refused) {
    Bytes payload(255, 0x55);
    EXPECT_EQ(feed(handler, payloadkit::frame(payload)), 1u);

    // 0x7E 0xFF: refused, and the walk resumes at the very next byte.
    Bytes block{0x7E, 0xFF};
    const Bytes good = payloadkit::frame({5, 6, 0});
    block.insert(block.end(), good.begin(), good.end());
    log.clear();
    EXPECT_EQ(feed(handler, block), 1u);
    EXPECT_TRUE(log.contains("pack #5"));
    EXPECT_FALSE(log.contains("wrong CRC"));

    log.clear();
    EXPECT_EQ(feed(handler, Bytes{0x7E, 0xFF}), 0u);
    EXPECT_EQ(handler.getReceiveState(), FRAME_TOO_LONG);
    EXPECT_FALSE(log.contains("received message is not Payload type"));
}

TEST_F(ReceivePathTest, ShortPayloadsAreDroppedSilently) {
    EXPECT_EQ(feed(handler, payloadkit::frame({1, 2})), 1u);
    EXPECT_EQ(feed(handler, payloadkit::frame({1})), 1u);
    EXPECT_EQ(processed(), 0u);
}

TEST_F(ReceivePathTest, SearchAddsTheDeviceAndRaisesTheHandler) {
    int raised = 0;
    GlobalHandlerEvents::getInstance().addHandler(SET_CURRENT_DEVICE_ADDR, [&] {
        ++raised;
        return GlobalHandlerEvents::Success;
    });
    const std::uint8_t pack = discover(7, 3, "Kestal");
    EXPECT_EQ(raised, 1);
    EXPECT_TRUE(log.contains("device info response (device 7, Kestal, 1.4) Pack #" + std::to_string(pack)));
    App::Device* device = handler.getDeviceHandler().getDevice(7);
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(device->getDeviceName(), "Kestal");
    EXPECT_EQ(device->getInfo()->fieldCount, 3);
    EXPECT_EQ(device->getInfo()->reservedA[0], 0xAA);
    EXPECT_EQ(device->getInfo()->reservedB[3], 4);
    EXPECT_FALSE(handler.getPendingMessage(SEARCH_DEVICES_MSG));
    EXPECT_EQ(handler.getCurrentMessage(), SEARCH_DEVICES_MSG);

    // A second answer to the same broadcast is unexpected.
    feed(handler, payloadkit::deviceInfoAnswer(pack, 8, "Other", 1));
    EXPECT_TRUE(
        log.contains("received unexpected message (device 8, message 0, pack #" + std::to_string(pack)));
    EXPECT_EQ(handler.getDeviceHandler().getDevice(8), nullptr);
}

TEST_F(ReceivePathTest, DeviceNamesAreCutAndUnnamedIsForTheLogOnly) {
    discover(3, 0, std::string(63, 'N'));
    ASSERT_NE(handler.getDeviceHandler().getDevice(3), nullptr);
    EXPECT_EQ(handler.getDeviceHandler().getDevice(3)->getDeviceName(), std::string(62, 'N'));
    EXPECT_EQ(handler.getDeviceHandler().getDevice(3)->getInfo()->nameLength, 62);

    handler.onMessage(SEARCH_DEVICES_MSG, nullptr);
    handler.generateResponse(SEARCH_DEVICES_MSG);
    feed(handler, payloadkit::deviceInfoAnswer(handler.getPackNumber(), 4, "", 0));
    EXPECT_TRUE(log.contains("device info response (device 4, Unnamed, 1.4)"));
    EXPECT_EQ(handler.getDeviceHandler().getDevice(4)->getDeviceName(), "");
}

TEST_F(ReceivePathTest, StaleAndRepeatedPackNumbersAreRefused) {
    discover(2, 2);
    MessageArgs args;
    args.device = 2;
    handler.onMessage(FIELD_INFO_MSG, &args);
    handler.generateResponse(FIELD_INFO_MSG);
    const std::uint8_t first = handler.getPackNumber();
    // Asked again: a new pack number, the old answer no longer counts.
    handler.onMessage(FIELD_INFO_MSG, &args);
    handler.generateResponse(FIELD_INFO_MSG);
    EXPECT_TRUE(log.contains("Send queue is full!", BaseLogger::WARNING));
    const std::uint8_t second = handler.getPackNumber();
    EXPECT_EQ(second, static_cast<std::uint8_t>(first + 1));
    payloadkit::drain(handler);

    feed(handler, payloadkit::fieldInfoAnswer(first, 2, 8, "erase"));
    EXPECT_TRUE(
        log.contains("received unexpected message (device 2, message 0, pack #" + std::to_string(first)));
    EXPECT_TRUE(handler.getPendingMessage(FIELD_INFO_MSG));

    feed(handler, payloadkit::fieldInfoAnswer(second, 2, 8, "erase"));
    EXPECT_TRUE(log.contains("field info response (device 2, field #0 erase, type #8) Pack #" +
                             std::to_string(second)));
    // That answer asked for field 1 under the next pack; repeating the old
    // answer is refused and leaves that request pending.
    log.clear();
    feed(handler, payloadkit::fieldInfoAnswer(second, 2, 8, "erase"));
    EXPECT_EQ(log.count("received unexpected message"), 1u);
    auto pending = handler.getPendingMessage(FIELD_INFO_MSG);
    ASSERT_TRUE(pending);
    EXPECT_EQ(pending->field, 1);
}

TEST_F(ReceivePathTest, UnknownAddressOutsideASearchIsRefused) {
    discover(2, 1);
    MessageArgs args;
    args.device = 2;
    handler.onMessage(FIELD_INFO_MSG, &args);
    handler.generateResponse(FIELD_INFO_MSG);
    const std::uint8_t pack = handler.getPackNumber();
    feed(handler, payloadkit::fieldInfoAnswer(pack, 9, 8, "erase"));
    EXPECT_TRUE(log.contains("unknown device address 9. Pack " + std::to_string(pack), BaseLogger::WARNING));
    EXPECT_TRUE(handler.getPendingMessage(FIELD_INFO_MSG));
    EXPECT_EQ(handler.getDeviceHandler().getDevice(2)->getFieldCount(), 0u);
}

TEST_F(ReceivePathTest, FieldInformationWalksAllFields) {
    discover(2, 3);
    describeFields(2, {{8, "erase"}, {8, "enterBootloaderNow"}, {3, std::string(63, 'x')}});
    App::Device* device = handler.getDeviceHandler().getDevice(2);
    ASSERT_EQ(device->getFieldCount(), 3u);
    EXPECT_STREQ(device->getField(0)->getName(), "erase");
    EXPECT_TRUE(device->isBootable());
    // A name of 63 or more is dropped altogether.
    EXPECT_EQ(device->getField(2)->getNameLength(), 0);
    EXPECT_TRUE(log.contains("field info response (device 2, field #2 Undefined, type #3)"));
    EXPECT_FALSE(handler.getPendingMessage(FIELD_INFO_MSG));
    EXPECT_EQ(handler.getQueueSize(), 0u);
}

TEST_F(ReceivePathTest, FieldCountZeroOrOneGetsOneRequest) {
    for (std::uint8_t count : {0, 1}) {
        PayloadHandler fresh;
        fresh.onMessage(SEARCH_DEVICES_MSG, nullptr);
        fresh.generateResponse(SEARCH_DEVICES_MSG);
        payloadkit::drain(fresh);
        feed(fresh, payloadkit::deviceInfoAnswer(1, 5, "Dev", count));
        MessageArgs args;
        args.device = 5;
        fresh.onMessage(FIELD_INFO_MSG, &args);
        fresh.generateResponse(FIELD_INFO_MSG);
        auto sent = payloadkit::drainWithTimeouts(fresh);
        ASSERT_EQ(sent.size(), 1u);
        EXPECT_EQ(sent[0].bytes, payloadkit::frame({2, 5, FIELD_INFO_REQ, 0}));
        EXPECT_EQ(sent[0].timeout, 500u);
        feed(fresh, payloadkit::fieldInfoAnswer(2, 5, 0, "f"));
        EXPECT_EQ(fresh.getQueueSize(), 0u) << int(count);
    }
}

TEST_F(ReceivePathTest, ErrorStatusEndsTheFlow) {
    discover(2, 4);
    MessageArgs args;
    args.device = 2;
    handler.onMessage(FIELD_INFO_MSG, &args);
    handler.generateResponse(FIELD_INFO_MSG);
    payloadkit::drain(handler);
    feed(handler, payloadkit::statusAnswer(handler.getPackNumber(), 2, 0x21));
    EXPECT_TRUE(log.contains("Message with problem - error code: 33", BaseLogger::WARNING));
    EXPECT_FALSE(handler.getPendingMessage(FIELD_INFO_MSG));
    EXPECT_EQ(handler.getQueueSize(), 0u);
    EXPECT_EQ(handler.getDeviceHandler().getDevice(2)->getFieldCount(), 0u);
}

TEST_F(ReceivePathTest, SetOfTheEraseFieldStartsTheWriteStage) {
    std::vector<LoadStage> stages;
    GlobalHandlerEvents::getInstance().addHandlerWithArgs<LoadStage>(UPLOAD_FIRMWARE, [&](LoadStage stage) {
        stages.push_back(stage);
        return GlobalHandlerEvents::Success;
    });
    discover(2, 2);
    describeFields(2, {{4, "speed"}, {8, "erase"}});
    Field* erase = handler.getDeviceHandler().getDevice(2)->getFieldByName("erase");
    const std::uint32_t command = 0x55AA;
    erase->setData(true, &command);

    MessageArgs args;
    args.device = 2;
    args.field = 0;
    handler.onMessage(SET_FIELD_MSG, &args);
    handler.generateResponse(SET_FIELD_MSG);
    payloadkit::drain(handler);
    feed(handler, payloadkit::statusAnswer(handler.getPackNumber(), 2));
    EXPECT_TRUE(stages.empty());

    args.field = 1;
    handler.onMessage(SET_FIELD_MSG, &args);
    handler.generateResponse(SET_FIELD_MSG);
    payloadkit::drain(handler);
    feed(handler, payloadkit::statusAnswer(handler.getPackNumber(), 2));
    ASSERT_EQ(stages.size(), 1u);
    EXPECT_EQ(stages[0], Write);
    EXPECT_EQ(erase->getStatus(), Field::FIELD_STATUS_USER_SET);
}

TEST_F(ReceivePathTest, GetFieldWalksTheRemainingFields) {
    discover(2, 3);
    describeFields(2, {{3, "a"}, {8, "b"}, {0, "c"}});
    MessageArgs args;
    args.device = 2;
    args.field = 1;
    handler.onMessage(GET_FIELD_MSG, &args);
    handler.generateResponse(GET_FIELD_MSG);
    auto sent = payloadkit::drainWithTimeouts(handler);
    ASSERT_EQ(sent.size(), 1u);
    const std::uint8_t pack = handler.getPackNumber();
    EXPECT_EQ(sent[0].bytes, payloadkit::frame({pack, 2, GET_FIELD_REQ, 1}));
    EXPECT_EQ(sent[0].timeout, 100u);
    EXPECT_TRUE(log.contains("field value request (device 2, field 1). Pack #" + std::to_string(pack) +
                             ", attempt #0"));

    feed(handler, payloadkit::frame({pack, 2, 0, 0xEE, 0x78, 0x56, 0x34, 0x12}));
    Field* b = handler.getDeviceHandler().getDevice(2)->getField(1);
    std::uint32_t value = 0;
    std::memcpy(&value, b->getData(), 4);
    EXPECT_EQ(value, 0x12345678u);
    EXPECT_EQ(b->getStatus(), Field::FIELD_STATUS_DEVICE_CHANGED);
    EXPECT_TRUE(log.contains("field value response (device 2, field #1)\n"));
    sent = payloadkit::drainWithTimeouts(handler);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].bytes, payloadkit::frame({static_cast<std::uint8_t>(pack + 1), 2, GET_FIELD_REQ, 2}));
    feed(handler, payloadkit::frame({static_cast<std::uint8_t>(pack + 1), 2, 0, 0, 0x11}));
    EXPECT_EQ(handler.getQueueSize(), 0u);
}

TEST_F(ReceivePathTest, FileInfoAndFileReadAnswersAreReadByTheLastWireCode) {
    discover(2, 0);
    MessageArgs args;
    args.device = 2;
    args.field = 4;
    // No flow asks for file information; enter a message that sends nothing
    // and queue the request by hand.
    handler.onMessage(FILE_AUX_MSG, &args);
    handler.generateResponse(FILE_AUX_MSG);
    EXPECT_EQ(handler.getCurrentMessage(), FILE_AUX_MSG);
    EXPECT_EQ(handler.getQueueSize(), 0u);
    const std::uint8_t pack = handler.getPackNumber();
    const unsigned char info[] = {pack, 2, FILE_INFO_REQ};
    handler.castCommand(info, sizeof(info), 500);
    payloadkit::drain(handler);
    feed(handler, payloadkit::frame({pack, 2, 0, 0, 0x10, 0, 0, 0, 0xFF, 0, 0, 0}));
    EXPECT_TRUE(log.contains("file info response (device 2, file #4, checksum 0x255, size 16) Pack #" +
                             std::to_string(pack)));

    handler.onMessage(FILE_AUX_MSG, &args);
    handler.generateResponse(FILE_AUX_MSG);
    const unsigned char read[] = {handler.getPackNumber(), 2, FILE_READ_REQ};
    handler.castCommand(read, sizeof(read), 500);
    feed(handler, payloadkit::statusAnswer(handler.getPackNumber(), 2));
    EXPECT_TRUE(log.contains("Message type: FILE_READ_REQ", BaseLogger::DEBUG));
}
