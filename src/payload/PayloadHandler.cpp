#include "PayloadHandler.h"

#include "FastCrc8.h"
#include "GlobalHandlerEvents.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace {

const std::string kTag = "PayloadHandler: ";

std::string num(unsigned long long value) {
    return std::to_string(value);
}

std::uint32_t readU32(const unsigned char* p) {
    return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
           static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

void writeU32(unsigned char* p, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<unsigned char>(value >> (8 * i));
    }
}

} // namespace

const std::array<unsigned char, 14> PayloadHandler::kDfuRequestHead = {
    0x3C, 0x91, 0x12, 0x01, 0x00, 0x4E, 0x7A, 0x3C, 0x91, 0x36, 0x01, 0x13, 0xD6, 0x2B};
const std::array<unsigned char, 16> PayloadHandler::kDfuRequestTail = {
    0xA7, 0x5E, 0x00, 0x06, 0x00, 0x00, 0x00, 0x00, 0xA7, 0x5E, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00};

PayloadHandler::PayloadHandler() : logger(LoggerManager::getInstance()) {}

PayloadHandler::~PayloadHandler() = default;

std::recursive_mutex& PayloadHandler::stateMutex() {
    return deviceHandler.getMutex();
}

void PayloadHandler::report(const std::string& message, BaseLogger::MessageType type) {
    logger.log(message, type, kTag);
}

// ---- The send queue -------------------------------------------------------

QueuedMessage PayloadHandler::fetchToQueue() {
    std::lock_guard<std::recursive_mutex> lock(queueMutex);
    if (sendQueue.empty()) {
        return {};
    }
    return sendQueue.front();
}

void PayloadHandler::freeFrontFromQueue() {
    std::lock_guard<std::recursive_mutex> lock(queueMutex);
    if (sendQueue.empty()) {
        return;
    }
    delete[] sendQueue.front().data;
    sendQueue.pop_front();
}

unsigned long long PayloadHandler::getQueueSize() {
    std::lock_guard<std::recursive_mutex> lock(queueMutex);
    return sendQueue.size();
}

void PayloadHandler::logMessage(std::string&) {}

unsigned char PayloadHandler::getType() {
    return handlerType;
}

void PayloadHandler::addToQueue(const void* data, unsigned long long size, unsigned int timeout) {
    auto* copy = new unsigned char[size]();
    if (data != nullptr && size != 0) {
        std::memcpy(copy, data, size);
    }
    std::lock_guard<std::recursive_mutex> lock(queueMutex);
    sendQueue.push_back(QueuedMessage{copy, size, timeout});
    notifyQueued();
}

void PayloadHandler::clearQueue(bool force) {
    std::lock_guard<std::recursive_mutex> lock(queueMutex);
    std::size_t count = sendQueue.size();
    if (!force && count < 26) {
        return;
    }
    for (std::size_t i = 0; i < count; ++i) {
        freeFrontFromQueue();
    }
}

// ---- The receive path -----------------------------------------------------

