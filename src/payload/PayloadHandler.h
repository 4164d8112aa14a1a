#pragma once

#include "AbstractProtocolHandler.h"
#include "DeviceHandler.h"
#include "LoggerManager.h"
#include "PayloadTypes.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

// The logic of the payload protocol: turns the byte stream into frames, accepts
// or rejects each answer, builds the requests and moves a file in chunks.
class PayloadHandler : public virtual AbstractProtocolHandler {
public:
    struct MessageDescriptor {
        std::uint8_t device = 0;
        std::uint8_t field = 0;
    };

    // A copy of the file transfer's members, for readers outside the handler.
    struct FileTransferState {
        bool fileErased = false;
        bool fileFinishing = false;
        std::size_t dataSize = 0;
        std::uint8_t fileDevice = 0;
        std::uint8_t fileIndex = 0;
        std::uint32_t fileSize = 0;
        std::uint32_t fileChecksum = 0;
        std::uint8_t chunkSize = 0;
        std::uint32_t fileOffset = 0;
        std::uint32_t fileRemaining = 0;
        bool transferTimed = false;
    };

    // The largest payload a frame can carry, and the frame around it.
    static constexpr std::size_t kMaxPayload = 255;
    static constexpr std::size_t kMaxFrame = kMaxPayload + 3;
    static constexpr unsigned char kSyncByte = 0x7E;
    static constexpr unsigned char kBroadcastAddress = 255;
    // Files from this size on go in chunks of kLargeChunk bytes.
    static constexpr std::uint32_t kLargeFileSize = 0x40000;
    static constexpr std::uint8_t kSmallChunk = 32;
    static constexpr std::uint8_t kLargeChunk = 64;

    static constexpr unsigned int kDeviceInfoTimeout = 3000;
    static constexpr unsigned int kFieldInfoTimeout = 500;
    static constexpr unsigned int kGetFieldTimeout = 100;
    static constexpr unsigned int kEraseTimeout = 20000;
    static constexpr unsigned int kSetFieldTimeout = 500;
    static constexpr unsigned int kFileStepTimeout = 500;
    static constexpr unsigned int kDfuTimeout = 500;

    // The request that puts a device into its update mode: no payload frame,
    // two fixed blocks sent as they stand.
    static const std::array<unsigned char, 14> kDfuRequestHead;
    static const std::array<unsigned char, 16> kDfuRequestTail;

    PayloadHandler();
    ~PayloadHandler() override;

    // The send queue.
    QueuedMessage fetchToQueue() override;
    void freeFrontFromQueue() override;
    unsigned long long getQueueSize() override;
    void logMessage(std::string& message) override;
    unsigned char getType() override;
    void addToQueue(const void* data, unsigned long long size, unsigned int timeout) override;
    void clearQueue(bool force) override;

    // The receive path: frames found in a block of bytes, each payload acted on.
    // The handlers that process raises (SET_CURRENT_DEVICE_ADDR,
    // UPLOAD_FIRMWARE, UPDATE_LOADING_STATUS) run with the state lock held:
    // they may call back into the handler, but must not wait for a thread
    // that could be waiting for the model.
    unsigned long long update(const void* data, unsigned long long size);
    void process(const void* payload, unsigned long long size);

    // The way of every request: enter the wish, then issue it.
    void onMessage(MessageType type, void* args);
    void generateResponse(MessageType type, void* unused = nullptr);

    void enqueueMessage(MessageType type, unsigned char device, unsigned char field, std::string path);
    void castCommand(const void* payload, unsigned char size, unsigned int timeout);
    void sendDeviceInfoRequest();
    void sendFieldInfoRequest(unsigned char device, unsigned char field);
    void sendGetFieldRequest(unsigned char device, unsigned char field);
    void sendSetFieldRequest(unsigned char device, unsigned char field);
    void sendDfuRequest();
    void sendFileWriteReq();
    static unsigned int getDefaultTimeout();
    void resetState();
    // The listener's read ended without an answer. A finish step's answer is
    // awaited for one more read period after its own time-out: an answer in
    // that time still counts, and only then is the finish unconfirmed.
    void onResponseTimeout();
    // The listener's read failed: the link is gone, and with it any answer
    // still awaited.
    void onLinkFailure();

