#include "PayloadLinkFixture.h"

using namespace std::chrono_literals;

TEST_F(PayloadLinkFixture, SearchFindsTheDeviceAndItsFieldsOneByOne) {
    discoverAll();
    EXPECT_EQ(devicesAdded, 1);
    auto journal = simulator.journal();
    const auto fields = simulator.device(kAddress)->getFields();
    ASSERT_EQ(journal.size(), 1 + fields.size());
    EXPECT_EQ(journal[0].raw, (Bytes{0x7E, 0x02, 0x01, 0xFF, 0x01, 0x74}));
    // One exchange per field, in order, each under the next pack number.
    for (std::size_t i = 0; i < fields.size(); ++i) {
        const Bytes& frame = journal[1 + i].raw;
        ASSERT_EQ(frame.size(), 7u);
        EXPECT_EQ(frame[2], 2 + i);
        EXPECT_EQ(frame[3], kAddress);
        EXPECT_EQ(frame[4], FIELD_INFO_REQ);
        EXPECT_EQ(frame[5], i);
    }
    std::lock_guard<std::recursive_mutex> lock(handler->getDeviceHandler().getMutex());
    App::Device* device = handler->getDeviceHandler().getDevice(kAddress);
    EXPECT_EQ(device->getDeviceName(), "MeridKestal STM32");
    for (std::size_t i = 0; i < fields.size(); ++i) {
        EXPECT_EQ(std::string(device->getField(static_cast<unsigned char>(i))->getName()), fields[i].name);
    }
    EXPECT_TRUE(device->isBootable());
    EXPECT_TRUE(log.contains("device info response (device 2, MeridKestal STM32, 2.7) Pack #1"));
}

TEST_F(PayloadLinkFixture, OneSearchAddsOneDeviceOfTwo) {
    simulator.addDevice(SimDevice::standard(3, "Aux"));
    startThreads();
    sender->search();
    ASSERT_TRUE(waitUntil([&] { return log.contains("received unexpected message (device 3"); }));
    EXPECT_NE(handler->getDeviceHandler().getDeviceListCopy().count(2), 0u);
    EXPECT_EQ(handler->getDeviceHandler().getDeviceListCopy().count(3), 0u);
}

TEST_F(PayloadLinkFixture, EraseSetWaitsLongAndStartsTheWriteStage) {
    std::atomic<int> writeStages{0};
    GlobalHandlerEvents::getInstance().addHandlerWithArgs<LoadStage>(UPLOAD_FIRMWARE, [&](LoadStage stage) {
        writeStages += stage == Write ? 1 : 0;
        return GlobalHandlerEvents::Success;
    });
    discoverAll();
    long long index = 0;
    {
        std::lock_guard<std::recursive_mutex> lock(handler->getDeviceHandler().getMutex());
        App::Device* device = handler->getDeviceHandler().getDevice(kAddress);
        index = device->getFieldIndexByName("erase");
        const std::uint32_t command = 0xE5A5E;
        device->getField(static_cast<unsigned char>(index))->setData(true, &command);
    }
    sender->setFieldValue(kAddress, static_cast<unsigned char>(index));
    ASSERT_TRUE(waitUntil([&] { return writeStages == 1; }));
    EXPECT_EQ(listener->getReadTimeout(), 20000u);
    EXPECT_EQ(listener->getPendingMessage().timeout, 20000u);
    EXPECT_EQ(simulator.counters(kAddress)->eraseCommands, 1u);
    EXPECT_EQ(simulator.device(kAddress)->fieldValue("erase"), 0xE5A5Eu);
    EXPECT_TRUE(log.contains("set value for field " + std::to_string(index)));
}

class PayloadTransferTest : public PayloadLinkFixture {
protected:
    void SetUp() override {
        PayloadLinkFixture::SetUp();
        GlobalHandlerEvents::getInstance().addHandler(UPDATE_LOADING_STATUS, [this] {
            ++statusUpdates;
            lastProgress = handler->loadProgress.load();
            return GlobalHandlerEvents::Success;
        });
    }

    // The chunk sizes the board received, in order.
    std::vector<std::size_t> chunkSizes() {
        std::vector<std::size_t> sizes;
        for (auto& entry : framesWithCommand(FILE_WRITE_REQ)) {
            sizes.push_back(entry.raw.size() - 3 - 8);
        }
        return sizes;
    }