unsigned long long PayloadHandler::update(const void* data, unsigned long long size) {
    // Waits for a reset under way; an update does not hold the lock itself.
    { std::lock_guard<std::mutex> wait(handlerMutex); }
    if (size == 0 || data == nullptr) {
        return 0;
    }
    const auto* bytes = static_cast<const unsigned char*>(data);
    PayloadReceiveState state = rxState.load(std::memory_order_relaxed);
    unsigned long long frames = 0;
    for (unsigned long long i = 0; i < size; ++i) {
        const unsigned char byte = bytes[i];
        if (state >= FRAME_READY) {
            state = WAIT_SYNC;
        }
        switch (state) {
        case WAIT_SYNC: {
            // Noise up to the next sync byte is passed over in one step.
            const auto* sync = static_cast<const unsigned char*>(std::memchr(bytes + i, kSyncByte, size - i));
            if (sync == nullptr) {
                i = size - 1;
            } else {
                i = static_cast<unsigned long long>(sync - bytes);
                state = WAIT_LENGTH;
            }
            break;
        }
        case WAIT_LENGTH:
            rxLength = static_cast<std::uint64_t>(byte) + 1;
            if (byte == 255) {
                state = FRAME_TOO_LONG;
            } else {
                rxCount = 0;
                state = READ_PAYLOAD;
            }
            break;
        case READ_PAYLOAD: {
            // As much of the payload as this block holds, at once.
            const auto count = std::min<unsigned long long>(rxLength - rxCount, size - i);
            std::memcpy(rxBuffer.data() + rxCount, bytes + i, count);
            rxCount += count;
            i += count - 1;
            if (rxCount >= rxLength) {
                state = CHECK_CRC;
            }
            break;
        }
        case CHECK_CRC:
            state = FastCrc8::update(0, rxBuffer.data(), rxLength) == byte ? FRAME_READY : FRAME_BAD_CRC;
            if (state == FRAME_READY) {
                ++frames;
                rxState.store(state, std::memory_order_relaxed);
                process(rxBuffer.data(), rxLength);
            } else {
                log(BaseLogger::ERROR, "received message with wrong CRC");
            }
            break;
        default:
            break;
        }
    }
    rxState.store(state, std::memory_order_relaxed);
    if (state == WAIT_SYNC) {
        log(BaseLogger::WARNING, "received message is not Payload type");
    }
    return frames;
}

PayloadReceiveState PayloadHandler::getReceiveState() const {
    return rxState.load(std::memory_order_relaxed);
}

void PayloadHandler::process(const void* payload, unsigned long long size) {
    if (size < 3 || payload == nullptr) {
        return;
    }
    // A zero-filled copy: the branches read their fields at fixed offsets and
    // a short payload must not make them read past its end.
    std::array<unsigned char, kMaxPayload + 1> copy{};
    std::memcpy(copy.data(), payload, std::min<unsigned long long>(size, copy.size()));
    const unsigned char* p = copy.data();

    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    // The acceptance test.
    auto entry = messages.find(currentMessage);
    if (entry == messages.end() || p[0] != packNumber) {
        log(BaseLogger::WARNING, "received unexpected message (device ", num(p[1]), ", message ", num(p[2]),
            ", pack #", num(p[0]), ")");
        return;
    }
    if (deviceHandler.getDevice(p[1]) == nullptr && lastCommand != DEVICE_INFO_REQ) {
        log(BaseLogger::WARNING, "unknown device address ", num(p[1]), ". Pack ", num(p[0]));
        return;
    }
    // currentMessage stays, so that a second answer fails the test above.
    const std::uint8_t device = entry->second.device;
    const std::uint8_t field = entry->second.field;
    messages.erase(entry);
    // The steps below may send the next request, which changes lastCommand.
    const std::uint8_t command = lastCommand;
    if (p[2] != 0) {
        log(BaseLogger::WARNING, "Message with problem - error code: ", num(p[2]));
        if (lastCommand == FILE_WRITE_REQ) {
            reportUnconfirmedFinish();
        }
        notifyAnswer(command, p[2]);
        return;
    }
    switch (lastCommand) {
    case DEVICE_INFO_REQ:
        processDeviceInfo(p);
        break;
    case SET_FIELD_REQ:
        processSetField(device, field);
        break;
    case GET_FIELD_REQ:
        processGetField(p, device, field);
        break;
    case FIELD_INFO_REQ:
        processFieldInfo(p, device, field);
        break;
    case FILE_INFO_REQ:
        processFileInfo(p, device, field);
        break;
    case FILE_WRITE_REQ:
        processFileWrite(device, field);
        break;
    case FILE_READ_REQ:
        log(BaseLogger::DEBUG, "Message type: FILE_READ_REQ");
        break;
    default:
        break;
    }
    notifyAnswer(command, 0);
}

void PayloadHandler::setAnswerObserver(AnswerObserver observer) {
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    answerObserver = std::move(observer);
}

void PayloadHandler::notifyAnswer(std::uint8_t command, std::uint8_t status) {
    if (answerObserver) {
        answerObserver(command, status);
    }
}

