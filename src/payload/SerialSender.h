#pragma once

#include "GlobalHandlerEvents.h"
#include "PayloadTypes.h"
#include "QueuedMessage.h"
#include "Thread.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <type_traits>

namespace PayloadProtocol {

// Takes finished frames from the handler's queue and writes them to the link.
// A frame that fails to go out is tried six times in all, then dropped.
template <std::size_t BufferSize, typename Link, typename Handler, typename Crc>
class SerialSender : public Thread {
public:
    using LinkType = std::remove_reference_t<Link>;
    // The size of the sender's frame buffer (a frame itself can be 258 bytes).
    static constexpr std::size_t kBufferSize = BufferSize;
    // Retries after the first write: a frame is written up to six times.
    static constexpr std::uint64_t kMaxRetries = 5;

    // Every frame the handler queues wakes the sender.
    SerialSender(LinkType& link, Handler& protocolHandler)
        : Thread("SerialSender: "), handler(&protocolHandler), usb(&link) {
        handler->setQueueObserver([this] { wake(); });
    }

    ~SerialSender() override {
        logger.log("run() is STOP", BaseLogger::DEBUG, tag);
        handler->setQueueObserver(nullptr);
        shutdown();
    }

    void search() {
        logger.log("device info request. Search device...", BaseLogger::INFO, tag);
        handler->onMessage(SEARCH_DEVICES_MSG, nullptr);
        handler->generateResponse(SEARCH_DEVICES_MSG, nullptr);
    }

    void getInfoFields(unsigned char device, unsigned char) {
        logger.log("fields info request. Get fields...", BaseLogger::INFO, tag);
        MessageArgs args;
        args.device = device;
        handler->onMessage(FIELD_INFO_MSG, &args);
        handler->generateResponse(FIELD_INFO_MSG, nullptr);
    }

    void setFieldValue(unsigned char device, unsigned char field) {
        logger.log("set value for field " + std::to_string(field), BaseLogger::INFO, tag);
        MessageArgs args;
        args.device = device;
        args.field = field;
        handler->onMessage(SET_FIELD_MSG, &args);
        handler->generateResponse(SET_FIELD_MSG, nullptr);
    }

    std::uint64_t getRetryCount() const { return retryCount.load(); }

protected:
    void run() override {
        logger.log(" run() is START", BaseLogger::DEBUG, tag);
        bool retry = false;
        QueuedMessage current;
        // A stopped sender goes on sending: only `running` counts here.
        while (running.load()) {
            if (handler->getQueueSize() != 0 && retryCount.load() == 0) {
                logger.log("Get message from queue!", BaseLogger::INFO, tag);
                current = handler->fetchToQueue();
                GlobalHandlerEvents::getInstance()._executeHandler(SET_LISTENER_TIMEOUT);
                retry = send(current);
            } else if (retry) {
                // A failed write is tried again about a millisecond later.
                pauseUnlessTerminated(std::chrono::milliseconds(1));
                retry = running.load() && send(current);
            } else {
                // Nothing to send: sleep until a frame is queued.
                waitForWake();
            }
        }
    }

private:
    // Writes one frame; returns whether it is to be tried again.
    bool send(const QueuedMessage& message) {
        // A frame of size 0 leaves the queue without touching the link.
        if (message.data != nullptr &&
            (message.size == 0 || static_cast<int>(usb->write(message.data, message.size)) <= 0)) {
            logger.log("Response transmit success", BaseLogger::INFO, tag);
            handler->freeFrontFromQueue();
            retryCount.store(0);
            return false;
        }
        logger.log("Response transmit not success. Try again!", BaseLogger::WARNING, tag);
        if (retryCount.fetch_add(1) + 1 > kMaxRetries) {
            handler->freeFrontFromQueue();
            retryCount.store(0);
            logger.log("Response count exceeded", BaseLogger::ERROR, tag);
            return false;
        }
        return true;
    }

    std::atomic<std::uint64_t> retryCount{0};
    Handler* handler;
    LinkType* usb;
    // Never locked: what the sender shares, the handler's queue guards.
    std::mutex senderMutex;
};

} // namespace PayloadProtocol
