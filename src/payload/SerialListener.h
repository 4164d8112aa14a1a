#pragma once

#include "GlobalHandlerEvents.h"
#include "QueuedMessage.h"
#include "Thread.h"
#include "UsbTypes.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <type_traits>

namespace PayloadProtocol {

// Reads the link and hands every block to the handler's receive path.
template <typename Link, typename Handler> class SerialListener : public Thread {
public:
    using LinkType = std::remove_reference_t<Link>;
    static constexpr std::size_t kReadSize = 256;

    // Registers the SET_LISTENER_TIMEOUT handler, through which the sender
    // hands over the deadline of each frame before it writes it.
    SerialListener(LinkType& link, Handler& protocolHandler,
                   unsigned int responseTimeout = Handler::getDefaultTimeout())
        : Thread("SerialListener: "), readTimeout(responseTimeout), handler(&protocolHandler), usb(&link) {
        GlobalHandlerEvents::getInstance().addHandler(SET_LISTENER_TIMEOUT, [this] {
            takePendingMessage();
            return GlobalHandlerEvents::Success;
        });
    }

    ~SerialListener() override {
        logger.log(" run() is STOP", BaseLogger::DEBUG, tag);
        shutdown();
    }

    unsigned int getReadTimeout() const { return readTimeout.load(); }

    QueuedMessage getPendingMessage() {
        std::lock_guard<std::mutex> lock(pendingMutex);
        return pendingMessage;
    }

protected:
    void run() override {
        logger.log(" run() is START", BaseLogger::DEBUG, tag);
        std::memset(readBuffer, 0, sizeof(readBuffer));
        while (running.load()) {
            if (!active.load()) {
                // The pause does no work: sleep until started or terminated.
                waitForWake();
                continue;
            }
            std::lock_guard<std::mutex> lock(listenerMutex);
            readOnce();
        }
    }

private:
    // One read and its outcome, with listenerMutex held. The read itself
    // waits in the port until bytes arrive or the request's time-out ends.
    void readOnce() {
        auto result = usb->read(readBuffer, kReadSize, static_cast<int>(readTimeout.load()));
        if (result.status == UsbTypes::Status::NotConnected) {
            handler->onLinkFailure();
            terminate();
            return;
        }
        if (result.status == UsbTypes::Status::Timeout) {
            logger.log("Listener timeout waiting for response", BaseLogger::WARNING, tag);
            handler->onResponseTimeout();
            return;
        }
        if (result.status != UsbTypes::Status::Ok) {
            handler->onLinkFailure();
        }
        // Any other failure reads as a block of `bytes` bytes, which is 0.
        const auto bytes = std::min<unsigned long long>(result.bytes, kReadSize);
        if (bytes == 0) {
            return;
        }
        logger.log("Request was get", BaseLogger::INFO, tag);
        handler->update(readBuffer, bytes);
        std::memset(readBuffer, 0, sizeof(readBuffer));
    }

    // Runs on the sender's thread: the frame it has just taken gives the
    // deadline of the next read.
    void takePendingMessage() {
        if (handler->getQueueSize() == 0) {
            return;
        }
        QueuedMessage message = handler->fetchToQueue();
        std::lock_guard<std::mutex> lock(pendingMutex);
        pendingMessage = message;
        readTimeout.store(message.timeout);
    }

    unsigned char readBuffer[kReadSize];
    // The pointer in it is borrowed and never read.
    QueuedMessage pendingMessage;
    // The sender writes the next deadline while a read may be under way; it
    // must not wait for that read, so these two have their own guards.
    std::mutex pendingMutex;
    std::atomic<unsigned int> readTimeout;
    std::mutex listenerMutex;
    Handler* handler;
    LinkType* usb;
};

} // namespace PayloadProtocol
