#include "Stm32LoadFlow.h"

#include "LoggerManager.h"

namespace {

// The type code of a 4-byte integer field: the command word always goes so,
// whatever type the device described.
constexpr std::uint8_t kEraseFieldType = 8;
constexpr const char* kEraseField = "erase";

} // namespace

Stm32LoadFlow::Stm32LoadFlow(BoardLink& link, Events events) : link(link), events(std::move(events)) {
    link.protocol().setAnswerObserver([this](std::uint8_t, std::uint8_t status) { onAnswer(status); });
}

Stm32LoadFlow::~Stm32LoadFlow() {
    link.protocol().setAnswerObserver(nullptr);
}

void Stm32LoadFlow::start() {
    link.startThreads();
    {
        std::lock_guard<std::recursive_mutex> lock(modelMutex());
        waiting = true;
        waitTicks = 0;
        eraseSent = false;
        transferStarted = false;
        refused = 0;
        // A finished load's 100 belongs to it, not to this one.
        link.protocol().loadProgress.store(0);
    }
    link.sender().search();
}

bool Stm32LoadFlow::tick() {
    std::lock_guard<std::recursive_mutex> lock(modelMutex());
    if (!waiting) {
        return false;
    }
    if (!link.usb().isConnected()) {
        waiting = false;
        events.waitEnded(WaitEnd::LinkLost);
        return false;
    }
    const std::uint8_t address = link.currentDevice();
    App::Device* device = link.devices().getDevice(address);
    if (device == nullptr) {
        return continueWait([this] { link.sender().search(); }, WaitEnd::NoDevice);
    }
    if (device->getFieldByName(kEraseField) == nullptr) {
        return continueWait([this, address] { link.sender().getInfoFields(address, 0); },
                            WaitEnd::NoEraseField);
    }
    waiting = false;
    waitTicks = 0;
    sendErase(address);
    return false;
}

// Both waits share one budget: a device that answers late leaves less time
// for its fields.
bool Stm32LoadFlow::continueWait(const std::function<void()>& request, WaitEnd end) {
    if (waitTicks % kRetryTicks == 0) {
        request();
    }
    ++waitTicks;
    if (waitTicks < kWaitTicks) {
        return true;
    }
    waiting = false;
    events.waitEnded(end);
    return false;
}

// In the receive path, with the model's lock held.
void Stm32LoadFlow::onAnswer(std::uint8_t status) {
    if (status != 0) {
        refused = status;
        return;
    }
    if (waiting) {
        eraseWhenDescribed();
    }
}

// The erase goes once the device and its "erase" field are known and no
// answer is awaited, so that it never cuts a description short.
bool Stm32LoadFlow::eraseWhenDescribed() {
    if (link.protocol().getPendingCount() != 0) {
        return false;
    }
    const std::uint8_t address = link.currentDevice();
    App::Device* device = link.devices().getDevice(address);
    if (device == nullptr || device->getFieldByName(kEraseField) == nullptr) {
        return false;
    }
    waiting = false;
    waitTicks = 0;
    sendErase(address);
    return true;
}

void Stm32LoadFlow::sendErase(std::uint8_t address) {
    App::Device* target = link.devices().getDevice(address);
    if (target == nullptr) {
        events.eraseFailed(EraseFault::NoDevice);
        return;
    }
    Field* field = target->getFieldByName(kEraseField);
    if (field == nullptr) {
        events.eraseFailed(EraseFault::NoEraseField);
        return;
    }
    FieldInfo* info = field->getInfo();
    if (info == nullptr) {
        events.eraseFailed(EraseFault::NoFieldInfo);
        return;
    }
    FieldInfo forced = *info;
    forced.type = kEraseFieldType;
    field->setInfo(forced);
    const std::uint32_t word = EraseFile0;
    field->setData(true, &word);
    const long long index = target->getFieldIndexByName(kEraseField);
    if (index < 0) {
        events.eraseFailed(EraseFault::NoEraseField);
        return;
    }
    eraseSent = true;
    link.sender().setFieldValue(address, static_cast<unsigned char>(index));
}

bool Stm32LoadFlow::onEraseConfirmed() {
    const std::string path = events.imagePath();
    if (path.empty()) {
        return false;
    }
    std::lock_guard<std::recursive_mutex> lock(modelMutex());
    transferStarted = true;
    MessageArgs request;
    request.device = link.currentDevice();
    request.field = 0;
    request.path = path;
    LoggerManager::getInstance().log("load device firmware", BaseLogger::INFO, "SerialSender: ");
    link.protocol().onMessage(FILE_START_MSG, &request);
    link.protocol().generateResponse(FILE_WRITE_MSG);
    return true;
}

unsigned Stm32LoadFlow::percent() {
    return link.protocol().loadProgress.load();
}

bool Stm32LoadFlow::takeUnconfirmed() {
    return link.protocol().finishUnconfirmed.exchange(false);
}

Stm32LoadFlow::Stage Stm32LoadFlow::stage() {
    std::lock_guard<std::recursive_mutex> lock(modelMutex());
    if (waiting) {
        return Stage::Waiting;
    }
    if (transferStarted) {
        return link.protocol().getFileTransferState().fileErased ? Stage::Writing : Stage::EraseStep;
    }
    return eraseSent ? Stage::EraseCommand : Stage::Idle;
}

std::uint32_t Stm32LoadFlow::offset() {
    return link.protocol().getFileTransferState().fileOffset;
}
