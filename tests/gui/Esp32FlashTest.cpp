// ESP32 flashes through the real window against the simulated board's ROM
// loader: the worker, the window's sensitivity, the progress and the lines
// that end a flash; and how a flash ends when something is wrong.
#include "BoardLoadFixture.h"

#include "EspSerialFlasherPort.h"
#include "GlobalHandlerEvents.h"

#include <algorithm>

using guitest::BoardLoadTest;
using guitest::Bytes;
using guitest::LoadWatch;
using guitest::makeImage;
using guitest::pumpFor;
using guitest::pumpUntil;

namespace {

constexpr std::uint8_t kSyncOpcode = 0x08;
constexpr std::size_t kMiB = 1u << 20;

class Esp32Flash : public BoardLoadTest {
protected:
    // A flash that must end with the success text; the window is insensitive
    // while it runs.
    void expectFlashOf(const Bytes& bytes) {
        const LoadWatch watch = watchLoad();
        ASSERT_TRUE(watch.finished) << "label: " << statusText() << ", bar: " << barValue();
        EXPECT_TRUE(watch.everInsensitive);
        EXPECT_EQ(barValue(), 100.0);
        EXPECT_TRUE(captured->contains("MainWindow: ESP32 flashing completed", BaseLogger::INFO));
        EXPECT_FALSE(captured->contains("ESP32 flashing failed"));
        EXPECT_TRUE(chip->flash(0, static_cast<std::uint32_t>(bytes.size())) == bytes);
        // The last block is padded, and nothing is written behind it.
        const std::uint32_t end = static_cast<std::uint32_t>(bytes.size());
        const Bytes after = chip->flash(end, 4096);
        EXPECT_TRUE(std::all_of(after.begin(), after.end(), [](std::uint8_t b) { return b == 0xFF; }));
    }

    // The board took the enter frame as the last frame of its own protocol,
    // and the ROM loader's first frame was a sync.
    void expectEnterFrameBeforeTheLoader() {
        const auto journal = board.journal();
        ASSERT_FALSE(journal.empty());
        EXPECT_TRUE(journal.back().raw == Bytes(kEnterEspFlashingPayload, kEnterEspFlashingPayload + 12));
        const auto opcodes = chip->opcodes();
        ASSERT_FALSE(opcodes.empty());
        EXPECT_EQ(opcodes.front(), kSyncOpcode);
    }

    // Waits for the window to come back after a flash that failed.
    void waitForFailure() {
        ASSERT_TRUE(pumpUntil(
            [&] { return captured->contains("MainWindow: ESP32 flashing failed: ", BaseLogger::ERROR); },
            std::chrono::seconds(60)));
        EXPECT_TRUE(pumpUntil([&] { return windowSensitive(); }));
        EXPECT_FALSE(captured->contains("ESP32 flashing completed"));
    }
};

} // namespace

TEST_F(Esp32Flash, OneMebibyteUserFileLandsInTheFlash) {
    const Bytes bytes = makeImage(kMiB, 21);
    connect();
    search();
    chooseMethod("ESP32");
    pickFile(writeFile("esp32.bin", bytes));
    pressUpload();
    // The handler takes the window away before it returns.
    EXPECT_FALSE(windowSensitive());
    EXPECT_EQ(statusText(), "0%");

    // Another start while the worker runs is refused.
    LoadWatch watch;
    ASSERT_TRUE(watchUntil([&] { return barValue() >= 10; }, watch, std::chrono::seconds(60)));
    EXPECT_EQ(GlobalHandlerEvents::getInstance()._executeHandlerWithArgs<LoadStage>(UPLOAD_FIRMWARE, Erase),
              GlobalHandlerEvents::Failure);
    EXPECT_TRUE(captured->contains("MainWindow: ESP32 flashing already in progress", BaseLogger::WARNING));

    expectFlashOf(bytes);
    expectEnterFrameBeforeTheLoader();
    EXPECT_EQ(chip->counters().dataBlocks, 1024u);
    EXPECT_EQ(chip->counters().flashEnds, 1u);
    EXPECT_FALSE(chip->counters().rebooted);
    EXPECT_TRUE(MainWindowTestAccess::usb(window()).isConnected());
}

