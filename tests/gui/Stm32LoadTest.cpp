// STM32 loads through the real window against the simulated board: the
// erase poll, the erase word, the transfer as the level bar shows it; and
// each failure, followed by a load that works.
#include "BoardLoadFixture.h"

#include <algorithm>

using guitest::BoardLoadTest;
using guitest::Bytes;
using guitest::makeImage;
using testsupport::ToolkitLoop;

namespace {

constexpr std::uint8_t kDeviceInfoReq = 1;
constexpr std::uint8_t kFileWriteReq = 8;
constexpr std::uint64_t kEraseWord = 0x6A1D42C7;
constexpr std::size_t kStm32ImageSize = 37312;

class Stm32Load : public BoardLoadTest {
protected:
    // A load that reaches the success text with the window sensitive all
    // along, the bar never going back, the erase word in the board's field,
    // and the bytes on the board once it has answered the finish step.
    guitest::LoadWatch expectLoadOf(const Bytes& bytes) {
        const guitest::LoadWatch seen = watch();
        EXPECT_TRUE(seen.finished) << "label: " << statusText() << ", bar: " << barValue();
        EXPECT_FALSE(seen.everInsensitive);
        EXPECT_EQ(barValue(), 100.0);
        // The transfer's own erase step is the first value the bar shows.
        EXPECT_TRUE(std::is_sorted(seen.barValues.begin() + 1, seen.barValues.end()));
        EXPECT_EQ(board.device(kAddress)->fieldValue("erase"), kEraseWord);
        EXPECT_TRUE(ToolkitLoop::runUntil([&] { return board.finishedImage(kAddress, 0) == bytes; },
                                          std::chrono::seconds(30)));
        return seen;
    }

    void silenceBoard(bool silent) {
        DeviceSimulator::Faults faults;
        faults.silent = silent;
        board.setFaults(faults);
    }

    std::size_t framesWithCommand(std::uint8_t command) {
        const auto journal = board.journal();
        // Sync, length, pack number, address, command.
        return std::count_if(journal.begin(), journal.end(), [&](const DeviceSimulator::JournalEntry& entry) {
            return entry.kind == entry.Frame && entry.raw.size() > 4 && entry.raw[4] == command;
        });
    }
};

} // namespace

TEST_F(Stm32Load, APressWithoutAFileErasesOnlyAndTheUserFileThenLandsByteForByte) {
    // A board that calls its "erase" field a 1-byte one: the word still goes
    // as a 4-byte integer.
    SimDevice narrow(kAddress, "MeridKestal STM32", 2, 7);
    narrow.addField("erase", 3);
    board.removeDevice(kAddress);
    board.addDevice(narrow);
    connect();
    // No search first: the load's poll finds the board and its fields.
    pressUpload();
    ASSERT_TRUE(ToolkitLoop::runUntil([&] {
        return captured->contains("MainWindow: File path is empty or did't exist", BaseLogger::WARNING);
    }));
    ToolkitLoop::runFor(std::chrono::milliseconds(300));
    EXPECT_EQ(board.counters(kAddress)->eraseCommands, 1u);
    EXPECT_EQ(framesWithCommand(kFileWriteReq), 0u);
    EXPECT_EQ(barValue(), 0.0);

    const Bytes bytes = makeImage(kStm32ImageSize, 11);
    pickFile(writeFile("stm32.bin", bytes));
    pressUpload();
    EXPECT_EQ(statusText(), "0%");
    const auto climb = expectLoadOf(bytes).barValues;
    EXPECT_GE(
        std::count_if(climb.begin(), climb.end(), [](double value) { return value > 0 && value < 100; }), 3)
        << "the bar jumped instead of climbing";
}

TEST_F(Stm32Load, WaitsForASilentBoardEndAndLeaveTheBarAlone) {
    silenceBoard(true);
    connect();
    const Bytes bytes = makeImage(1000, 7);
    pickFile(writeFile("small.bin", bytes));
    // The poll's time-out is fixed inside the window: 51 ticks of 200 ms.
    pressUpload();
    ASSERT_TRUE(ToolkitLoop::runUntil(
        [&] {
            return captured->contains("MainWindow: Timeout waiting for device discovery before STM32 erase",
                                      BaseLogger::ERROR);
        },
        std::chrono::seconds(30)));
    EXPECT_TRUE(ToolkitLoop::runUntil([&] { return framesWithCommand(kDeviceInfoReq) >= 12; }));
    ToolkitLoop::runFor(std::chrono::milliseconds(600));
    EXPECT_EQ(framesWithCommand(kDeviceInfoReq), 12u) << "the poll went on after its end";
    EXPECT_EQ(barValue(), 0.0);
    EXPECT_EQ(statusText(), "0%");
    EXPECT_TRUE(windowSensitive());

    // The link closed during the wait ends it at the next tick.
    pressUpload();
    ToolkitLoop::runFor(std::chrono::milliseconds(500));
    ui->get<Gtk::MenuItem>("DisconnectImageMenuItem")->activate();
    ASSERT_TRUE(ToolkitLoop::runUntil([&] {
        return captured->contains("MainWindow: USB connection lost while waiting to start STM32 erase",
                                  BaseLogger::ERROR);
    }));
    // A press while disconnected does nothing at all.
    const std::size_t searches = framesWithCommand(kDeviceInfoReq);
    captured->clear();
    pressUpload();
    ToolkitLoop::runFor(std::chrono::milliseconds(1200));
    EXPECT_EQ(framesWithCommand(kDeviceInfoReq), searches);
    EXPECT_EQ(captured->count("MainWindow: "), 0u);

    silenceBoard(false);
    connect();
    pressUpload();
    expectLoadOf(bytes);
}

