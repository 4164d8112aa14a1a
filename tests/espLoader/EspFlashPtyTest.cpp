// flashBinary end to end: the program's UsbCommunication on a pseudo-terminal,
// the simulated board behind it switching to its ESP32 ROM loader on the
// enter frame.
#include "DeviceSimulator.h"
#include "EspRomBridge.h"
#include "MeridEspSerialFlasher.h"
#include "TestSupport.h"
#include "UsbCommunication.h"

#include <gtest/gtest.h>

#include <algorithm>

using testsupport::Bytes;

namespace {

class EspFlashOverPty : public ::testing::Test {
protected:
    void SetUp() override {
        EspRomBridge::install(simulator, chip);
        simulator.addDevice(SimDevice::standard(2, "MeridKestal STM32"));
        ASSERT_TRUE(simulator.start()) << simulator.lastError();
        usb.portName = simulator.slavePath();
        usb.baudrate = UsbTypes::Baud921600;
        ASSERT_EQ(usb.connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    }

    void TearDown() override {
        usb.disconnect();
        simulator.stop();
    }

    // Flashes `size` bytes of a pattern; the image, or nothing on failure.
    std::optional<Bytes> flash(size_t size, const MeridEspSerialFlasher::FlashOptions& options,
                               std::vector<int>& progress, std::string& error) {
        Bytes image(size);
        for (size_t i = 0; i < size; ++i) {
            image[i] = static_cast<uint8_t>(i * 7 + i / 251);
        }
        const std::string path = dir.path() + "/app.bin";
        EXPECT_TRUE(testsupport::writeFile(path, image));
        const auto report = [&progress](unsigned char percent) { progress.push_back(percent); };
        if (!MeridEspSerialFlasher::flashBinary(usb, path, options, report, &error)) {
            return std::nullopt;
        }
        return image;
    }

    testsupport::TempDir dir;
    DeviceSimulator simulator;
    std::shared_ptr<EspRomSimulator> chip = std::make_shared<EspRomSimulator>();
    UsbCommunication usb;
};

} // namespace

// A flash that fails on a refused block, then one that lands through stray bytes.
TEST_F(EspFlashOverPty, RefusedBlockEndsAFlashAndTheNextOneLands) {
    EspRomSimulator::Faults faults;
    faults.failDataBlock = 2;
    faults.failDataCount = 3;
    chip->setFaults(faults);
    std::vector<int> progress;
    std::string error;
    EXPECT_FALSE(flash(4096, {0, 16, false}, progress, error)); // blocks of 256 bytes
    EXPECT_EQ(error, "esp_loader_flash_write failed: 9");
    EXPECT_EQ(progress, std::vector<int>{6});

    faults = {};
    faults.garbageBytes = 9;
    chip->setFaults(faults);
    progress.clear();
    auto image = flash(2500, {0, 1024, false}, progress, error);
    ASSERT_TRUE(image) << error;
    EXPECT_EQ(progress, (std::vector<int>{40, 81, 100}));
    image->resize(3072, 0xFF); // the last block padded
    EXPECT_EQ(chip->flash(0, 3072), *image);
    EXPECT_FALSE(chip->counters().rebooted); // stays in the loader
}

// The compressed path: the stream goes in unpadded blocks, the chip inflates
// it into exactly the image, and the flash behind it stays erased.
TEST_F(EspFlashOverPty, CompressedFlashLandsByteExact) {
    chip->fillFlash(0, Bytes(0x5000, 0x00));
    std::vector<int> progress;
    std::string error;
    const auto image = flash(10000, {0x1000, 1024, false, true, true}, progress, error);
    ASSERT_TRUE(image) << error;
    EXPECT_EQ(chip->flash(0x1000, 10000), *image);
    const uint32_t end = 0x1000 + 10000;
    EXPECT_EQ(chip->flash(end, 0x4000 - end), Bytes(0x4000 - end, 0xFF)); // the erased rest of its sector
    EXPECT_EQ(chip->flash(0, 0x1000), Bytes(0x1000, 0x00));               // before the offset, untouched
    const auto opcodes = chip->opcodes();
    EXPECT_EQ(std::count(opcodes.begin(), opcodes.end(), 0x10), 1);
    EXPECT_EQ(std::count(opcodes.begin(), opcodes.end(), 0x03), 0);
    EXPECT_EQ(static_cast<size_t>(std::count(opcodes.begin(), opcodes.end(), 0x11)), progress.size());
    EXPECT_LT(progress.size(), 10u); // fewer blocks than the plain 10
    EXPECT_EQ(progress.back(), 100);
}