    // Told of every accepted answer on the listener thread, inside the
    // receive path with the state lock held: the request's wire code and the
    // device's status (0 for success), after the answer has been acted on.
    using AnswerObserver = std::function<void(std::uint8_t command, std::uint8_t status)>;
    void setAnswerObserver(AnswerObserver observer);

    DeviceHandler& getDeviceHandler();

    // Observers, each taken under the state lock.
    std::uint8_t getPackNumber();
    std::uint8_t getLastCommand();
    MessageType getCurrentMessage();
    std::optional<MessageDescriptor> getPendingMessage(MessageType type);
    std::size_t getPendingCount();
    FileTransferState getFileTransferState();
    PayloadReceiveState getReceiveState() const;

    // The percentage of a file transfer; the window reads it from the UI thread.
    // It reaches 100 only when the device has confirmed the finish step.
    std::atomic<std::uint8_t> loadProgress{0};
    // Set when the device refused the finish step, left it unanswered or the
    // link went while it was awaited; the flow takes it when it reports the end.
    std::atomic<bool> finishUnconfirmed{false};

private:
    // The protocol state below is reached by the UI thread (a flow's first
    // request) and the listener thread (every further step). It shares the
    // model's recursive lock: the model and the protocol are always changed
    // together, and one lock cannot be taken in two orders.
    std::recursive_mutex& stateMutex();

    void processDeviceInfo(const unsigned char* p);
    void processSetField(std::uint8_t device, std::uint8_t field);
    void processGetField(const unsigned char* p, std::uint8_t device, std::uint8_t field);
    void processFieldInfo(const unsigned char* p, std::uint8_t device, std::uint8_t field);
    void processFileInfo(const unsigned char* p, std::uint8_t device, std::uint8_t field);
    void processFileWrite(std::uint8_t device, std::uint8_t field);
    void completeTransfer();
    void reportUnconfirmedFinish();
    void notifyAnswer(std::uint8_t command, std::uint8_t status);
    void issue(MessageType type, std::uint8_t device, std::uint8_t field);
    bool loadFile(const std::string& path);
    std::uint8_t chunkLimit() const;
    void clearTransfer();
    // A report, put together from its parts only when a sink takes its type:
    // most of the protocol's reports go nowhere.
    template <typename... Parts> void log(BaseLogger::MessageType type, const Parts&... parts) {
        if (logger.wants(type)) {
            std::string message;
            (message += ... += parts);
            report(message, type);
        }
    }
    void report(const std::string& message, BaseLogger::MessageType type);

    LoggerManager& logger;
    std::uint8_t attempt = 0;
    std::array<unsigned char, kMaxPayload + 1> rxBuffer{};
    std::uint64_t rxLength = 0;
    std::uint64_t rxCount = 0;
    std::atomic<PayloadReceiveState> rxState{WAIT_SYNC};
    DeviceHandler deviceHandler;
    std::mutex handlerMutex;
    MessageType currentMessage = kNoMessage;
    std::uint8_t lastCommand = 0;
    std::uint8_t packNumber = 0;
    std::uint8_t handlerType = 0;
    std::map<MessageType, MessageDescriptor> messages;

    bool fileErased = false;
    bool fileFinishing = false;
    // The finish step went out and nothing has been told of its answer yet.
    bool finishAwaited = false;
    // Its time-out has passed once; an answer still counts until the next.
    bool finishOverdue = false;
    // Reported unconfirmed: a later answer is not taken for a confirmation.
    bool finishGivenUp = false;
    AnswerObserver answerObserver;
    std::vector<unsigned char> fileData;
    std::uint8_t fileDevice = 0;
    std::uint8_t fileIndex = 0;
    std::uint32_t fileSize = 0;
    std::uint32_t fileChecksum = 0;
    std::uint8_t chunkSize = 0;
    std::uint32_t fileOffset = 0;
    std::uint32_t fileRemaining = 0;
    std::chrono::steady_clock::time_point transferStart{};
    bool transferTimed = false;
};
