#include "BoardSession.h"

#include "EspSerialFlasherPort.h"
#include "FailureCode.h"
#include "InputCheck.h"
#include "Platform.h"
#include "Utf8Path.h"

#include <algorithm>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr auto kPoll = milliseconds(20);
// Each erase (the command word's, then the transfer's own) may keep the
// device busy up to the erase step's time-out, and gets that budget afresh;
// a write step that stays unanswered this long has stalled.
constexpr auto kEraseStall = milliseconds(PayloadHandler::kEraseTimeout + 2000);
constexpr auto kWriteStall = milliseconds(3000);
// A field request unanswered after its read period is sent again; the
// device's answers follow one another, so this covers every field after it.
constexpr auto kFieldRetry = milliseconds(300);
constexpr auto kFieldBudget = milliseconds(2000);
constexpr const char* kSerialField = "serialNumber";
constexpr const char* kRefusal = "Message with problem - error code: ";

bool erasing(Stm32LoadFlow::Stage stage) {
    return stage == Stm32LoadFlow::Stage::EraseCommand || stage == Stm32LoadFlow::Stage::EraseStep;
}

} // namespace

BoardSession::BoardSession(const std::string& port, int baud, BoardLog& log) : log(log) {
    link.usb().portName = port;
    link.usb().baudrate = static_cast<UsbTypes::Baudrate>(baud);
}

// Closed first, so that a listener inside a long read returns at once.
BoardSession::~BoardSession() {
    link.close();
}

Stm32LoadFlow::Events BoardSession::loadEvents() {
    Stm32LoadFlow::Events events;
    events.waitEnded = [this](Stm32LoadFlow::WaitEnd end) { waitEnd = end; };
    events.eraseFailed = [this](Stm32LoadFlow::EraseFault) { eraseFailed = true; };
    events.imagePath = [this] { return firmwarePath; };
    return events;
}

BoardSession::Outcome BoardSession::open() {
    const unsigned before = log.problemCount();
    if (link.usb().connect(UsbCommunication::MethodCom) != UsbTypes::Ok) {
        const std::string line = InputCheck::openFailure(log, link.usb().portName, before);
        return {false, line, FailureCode::ofPort(line)};
    }
    return {true, {}, {}};
}

BoardSession::Outcome BoardSession::failure(const std::string& code, const std::string& fallback) {
    const std::string words = log.lastProblem();
    return {false, words.empty() ? fallback : words, code};
}

std::vector<BoardSession::DeviceSummary> BoardSession::search() {
    return devices.run();
}

std::optional<BoardSession::DeviceIdentity> BoardSession::identifyDevice() {
    const std::vector<DeviceSummary> found = search();
    const std::uint8_t address = link.currentDevice();
    const auto device = std::find_if(found.begin(), found.end(),
                                     [address](const DeviceSummary& d) { return d.address == address; });
    if (device == found.end()) {
        return std::nullopt;
    }
    DeviceIdentity identity{device->name, device->version, std::nullopt};
    for (const FieldSummary& field : device->fields) {
        if (field.name == kSerialField) {
            identity.serialNumber = readField(address, field.index);
        }
    }
    if (link.protocol().getPendingCount() != 0) {
        link.protocol().resetState();
    }
    link.devices().clearDeviceList();
    return identity;
}

// The device answers a field request with that field and goes on with
// each one after it; the request is repeated where the answers stopped. A
// refusal on the way leaves the value unknown rather than wrong.
std::optional<std::uint64_t> BoardSession::readField(std::uint8_t address, unsigned index) {
    const unsigned problemsBefore = log.problemCount();
    PayloadHandler& protocol = link.protocol();
    MessageArgs args;
    args.device = address;
    args.field = static_cast<std::uint8_t>(index);
    protocol.onMessage(GET_FIELD_MSG, &args);
    protocol.generateResponse(GET_FIELD_MSG);
    const auto begin = Clock::now();
    auto lastRequest = begin;
    while (protocol.getPendingMessage(GET_FIELD_MSG) && Clock::now() - begin < kFieldBudget &&
           link.usb().isConnected()) {
        std::this_thread::sleep_for(kPoll);
        if (Clock::now() - lastRequest >= kFieldRetry) {
            protocol.generateResponse(GET_FIELD_MSG);
            lastRequest = Clock::now();
        }
    }
    const bool refused = !log.problemStartingWith(kRefusal, problemsBefore).empty();
    return fieldAnswered(address, index) && !refused ? fieldValue(address, index) : std::nullopt;
}

bool BoardSession::fieldAnswered(std::uint8_t address, unsigned index) {
    const auto pending = link.protocol().getPendingMessage(GET_FIELD_MSG);
    return !pending || pending->device != address || pending->field > index;
}