TEST_F(Stm32Load, ARefusedFinishLeavesNoSuccessTextAndTheNextLoadLands) {
    const Bytes bytes = makeImage(1000, 5);
    connect();
    pickFile(writeFile("small.bin", bytes));
    // The erase step and the 32 chunks pass; the finish step is refused.
    board.failNext(kFileWriteReq, 5, 1, 33);
    pressUpload();
    ASSERT_TRUE(ToolkitLoop::runUntil(
        [&] {
            return captured->contains("MainWindow: The device did not confirm the firmware",
                                      BaseLogger::ERROR);
        },
        std::chrono::seconds(30)));
    EXPECT_TRUE(
        captured->contains("PayloadHandler: Message with problem - error code: 5", BaseLogger::WARNING));
    ToolkitLoop::runFor(std::chrono::milliseconds(300));
    EXPECT_LT(barValue(), 100.0);
    EXPECT_EQ(statusText(), std::to_string(static_cast<int>(barValue())) + "%");
    EXPECT_EQ(captured->count("did not confirm the firmware"), 1u);

    pressUpload();
    expectLoadOf(bytes);
}

TEST_F(Stm32Load, ACablePulledAtAThirdThenAFreshBoardOnTheSamePortTakesTheWholeImage) {
    const Bytes bytes = makeImage(kStm32ImageSize, 17);
    connect();
    pickFile(writeFile("stm32.bin", bytes));
    pressUpload();
    ASSERT_TRUE(watch([&] { return barValue() >= 30; }).finished);
    board.unplug();
    ToolkitLoop::runFor(std::chrono::milliseconds(1500));
    EXPECT_LT(barValue(), 100.0);
    EXPECT_NE(statusText(), kFlashedText);
    EXPECT_TRUE(windowSensitive());

    // A board started afresh, with no file open, behind the same port name.
    board.removeDevice(kAddress);
    board.addDevice(SimDevice::standard(kAddress, "MeridKestal STM32"));
    plugBoard();
    connect();
    pressUpload();
    expectLoadOf(bytes);
    EXPECT_EQ(board.counters(kAddress)->writesWithoutErase, 0u);
    EXPECT_EQ(board.counters(kAddress)->finishMismatches, 0u);
}

// The reboot that none of the window's own flows asks for: the field set on
// the board and the link restored behind it, once for two requests; then the
// preinstalled image over the restored link.
TEST_F(Stm32Load, ARebootRestoresTheLinkAndThePreinstalledImageLoadsAfterIt) {
    ui->window().rebootDevice();
    EXPECT_TRUE(captured->contains("MainWindow: device didn't exist for reboot", BaseLogger::ERROR));
    connect();
    // The search lists the board; the reboot needs its fields.
    ui->get<Gtk::Button>("SearchDeviceButton")->clicked();
    auto* list = ui->get<Gtk::ListBox>("ListDeviceListBox");
    const std::size_t fields = board.device(kAddress)->getFields().size();
    ASSERT_TRUE(ToolkitLoop::runUntil(
        [&] {
            return list->get_children().size() == 1 &&
                   captured->count("PayloadHandler: field info response (device 2") >= fields;
        },
        std::chrono::seconds(20)));
    EXPECT_EQ(dynamic_cast<Gtk::Label*>(dynamic_cast<Gtk::ListBoxRow*>(list->get_children()[0])->get_child())
                  ->get_text(),
              "MeridKestal STM32");
    const std::size_t searches = framesWithCommand(kDeviceInfoReq);
    ui->window().rebootDevice();
    ui->window().rebootDevice();
    EXPECT_TRUE(ToolkitLoop::runUntil([&] { return board.counters(kAddress)->rebootCommands >= 1; }));
    EXPECT_TRUE(ToolkitLoop::runUntil([&] { return framesWithCommand(kDeviceInfoReq) > searches; },
                                      std::chrono::seconds(10)));
    ToolkitLoop::runFor(std::chrono::milliseconds(300));
    EXPECT_EQ(captured->count("is opened!"), 2u);

    const Bytes bytes = guitest::resourceBytes("/meridkestalutility/firmware/Tovik_2.13.319.f75a0c3_aes.bin");
    ASSERT_EQ(bytes.size(), kStm32ImageSize);
    ui->get<Gtk::Switch>("FirmwareSourceModeSwitch")->set_active(true);
    pressUpload();
    expectLoadOf(bytes);
}
