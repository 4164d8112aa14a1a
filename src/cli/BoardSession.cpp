#include "BoardSession.h"

#include "EraseCmd.h"
#include "GlobalHandlerEvents.h"
#include "MeridEspSerialFlasher.h"
#include "Utf8Path.h"

#include <thread>

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// The window's budget for finding the device and its "erase" field, with a
// new request every second.
constexpr auto kDiscoveryBudget = seconds(10);
constexpr auto kDiscoveryRetry = seconds(1);
constexpr auto kPoll = milliseconds(20);
// A search waits this long after the last new answer.
constexpr auto kSearchQuiet = milliseconds(700);
constexpr auto kSearchBudget = seconds(5);
// The erase may keep the device busy up to the erase step's time-out; a
// write step that stays unanswered this long has stalled.
constexpr auto kEraseStall = milliseconds(PayloadHandler::kEraseTimeout + 2000);
constexpr auto kWriteStall = seconds(3);
constexpr std::uint8_t kEraseFieldType = 8;
constexpr std::uint32_t kEspBlockSize = 1024;
const char* const kRefused = "Message with problem";

} // namespace

BoardSession::BoardSession(const std::string& port, int baud, BoardLog& log) : log(log) {
    usb.portName = port;
    usb.baudrate = static_cast<UsbTypes::Baudrate>(baud);
    registerHandlers();
}

BoardSession::~BoardSession() {
    // Closed first, so that a listener inside a long read returns at once.
    if (usb.isConnected()) {
        usb.disconnect();
    }
    sender.terminate();
    listener.terminate();
    GlobalHandlerEvents::getInstance().clearAllHandlers();
}

// The window's answers to what the protocol raises: a device found is asked
// for its fields, the confirmed erase starts the transfer.
void BoardSession::registerHandlers() {
    auto& events = GlobalHandlerEvents::getInstance();
    events.addHandler(SET_CURRENT_DEVICE_ADDR, [this] {
        address = handler.getDeviceHandler().currentAddress.load();
        sender.getInfoFields(address, 0);
        return GlobalHandlerEvents::Success;
    });
    events.addHandlerWithArgs<LoadStage>(UPLOAD_FIRMWARE, [this](LoadStage stage) {
        if (stage == Write) {
            MessageArgs args;
            args.device = address;
            args.field = 0;
            args.path = firmwarePath;
            handler.onMessage(FILE_START_MSG, &args);
            handler.generateResponse(FILE_WRITE_MSG);
        }
        return GlobalHandlerEvents::Success;
    });
    // Progress is read from the handler by the waiting thread.
    events.addHandler(UPDATE_LOADING_STATUS, [] { return GlobalHandlerEvents::Success; });
}

BoardSession::Outcome BoardSession::open() {
    if (usb.connect(UsbCommunication::MethodCom) != UsbTypes::Ok) {
        return failure("Port " + usb.portName + " is not available");
    }
    return {true, {}};
}

void BoardSession::startThreads() {
    if (!threadsStarted) {
        threadsStarted = true;
        listener.start(false);
        sender.start(false);
    }
}

BoardSession::Outcome BoardSession::failure(const std::string& fallback) {
    const std::string words = log.lastProblem();
    return {false, words.empty() ? fallback : words};
}

bool BoardSession::devicesDescribed() {
    std::lock_guard<std::recursive_mutex> lock(handler.getDeviceHandler().getMutex());
    auto& devices = handler.getDeviceHandler().getDeviceList();
    if (devices.empty()) {
        return false;
    }
    for (const auto& [key, device] : devices) {
        if (device->getFieldCount() < device->getInfo()->fieldCount) {
            return false;
        }
    }
    return true;
}

std::vector<BoardSession::DeviceSummary> BoardSession::search() {
    startThreads();
    sender.search();
    const auto start = Clock::now();
    auto lastChange = start;
    std::size_t known = 0;
    while (Clock::now() - start < kSearchBudget && usb.isConnected()) {
        const std::size_t count = handler.getDeviceHandler().getDeviceListCopy().size();
        if (count != known) {
            known = count;
            lastChange = Clock::now();
        }
        if (devicesDescribed() && Clock::now() - lastChange >= kSearchQuiet) {
            break;
        }
        std::this_thread::sleep_for(kPoll);
    }
    std::vector<DeviceSummary> result;
    std::lock_guard<std::recursive_mutex> lock(handler.getDeviceHandler().getMutex());
    for (const auto& [key, device] : handler.getDeviceHandler().getDeviceList()) {
        DeviceSummary summary;
        summary.address = device->getInfo()->address;
        summary.name = device->getDeviceName();
        summary.version = std::to_string(device->getInfo()->versionMajor) + "." +
                          std::to_string(device->getInfo()->versionMinor);
        for (unsigned index = 0; index < device->getInfo()->fieldCount; ++index) {
            if (Field* field = device->getField(static_cast<unsigned char>(index))) {
                summary.fields.push_back({index, field->getName(), field->getType()});
            }
        }
        result.push_back(std::move(summary));
    }
    return result;
}

