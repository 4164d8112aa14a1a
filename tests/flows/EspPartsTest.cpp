// The ESP32 flash through the flows against the simulated ROM loader: a
// slow chip's sync, each part at its own address, a region that already
// holds its part left alone, and nothing written when a part does not fit.
#include "Esp32Flash.h"
#include "EspRomBridge.h"
#include "EspRomSimulator.h"
#include "SimulatedBoardTest.h"

#include <gtest/gtest.h>

using testsupport::Bytes;

namespace {

constexpr std::uint32_t kAddresses[] = {0x1000, 0x8000, 0x10000};

class EspParts : public testsupport::SimulatedBoardTest {
protected:
    void SetUp() override {
        EspRomBridge::install(simulator, chip);
        ASSERT_TRUE(simulator.start()) << simulator.lastError();
        usb.portName = simulator.slavePath();
        usb.baudrate = UsbTypes::Baud921600;
        ASSERT_EQ(usb.connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    }
    void TearDown() override {
        usb.disconnect();
        SimulatedBoardTest::TearDown();
    }

    // The part at `address` with `bytes`, in a file of its own.
    FlashPart part(std::uint32_t address, const Bytes& bytes) {
        return {address, writeImage(bytes, "part" + std::to_string(address) + ".bin")};
    }

    bool run(const std::vector<FlashPart>& parts, const Esp32Flash::Options& options) {
        progress.clear();
        const auto report = [this](unsigned char percent) { progress.push_back(percent); };
        return Esp32Flash::runParts(usb, parts, options, report, outcomes, error);
    }

    std::shared_ptr<EspRomSimulator> chip =
        std::make_shared<EspRomSimulator>(EspRomSimulator::Config{.flashSize = 1u << 20});
    UsbCommunication usb;
    std::vector<PartOutcome> outcomes;
    std::vector<int> progress;
    std::string error;
};

} // namespace

// Three parts given out of order land byte-exact at their addresses; loads
// after that on the same chip write only the parts whose bytes differ from
// the flash's, unless told to write all. Data blocks are counted by the chip.
TEST_F(EspParts, EachPartLandsAtItsAddressAndOnlyChangedPartsAreWrittenAgain) {
    std::vector<Bytes> bytes = {linkImage(0x5432, 1), Bytes(0xC00, 0x5A), linkImage(0x9001, 3)};
    struct Load {
        const char* name;
        bool changeMiddle;
        bool skipUnchanged;
        bool compress;
        std::vector<bool> written;
    };
    const Load loads[] = {
        {"first", false, true, true, {true, true, true}},
        {"same again", false, true, true, {false, false, false}},
        {"middle changed", true, true, true, {false, true, false}},
        {"middle changed, plain", true, true, false, {false, true, false}},
        {"forced", false, false, true, {true, true, true}},
    };
    for (const Load& load : loads) {
        SCOPED_TRACE(load.name);
        if (load.changeMiddle) {
            ++bytes[1][7];
        }
        Esp32Flash::Options options = Esp32Flash::defaults();
        options.skipUnchanged = load.skipUnchanged;
        options.compress = load.compress;
        const unsigned blocksBefore = chip->counters().dataBlocks;
        ASSERT_TRUE(
            run({part(kAddresses[2], bytes[2]), part(kAddresses[0], bytes[0]), part(kAddresses[1], bytes[1])},
                options))
            << error;
        ASSERT_EQ(outcomes.size(), 3u);
        bool anyWritten = false;
        for (std::size_t i = 0; i < 3; ++i) {
            EXPECT_EQ(outcomes[i].address, kAddresses[i]);
            EXPECT_EQ(outcomes[i].size, bytes[i].size());
            EXPECT_EQ(outcomes[i].written, load.written[i]) << i;
            EXPECT_EQ(chip->flash(kAddresses[i], static_cast<std::uint32_t>(bytes[i].size())), bytes[i]);
            anyWritten = anyWritten || load.written[i];
        }
        EXPECT_EQ(chip->counters().dataBlocks > blocksBefore, anyWritten);
        EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
        EXPECT_EQ(progress.back(), 100);
    }
    // The gaps between the parts were never touched.
    EXPECT_EQ(chip->flash(0, 0x1000), Bytes(0x1000, 0xFF));
    EXPECT_EQ(chip->flash(0x8C00, 0x7400), Bytes(0x7400, 0xFF));
}

// A part that does not fit the flash the chip reports, a part that can't be
// read, or no part at all fails the load before anything is written.
TEST_F(EspParts, APartPastTheFlashEndOrUnreadableFailsWithNothingWritten) {
    struct Case {
        std::vector<FlashPart> parts;
        std::string error;
        unsigned syncsSoFar; // an unreadable part stops the load before the link is touched
    };
    const Case cases[] = {
        {{part(0x1000, Bytes(64, 1)), part(0x10000, Bytes(0xF0001, 2))},
         "part at 0x10000 (983041 bytes) ends past the end of the 1 MiB flash",
         1},
        {{part(0x1000, Bytes(64, 1)), {0x8000, dir.path() + "/missing.bin"}},
         "Can't open file: " + dir.path() + "/missing.bin",
         1},
        {{}, "no part to flash", 1},
    };
    for (const Case& c : cases) {
        EXPECT_FALSE(run(c.parts, Esp32Flash::defaults()));
        EXPECT_EQ(error, c.error);
        EXPECT_TRUE(outcomes.empty());
        EXPECT_EQ(chip->counters().syncs, c.syncsSoFar);
        EXPECT_EQ(chip->counters().flashBegins, 0u);
        EXPECT_EQ(chip->counters().dataBlocks, 0u);
    }
}

// A slow chip: the ROM loader is asked to sync twenty times, so a chip that
// answers the twentieth request is flashed, and one that would answer only a
// twenty-first is given up with a time-out. The image's compressed stream
// ends with a block that holds nothing but the end of its check value.
TEST_F(EspParts, SyncIsTriedTwentyTimes) {
    const Bytes image = linkImage(3064, 5);
    for (const auto& [silentSyncs, flashed] : {std::pair{19u, true}, {20u, false}}) {
        SCOPED_TRACE(silentSyncs);
        chip->setFaults(EspRomSimulator::Faults{.silentSyncs = silentSyncs});
        const auto before = chip->counters();
        EXPECT_EQ(run({part(0x1000, image)}, Esp32Flash::defaults()), flashed) << error;
        EXPECT_EQ(chip->counters().syncs - before.syncs, flashed ? 1u : 0u);
        EXPECT_EQ(chip->counters().flashBegins > before.flashBegins, flashed);
        if (flashed) {
            EXPECT_EQ(chip->flash(0x1000, 3064), image);
        } else {
            EXPECT_EQ(error, "esp_loader_connect failed: 2");
        }
    }
}
