// STM32 loads through the real window against the simulated board: the
// erase poll, the erase word, the chunked transfer and the level bar; and
// each failure, followed by a load that works.
#include "BoardLoadFixture.h"

#include <algorithm>

using guitest::BoardLoadTest;
using guitest::Bytes;
using guitest::LoadWatch;
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
    // along, the bar never going back, and the board holding the bytes once
    // it has answered the finish step.
    void expectLoadOf(const Bytes& bytes, LoadWatch* seen = nullptr) {
        const LoadWatch watch = this->watch();
        if (seen != nullptr) {
            *seen = watch;
        }
        ASSERT_TRUE(watch.finished) << "label: " << statusText() << ", bar: " << barValue();
        EXPECT_FALSE(watch.everInsensitive);
        EXPECT_EQ(barValue(), 100.0);
        // The transfer's own erase step is the first value the bar shows.
        EXPECT_TRUE(std::is_sorted(watch.barValues.begin() + 1, watch.barValues.end()));
        ASSERT_TRUE(ToolkitLoop::runUntil([&] { return board.finishedImage(kAddress, 0).has_value(); },
                                          std::chrono::seconds(30)));
        EXPECT_TRUE(*board.finishedImage(kAddress, 0) == bytes);
    }

    std::uint64_t eraseFieldValue() { return board.device(kAddress)->fieldValue("erase").value_or(0); }

    void silenceBoard(bool silent) {
        DeviceSimulator::Faults faults;
        faults.silent = silent;
        board.setFaults(faults);
    }
};

} // namespace

TEST_F(Stm32Load, UserFileFindsTheBoardByItselfAndLandsByteForByte) {
    // A board that calls its "erase" field a 1-byte one: the word still goes
    // as a 4-byte integer.
    SimDevice narrow(kAddress, "MeridKestal STM32", 2, 7);
    narrow.addField("erase", 3);
    narrow.addField("reboot", 8);
    board.removeDevice(kAddress);
    board.addDevice(narrow);
    const Bytes bytes = makeImage(kStm32ImageSize, 11);
    connect();
    pickFile(writeFile("stm32.bin", bytes));
    // No search first: the load's poll finds the board and its fields.
    pressUpload();
    EXPECT_EQ(statusText(), "0%");
    LoadWatch climb;
    expectLoadOf(bytes, &climb);
    const auto between = std::count_if(climb.barValues.begin(), climb.barValues.end(),
                                       [](double value) { return value > 0 && value < 100; });
    EXPECT_GE(between, 3) << "the bar jumped instead of climbing";

    EXPECT_EQ(eraseFieldValue(), kEraseWord);
    const auto counters = board.counters(kAddress);
    EXPECT_EQ(counters->eraseCommands, 1u);
    EXPECT_EQ(counters->fileErases, 1u);
    EXPECT_EQ(counters->fileWrites, kStm32ImageSize / 32);
    EXPECT_EQ(counters->fileFinishes, 1u);
    EXPECT_EQ(counters->writesWithoutErase, 0u);
}

TEST_F(Stm32Load, PreinstalledImageAfterASearch) {
    const Bytes bytes = guitest::resourceBytes("/meridkestalutility/firmware/Tovik_2.13.319.f75a0c3_aes.bin");
    ASSERT_EQ(bytes.size(), kStm32ImageSize);
    connect();
    search();
    const auto rows = ui->get<Gtk::ListBox>("ListDeviceListBox")->get_children();
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(dynamic_cast<Gtk::Label*>(dynamic_cast<Gtk::ListBoxRow*>(rows[0])->get_child())->get_text(),
              "MeridKestal STM32");
    chooseMethod("STM32");
    ui->get<Gtk::Switch>("FirmwareSourceModeSwitch")->set_active(true);
    pressUpload();
    expectLoadOf(bytes);
    EXPECT_EQ(eraseFieldValue(), kEraseWord);
}

// The poll's time-out is fixed inside the window: this is the one test that
// waits it out (51 ticks of 200 ms).
TEST_F(Stm32Load, ABoardThatNeverAnswersEndsTheWaitAfterTwelveSearches) {
    const Bytes bytes = makeImage(1000, 7);
    silenceBoard(true);
    connect();
    pickFile(writeFile("small.bin", bytes));
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

    silenceBoard(false);
    pressUpload();
    expectLoadOf(bytes);
}

