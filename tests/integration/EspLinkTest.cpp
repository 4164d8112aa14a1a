#include "DeviceSimulator.h"
#include "EspRomBridge.h"
#include "EspRomSimulator.h"
#include "EspSerialFlasherPort.h"
#include "MeridEspSerialFlasher.h"
#include "TestSupport.h"
#include "UsbCommunication.h"
#include "esp_loader.h"

#include <gtest/gtest.h>

namespace {

// The window's ESP32 flash, MeridEspSerialFlasher over the program's
// transport, against the simulated board's ROM loader on a pseudo-terminal.
struct EspBoard {
    explicit EspBoard(unsigned silentSyncs, EspRomSimulator::Config config = {})
        : chip(std::make_shared<EspRomSimulator>(config)) {
        EspRomBridge::install(simulator, chip);
        chip->setFaults(EspRomSimulator::Faults{.silentSyncs = silentSyncs});
    }
    ~EspBoard() { simulator.stop(); }

    DeviceSimulator simulator;
    std::shared_ptr<EspRomSimulator> chip;
};

} // namespace

// A slow chip: the ROM loader is asked to sync twenty times, so a chip that
// answers the twentieth request is flashed, and one that would answer only a
// twenty-first is given up with a time-out.
TEST(EspLinkTest, SyncIsTriedTwentyTimes) {
    testsupport::CapturingLogger log;
    testsupport::TempDir dir;
    const testsupport::Bytes image(3000, 0x3C);
    const std::string path = dir.path() + "/app.bin";
    ASSERT_TRUE(testsupport::writeFile(path, image));
    struct Case {
        unsigned silentSyncs;
        bool flashed;
    };
    for (const Case c : {Case{19, true}, Case{20, false}}) {
        SCOPED_TRACE(c.silentSyncs);
        EspBoard board(c.silentSyncs);
        ASSERT_TRUE(board.simulator.start()) << board.simulator.lastError();
        UsbCommunication usb;
        usb.portName = board.simulator.slavePath();
        usb.baudrate = UsbTypes::Baud921600;
        ASSERT_EQ(usb.connect(UsbCommunication::MethodCom), UsbTypes::Ok);
        std::string error;
        EXPECT_EQ(MeridEspSerialFlasher::flashBinary(usb, path, {}, {}, &error), c.flashed) << error;
        usb.disconnect();
        if (c.flashed) {
            EXPECT_EQ(board.chip->counters().syncs, 1u);
            EXPECT_EQ(board.chip->flash(0, static_cast<std::uint32_t>(image.size())), image);
        } else {
            EXPECT_EQ(error, "esp_loader_connect failed: 2");
            EXPECT_EQ(board.chip->counters().syncs, 0u);
            EXPECT_EQ(board.chip->counters().flashBegins, 0u);
        }
    }
}

// What a production line reads from the chip once connected: its type, its
// MAC from the efuses and the size of its flash.
TEST(EspLinkTest, TheChipReportsItsTypeMacAndFlashSize) {
    for (const std::uint32_t flashSize : {256u << 10, 4u << 20, 16u << 20}) {
        SCOPED_TRACE(flashSize);
        EspBoard board(0, {.flashSize = flashSize, .macLow = 0x11223344, .macHigh = 0x5566});
        ASSERT_TRUE(board.simulator.start()) << board.simulator.lastError();
        UsbCommunication usb;
        usb.portName = board.simulator.slavePath();
        ASSERT_EQ(usb.connect(UsbCommunication::MethodCom), UsbTypes::Ok);
        meridEspSerialFlasherPortSetUsb(&usb);
        esp_loader_connect_args_t args = {500, 1};
        ASSERT_EQ(esp_loader_connect(&args), ESP_LOADER_SUCCESS);
        EXPECT_EQ(esp_loader_get_target(), ESP32_CHIP);
        std::uint8_t mac[6] = {};
        ASSERT_EQ(esp_loader_read_mac(mac), ESP_LOADER_SUCCESS);
        EXPECT_EQ(testsupport::Bytes(mac, mac + 6), (testsupport::Bytes{0x55, 0x66, 0x11, 0x22, 0x33, 0x44}));
        std::uint32_t size = 0;
        ASSERT_EQ(esp_loader_flash_detect_size(&size), ESP_LOADER_SUCCESS);
        EXPECT_EQ(size, flashSize);
        usb.disconnect();
    }
}
