// STM32 loads through the real window against the simulated board: the
// upload button, the erase poll, the erase command, the chunked transfer and
// the progress the user sees; and how a load ends when something is wrong.
#include "BoardLoadFixture.h"

#include <algorithm>

using guitest::BoardLoadTest;
using guitest::Bytes;
using guitest::LoadWatch;
using guitest::makeImage;
using guitest::pumpFor;
using guitest::pumpUntil;

namespace {

constexpr std::uint8_t kDeviceInfoReq = 1;
constexpr std::uint8_t kSetFieldReq = 3;
constexpr std::uint8_t kFileWriteReq = 8;
constexpr std::uint64_t kEraseWord = 0x6A1D42C7;
constexpr std::size_t kStm32ImageSize = 37312;

class Stm32Load : public BoardLoadTest {
protected:
    // A load that must reach the success text, with the window sensitive all along.
    void expectLoadOf(const Bytes& bytes) {
        const LoadWatch watch = watchLoad();
        ASSERT_TRUE(watch.finished) << "label: " << statusText() << ", bar: " << barValue();
        EXPECT_FALSE(watch.everInsensitive);
        EXPECT_EQ(barValue(), 100.0);
        // The transfer's own erase step is the first one the bar shows.
        EXPECT_TRUE(std::is_sorted(watch.barValues.begin() + 1, watch.barValues.end()));
        // The text shows once the finish step is sent; its answer follows,
        // and with it the last refresh.
        EXPECT_TRUE(waitForTransferEnd());
        const auto image = stm32Image();
        ASSERT_TRUE(image.has_value());
        EXPECT_TRUE(*image == bytes) << "the board holds " << image->size() << " bytes";
    }

    bool waitForTransferEnd() {
        const bool ended =
            pumpUntil([&] { return captured->contains("PayloadHandler: Firmware transfer complete: "); },
                      std::chrono::seconds(30));
        pumpFor(std::chrono::milliseconds(100));
        return ended;
    }

    std::uint64_t eraseFieldValue() {
        auto device = board.device(kAddress);
        return device ? device->fieldValue("erase").value_or(0) : 0;
    }
};

} // namespace

TEST_F(Stm32Load, UserFileFindsTheBoardByItselfAndLandsByteForByte) {
    const Bytes bytes = makeImage(kStm32ImageSize, 11);
    connect();
    pickFile(writeFile("stm32.bin", bytes));
    // No search first: the load's poll finds the board and its fields.
    pressUpload();
    EXPECT_EQ(statusText(), "0%");
    expectLoadOf(bytes);

    EXPECT_TRUE(captured->contains("MainWindow: Start upload", BaseLogger::INFO));
    EXPECT_TRUE(captured->contains("MainWindow: Erase firmware", BaseLogger::INFO));
    EXPECT_TRUE(captured->contains("MainWindow: Load firmware", BaseLogger::INFO));
    EXPECT_TRUE(captured->contains("SerialSender: load device firmware", BaseLogger::INFO));
    EXPECT_TRUE(captured->contains("PayloadHandler: Firmware transfer complete: 37312 bytes in ",
                                   BaseLogger::WARNING));
    // The command word went into the "erase" field, then the file followed.
    EXPECT_EQ(eraseFieldValue(), kEraseWord);
    const auto counters = board.counters(kAddress);
    ASSERT_TRUE(counters.has_value());
    EXPECT_EQ(counters->eraseCommands, 1u);
    EXPECT_EQ(counters->fileErases, 1u);
    EXPECT_EQ(counters->fileWrites, kStm32ImageSize / 32);
    EXPECT_EQ(counters->fileFinishes, 1u);
    EXPECT_EQ(counters->writesWithoutErase, 0u);
}

TEST_F(Stm32Load, PreinstalledImageAfterASearchClimbsToTheSuccessText) {
    const Bytes bytes = guitest::resourceBytes("/meridkestalutility/firmware/Tovik_2.13.319.f75a0c3_aes.bin");
    ASSERT_EQ(bytes.size(), kStm32ImageSize);
    connect();
    search();
    chooseMethod("STM32");
    usePreinstalled(true);
    pressUpload();
    expectLoadOf(bytes);
    EXPECT_EQ(eraseFieldValue(), kEraseWord);
    // A known board answers the load's search without a second field round.
    EXPECT_TRUE(captured->contains("already exists"));
}

TEST_F(Stm32Load, TheBarClimbsThroughTheTransfer) {
    const Bytes bytes = makeImage(kStm32ImageSize, 5);
    connect();
    search();
    pickFile(writeFile("stm32.bin", bytes));
    pressUpload();
    LoadWatch watch;
    ASSERT_TRUE(watchUntil([&] { return statusText() == kFlashedText; }, watch, std::chrono::seconds(60)));
    // Values between the ends were shown on the way, each as "N%".
    const auto between = std::count_if(watch.barValues.begin(), watch.barValues.end(),
                                       [](double value) { return value > 0 && value < 100; });
    EXPECT_GE(between, 3) << "the bar jumped instead of climbing";
    EXPECT_FALSE(watch.everInsensitive);
    // A second load of the same file, once the first has had its finish
    // answered, runs the same way.
    ASSERT_TRUE(waitForTransferEnd());
    captured->clear();
    pressUpload();
    expectLoadOf(bytes);
    EXPECT_EQ(board.counters(kAddress)->eraseCommands, 2u);
}