TEST_F(Stm32Load, ALinkClosedDuringTheWaitEndsItAndAPressWhileDisconnectedDoesNothing) {
    silenceBoard(true);
    connect();
    pressUpload();
    ToolkitLoop::runFor(std::chrono::milliseconds(500));
    ui->get<Gtk::MenuItem>("DisconnectImageMenuItem")->activate();
    ASSERT_TRUE(ToolkitLoop::runUntil([&] {
        return captured->contains("MainWindow: USB connection lost while waiting to start STM32 erase",
                                  BaseLogger::ERROR);
    }));
    const std::size_t searches = framesWithCommand(kDeviceInfoReq);
    captured->clear();
    pressUpload();
    ToolkitLoop::runFor(std::chrono::milliseconds(1200));
    EXPECT_EQ(framesWithCommand(kDeviceInfoReq), searches);
    EXPECT_EQ(captured->count("MainWindow: "), 0u);
    EXPECT_EQ(statusText(), "0%");

    silenceBoard(false);
    const Bytes bytes = makeImage(640, 23);
    connect();
    pickFile(writeFile("small.bin", bytes));
    pressUpload();
    expectLoadOf(bytes);
}

TEST_F(Stm32Load, AnEmptyPathErasesTheBoardAndSendsNoFile) {
    connect();
    pressUpload();
    ASSERT_TRUE(ToolkitLoop::runUntil([&] {
        return captured->contains("MainWindow: File path is empty or did't exist", BaseLogger::WARNING);
    }));
    ToolkitLoop::runFor(std::chrono::milliseconds(300));
    EXPECT_EQ(board.counters(kAddress)->eraseCommands, 1u);
    EXPECT_EQ(framesWithCommand(kFileWriteReq), 0u);
    EXPECT_EQ(barValue(), 0.0);
    EXPECT_TRUE(windowSensitive());

    const Bytes bytes = makeImage(700, 13);
    pickFile(writeFile("small.bin", bytes));
    pressUpload();
    expectLoadOf(bytes);
}

TEST_F(Stm32Load, UnpluggedDuringTheTransferTheBarStopsAndALaterLoadSucceeds) {
    const Bytes bytes = makeImage(kStm32ImageSize, 17);
    connect();
    pickFile(writeFile("stm32.bin", bytes));
    pressUpload();
    ASSERT_TRUE(watch([&] { return barValue() >= 20; }).finished);
    board.unplug();
    ToolkitLoop::runFor(std::chrono::milliseconds(1500));
    const double stoppedAt = barValue();
    EXPECT_LT(stoppedAt, 100.0);
    ToolkitLoop::runFor(std::chrono::milliseconds(500));
    EXPECT_EQ(barValue(), stoppedAt);
    EXPECT_NE(statusText(), kFlashedText);
    EXPECT_TRUE(windowSensitive());
    EXPECT_FALSE(board.finishedImage(kAddress, 0).has_value());

    // Plugged in again (a new port) and connected in the dialog: the load
    // runs from the start.
    plugBoard();
    connect();
    pressUpload();
    expectLoadOf(bytes);
}

// The window's operations that none of its own flows calls: a field set, the
// update mode, and the reboot with the link restored behind it.
TEST_F(Stm32Load, FieldSetUpdateModeAndRebootReachTheBoard) {
    ui->window().rebootDevice();
    EXPECT_TRUE(captured->contains("MainWindow: device didn't exist for reboot", BaseLogger::ERROR));
    connect();
    search();
    // "serialNumber" is the fourth field.
    const std::uint64_t serial = 0x11223344;
    ui->window().setFieldValue(&serial, 3);
    EXPECT_TRUE(
        ToolkitLoop::runUntil([&] { return board.device(kAddress)->fieldValue("serialNumber") == serial; }));
    ui->window().setDeviceDfuMode();
    EXPECT_TRUE(ToolkitLoop::runUntil([&] {
        const auto journal = board.journal();
        return std::any_of(journal.begin(), journal.end(), [](const DeviceSimulator::JournalEntry& entry) {
            return entry.kind == DeviceSimulator::JournalEntry::DfuRequest;
        });
    }));

    // A second request during the reconnect starts no other.
    const std::size_t searches = framesWithCommand(kDeviceInfoReq);
    ui->window().rebootDevice();
    ui->window().rebootDevice();
    EXPECT_TRUE(ToolkitLoop::runUntil([&] { return board.counters(kAddress)->rebootCommands >= 1; }));
    EXPECT_TRUE(ToolkitLoop::runUntil([&] { return framesWithCommand(kDeviceInfoReq) > searches; },
                                      std::chrono::seconds(10)));
    ToolkitLoop::runFor(std::chrono::milliseconds(300));
    EXPECT_EQ(captured->count("is opened!"), 2u);
    const Bytes bytes = makeImage(900, 19);
    pickFile(writeFile("small.bin", bytes));
    pressUpload();
    expectLoadOf(bytes);
}
