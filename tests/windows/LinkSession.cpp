#include "LinkSession.h"

#include "GlobalHandlerEvents.h"

#include <mutex>
#include <thread>
#include <utility>

LinkSession::LinkSession(std::string port) : portName(std::move(port)) {
    GlobalHandlerEvents::getInstance().clearAllHandlers();
    usb.portName = portName;
    usb.baudrate = UsbTypes::Baud921600;
    handler = std::make_unique<PayloadHandler>();
    listener = std::make_unique<Listener>(usb, *handler, PayloadHandler::getDefaultTimeout());
    sender = std::make_unique<Sender>(usb, *handler);

    auto& events = GlobalHandlerEvents::getInstance();
    // What the window does when a search has found a device: take its
    // address and ask for its fields, on the listener thread.
    events.addHandler(SET_CURRENT_DEVICE_ADDR, [this] {
        address = handler->getDeviceHandler().currentAddress.load();
        sender->getInfoFields(address, 0);
        return GlobalHandlerEvents::Success;
    });
    // The device has confirmed the erase command: the transfer starts.
    events.addHandlerWithArgs<LoadStage>(UPLOAD_FIRMWARE, [this](LoadStage stage) {
        if (stage == Write) {
            startTransfer();
        }
        return GlobalHandlerEvents::Success;
    });
    events.addHandler(UPDATE_LOADING_STATUS, [this] {
        ++progressCount;
        return GlobalHandlerEvents::Success;
    });
}

LinkSession::~LinkSession() {
    // Closed first, so that a listener inside a long read returns at once.
    usb.disconnect();
    sender->terminate();
    listener->terminate();
    sender.reset();
    listener.reset();
    handler.reset();
    GlobalHandlerEvents::getInstance().clearAllHandlers();
}

UsbTypes::Status LinkSession::connect() {
    return usb.connect(UsbCommunication::MethodCom);
}

bool LinkSession::discover(std::chrono::milliseconds timeout) {
    if (!threadsStarted) {
        listener->start(false);
        sender->start(false);
        threadsStarted = true;
    }
    sender->search();
    return waitFor([this] { return announcedFields() > 0 && knownFields() == announcedFields(); }, timeout);
}

std::vector<std::string> LinkSession::fieldNames() {
    auto& model = handler->getDeviceHandler();
    std::lock_guard<std::recursive_mutex> lock(model.getMutex());
    std::vector<std::string> names;
    App::Device* device = model.getDevice(address);
    if (device == nullptr) {
        return names;
    }
    for (std::size_t i = 0; i < device->getFieldCount(); ++i) {
        Field* field = device->getField(static_cast<unsigned char>(i));
        names.emplace_back(field == nullptr ? "" : field->getName());
    }
    return names;
}

std::string LinkSession::deviceName() {
    auto& model = handler->getDeviceHandler();
    std::lock_guard<std::recursive_mutex> lock(model.getMutex());
    App::Device* device = model.getDevice(address);
    return device == nullptr ? std::string() : device->getDeviceName();
}

bool LinkSession::loadStm32(const std::string& path, std::chrono::milliseconds timeout) {
    firmwarePath = path;
    if (!sendEraseCommand()) {
        return false;
    }
    return waitFor([this] { return transferStarted && handler->loadProgress.load() == 100; }, timeout);
}

bool LinkSession::waitFor(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

std::size_t LinkSession::announcedFields() {
    auto& model = handler->getDeviceHandler();
    std::lock_guard<std::recursive_mutex> lock(model.getMutex());
    App::Device* device = model.getDevice(address);
    return device == nullptr ? 0 : device->getInfo()->fieldCount;
}

std::size_t LinkSession::knownFields() {
    auto& model = handler->getDeviceHandler();
    std::lock_guard<std::recursive_mutex> lock(model.getMutex());
    App::Device* device = model.getDevice(address);
    return device == nullptr ? 0 : device->getFieldCount();
}

// The erase step of the window: the command word goes into the device's
// "erase" field as a 4-byte integer, whatever type the device gave it.
bool LinkSession::sendEraseCommand() {
    const std::uint8_t device = address;
    long long index = -1;
    {
        auto& model = handler->getDeviceHandler();
        std::lock_guard<std::recursive_mutex> lock(model.getMutex());
        App::Device* found = model.getDevice(device);
        Field* erase = found == nullptr ? nullptr : found->getFieldByName("erase");
        if (erase == nullptr || erase->getInfo() == nullptr) {
            return false;
        }
        FieldInfo info = *erase->getInfo();
        info.type = 8;
        erase->setInfo(info);
        const std::uint32_t command = kEraseCommand;
        erase->setData(true, &command);
        index = found->getFieldIndexByName("erase");
    }
    if (index < 0 || index > 0xFF) {
        return false;
    }
    sender->setFieldValue(device, static_cast<unsigned char>(index));
    return true;
}

// What writeFirmware does on the listener thread: file 0 of the device.
void LinkSession::startTransfer() {
    MessageArgs args;
    args.device = address;
    args.field = 0;
    args.path = firmwarePath;
    handler->onMessage(FILE_START_MSG, &args);
    handler->generateResponse(FILE_WRITE_MSG);
    transferStarted = true;
}