void PayloadHandler::processDeviceInfo(const unsigned char* p) {
    log(BaseLogger::DEBUG, "Message type: DEVICE_INFO_REQ");
    DeviceInfo info{};
    info.address = p[1];
    std::memcpy(reinterpret_cast<unsigned char*>(&info) + 1, p + 3, sizeof(DeviceInfo) - 1);
    if (info.nameLength >= 63) {
        info.nameLength = 62;
    }
    info.name[info.nameLength] = '\0';
    std::string name = info.nameLength == 0 ? std::string("Unnamed") : std::string(info.name);
    log(BaseLogger::INFO, "device info response (device ", num(p[1]), ", ", name, ", ", num(p[3]), ".",
        num(p[4]), ") Pack #", num(packNumber));
    deviceHandler.addDevice(info);
}

void PayloadHandler::processSetField(std::uint8_t device, std::uint8_t field) {
    log(BaseLogger::DEBUG, "Message type: SET_FIELD_REQ");
    App::Device* known = deviceHandler.getDevice(device);
    if (known != nullptr && known->getFieldIndexByName("erase") == static_cast<long long>(field)) {
        // The device has erased: the firmware may go now.
        GlobalHandlerEvents::getInstance()._executeHandlerWithArgs<LoadStage>(UPLOAD_FIRMWARE, Write);
    }
    deviceHandler.setDeviceFieldValueLoaded(device, field);
}

void PayloadHandler::processGetField(const unsigned char* p, std::uint8_t device, std::uint8_t field) {
    log(BaseLogger::DEBUG, "Message type: GET_FIELD_REQ");
    deviceHandler.setDeviceFieldValue(device, field, p + 4);
    log(BaseLogger::INFO, "field value response (device ", num(device), ", field #", num(field), ")\n");
    const auto next = static_cast<std::uint8_t>(field + 1);
    App::Device* known = deviceHandler.getDevice(device);
    if (known == nullptr || known->getInfo()->fieldCount <= next) {
        return;
    }
    issue(GET_FIELD_MSG, device, next);
}

void PayloadHandler::processFieldInfo(const unsigned char* p, std::uint8_t device, std::uint8_t field) {
    log(BaseLogger::DEBUG, "Message type: FIELD_INFO_REQ");
    FieldInfo info{};
    info.type = p[3];
    const std::uint8_t length = p[4];
    if (length < 63) {
        info.nameLength = length;
        std::memcpy(info.name, p + 5, length);
        info.name[length] = '\0';
        if (std::strncmp(info.name, "enterBootloader", 15) == 0) {
            App::Device* owner = deviceHandler.getDevice(p[1]);
            if (owner != nullptr) {
                owner->setDeviceBootable(true);
            }
        }
    }
    std::string name = info.nameLength == 0 ? std::string("Undefined") : std::string(info.name);
    log(BaseLogger::INFO, "field info response (device ", num(device), ", field #", num(field), " ", name,
        ", type #", num(info.type), ") Pack #", num(packNumber));
    deviceHandler.addDeviceField(device, field, info);
    const auto next = static_cast<std::uint8_t>(field + 1);
    App::Device* known = deviceHandler.getDevice(device);
    if (known == nullptr || known->getInfo()->fieldCount <= next) {
        return;
    }
    issue(FIELD_INFO_MSG, device, next);
}

void PayloadHandler::processFileInfo(const unsigned char* p, std::uint8_t device, std::uint8_t field) {
    // The checksum is printed in decimal behind its "0x": the device's tools read it so.
    log(BaseLogger::INFO, "file info response (device ", num(device), ", file #", num(field), ", checksum 0x",
        num(readU32(p + 8)), ", size ", num(readU32(p + 4)), ") Pack #", num(packNumber));
}

void PayloadHandler::issue(MessageType type, std::uint8_t device, std::uint8_t field) {
    messages[type] = MessageDescriptor{device, field};
    generateResponse(type);
}

// ---- Entering and issuing messages ------------------------------------------

