// ESP32 flashes through the real window against the simulated board's ROM
// loader: the window's sensitivity, the level bar and the text that ends a
// flash; and each failure, followed by a flash that works.
#include "BoardLoadFixture.h"

#include "GlobalHandlerEvents.h"

using guitest::BoardLoadTest;
using guitest::Bytes;
using guitest::makeImage;
using testsupport::ToolkitLoop;

namespace {

constexpr std::size_t kMiB = 1u << 20;
constexpr std::size_t kBlock = 1024;

// The MD5 of `bytes` padded with 0xFF to whole blocks, as the chip is sent them.
std::string sentMd5(Bytes bytes) {
    bytes.resize((bytes.size() + kBlock - 1) / kBlock * kBlock, 0xFF);
    return Glib::Checksum::compute_checksum(Glib::Checksum::CHECKSUM_MD5,
                                            std::string(bytes.begin(), bytes.end()));
}

class Esp32Flash : public BoardLoadTest {
protected:
    void SetUp() override {
        BoardLoadTest::SetUp();
        connect();
        ui->get<Gtk::ComboBoxText>("FirmwareMethodComboBoxText")->set_active_text("ESP32");
    }

    // A flash that ends with the success text, the window insensitive while
    // it runs, and the bytes in the flash.
    void expectFlashOf(const Bytes& bytes) {
        const guitest::LoadWatch watch = this->watch();
        ASSERT_TRUE(watch.finished) << "label: " << statusText() << ", bar: " << barValue();
        EXPECT_TRUE(watch.everInsensitive);
        EXPECT_EQ(barValue(), 100.0);
        EXPECT_TRUE(chip->flash(0, static_cast<std::uint32_t>(bytes.size())) == bytes);
    }

    // Waits for the window to come back after a flash that failed with `why`.
    void expectFailure(const std::string& why) {
        ASSERT_TRUE(ToolkitLoop::runUntil(
            [&] { return captured->contains("MainWindow: ESP32 flashing failed: ", BaseLogger::ERROR); },
            std::chrono::seconds(60)));
        EXPECT_TRUE(captured->contains("MainWindow: ESP32 flashing failed: " + why)) << why;
        EXPECT_TRUE(ToolkitLoop::runUntil([&] { return windowSensitive(); }));
        EXPECT_NE(statusText(), kFlashedText);
        captured->clear();
    }
};

} // namespace

TEST_F(Esp32Flash, FailuresLeaveTheBarWhereTheyStoppedAndTheNextFlashWorks) {
    // An empty path starts nothing.
    pressUpload();
    EXPECT_TRUE(windowSensitive());
    EXPECT_TRUE(captured->contains("MainWindow: File path is empty or did't exist", BaseLogger::WARNING));
    ToolkitLoop::runFor(std::chrono::milliseconds(500));
    EXPECT_EQ(board.journalSize(), 0u);
    EXPECT_EQ(chip->counters().syncs, 0u);

    // A one-byte image fails before the flash begins.
    pickFile(writeFile("one.bin", Bytes{0x42}));
    pressUpload();
    expectFailure("esp_loader_flash_start failed: 5");
    EXPECT_EQ(chip->counters().flashBegins, 0u);
    EXPECT_EQ(statusText(), "0%");

    // A block refused at 40 % keeps the bar and the text there.
    EspRomSimulator::Faults faults;
    faults.failDataBlock = 2;
    faults.failDataCount = 3;
    chip->setFaults(faults);
    const Bytes bytes = makeImage(2500, 8);
    pickFile(writeFile("esp32.bin", bytes));
    pressUpload();
    expectFailure("esp_loader_flash_write failed: 9");
    ToolkitLoop::runFor(std::chrono::milliseconds(200));
    EXPECT_EQ(barValue(), 40.0);
    EXPECT_EQ(statusText(), "40%");

    // A flash that reads back other than it was sent: every block was
    // taken, yet no success text.
    faults = EspRomSimulator::Faults{};
    faults.corruptFlash = true;
    chip->setFaults(faults);
    pressUpload();
    // The simulator inverts the byte in the middle of the written region.
    Bytes corrupted = bytes;
    corrupted.resize(3 * kBlock, 0xFF);
    corrupted[corrupted.size() / 2] ^= 0xFF;
    expectFailure("flash MD5 mismatch: image MD5 " + sentMd5(bytes) + ", flash MD5 " + sentMd5(corrupted));
    EXPECT_EQ(statusText(), "100%");

    // The preinstalled image after all that, its digest confirmed.
    chip->setFaults(EspRomSimulator::Faults{});
    const Bytes image = guitest::resourceBytes("/meridkestalutility/firmware/merid_firmware.bin");
    ASSERT_EQ(image.size(), 1803184u);
    ui->get<Gtk::Switch>("FirmwareSourceModeSwitch")->set_active(true);
    pressUpload();
    expectFlashOf(image);
    EXPECT_TRUE(captured->contains("EspSerialFlasher: Flash MD5 matches the image: " + sentMd5(image),
                                   BaseLogger::INFO));
}

TEST_F(Esp32Flash, AMebibyteHoldsTheWindowAndLandsAfterAnUnplugAndAReconnect) {
    const Bytes bytes = makeImage(kMiB, 31);
    pickFile(writeFile("esp32.bin", bytes));
    pressUpload();
    // The handler takes the window away before it returns.
    EXPECT_FALSE(windowSensitive());
    EXPECT_EQ(statusText(), "0%");
    ASSERT_TRUE(watch([&] { return barValue() >= 10; }).finished);
    // Another start while the worker runs is refused.
    EXPECT_EQ(GlobalHandlerEvents::getInstance()._executeHandlerWithArgs<LoadStage>(UPLOAD_FIRMWARE, Erase),
              GlobalHandlerEvents::Failure);
    EXPECT_TRUE(captured->contains("MainWindow: ESP32 flashing already in progress", BaseLogger::WARNING));
    board.unplug();
    expectFailure("");
    EXPECT_LT(barValue(), 100.0);

    // Plugged in again (a new port) and connected in the dialog.
    plugBoard();
    connect();
    pressUpload();
    expectFlashOf(bytes);
}