    // `repeated`: steps sent again by a restart, on top of one transfer's.
    void expectDelivered(const Bytes& data, std::uint8_t fileIndex, std::size_t chunk,
                         std::size_t repeated = 0) {
        ASSERT_TRUE(
            waitUntil([&] { return simulator.finishedImage(kAddress, fileIndex).has_value(); }, 120000ms));
        EXPECT_TRUE(*simulator.finishedImage(kAddress, fileIndex) == data);
        ASSERT_TRUE(waitUntil([&] { return log.contains("Firmware transfer complete: "); }));
        EXPECT_EQ(handler->loadProgress.load(), 100);
        EXPECT_EQ(lastProgress.load(), 100);
        auto sizes = chunkSizes();
        ASSERT_EQ(sizes.size(), repeated + 2 + (data.size() + chunk - 1) / chunk);
        EXPECT_EQ(sizes.front(), 0u);
        EXPECT_EQ(sizes[1 + repeated], chunk);
        EXPECT_EQ(sizes.back(), 0u);
        EXPECT_TRUE(log.contains("Firmware transfer complete: " + std::to_string(data.size()) + " bytes in ",
                                 BaseLogger::WARNING));
        EXPECT_EQ(simulator.counters(kAddress)->writesWithoutErase, 0u);
    }

    std::atomic<int> statusUpdates{0};
    std::atomic<int> lastProgress{-1};
};

TEST_F(PayloadTransferTest, FirmwareLoadFromEraseToFinishIn32ByteChunks) {
    const Bytes data = pattern(37312);
    const std::string path = writeFile(data);
    // What the window does when the board confirms the erase.
    GlobalHandlerEvents::getInstance().addHandlerWithArgs<LoadStage>(UPLOAD_FIRMWARE, [&](LoadStage stage) {
        if (stage == Write) {
            startTransfer(path, 0);
        }
        return GlobalHandlerEvents::Success;
    });
    discoverAll();
    unsigned char index = 0;
    {
        std::lock_guard<std::recursive_mutex> lock(handler->getDeviceHandler().getMutex());
        App::Device* device = handler->getDeviceHandler().getDevice(kAddress);
        index = static_cast<unsigned char>(device->getFieldIndexByName("erase"));
        Field* erase = device->getField(index);
        erase->getInfo()->type = 8;
        const std::uint32_t command = 1;
        erase->setData(true, &command);
    }
    sender->setFieldValue(kAddress, index);
    expectDelivered(data, 0, 32);
    EXPECT_EQ(simulator.counters(kAddress)->eraseCommands, 1u);
    EXPECT_EQ(statusUpdates, static_cast<int>(chunkSizes().size()) + 1);
}

TEST_F(PayloadTransferTest, LargeFileIn64ByteChunks) {
    const Bytes data = pattern(300000, 7);
    startThreads();
    handler->getDeviceHandler().addDevice(DeviceInfo{kAddress, 1, 0, {}, 0, {}, 0, {}});
    startTransfer(writeFile(data), 4);
    expectDelivered(data, 4, 64);
}

TEST_F(PayloadTransferTest, ErrorStatusRestsAndARestartResendsTheStep) {
    const Bytes data = pattern(1000, 3);
    const std::string path = writeFile(data);
    startThreads();
    handler->getDeviceHandler().addDevice(DeviceInfo{kAddress, 1, 0, {}, 0, {}, 0, {}});
    simulator.failNext(FILE_WRITE_REQ, 0x21, 1);
    startTransfer(path, 1);
    ASSERT_TRUE(waitUntil([&] { return log.contains("Message with problem - error code: 33"); }));
    std::this_thread::sleep_for(100ms);
    auto steps = framesWithCommand(FILE_WRITE_REQ);
    ASSERT_EQ(steps.size(), 1u);
    EXPECT_EQ(handler->loadProgress.load(), 0);

    // The same erase step under the next pack number.
    startTransfer(path, 1);
    ASSERT_TRUE(waitUntil([&] { return framesWithCommand(FILE_WRITE_REQ).size() >= 2; }));
    steps = framesWithCommand(FILE_WRITE_REQ);
    EXPECT_EQ(steps[1].raw[2], static_cast<std::uint8_t>(steps[0].raw[2] + 1));
    EXPECT_EQ(Bytes(steps[1].raw.begin() + 3, steps[1].raw.end() - 1),
              Bytes(steps[0].raw.begin() + 3, steps[0].raw.end() - 1));
    expectDelivered(data, 1, 32, 1);
}