void PayloadHandler::onMessage(MessageType type, void* args) {
    const auto* raw = static_cast<const unsigned char*>(args);
    const auto* full = static_cast<const MessageArgs*>(args);
    auto needsArgs = [&]() {
        if (args == nullptr) {
            log(BaseLogger::ERROR, "message ", num(type), " needs a device and was given none");
            return false;
        }
        return true;
    };
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    switch (type) {
    case SEARCH_DEVICES_MSG:
        enqueueMessage(SEARCH_DEVICES_MSG, kBroadcastAddress, 0, std::string());
        break;
    case REFRESH_DEVICE_MSG:
        if (needsArgs()) {
            enqueueMessage(DEVICE_AUX_MSG, raw[0], 0, std::string());
            enqueueMessage(FIELD_INFO_MSG, raw[0], 0, std::string());
        }
        break;
    case FIELD_INFO_MSG:
    case DEVICE_AUX_MSG:
    case DFU_MSG:
        if (needsArgs()) {
            enqueueMessage(type, raw[0], 0, std::string());
        }
        break;
    case SET_FIELD_MSG:
    case GET_FIELD_MSG:
        if (needsArgs()) {
            enqueueMessage(type, raw[0], raw[1], std::string());
        }
        break;
    case FILE_WRITE_MSG:
        if (args != nullptr) {
            enqueueMessage(FILE_WRITE_MSG, full->device, full->field, full->path);
        }
        break;
    case FILE_AUX_MSG:
        if (needsArgs()) {
            enqueueMessage(FILE_AUX_MSG, full->device, full->field, full->path);
        }
        break;
    case FILE_START_MSG:
        if (needsArgs()) {
            enqueueMessage(FILE_WRITE_MSG, full->device, full->field, full->path);
        }
        break;
    default:
        break;
    }
}

void PayloadHandler::generateResponse(MessageType type, void*) {
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    auto entry = messages.find(type);
    if (entry == messages.end()) {
        currentMessage = kNoMessage;
        return;
    }
    const std::uint8_t device = entry->second.device;
    const std::uint8_t field = entry->second.field;
    // Only attempt 0 ever happens here; the other branches stay for a
    // caller that counts attempts.
    if (attempt == 0) {
        packNumber = static_cast<std::uint8_t>(packNumber + 1);
    } else if (attempt >= 4) {
        messages.erase(entry);
        log(BaseLogger::WARNING, "Timeout!");
        currentMessage = kNoMessage;
        return;
    }
    currentMessage = type;
    switch (type) {
    case SEARCH_DEVICES_MSG:
        sendDeviceInfoRequest();
        break;
    case FIELD_INFO_MSG:
        sendFieldInfoRequest(device, field);
        break;
    case SET_FIELD_MSG:
        sendSetFieldRequest(device, field);
        break;
    case GET_FIELD_MSG:
        sendGetFieldRequest(device, field);
        break;
    case FILE_WRITE_MSG:
        sendFileWriteReq();
        break;
    case DFU_MSG:
        sendDfuRequest();
        break;
    default:
        break;
    }
}

void PayloadHandler::enqueueMessage(MessageType type, unsigned char device, unsigned char field,
                                    std::string path) {
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    // A message of this type still waits for its answer.
    if (messages.count(type) != 0) {
        log(BaseLogger::WARNING, "Send queue is full!");
        return;
    }
    if (type == FILE_WRITE_MSG && !loadFile(path)) {
        return;
    }
    messages[type] = MessageDescriptor{device, field};
    if (type == FILE_WRITE_MSG) {
        fileDevice = device;
        fileIndex = field;
    }
}

// ---- Building requests ----------------------------------------------------

void PayloadHandler::castCommand(const void* payload, unsigned char size, unsigned int timeout) {
    if (payload == nullptr) {
        log(BaseLogger::ERROR, "castCommand called without a payload");
        return;
    }
    const auto* bytes = static_cast<const unsigned char*>(payload);
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    // An empty message, taken off the queue without a write.
    if (size == 0) {
        lastCommand = bytes[2];
        addToQueue(payload, 0, timeout);
        return;
    }
    if (size < 3) {
        log(BaseLogger::ERROR, "castCommand: a request payload has at least 3 bytes, got ", num(size));
        return;
    }
    std::array<unsigned char, kMaxFrame> frame{};
    frame[0] = kSyncByte;
    frame[1] = static_cast<unsigned char>(size - 1);
    std::memcpy(frame.data() + 2, payload, size);
    frame[2 + size] = FastCrc8::update(0, payload, size);
    lastCommand = bytes[2];
    addToQueue(frame.data(), static_cast<unsigned long long>(size) + 3, timeout);
}