// The field's bytes as a little-endian unsigned number.
std::optional<std::uint64_t> BoardSession::fieldValue(std::uint8_t address, unsigned index) {
    std::lock_guard<std::recursive_mutex> lock(link.devices().getMutex());
    App::Device* device = link.devices().getDevice(address);
    Field* field = device != nullptr ? device->getField(static_cast<unsigned char>(index)) : nullptr;
    if (field == nullptr) {
        return std::nullopt;
    }
    std::uint64_t value = 0;
    const unsigned char* data = field->getData();
    for (unsigned i = field->getTypeSize(); i-- > 0;) {
        value = value << 8 | data[i];
    }
    return value;
}

BoardSession::Outcome BoardSession::loadStm32(const std::string& path, const Progress& progress) {
    firmwarePath = path;
    std::error_code error;
    const std::uint64_t size = std::filesystem::file_size(pathFromUtf8(path), error);
    const Outcome erased = waitForErase();
    return erased.ok ? waitForTransfer(size, progress) : erased;
}

// The flow's wait, on its own clock, until the erase has gone out.
BoardSession::Outcome BoardSession::waitForErase() {
    waitEnd.reset();
    eraseFailed = false;
    stm32.start();
    // The first tick comes a period after the press, as in the window.
    do {
        std::this_thread::sleep_for(Stm32LoadFlow::kTick);
        if (Platform::stopRequest() != 0) {
            return stopped();
        }
    } while (stm32.tick());
    if (eraseFailed) {
        return {false, "the \"erase\" field went away", "erase-gone"};
    }
    if (waitEnd == Stm32LoadFlow::WaitEnd::LinkLost) {
        return failure("link-lost", "the board went away");
    }
    if (waitEnd) {
        return {false, "no device with an \"erase\" field answered", "no-device"};
    }
    return {true, {}, {}};
}

BoardSession::Outcome BoardSession::waitForTransfer(std::uint64_t size, const Progress& progress) {
    auto lastMove = Clock::now();
    Stm32LoadFlow::Stage lastStage = Stm32LoadFlow::Stage::Idle;
    std::uint32_t lastOffset = 0;
    for (;;) {
        if (stm32.percent() == 100) {
            progress(100, size);
            return {true, {}, {}};
        }
        if (const std::uint8_t status = stm32.refusal()) {
            return {false, kRefusal + std::to_string(status), "device-refused"};
        }
        if (stm32.takeUnconfirmed()) {
            return {false, "the device did not confirm the firmware", "not-confirmed"};
        }
        if (!link.usb().isConnected()) {
            return failure("link-lost", "the board went away");
        }
        const Stm32LoadFlow::Stage stage = stm32.stage();
        const std::uint32_t offset = stm32.offset();
        if (stage != lastStage || offset != lastOffset) {
            lastStage = stage;
            lastOffset = offset;
            lastMove = Clock::now();
            progress(stm32.percent(), offset);
        }
        if (Platform::stopRequest() != 0) {
            return stopped();
        }
        if (Clock::now() - lastMove > (erasing(stage) ? kEraseStall : kWriteStall)) {
            return failure("stalled", "the device stopped answering");
        }
        std::this_thread::sleep_for(kPoll);
    }
}

BoardSession::Outcome BoardSession::stopped() {
    return {false, {}, "interrupted"};
}

BoardSession::Outcome BoardSession::leavePayloadProtocol() {
    link.suspend();
    return open();
}

BoardSession::Outcome BoardSession::flashEsp32(const std::vector<FlashPart>& parts,
                                               const Esp32Flash::Options& options, const Progress& progress,
                                               std::vector<PartOutcome>& outcomes, ChipIdentity& chip) {
    std::uint64_t size = 0;
    for (const FlashPart& part : parts) {
        std::error_code sizeError;
        size += std::filesystem::file_size(pathFromUtf8(part.path), sizeError);
    }
    std::string error;
    const auto report = [&progress, size](unsigned char percent) { progress(percent, size * percent / 100); };
    std::atomic<bool> flashing{true};
    // The loader blocks; its port layer gives up at its next step once told.
    std::thread stopWatch([&flashing] {
        for (; flashing; std::this_thread::sleep_for(kPoll)) {
            if (Platform::stopRequest() != 0) {
                meridEspSerialFlasherPortSetCancelled(true);
                return;
            }
        }
    });
    const bool flashed = Esp32Flash::runParts(link.usb(), parts, options, report, outcomes, error, &chip);
    flashing = false;
    stopWatch.join();
    if (!flashed) {
        return Platform::stopRequest() != 0 ? stopped() : Outcome{false, error, FailureCode::ofEsp32(error)};
    }
    return {true, {}, {}};
}