TEST_F(Stm32Load, UploadWhileDisconnectedChangesNothing) {
    const Bytes bytes = makeImage(512, 3);
    connect();
    pickFile(writeFile("small.bin", bytes));
    pressUpload();
    expectLoadOf(bytes);
    disconnect();
    captured->clear();

    pressUpload();
    pumpFor(std::chrono::milliseconds(500));
    EXPECT_EQ(barValue(), 100.0);
    EXPECT_EQ(statusText(), kFlashedText);
    EXPECT_EQ(captured->count("MainWindow: "), 0u);
    EXPECT_EQ(board.counters(kAddress)->eraseCommands, 1u);

    // Connected again, the next load goes through.
    connect();
    pressUpload();
    expectLoadOf(bytes);
    EXPECT_EQ(board.counters(kAddress)->eraseCommands, 2u);
}

TEST_F(Stm32Load, ADeviceThatNeverAnswersEndsTheWaitAfterTwelveSearches) {
    const Bytes bytes = makeImage(1000, 7);
    DeviceSimulator::Faults silent;
    silent.silent = true;
    board.setFaults(silent);
    connect();
    pickFile(writeFile("small.bin", bytes));

    const auto pressed = std::chrono::steady_clock::now();
    pressUpload();
    const char* timeoutLine = "MainWindow: Timeout waiting for device discovery before STM32 erase";
    ASSERT_TRUE(pumpUntil([&] { return captured->contains(timeoutLine, BaseLogger::ERROR); },
                          std::chrono::seconds(30)));
    const auto waited = std::chrono::steady_clock::now() - pressed;
    // 51 ticks of 200 ms; the upper bound only keeps a stuck poll from passing.
    EXPECT_GE(waited, std::chrono::milliseconds(10150));
    EXPECT_LT(waited, std::chrono::seconds(20));
    // The last search leaves on the tick that ends the wait.
    EXPECT_TRUE(pumpUntil([&] { return framesWithCommand(kDeviceInfoReq) >= 12; }));
    pumpFor(std::chrono::milliseconds(600));
    EXPECT_EQ(framesWithCommand(kDeviceInfoReq), 12u) << "the poll went on after its end";
    EXPECT_EQ(captured->count("before STM32 erase"), 1u);
    EXPECT_EQ(barValue(), 0.0);
    EXPECT_EQ(statusText(), "0%");
    EXPECT_TRUE(windowSensitive());

    // The board wakes up: the next press loads.
    board.setFaults(DeviceSimulator::Faults{});
    pressUpload();
    expectLoadOf(bytes);
}

TEST_F(Stm32Load, TheEraseWordGoesAsAFourByteIntegerWhateverTheBoardDescribes) {
    // A board that calls its "erase" field a 1-byte one.
    SimDevice narrow(kAddress, "MeridKestal STM32", 2, 7);
    narrow.addField("erase", 3);
    narrow.addField("reboot", 8);
    board.removeDevice(kAddress);
    board.addDevice(narrow);
    const Bytes bytes = makeImage(320, 29);
    connect();
    pickFile(writeFile("small.bin", bytes));
    pressUpload();
    expectLoadOf(bytes);
    EXPECT_EQ(eraseFieldValue(), kEraseWord);

    std::vector<Bytes> sets;
    for (const auto& entry : board.journal()) {
        if (entry.raw.size() > 4 && entry.raw[4] == kSetFieldReq) {
            sets.push_back(entry.raw);
        }
    }
    ASSERT_EQ(sets.size(), 1u);
    // Sync, length, pack, address, command, field 0, type 8, the word.
    const Bytes& set = sets.front();
    ASSERT_EQ(set.size(), 12u);
    EXPECT_EQ(set[3], kAddress);
    EXPECT_EQ(set[5], 0);
    EXPECT_EQ(set[6], 8);
    EXPECT_EQ(Bytes(set.begin() + 7, set.begin() + 11), (Bytes{0xC7, 0x42, 0x1D, 0x6A}));
}

TEST_F(Stm32Load, ALinkClosedDuringTheWaitEndsItAtTheNextTick) {
    DeviceSimulator::Faults silent;
    silent.silent = true;
    board.setFaults(silent);
    connect();
    pressUpload();
    pumpFor(std::chrono::milliseconds(500));
    disconnect();
    ASSERT_TRUE(pumpUntil([&] {
        return captured->contains("MainWindow: USB connection lost while waiting to start STM32 erase",
                                  BaseLogger::ERROR);
    }));
    const std::size_t searches = framesWithCommand(kDeviceInfoReq);
    pumpFor(std::chrono::milliseconds(1200));
    EXPECT_EQ(framesWithCommand(kDeviceInfoReq), searches);
    EXPECT_FALSE(captured->contains("Timeout waiting for device"));

    board.setFaults(DeviceSimulator::Faults{});
    const Bytes bytes = makeImage(640, 23);
    connect();
    pickFile(writeFile("small.bin", bytes));
    pressUpload();
    expectLoadOf(bytes);
}