void PayloadHandler::sendDeviceInfoRequest() {
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    const unsigned char payload[3] = {packNumber, kBroadcastAddress, DEVICE_INFO_REQ};
    castCommand(payload, sizeof(payload), kDeviceInfoTimeout);
}

void PayloadHandler::sendFieldInfoRequest(unsigned char device, unsigned char field) {
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    const unsigned char payload[4] = {packNumber, device, FIELD_INFO_REQ, field};
    castCommand(payload, sizeof(payload), kFieldInfoTimeout);
}

void PayloadHandler::sendGetFieldRequest(unsigned char device, unsigned char field) {
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    messages[GET_FIELD_MSG] = MessageDescriptor{device, field};
    log(BaseLogger::INFO, "field value request (device ", num(device), ", field ", num(field), "). Pack #",
        num(packNumber), ", attempt #", num(attempt));
    const unsigned char payload[4] = {packNumber, device, GET_FIELD_REQ, field};
    castCommand(payload, sizeof(payload), kGetFieldTimeout);
}

void PayloadHandler::sendSetFieldRequest(unsigned char device, unsigned char field) {
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    App::Device* known = deviceHandler.getDevice(device);
    Field* target = known != nullptr ? known->getField(field) : nullptr;
    if (target == nullptr) {
        log(BaseLogger::ERROR, "field value set error - no field data! (device ", num(device), ", field ",
            num(field), "). Pack #", num(packNumber));
        messages.erase(SET_FIELD_MSG);
        currentMessage = kNoMessage;
        return;
    }
    const std::uint8_t valueSize = target->getTypeSize();
    unsigned char payload[5 + 8] = {packNumber, device, SET_FIELD_REQ, field, target->getType()};
    std::memcpy(payload + 5, target->getData(), valueSize);
    log(BaseLogger::INFO, "field value set request (device ", num(device), ", field ", num(field), ", type #",
        num(target->getType()), "). Pack #", num(packNumber));
    // Any name that begins so gets the long wait of an erase.
    const bool erase = std::strncmp(target->getName(), "erase", 5) == 0;
    castCommand(payload, static_cast<unsigned char>(valueSize + 5), erase ? kEraseTimeout : kSetFieldTimeout);
}

void PayloadHandler::sendDfuRequest() {
    std::array<unsigned char, kDfuRequestHead.size() + kDfuRequestTail.size()> frame{};
    std::copy(kDfuRequestHead.begin(), kDfuRequestHead.end(), frame.begin());
    std::copy(kDfuRequestTail.begin(), kDfuRequestTail.end(), frame.begin() + kDfuRequestHead.size());
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    addToQueue(frame.data(), frame.size(), kDfuTimeout);
    // No answer is expected; currentMessage stays DFU_MSG, so that any answer
    // is an unexpected one.
    messages.erase(DFU_MSG);
}

unsigned int PayloadHandler::getDefaultTimeout() {
    return 500;
}

void PayloadHandler::resetState() {
    std::lock_guard<std::mutex> resetting(handlerMutex);
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    clearQueue(true);
    messages.clear();
    lastCommand = 0;
    currentMessage = kNoMessage;
    attempt = 0;
    packNumber = 0;
    loadProgress.store(0);
    finishUnconfirmed.store(false);
    clearTransfer();
}

DeviceHandler& PayloadHandler::getDeviceHandler() {
    return deviceHandler;
}

// ---- The file transfer ----------------------------------------------------