// A search, then field requests, again each second, until the current
// device has described its "erase" field.
bool BoardSession::waitForEraseField(unsigned char& eraseIndex) {
    startThreads();
    const auto start = Clock::now();
    auto lastRequest = start - kDiscoveryRetry;
    while (Clock::now() - start < kDiscoveryBudget && usb.isConnected()) {
        bool deviceKnown = false;
        {
            std::lock_guard<std::recursive_mutex> lock(handler.getDeviceHandler().getMutex());
            App::Device* device = handler.getDeviceHandler().getDevice(address);
            deviceKnown = device != nullptr;
            if (device != nullptr && device->getFieldByName("erase") != nullptr) {
                eraseIndex = static_cast<unsigned char>(device->getFieldIndexByName("erase"));
                return true;
            }
        }
        if (Clock::now() - lastRequest >= kDiscoveryRetry) {
            lastRequest = Clock::now();
            if (deviceKnown) {
                sender.getInfoFields(address, 0);
            } else {
                sender.search();
            }
        }
        std::this_thread::sleep_for(kPoll);
    }
    return false;
}

// The command word always goes as a 4-byte integer, whatever type the
// device described.
bool BoardSession::sendEraseCommand(unsigned char eraseIndex) {
    {
        std::lock_guard<std::recursive_mutex> lock(handler.getDeviceHandler().getMutex());
        App::Device* device = handler.getDeviceHandler().getDevice(address);
        Field* erase = device == nullptr ? nullptr : device->getField(eraseIndex);
        if (erase == nullptr) {
            return false;
        }
        FieldInfo forced = *erase->getInfo();
        forced.type = kEraseFieldType;
        erase->setInfo(forced);
        const std::uint32_t word = EraseFile0;
        erase->setData(true, &word);
    }
    sender.setFieldValue(address, eraseIndex);
    return true;
}

BoardSession::Outcome BoardSession::loadStm32(const std::string& path, const Progress& progress) {
    firmwarePath = path;
    unsigned char eraseIndex = 0;
    if (!waitForEraseField(eraseIndex)) {
        return {false, usb.isConnected() ? "no device with an \"erase\" field answered" : log.lastProblem()};
    }
    std::uint64_t size = 0;
    {
        std::error_code error;
        size = std::filesystem::file_size(pathFromUtf8(path), error);
    }
    const unsigned before = log.problemCount();
    if (!sendEraseCommand(eraseIndex)) {
        return failure("the \"erase\" field went away");
    }
    Outcome outcome = waitForTransfer(size, progress);
    if (outcome.ok) {
        return outcome;
    }
    // A refusal rests the transfer: its line says why.
    const std::string refusal = log.problemStartingWith(kRefused, before);
    return refusal.empty() ? outcome : Outcome{false, refusal};
}

BoardSession::Outcome BoardSession::waitForTransfer(std::uint64_t size, const Progress& progress) {
    const unsigned before = log.problemCount();
    auto lastMove = Clock::now();
    std::uint32_t lastOffset = 0;
    bool erased = false;
    for (;;) {
        if (handler.loadProgress.load() == 100) {
            progress(100, size);
            return {true, {}};
        }
        if (handler.finishUnconfirmed.load() || !log.problemStartingWith(kRefused, before).empty()) {
            return failure("the device refused the firmware");
        }
        if (!usb.isConnected()) {
            return failure("the board went away");
        }
        const PayloadHandler::FileTransferState state = handler.getFileTransferState();
        if (state.fileErased != erased || state.fileOffset != lastOffset) {
            erased = state.fileErased;
            lastOffset = state.fileOffset;
            lastMove = Clock::now();
            progress(handler.loadProgress.load(), state.fileOffset);
        }
        if (Clock::now() - lastMove > (erased ? kWriteStall : kEraseStall)) {
            return failure("the device stopped answering");
        }
        std::this_thread::sleep_for(kPoll);
    }
}

BoardSession::Outcome BoardSession::flashEsp32(const std::string& path, bool compress, bool verify,
                                               const Progress& progress) {
    std::error_code sizeError;
    const std::uint64_t size = std::filesystem::file_size(pathFromUtf8(path), sizeError);
    MeridEspSerialFlasher::FlashOptions options;
    options.blockSize = kEspBlockSize;
    options.verify = verify;
    options.compress = compress;
    std::string error;
    const auto report = [&progress, size](unsigned char percent) { progress(percent, size * percent / 100); };
    if (!MeridEspSerialFlasher::flashBinary(usb, path, options, report, &error)) {
        return {false, error.empty() ? "the loader gave no reason" : error};
    }
    return {true, {}};
}
