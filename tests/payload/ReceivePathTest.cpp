#include "PayloadTestKit.h"

#include <string>
#include <tuple>

using namespace payloadtest;

namespace {
// With nothing pending, each payload that reaches process is an unexpected message.
const char* const kProcessed = "received unexpected message";
} // namespace

TEST_F(PayloadTest, FrameSplitAtEveryPositionIsReceivedWhole) {
    const Bytes whole = frame({0x10, 0x7E, 0x7E, 0x7E, 0x01});
    for (auto cut = whole.begin(); cut <= whole.end(); ++cut) {
        EXPECT_EQ(feed(Bytes(whole.begin(), cut)) + feed(Bytes(cut, whole.end())), 1u) << cut - whole.begin();
    }
    EXPECT_EQ(log.count("received unexpected message (device 126, message 126, pack #16)"), whole.size() + 1);
}

TEST_F(PayloadTest, BlocksWithSeveralFramesOrBadInput) {
    const Bytes good = frame({5, 6, 0});
    Bytes badCrc = good;
    badCrc.back() ^= 0x01;
    auto join = [](Bytes a, const Bytes& b) {
        a.insert(a.end(), b.begin(), b.end());
        return a;
    };
    // What is fed, frames counted, payloads processed, check code line, stray byte line.
    const std::tuple<const char*, Bytes, unsigned long long, std::size_t, bool, bool> cases[] = {
        {"two frames", join(good, frame({1, 2, 0, 9})), 2, 2, false, false},
        {"a stray byte behind", join(good, {0x33}), 1, 1, false, true},
        {"no frame", {0x01, 0x02, 0x03}, 0, 0, false, true},
        {"wrong check code, then a frame", join(badCrc, good), 1, 1, true, false},
        {"length byte 255, then a frame", join({0x7E, 0xFF}, good), 1, 1, false, false},
        {"largest payload", frame(Bytes(255, 0x55)), 1, 1, false, false},
        {"payloads below 3 bytes", join(frame({1, 2}), frame({1})), 2, 0, false, false},
    };
    for (const auto& [what, block, frames, processed, crcLine, strayLine] : cases) {
        log.clear();
        EXPECT_EQ(feed(block), frames) << what;
        EXPECT_EQ(log.count(kProcessed), processed) << what;
        EXPECT_EQ(log.contains("received message with wrong CRC", BaseLogger::ERROR), crcLine) << what;
        EXPECT_EQ(log.contains("received message is not Payload type", BaseLogger::WARNING), strayLine)
            << what;
    }
}

TEST_F(PayloadTest, OnlyTheAnswerToTheLatestRequestFromAKnownDeviceCounts) {
    discover(2, 4);
    ask(FIELD_INFO_MSG, 2);
    const std::uint8_t stale = pack();
    ask(FIELD_INFO_MSG, 2); // asked again: a new pack number
    const auto fieldInfo = [&](std::uint8_t packNumber, std::uint8_t address) {
        feed(frame({packNumber, address, 0, 8, 5, 'e', 'r', 'a', 's', 'e'}));
    };
    fieldInfo(stale, 2);
    fieldInfo(pack(), 9);
    EXPECT_TRUE(
        log.contains("unknown device address 9. Pack " + std::to_string(pack()), BaseLogger::WARNING));
    EXPECT_EQ(handler.getPendingMessage(FIELD_INFO_MSG)->field, 0);

    const std::uint8_t accepted = pack();
    fieldInfo(accepted, 2);
    // That answer asked for field 1; the same answer again is refused and leaves it pending.
    log.clear();
    fieldInfo(accepted, 2);
    EXPECT_EQ(log.count(kProcessed), 1u);
    EXPECT_EQ(handler.getPendingMessage(FIELD_INFO_MSG)->field, 1);
}

TEST_F(PayloadTest, LongNamesTheBootloaderFieldAndNoFields) {
    discover(3, 2, std::string(63, 'N'));
    App::Device* device = handler.getDeviceHandler().getDevice(3);
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(device->getDeviceName(), std::string(62, 'N'));
    describe(3, {{8, "enterBootloaderNow"}, {3, std::string(63, 'x')}});
    EXPECT_TRUE(device->isBootable());
    EXPECT_EQ(device->getField(1)->getNameLength(), 0);
    EXPECT_TRUE(log.contains("field info response (device 3, field #1 Undefined, type #3)"));

    // A device without fields and name is still asked for field 0, once.
    discover(4, 0, "");
    EXPECT_TRUE(log.contains("device info response (device 4, Unnamed, 1.4)"));
    ask(FIELD_INFO_MSG, 4);
    EXPECT_EQ(drain().size(), 1u);
    feed(frame({pack(), 4, 0, 0, 1, 'f'}));
    EXPECT_EQ(handler.getQueueSize(), 0u);
}
