// flashBinary end to end: the program's UsbCommunication on a pseudo-terminal,
// the simulated board behind it switching to its ESP32 ROM loader on the
// enter frame.
#include "DeviceSimulator.h"
#include "EspRomBridge.h"
#include "EspSerialFlasherPort.h"
#include "MeridEspSerialFlasher.h"
#include "TestSupport.h"
#include "UsbCommunication.h"
#include "esp_loader.h"
#include "protocol.h"

#include <gtest/gtest.h>

#include <fstream>
#include <memory>

using testsupport::CapturingLogger;
using testsupport::TempDir;
using Bytes = std::vector<uint8_t>;

namespace {

class EspFlashOverPty : public ::testing::Test {
protected:
    void SetUp() override {
        chip = std::make_shared<EspRomSimulator>();
        EspRomBridge::install(simulator, chip);
        simulator.addDevice(SimDevice::standard(2, "MeridKestal STM32"));
        ASSERT_TRUE(simulator.start()) << simulator.lastError();
        usb.portName = simulator.slavePath();
        usb.baudrate = UsbTypes::Baud921600;
        ASSERT_EQ(usb.connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    }

    void TearDown() override {
        esp_stub_set_running(false);
        usb.disconnect();
        simulator.stop();
    }

    std::string writeFile(const std::string& name, const Bytes& bytes) {
        const std::string path = dir.path() + "/" + name;
        std::ofstream out(path, std::ios::binary);
        out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        return path;
    }

    static Bytes image(size_t size, uint32_t seed) {
        Bytes bytes(size);
        for (size_t i = 0; i < size; ++i) {
            seed = seed * 1664525u + 1013904223u;
            bytes[i] = static_cast<uint8_t>(seed >> 24);
        }
        return bytes;
    }

    bool flash(const std::string& path, std::vector<unsigned char>* progress, std::string* error) {
        const MeridEspSerialFlasher::FlashOptions options{0, 1024, false};
        std::function<void(unsigned char)> report;
        if (progress != nullptr) {
            report = [progress](unsigned char percent) { progress->push_back(percent); };
        }
        return MeridEspSerialFlasher::flashBinary(usb, path, options, report, error);
    }

    bool enterFrameCameFirst() {
        const auto journal = simulator.journal();
        return !journal.empty() &&
               journal.front().raw == Bytes(kEnterEspFlashingPayload, kEnterEspFlashingPayload + 12);
    }

    TempDir dir;
    DeviceSimulator simulator;
    std::shared_ptr<EspRomSimulator> chip;
    UsbCommunication usb;
};

} // namespace

TEST_F(EspFlashOverPty, OneMebibyteLandsInTheFlash) {
    const Bytes bytes = image(1 << 20, 7);
    const std::string path = writeFile("app.bin", bytes);
    std::vector<unsigned char> progress;
    std::string error;
    ASSERT_TRUE(flash(path, &progress, &error)) << error;
    EXPECT_TRUE(error.empty());

    EXPECT_EQ(chip->flash(0, 1 << 20), bytes);
    EXPECT_TRUE(enterFrameCameFirst());
    EXPECT_TRUE(simulator.inRawMode());
    const auto counters = chip->counters();
    EXPECT_GE(counters.portCloses, 1u);
    EXPECT_GE(counters.portOpens, 1u);
    EXPECT_EQ(counters.dataBlocks, 1024u);
    EXPECT_EQ(counters.flashEnds, 1u);
    EXPECT_FALSE(counters.rebooted); // stays in the loader
    ASSERT_EQ(progress.size(), 1024u);
    EXPECT_EQ(progress.front(), 0); // 1024 * 100 / 1048576
    EXPECT_EQ(progress[10], 1);
    EXPECT_EQ(progress.back(), 100);
    EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
    EXPECT_TRUE(usb.isConnected());
}

TEST_F(EspFlashOverPty, ShortImageReportsFortyEightyOneHundred) {
    const Bytes bytes = image(2500, 3);
    std::vector<unsigned char> progress;
    std::string error;
    ASSERT_TRUE(flash(writeFile("short.bin", bytes), &progress, &error)) << error;
    EXPECT_EQ(progress, (std::vector<unsigned char>{40, 81, 100}));
    EXPECT_EQ(chip->flash(0, 2500), bytes);
    EXPECT_EQ(chip->flash(2500, 3072 - 2500), Bytes(3072 - 2500, 0xFF));
}

TEST_F(EspFlashOverPty, SmallBlockSizesCountAsTwoHundredFiftySix) {
    const Bytes bytes = image(1024, 9);
    std::string error;
    int calls = 0;
    ASSERT_TRUE(MeridEspSerialFlasher::flashBinary(
        usb, writeFile("app.bin", bytes), {0, 16, false}, [&](unsigned char) { ++calls; }, &error))
        << error;
    EXPECT_EQ(calls, 4);
    EXPECT_EQ(chip->counters().dataBlocks, 4u);
    EXPECT_EQ(chip->flash(0, 1024), bytes);
}

TEST_F(EspFlashOverPty, OneByteFileReachesThePortAndFailsAtTheStart) {
    std::string error;
    EXPECT_FALSE(flash(writeFile("one.bin", {0x42}), nullptr, &error));
    EXPECT_EQ(error, "esp_loader_flash_start failed: 5");
    EXPECT_TRUE(enterFrameCameFirst());
    EXPECT_GE(chip->counters().syncs, 1u);
    EXPECT_EQ(chip->counters().flashBegins, 0u);
}

TEST_F(EspFlashOverPty, MissingOrEmptyFileFailsBeforeThePortIsTouched) {
    std::string error;
    const std::string missing = dir.path() + "/nothing.bin";
    EXPECT_FALSE(flash(missing, nullptr, nullptr));
    EXPECT_FALSE(flash(missing, nullptr, &error));
    EXPECT_EQ(error, "Can't open file: " + missing);
    const std::string empty = writeFile("empty.bin", {});
    EXPECT_FALSE(flash(empty, nullptr, &error));
    EXPECT_EQ(error, "File is empty or size is invalid: " + empty);

    EXPECT_EQ(simulator.journalSize(), 0u);
    EXPECT_EQ(simulator.bytesReceived(), 0u);
    EXPECT_FALSE(simulator.inRawMode());
}

TEST_F(EspFlashOverPty, SilentSyncGivesUpAfterTwentyTrials) {
    EspRomSimulator::Faults faults;
    faults.silentSyncs = 1000;
    chip->setFaults(faults);
    std::string error;
    EXPECT_FALSE(flash(writeFile("app.bin", image(4096, 1)), nullptr, &error));
    EXPECT_EQ(error, "esp_loader_connect failed: 2");
    EXPECT_EQ(chip->opcodes(), std::vector<uint8_t>(20, SYNC));
}

TEST_F(EspFlashOverPty, LateSyncGarbageAndARefusedBlockAreRidden) {
    CapturingLogger log;
    EspRomSimulator::Faults faults;
    faults.silentSyncs = 2;
    faults.garbageBytes = 9;
    faults.failDataBlock = 3;
    chip->setFaults(faults);
    const Bytes bytes = image(8192, 11);
    std::string error;
    ASSERT_TRUE(flash(writeFile("app.bin", bytes), nullptr, &error)) << error;
    EXPECT_EQ(chip->flash(0, 8192), bytes);
    EXPECT_TRUE(log.contains("Error: BAD_DATA_CHECKSUM", BaseLogger::DEBUG));
    EXPECT_EQ(chip->counters().refusals, 2u); // the security info, and block 3 once
}

TEST_F(EspFlashOverPty, ThreeRefusalsOfABlockEndTheFlash) {
    EspRomSimulator::Faults faults;
    faults.failDataBlock = 2;
    faults.failDataCount = 3;
    chip->setFaults(faults);
    std::vector<unsigned char> progress;
    std::string error;
    EXPECT_FALSE(flash(writeFile("app.bin", image(4096, 5)), &progress, &error));
    EXPECT_EQ(error, "esp_loader_flash_write failed: 9");
    EXPECT_EQ(progress, (std::vector<unsigned char>{25}));
}

TEST_F(EspFlashOverPty, FlashIsKeptAcrossAReopenAndReadBackThroughTheStub) {
    const Bytes bytes = image(6000, 13);
    std::string error;
    ASSERT_TRUE(flash(writeFile("app.bin", bytes), nullptr, &error)) << error;

    // The program closes and opens the port again: the chip and its flash
    // stay, and a stub started now reads back what was written.
    ASSERT_EQ(usb.disconnect(), UsbTypes::Ok);
    ASSERT_EQ(usb.connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    esp_loader_connect_args_t args{500, 20};
    ASSERT_EQ(loader_initialize_conn(&args), ESP_LOADER_SUCCESS);
    ASSERT_EQ(loader_run_stub(ESP32_CHIP), ESP_LOADER_SUCCESS);
    EXPECT_TRUE(chip->counters().stubRunning);

    Bytes back(6000);
    ASSERT_EQ(esp_loader_flash_read(back.data(), 0, 6000), ESP_LOADER_SUCCESS);
    EXPECT_EQ(back, bytes);

    ASSERT_EQ(esp_loader_flash_erase_region(0, 0x1000), ESP_LOADER_SUCCESS);
    EXPECT_EQ(chip->flash(0, 0x1000), Bytes(0x1000, 0xFF));
    EXPECT_EQ(chip->flash(0x1000, 6000 - 0x1000), Bytes(bytes.begin() + 0x1000, bytes.end()));
}