TEST_F(PayloadTransferTest, UnansweredStepIsResentByARestart) {
    const Bytes data = pattern(500, 5);
    const std::string path = writeFile(data);
    startThreads();
    handler->getDeviceHandler().addDevice(DeviceInfo{kAddress, 1, 0, {}, 0, {}, 0, {}});
    // Once the transfer runs, one answer is lost: the transfer rests there.
    startTransfer(path, 1);
    ASSERT_TRUE(waitUntil([&] { return framesWithCommand(FILE_WRITE_REQ).size() >= 1; }));
    simulator.silenceNext(1);
    ASSERT_TRUE(waitUntil([&] { return simulator.getFaults().silenceNext == 0; }));
    ASSERT_TRUE(waitUntil(
        [&] { return log.contains("Listener timeout waiting for response", BaseLogger::WARNING); }));
    const auto before = framesWithCommand(FILE_WRITE_REQ);
    startTransfer(path, 1);
    EXPECT_TRUE(log.contains("Send queue is full!"));
    ASSERT_TRUE(waitUntil([&] { return framesWithCommand(FILE_WRITE_REQ).size() > before.size(); }));
    const auto after = framesWithCommand(FILE_WRITE_REQ);
    const Bytes& lost = before.back().raw;
    const Bytes& again = after[before.size()].raw;
    EXPECT_EQ(again[2], static_cast<std::uint8_t>(lost[2] + 1));
    EXPECT_EQ(Bytes(again.begin() + 3, again.end() - 1), Bytes(lost.begin() + 3, lost.end() - 1));
    expectDelivered(data, 1, 32, 1);
}

TEST_F(PayloadTransferTest, GarbageSplitAndDelayedAnswersStillDeliver) {
    DeviceSimulator::Faults faults;
    faults.garbageBytes = 3;
    faults.splitWrites = true;
    faults.splitPiece = 2;
    faults.splitGap = 100us;
    faults.answerDelay = 1ms;
    simulator.setFaults(faults);
    const Bytes data = pattern(3000, 11);
    startThreads();
    handler->getDeviceHandler().addDevice(DeviceInfo{kAddress, 1, 0, {}, 0, {}, 0, {}});
    startTransfer(writeFile(data), 2);
    expectDelivered(data, 2, 32);
    EXPECT_TRUE(log.contains("received message is not Payload type"));
}

TEST_F(PayloadLinkFixture, WrongCheckCodeIsDroppedAndTheRequestRepeated) {
    askFieldsOnDiscovery();
    startThreads();
    simulator.corruptNext(1);
    sender->search();
    ASSERT_TRUE(
        waitUntil([&] { return log.contains("received message with wrong CRC", BaseLogger::ERROR); }));
    EXPECT_EQ(knownFields(kAddress), 0u);
    sender->search();
    const std::size_t expected = simulator.device(kAddress)->getFields().size();
    ASSERT_TRUE(waitUntil([&] { return knownFields(kAddress) == expected; }));
    EXPECT_TRUE(log.contains("Send queue is full!"));
}

TEST_F(PayloadLinkFixture, SilentDeviceTimesTheListenerOut) {
    DeviceSimulator::Faults faults;
    faults.silent = true;
    simulator.setFaults(faults);
    startThreads();
    sender->search();
    ASSERT_TRUE(waitUntil([&] { return simulator.journalSize() == 1; }));
    ASSERT_TRUE(waitUntil(
        [&] { return log.contains("Listener timeout waiting for response", BaseLogger::WARNING); }, 10000ms));
    EXPECT_TRUE(handler->getPendingMessage(SEARCH_DEVICES_MSG).has_value());
    EXPECT_TRUE(listener->isRunning());
}

TEST_F(PayloadLinkFixture, UnpluggedBoardEndsTheListener) {
    discoverAll();
    simulator.unplug();
    ASSERT_TRUE(waitUntil([&] { return simulator.isUnplugged(); }));
    // The next write finds the dead link; the listener then ends itself.
    sender->search();
    ASSERT_TRUE(waitUntil([&] { return !listener->isRunning(); }));
    EXPECT_FALSE(usb.isConnected());
    EXPECT_TRUE(waitUntil([&] {
        for (auto& line : log.lines()) {
            if (line.message == "Thread is terminated" && line.tag == "SerialListener: ") {
                return true;
            }
        }
        return false;
    }));
    EXPECT_TRUE(log.contains("COM write failed; treating as disconnect"));
}