TEST_F(Esp32Flash, PreinstalledImageIsFlashedWithItsLastBlockPadded) {
    const Bytes bytes = guitest::resourceBytes("/meridkestalutility/firmware/merid_firmware.bin");
    ASSERT_FALSE(bytes.empty());
    connect();
    chooseMethod("ESP32");
    usePreinstalled(true);
    pressUpload();
    EXPECT_FALSE(windowSensitive());
    expectFlashOf(bytes);
    expectEnterFrameBeforeTheLoader();
    const std::uint32_t blocks = static_cast<std::uint32_t>((bytes.size() + 1023) / 1024);
    EXPECT_EQ(chip->counters().dataBlocks, blocks);
    const Bytes padding = chip->flash(static_cast<std::uint32_t>(bytes.size()),
                                      static_cast<std::uint32_t>(blocks * 1024 - bytes.size()));
    EXPECT_TRUE(std::all_of(padding.begin(), padding.end(), [](std::uint8_t b) { return b == 0xFF; }));
}

TEST_F(Esp32Flash, AnEmptyPathStartsNoWorker) {
    connect();
    chooseMethod("ESP32");
    pressUpload();
    EXPECT_TRUE(windowSensitive());
    EXPECT_TRUE(captured->contains("MainWindow: File path is empty or did't exist", BaseLogger::WARNING));
    pumpFor(std::chrono::milliseconds(500));
    EXPECT_EQ(board.journalSize(), 0u);
    EXPECT_EQ(chip->counters().syncs, 0u);
    EXPECT_EQ(barValue(), 0.0);
    EXPECT_EQ(statusText(), "0%");

    const Bytes bytes = makeImage(8192, 3);
    pickFile(writeFile("esp32.bin", bytes));
    pressUpload();
    expectFlashOf(bytes);
}

TEST_F(Esp32Flash, ARefusedBlockAtFortyPercentKeepsTheBarThere) {
    EspRomSimulator::Faults faults;
    faults.failDataBlock = 2;
    faults.failDataCount = 3;
    chip->setFaults(faults);
    const Bytes bytes = makeImage(2500, 8);
    connect();
    chooseMethod("ESP32");
    pickFile(writeFile("esp32.bin", bytes));
    pressUpload();
    waitForFailure();
    EXPECT_TRUE(captured->contains("MainWindow: ESP32 flashing failed: esp_loader_flash_write failed: 9",
                                   BaseLogger::ERROR));
    pumpFor(std::chrono::milliseconds(200));
    EXPECT_EQ(barValue(), 40.0);
    EXPECT_EQ(statusText(), "40%");
    EXPECT_TRUE(windowSensitive());

    // The chip behaves again: the next press flashes.
    chip->setFaults(EspRomSimulator::Faults{});
    captured->clear();
    pressUpload();
    expectFlashOf(bytes);
}

TEST_F(Esp32Flash, AOneByteImageFailsAtTheStartOfTheFlash) {
    connect();
    chooseMethod("ESP32");
    pickFile(writeFile("one.bin", Bytes{0x42}));
    pressUpload();
    EXPECT_FALSE(windowSensitive());
    waitForFailure();
    EXPECT_TRUE(captured->contains("MainWindow: ESP32 flashing failed: esp_loader_flash_start failed: 5",
                                   BaseLogger::ERROR));
    EXPECT_EQ(chip->counters().flashBegins, 0u);
    EXPECT_EQ(barValue(), 0.0);
    EXPECT_EQ(statusText(), "0%");

    const Bytes bytes = makeImage(4096, 4);
    pickFile(writeFile("esp32.bin", bytes));
    captured->clear();
    pressUpload();
    expectFlashOf(bytes);
}

TEST_F(Esp32Flash, UnpluggedDuringTheFlashTheWindowComesBackAndALaterFlashSucceeds) {
    const Bytes bytes = makeImage(kMiB, 31);
    connect();
    chooseMethod("ESP32");
    pickFile(writeFile("esp32.bin", bytes));
    pressUpload();
    LoadWatch watch;
    ASSERT_TRUE(watchUntil([&] { return barValue() >= 10; }, watch, std::chrono::seconds(60)));
    board.unplug();
    waitForFailure();
    const double stoppedAt = barValue();
    EXPECT_LT(stoppedAt, 100.0);
    EXPECT_NE(statusText(), kFlashedText);

    // Plugged in again (a new port) and connected in the dialog.
    replugBoard();
    connect();
    captured->clear();
    pressUpload();
    expectFlashOf(bytes);
}
