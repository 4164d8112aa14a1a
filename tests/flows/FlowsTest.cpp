// The board flows against the simulated board on a pseudo-terminal: what
// the window and merid-flash both rely on, tested once, without either.
#include "LinkedBoardTest.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace std::chrono_literals;
using testsupport::Bytes;
using testsupport::waitUntil;

namespace {

constexpr std::uint8_t kAddress = 2;

class Flows : public testsupport::LinkedBoardTest {
protected:
    // Ticks `first` to `last` of the wait's clock, each of which must keep
    // the wait going.
    bool ticks(int first, int last) {
        for (int tick = first; tick <= last; ++tick) {
            if (!session->load.tick()) {
                ADD_FAILURE() << "the wait ended at tick " << tick;
                return false;
            }
        }
        return true;
    }

    void answer(DeviceSimulator::Faults faults) { simulator.setFaults(faults); }
};

} // namespace

// Twelve searches in all, the press's and one every fifth tick, then the
// wait gives up; a board with no "erase" field is asked for its fields
// instead and is never erased.
TEST_F(Flows, TheWaitSearchesAgainAndGivesUpOnASilentBoardOrOneWithoutAnEraseField) {
    SimDevice plain(kAddress, "No erase");
    plain.addField("reboot", 8);
    plug(plain);
    session->startLoad(writeImage(Bytes(64, 1)), 20ms);
    EXPECT_EQ(session->waitEnd, Stm32LoadFlow::WaitEnd::NoEraseField);
    EXPECT_EQ(simulator.counters(kAddress)->eraseCommands, 0u);
    EXPECT_GE(frames(FIELD_INFO_REQ).size(), 2u);

    DeviceSimulator::Faults silent;
    silent.silent = true;
    simulator.setFaults(silent);
    simulator.removeDevice(kAddress);
    session->link.restartProtocol();
    simulator.clearJournal();
    session->link.devices().clearDeviceList();
    session->startLoad(writeImage(Bytes(64, 1)), 1ms);
    EXPECT_EQ(session->waitEnd, Stm32LoadFlow::WaitEnd::NoDevice);
    EXPECT_TRUE(waitUntil([&] { return frames(DEVICE_INFO_REQ).size() == 12; }));
}

// The wait lasts 51 ticks. A board whose answer to the forty-sixth tick's
// search comes in after the fiftieth is erased; one that answers only the
// fifty-first tick's search is too late.
TEST_F(Flows, TheWaitTakesABoardDescribedByItsLastTickAndNoLater) {
    plug(SimDevice::standard(kAddress, "MeridKestal STM32"));
    answer({.silent = true});
    session->load.start();
    ASSERT_TRUE(ticks(1, 45));
    answer({.answerDelay = 2s});
    ASSERT_TRUE(ticks(46, 50));
    ASSERT_TRUE(waitUntil([&] { return log.contains("device info response (device 2"); }));
    answer({});
    ASSERT_TRUE(waitUntil([&] { return simulator.counters(kAddress)->eraseCommands == 1; }));
    EXPECT_FALSE(session->load.tick());
    EXPECT_FALSE(session->waitEnd.has_value());

    answer({.silent = true});
    session->link.restartProtocol();
    session->link.devices().clearDeviceList();
    session->load.start();
    ASSERT_TRUE(ticks(1, 50));
    answer({});
    EXPECT_FALSE(session->load.tick());
    EXPECT_EQ(session->waitEnd, Stm32LoadFlow::WaitEnd::NoDevice);
    ASSERT_TRUE(waitUntil([&] { return session->search.described(kAddress); }));
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(simulator.counters(kAddress)->eraseCommands, 1u);
}

// A device that describes its "erase" field as one byte still gets the
// command word as a 4-byte integer; an erase with no image chosen is
// followed by nothing.
TEST_F(Flows, TheEraseWordGoesAsAFourByteIntegerAndAnEmptyPathSendsNoFile) {
    SimDevice narrow(kAddress, "Narrow erase");
    narrow.addField("erase", 1);
    narrow.addField("reboot", 8);
    plug(narrow);
    session->startLoad("");
    EXPECT_FALSE(session->waitEnd.has_value());
    ASSERT_TRUE(waitUntil([&] { return simulator.counters(kAddress)->eraseCommands == 1; }));
    const auto sets = frames(SET_FIELD_REQ);
    ASSERT_EQ(sets.size(), 1u);
    // Sync, length, pack, device, command, field, type, then the value.
    EXPECT_EQ(sets[0][6], 8);
    EXPECT_EQ(Bytes(sets[0].begin() + 7, sets[0].begin() + 11), (Bytes{0xC7, 0x42, 0x1D, 0x6A}));
    std::this_thread::sleep_for(300ms);
    EXPECT_TRUE(frames(FILE_WRITE_REQ).empty());

    const Bytes data = linkImage(200, 3);
    ASSERT_TRUE(session->loadStm32(writeImage(data), 30s));
    EXPECT_EQ(simulator.finishedImage(kAddress, 0), data);
}

