#pragma once

#include "DeviceSimulator.h"
#include "FastCrc8.h"
#include "GlobalHandlerEvents.h"
#include "PayloadHandler.h"
#include "SerialListener.h"
#include "SerialSender.h"
#include "TestSupport.h"
#include "UsbCommunication.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using Sender = PayloadProtocol::SerialSender<256, UsbCommunication&, PayloadHandler, FastCrc8>;
using Listener = PayloadProtocol::SerialListener<UsbCommunication&, PayloadHandler>;
using Bytes = std::vector<std::uint8_t>;

inline bool waitUntil(const std::function<bool()>& done,
                      std::chrono::milliseconds timeout = std::chrono::milliseconds(20000)) {
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// The program's side as the window builds it (handler, listener, sender over
// one UsbCommunication) against a simulated board on a pseudo-terminal.
class PayloadLinkFixture : public ::testing::Test {
protected:
    static constexpr std::uint8_t kAddress = 2;

    void SetUp() override {
        GlobalHandlerEvents::getInstance().clearAllHandlers();
        simulator.addDevice(SimDevice::standard(kAddress, "MeridKestal STM32"));
        ASSERT_TRUE(simulator.start()) << simulator.lastError();
        usb.portName = simulator.slavePath();
        usb.baudrate = UsbTypes::Baud921600;
        ASSERT_EQ(usb.connect(UsbCommunication::MethodCom), UsbTypes::Ok);
        handler = std::make_unique<PayloadHandler>();
        listener = std::make_unique<Listener>(usb, *handler, PayloadHandler::getDefaultTimeout());
        sender = std::make_unique<Sender>(usb, *handler);
    }

    void TearDown() override {
        // Closed first, so that a listener waiting out a long read returns at once.
        usb.disconnect();
        if (sender) {
            sender->terminate();
        }
        if (listener) {
            listener->terminate();
        }
        sender.reset();
        listener.reset();
        handler.reset();
        simulator.stop();
        GlobalHandlerEvents::getInstance().clearAllHandlers();
    }

    void startThreads() {
        listener->start(false);
        sender->start(false);
    }

    // Discovery as the window runs it: the added device's fields are asked
    // for from the SET_CURRENT_DEVICE_ADDR handler, on the listener thread.
    void askFieldsOnDiscovery() {
        GlobalHandlerEvents::getInstance().addHandler(SET_CURRENT_DEVICE_ADDR, [this] {
            ++devicesAdded;
            sender->getInfoFields(handler->getDeviceHandler().currentAddress, 0);
            return GlobalHandlerEvents::Success;
        });
    }

    std::size_t knownFields(std::uint8_t address) {
        auto& model = handler->getDeviceHandler();
        std::lock_guard<std::recursive_mutex> lock(model.getMutex());
        App::Device* device = model.getDevice(address);
        return device == nullptr ? 0 : device->getFieldCount();
    }

    // Search, and wait until the board's fields are all known.
    void discoverAll() {
        askFieldsOnDiscovery();
        startThreads();
        sender->search();
        const std::size_t expected = simulator.device(kAddress)->getFields().size();
        ASSERT_TRUE(waitUntil([&] { return knownFields(kAddress) == expected; }));
    }

    std::vector<DeviceSimulator::JournalEntry> framesWithCommand(std::uint8_t command) {
        std::vector<DeviceSimulator::JournalEntry> out;
        for (auto& entry : simulator.journal()) {
            if (entry.kind == DeviceSimulator::JournalEntry::Frame && entry.raw.size() > 4 &&
                entry.raw[4] == command) {
                out.push_back(entry);
            }
        }
        return out;
    }

    std::string writeFile(const Bytes& data, const std::string& name = "image.bin") {
        const std::string path = dir.path() + "/" + name;
        std::ofstream out(path, std::ios::binary);
        out.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
        return path;
    }

    static Bytes pattern(std::size_t size, std::uint32_t seed = 2463534242u) {
        Bytes data(size);
        for (auto& byte : data) {
            seed ^= seed << 13;
            seed ^= seed >> 17;
            seed ^= seed << 5;
            byte = static_cast<std::uint8_t>(seed);
        }
        return data;
    }

    // What writeFirmware does: the pair of calls that starts a transfer.
    void startTransfer(const std::string& path, std::uint8_t fileIndex) {
        MessageArgs args;
        args.device = kAddress;
        args.field = fileIndex;
        args.path = path;
        handler->onMessage(FILE_START_MSG, &args);
        handler->generateResponse(FILE_WRITE_MSG);
    }

    testsupport::CapturingLogger log;
    testsupport::TempDir dir;
    DeviceSimulator simulator;
    UsbCommunication usb;
    std::unique_ptr<PayloadHandler> handler;
    std::unique_ptr<Listener> listener;
    std::unique_ptr<Sender> sender;
    std::atomic<int> devicesAdded{0};
};