TEST_F(Stm32Load, ABoardWithoutAnEraseFieldEndsTheWaitForFieldInfo) {
    SimDevice noErase(kAddress, "MeridKestal STM32", 2, 7);
    noErase.addField("reboot", 8);
    noErase.addField("serialNumber", 8, 42);
    board.removeDevice(kAddress);
    board.addDevice(noErase);
    const Bytes bytes = makeImage(1000, 9);
    connect();
    pickFile(writeFile("small.bin", bytes));
    pressUpload();
    const char* timeoutLine = "MainWindow: Timeout waiting for device field info before STM32 erase";
    ASSERT_TRUE(pumpUntil([&] { return captured->contains(timeoutLine, BaseLogger::ERROR); },
                          std::chrono::seconds(30)));
    EXPECT_FALSE(captured->contains("Timeout waiting for device discovery"));
    EXPECT_EQ(framesWithCommand(kFileWriteReq), 0u);
    EXPECT_TRUE(windowSensitive());

    // Its firmware updated, the board describes an "erase" field; a search
    // forgets what was known, and the next press loads.
    board.removeDevice(kAddress);
    board.addDevice(SimDevice::standard(kAddress, "MeridKestal STM32"));
    search();
    pressUpload();
    expectLoadOf(bytes);
}

TEST_F(Stm32Load, AnEmptyPathErasesTheBoardAndSendsNoFile) {
    connect();
    pressUpload();
    ASSERT_TRUE(pumpUntil([&] {
        return captured->contains("MainWindow: File path is empty or did't exist", BaseLogger::WARNING);
    }));
    pumpFor(std::chrono::milliseconds(300));
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
    search();
    pickFile(writeFile("stm32.bin", bytes));
    pressUpload();
    LoadWatch watch;
    ASSERT_TRUE(watchUntil([&] { return barValue() >= 20; }, watch, std::chrono::seconds(60)));
    board.unplug();
    pumpFor(std::chrono::milliseconds(1500));
    const double stoppedAt = barValue();
    EXPECT_LT(stoppedAt, 100.0);
    pumpFor(std::chrono::milliseconds(500));
    EXPECT_EQ(barValue(), stoppedAt);
    EXPECT_NE(statusText(), kFlashedText);
    EXPECT_TRUE(windowSensitive());
    EXPECT_FALSE(stm32Image().has_value());

    // Plugged in again (a new port), connected in the dialog: the load runs
    // from the start.
    replugBoard();
    connect();
    captured->clear();
    pressUpload();
    expectLoadOf(bytes);
}

// The window's operations that no flow of its own calls.
TEST_F(Stm32Load, FieldSetUpdateModeAndRebootReachTheBoard) {
    window().rebootDevice();
    EXPECT_TRUE(captured->contains("MainWindow: device didn't exist for reboot", BaseLogger::ERROR));
    connect();
    search();

    // A field by its index: "serialNumber" is the fourth.
    const std::uint64_t serial = 0x11223344;
    window().setFieldValue(&serial, 3);
    EXPECT_TRUE(pumpUntil([&] { return board.device(kAddress)->fieldValue("serialNumber") == serial; }));
    // One request at a time: the next goes once this one is answered.
    EXPECT_TRUE(pumpUntil([&] { return captured->contains("PayloadHandler: Message type: SET_FIELD_REQ"); }));
    window().setFieldValue(&serial, 40);
    EXPECT_TRUE(captured->contains("MainWindow: field didn't exist for set field value", BaseLogger::ERROR));

    window().setDeviceDfuMode();
    EXPECT_TRUE(captured->contains("SerialSender: set device to DFU mode", BaseLogger::INFO));
    EXPECT_TRUE(pumpUntil([&] {
        const auto journal = board.journal();
        return std::any_of(journal.begin(), journal.end(), [](const DeviceSimulator::JournalEntry& entry) {
            return entry.kind == DeviceSimulator::JournalEntry::DfuRequest;
        });
    }));

    // The reboot: the field set, then the link closed and opened again and a
    // new search. A second request during the reconnect starts no other.
    const std::size_t searches = framesWithCommand(kDeviceInfoReq);
    window().rebootDevice();
    window().rebootDevice();
    EXPECT_TRUE(pumpUntil([&] { return board.counters(kAddress)->rebootCommands >= 1; }));
    EXPECT_TRUE(
        pumpUntil([&] { return framesWithCommand(kDeviceInfoReq) > searches; }, std::chrono::seconds(10)));
    pumpFor(std::chrono::milliseconds(300));
    EXPECT_EQ(captured->count("is opened!"), 2u);
    EXPECT_TRUE(MainWindowTestAccess::usb(window()).isConnected());

    // The link works as before: a load goes through.
    const Bytes bytes = makeImage(900, 19);
    pickFile(writeFile("small.bin", bytes));
    pressUpload();
    expectLoadOf(bytes);
}