bool PayloadHandler::loadFile(const std::string& path) {
    // The path is UTF-8 on every platform.
    const std::filesystem::path filePath(std::u8string(path.begin(), path.end()));
    std::ifstream file(filePath, std::ios::binary | std::ios::ate);
    if (!file.is_open()) {
        log(BaseLogger::ERROR, "Can't open file.");
        log(BaseLogger::ERROR, "Can't open file: ", path);
        return false;
    }
    fileData.clear();
    const std::streamoff size = file.tellg();
    if (size < 0) {
        log(BaseLogger::ERROR, "Can't get file size.");
        log(BaseLogger::ERROR, "Can't get file size: ", path);
        return false;
    }
    if (static_cast<unsigned long long>(size) > 0xFFFFFFFFull) {
        log(BaseLogger::ERROR, "Can't get file size.");
        log(BaseLogger::ERROR, "Can't get file size: ", path, " is larger than 4 GiB");
        return false;
    }
    fileData.resize(static_cast<std::size_t>(size));
    file.seekg(0, std::ios::beg);
    if (size != 0 && !file.read(reinterpret_cast<char*>(fileData.data()), size)) {
        log(BaseLogger::ERROR, "Can't read file.");
        log(BaseLogger::ERROR, "Can't read file: ", path);
        return false;
    }
    log(BaseLogger::INFO, "File size in bytes: ", num(static_cast<unsigned long long>(size)));
    file.close();
    // fileDevice and fileIndex are set with the entry.
    fileSize = static_cast<std::uint32_t>(size);
    fileChecksum = fileData.empty() ? 0 : FastCrc8::update(0, fileData.data(), fileData.size());
    fileRemaining = fileSize;
    fileOffset = 0;
    fileErased = false;
    fileFinishing = false;
    transferStart = std::chrono::steady_clock::now();
    transferTimed = true;
    return true;
}

std::uint8_t PayloadHandler::chunkLimit() const {
    return fileSize < kLargeFileSize ? kSmallChunk : kLargeChunk;
}

void PayloadHandler::sendFileWriteReq() {
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    unsigned char payload[8 + kLargeChunk] = {packNumber, fileDevice, FILE_WRITE_REQ, fileIndex};
    writeU32(payload + 4, fileOffset);
    // The step's words, with what only a write step has in the middle.
    const auto logStep = [this](const char* step, const auto&... middle) {
        log(BaseLogger::INFO, step, " file request (device ", num(fileDevice), ", file ", num(fileIndex),
            middle..., "). Pack #", num(packNumber), ", attempt #", num(attempt));
    };
    unsigned int timeout = kFileStepTimeout;
    if (!fileErased) {
        chunkSize = 0;
        logStep("erase");
        timeout = kEraseTimeout;
    } else {
        chunkSize = static_cast<std::uint8_t>(std::min<std::uint32_t>(chunkLimit(), fileRemaining));
        if (chunkSize > 0) {
            std::memcpy(payload + 8, fileData.data() + fileOffset, chunkSize);
            logStep("write", ", offset ", num(fileOffset), ", chunk size ", num(chunkSize));
        } else {
            logStep("finish");
            fileFinishing = true;
            finishAwaited = true;
            finishOverdue = false;
            finishGivenUp = false;
        }
    }
    castCommand(payload, static_cast<unsigned char>(chunkSize + 8), timeout);
    std::uint8_t percent = 0;
    if (fileSize != 0) {
        const float share = static_cast<float>(fileOffset) / static_cast<float>(fileSize);
        percent = static_cast<std::uint8_t>(static_cast<long long>(share * 100.0) % 256);
    }
    // 100 is the device's confirmation of the finish step, never the step
    // itself: until then the bar keeps the last value below it.
    if (percent < 100) {
        loadProgress.store(percent);
    }
    GlobalHandlerEvents::getInstance()._executeHandler(UPDATE_LOADING_STATUS);
}

void PayloadHandler::onResponseTimeout() {
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    if (finishAwaited && !finishOverdue) {
        finishOverdue = true;
        return;
    }
    reportUnconfirmedFinish();
}

void PayloadHandler::onLinkFailure() {
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    reportUnconfirmedFinish();
}