// Each load reports its own end: a second load on the same link starts
// from 0 and ends with the device's confirmation again, also when both
// erases keep the device busy for a while.
TEST_F(Flows, ASecondLoadWaitsForItsOwnConfirmationAndSlowErasesStillLoad) {
    SimDevice board = SimDevice::standard(kAddress, "MeridKestal STM32");
    board.setEraseTime(1500ms);
    plug(board);
    const Bytes first = linkImage(300, 7);
    ASSERT_TRUE(session->loadStm32(writeImage(first), 60s));
    EXPECT_EQ(simulator.finishedImage(kAddress, 0), first);

    const Bytes second = linkImage(400, 9);
    session->startLoad(writeImage(second));
    EXPECT_LT(session->load.percent(), 100u);
    ASSERT_TRUE(waitUntil([&] { return session->load.percent() == 100; }, 60s));
    EXPECT_EQ(simulator.finishedImage(kAddress, 0), second);
    EXPECT_EQ(simulator.counters(kAddress)->eraseCommands, 2u);
    EXPECT_EQ(simulator.counters(kAddress)->fileErases, 2u);
    EXPECT_FALSE(session->load.takeUnconfirmed());
}

// A refused finish is unconfirmed once, with the device's status; a link
// that goes while the finish is awaited is unconfirmed without waiting for
// a time-out.
TEST_F(Flows, ARefusedFinishAndALinkLostAtTheFinishAreUnconfirmedOnce) {
    plug(SimDevice::standard(kAddress, "MeridKestal STM32"));
    const Bytes data = linkImage(64, 5);
    simulator.failNext(FILE_WRITE_REQ, 5, 1, 3);
    session->startLoad(writeImage(data));
    ASSERT_TRUE(waitUntil([&] { return session->load.refusal() == 5; }));
    EXPECT_TRUE(waitUntil([&] { return session->load.takeUnconfirmed(); }));
    EXPECT_FALSE(session->load.takeUnconfirmed());
    EXPECT_LT(session->load.percent(), 100u);

    DeviceSimulator::Faults unplug;
    // The search, the erase command, the transfer's erase, two chunks, the finish.
    unplug.unplugAfterFrames = static_cast<unsigned>(simulator.journalSize()) + 6;
    simulator.setFaults(unplug);
    session->startLoad(writeImage(data));
    ASSERT_TRUE(waitUntil([&] { return session->load.takeUnconfirmed(); }));
    EXPECT_TRUE(waitUntil([&] { return simulator.isUnplugged(); }));
    EXPECT_LT(session->load.percent(), 100u);
    // The lost link ends the finish at once, not by its time-out. (An
    // earlier time-out of the search, which the erase overtakes on a fast
    // machine, is not the finish's.)
    const auto lines = log.lines();
    const auto finish = std::find_if(lines.rbegin(), lines.rend(), [](const auto& line) {
        return line.message.starts_with("finish file request");
    });
    ASSERT_NE(finish, lines.rend());
    EXPECT_TRUE(std::none_of(lines.rbegin(), finish, [](const auto& line) {
        return line.message == "Listener timeout waiting for response";
    }));
}

// Every answer comes 700 ms late: each step's read times out once and its
// answer is still taken, the finish's too, which ends the load in success.
TEST_F(Flows, AFinishAnsweredAfterItsTimeOutButWithinTheNextReadStillConfirms) {
    plug(SimDevice::standard(kAddress, "MeridKestal STM32"));
    DeviceSimulator::Faults late;
    late.answerDelay = 700ms;
    simulator.setFaults(late);
    const Bytes data = linkImage(32, 13);
    ASSERT_TRUE(session->loadStm32(writeImage(data), 60s));
    EXPECT_FALSE(session->load.takeUnconfirmed());
    EXPECT_FALSE(log.contains("after the load was given up"));
    EXPECT_EQ(simulator.finishedImage(kAddress, 0), data);
}

// A device that announces no fields is described as soon as it has answered.
TEST_F(Flows, ASearchCountsADeviceThatAnnouncesNoFieldsAsDescribed) {
    plug(SimDevice(5, "Bare"));
    const auto devices = session->search.run();
    ASSERT_EQ(devices.size(), 1u);
    EXPECT_EQ(devices[0].address, 5u);
    EXPECT_EQ(devices[0].name, "Bare");
    EXPECT_TRUE(devices[0].fields.empty());
    EXPECT_TRUE(session->search.allDescribed());
}
