#pragma once

#include "FastCrc8.h"
#include "GlobalHandlerEvents.h"
#include "PayloadHandler.h"
#include "SerialListener.h"
#include "SerialSender.h"
#include "TestSupport.h"
#include "UsbCommunication.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

// The program's side of the serial link as the window puts it together: one
// UsbCommunication on the named port, the PayloadHandler, and the listener
// and sender threads over them, with the window's handlers for a device
// found and for the erase confirmed.
class LinkSession {
public:
    explicit LinkSession(const std::string& port) { wire(port); }
    // Over a port of the caller's, for example one that watches the link.
    LinkSession(const std::string& port, std::unique_ptr<SerialPort> serial) : usb(std::move(serial)) {
        wire(port);
    }

    ~LinkSession() {
        // Closed first, so that a listener inside a long read returns at once.
        usb.disconnect();
        sender.terminate();
        listener.terminate();
        GlobalHandlerEvents::getInstance().clearAllHandlers();
    }

    // A search as the upload button starts it. True once a device has
    // answered and described every field it announced.
    bool discover(std::chrono::milliseconds timeout) {
        if (!std::exchange(started, true)) {
            listener.start(false);
            sender.start(false);
        }
        sender.search();
        return testsupport::waitUntil(
            [this] {
                std::lock_guard<std::recursive_mutex> lock(handler.getDeviceHandler().getMutex());
                App::Device* device = handler.getDeviceHandler().getDevice(address);
                return device != nullptr && device->getInfo()->fieldCount > 0 &&
                       device->getFieldCount() == device->getInfo()->fieldCount;
            },
            timeout);
    }

    // The STM32 load after a search: the erase command word of file 0 goes
    // into the "erase" field as a 4-byte integer; the device's confirmation
    // starts the transfer of `path`. True once it has reported 100 percent.
    bool loadStm32(const std::string& path, std::chrono::milliseconds timeout) {
        firmwarePath = path;
        unsigned char index = 0;
        {
            std::lock_guard<std::recursive_mutex> lock(handler.getDeviceHandler().getMutex());
            App::Device* device = handler.getDeviceHandler().getDevice(address);
            Field* erase = device == nullptr ? nullptr : device->getFieldByName("erase");
            if (erase == nullptr) {
                return false;
            }
            erase->getInfo()->type = 8;
            const std::uint32_t command = 0x6A1D42C7;
            erase->setData(true, &command);
            index = static_cast<unsigned char>(device->getFieldIndexByName("erase"));
        }
        sender.setFieldValue(address, index);
        return testsupport::waitUntil([this] { return handler.loadProgress.load() == 100; }, timeout);
    }

    // What writeFirmware does on the listener thread.
    void startTransfer(std::uint8_t fileIndex) {
        MessageArgs args;
        args.device = address;
        args.field = fileIndex;
        args.path = firmwarePath;
        handler.onMessage(FILE_START_MSG, &args);
        handler.generateResponse(FILE_WRITE_MSG);
    }

    UsbCommunication usb;
    PayloadHandler handler;
    PayloadProtocol::SerialListener<UsbCommunication&, PayloadHandler> listener{
        usb, handler, PayloadHandler::getDefaultTimeout()};
    PayloadProtocol::SerialSender<256, UsbCommunication&, PayloadHandler, FastCrc8> sender{usb, handler};
    std::atomic<std::uint8_t> address{0};
    std::string firmwarePath;
    bool started = false;

private:
    // The window's handlers for a device found and for the erase confirmed.
    void wire(const std::string& port) {
        auto& events = GlobalHandlerEvents::getInstance();
        events.clearAllHandlers();
        usb.portName = port;
        usb.baudrate = UsbTypes::Baud921600;
        events.addHandler(SET_CURRENT_DEVICE_ADDR, [this] {
            address = handler.getDeviceHandler().currentAddress.load();
            sender.getInfoFields(address, 0);
            return GlobalHandlerEvents::Success;
        });
        events.addHandlerWithArgs<LoadStage>(UPLOAD_FIRMWARE, [this](LoadStage stage) {
            if (stage == Write) {
                startTransfer(0);
            }
            return GlobalHandlerEvents::Success;
        });
    }
};

// Bytes of an image, the same in every build and run.
inline testsupport::Bytes linkImage(std::size_t size, std::uint32_t seed) {
    testsupport::Bytes bytes(size);
    for (auto& byte : bytes) {
        seed ^= seed << 13;
        seed ^= seed >> 17;
        seed ^= seed << 5;
        byte = static_cast<std::uint8_t>(seed);
    }
    return bytes;
}
