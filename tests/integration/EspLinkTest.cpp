#include "DeviceSimulator.h"
#include "EspRomBridge.h"
#include "EspRomSimulator.h"
#include "MeridEspSerialFlasher.h"
#include "TestSupport.h"
#include "UsbCommunication.h"

#include <gtest/gtest.h>

namespace {

// The window's ESP32 flash, MeridEspSerialFlasher over the program's
// transport, against the simulated board's ROM loader on a pseudo-terminal.
struct EspBoard {
    explicit EspBoard(unsigned silentSyncs) {
        EspRomBridge::install(simulator, chip);
        chip->setFaults(EspRomSimulator::Faults{.silentSyncs = silentSyncs});
    }
    ~EspBoard() { simulator.stop(); }

    DeviceSimulator simulator;
    std::shared_ptr<EspRomSimulator> chip = std::make_shared<EspRomSimulator>();
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
