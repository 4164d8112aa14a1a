#include "LinkedBoardTest.h"

#include <gtest/gtest.h>

using namespace std::chrono_literals;
using testsupport::waitUntil;

namespace {

// The program's real threads and transport against a simulated board on a
// pseudo-terminal, on a line that misbehaves.
class PayloadLinkTest : public testsupport::LinkedBoardTest {
protected:
    void SetUp() override { plug(SimDevice::standard(2, "MeridKestal STM32")); }

    // `steps`: how many write steps the board must have seen in all.
    void expectDelivered(const testsupport::Bytes& data, std::uint8_t file, std::size_t steps) {
        ASSERT_TRUE(waitUntil([&] { return simulator.finishedImage(2, file).has_value(); }, 120s));
        EXPECT_TRUE(*simulator.finishedImage(2, file) == data);
        EXPECT_TRUE(waitUntil([&] {
            return log.contains("Firmware transfer complete: " + std::to_string(data.size()) + " bytes in ",
                                BaseLogger::WARNING);
        }));
        EXPECT_EQ(frames(FILE_WRITE_REQ).size(), steps);
        EXPECT_EQ(simulator.counters(2)->writesWithoutErase, 0u);
    }
};

} // namespace

// Stray bytes before each answer, answers in pieces and late, and one answer
// with a wrong check code: a second search finds the board, and its image
// arrives whole in 32-byte chunks after the erase.
TEST_F(PayloadLinkTest, NoisyLineStillFindsTheBoardAndDeliversTheImage) {
    DeviceSimulator::Faults faults;
    faults.garbageBytes = 3;
    faults.splitWrites = true;
    faults.splitPiece = 2;
    faults.splitGap = 100us;
    faults.answerDelay = 1ms;
    simulator.setFaults(faults);
    simulator.corruptNext(1);
    session->discover(0ms);
    ASSERT_TRUE(
        waitUntil([&] { return log.contains("received message with wrong CRC", BaseLogger::ERROR); }));
    ASSERT_TRUE(session->discover(20s));

    const testsupport::Bytes data = linkImage(3000, 11);
    ASSERT_TRUE(session->loadStm32(writeImage(data), 120s));
    expectDelivered(data, 0, 2 + (3000 + 31) / 32);
    EXPECT_EQ(simulator.counters(2)->eraseCommands, 1u);
    EXPECT_TRUE(log.contains("received message is not Payload type"));
}