// A refused or unanswered finish step, or one whose link went, told once
// for each time the step went out.
void PayloadHandler::reportUnconfirmedFinish() {
    if (!finishAwaited) {
        return;
    }
    finishAwaited = false;
    finishOverdue = false;
    finishGivenUp = true;
    finishUnconfirmed.store(true);
    GlobalHandlerEvents::getInstance()._executeHandler(UPDATE_LOADING_STATUS);
}

void PayloadHandler::processFileWrite(std::uint8_t device, std::uint8_t field) {
    log(BaseLogger::DEBUG, "Message type: FILE_WRITE_REQ");
    if (fileErased) {
        log(BaseLogger::INFO, "write file response (device ", num(device), ", file #", num(field), ") Pack #",
            num(packNumber));
    } else {
        fileErased = true;
        log(BaseLogger::INFO, "erase file response (device ", num(device), ", file #", num(field), ") Pack #",
            num(packNumber));
    }
    // The step in flight is confirmed; the answer to the erase step moves nothing.
    if (fileRemaining != 0) {
        fileOffset += chunkSize;
        fileRemaining -= chunkSize;
        issue(FILE_WRITE_MSG, device, field);
        return;
    }
    attempt = 0;
    if (fileFinishing && finishGivenUp) {
        // The load was reported unconfirmed; one outcome stands.
        log(BaseLogger::WARNING, "finish file response after the load was given up: not taken");
        return;
    }
    if (!fileFinishing) {
        // An empty file: its erase answer finds nothing left to write.
        issue(FILE_WRITE_MSG, device, field);
        return;
    }
    completeTransfer();
}

void PayloadHandler::completeTransfer() {
    loadProgress.store(100);
    if (transferTimed && fileSize != 0) {
        const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
                                 std::chrono::steady_clock::now() - transferStart)
                                 .count();
        const double seconds = std::max(static_cast<double>(elapsed) / 1000.0, 0.001);
        const double rate = static_cast<double>(fileSize) * 0.0009765625 / seconds;
        char rateText[64];
        std::snprintf(rateText, sizeof(rateText), "%f", rate);
        log(BaseLogger::WARNING, "Firmware transfer complete: ", num(fileSize), " bytes in ",
            num(static_cast<unsigned long long>(elapsed)), " ms (", rateText, " KiB/s)");
    }
    clearTransfer();
    GlobalHandlerEvents::getInstance()._executeHandler(UPDATE_LOADING_STATUS);
}

void PayloadHandler::clearTransfer() {
    fileErased = false;
    fileFinishing = false;
    finishAwaited = false;
    finishOverdue = false;
    finishGivenUp = false;
    fileData.clear();
    fileData.shrink_to_fit();
    fileDevice = 0;
    fileIndex = 0;
    fileSize = 0;
    fileChecksum = 0;
    chunkSize = 0;
    fileOffset = 0;
    fileRemaining = 0;
    transferStart = {};
    transferTimed = false;
}

// ---- Observers ------------------------------------------------------------

std::uint8_t PayloadHandler::getPackNumber() {
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    return packNumber;
}

std::uint8_t PayloadHandler::getLastCommand() {
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    return lastCommand;
}

MessageType PayloadHandler::getCurrentMessage() {
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    return currentMessage;
}

std::optional<PayloadHandler::MessageDescriptor> PayloadHandler::getPendingMessage(MessageType type) {
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    auto found = messages.find(type);
    if (found == messages.end()) {
        return std::nullopt;
    }
    return found->second;
}

std::size_t PayloadHandler::getPendingCount() {
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    return messages.size();
}

PayloadHandler::FileTransferState PayloadHandler::getFileTransferState() {
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    FileTransferState state;
    state.fileErased = fileErased;
    state.fileFinishing = fileFinishing;
    state.dataSize = fileData.size();
    state.fileDevice = fileDevice;
    state.fileIndex = fileIndex;
    state.fileSize = fileSize;
    state.fileChecksum = fileChecksum;
    state.chunkSize = chunkSize;
    state.fileOffset = fileOffset;
    state.fileRemaining = fileRemaining;
    state.transferTimed = transferTimed;
    return state;
}
