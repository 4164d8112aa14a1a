#pragma once

#include "GlobalHandlerEvents.h"
#include "QueuedMessage.h"
#include "Thread.h"
#include "UsbTypes.h"

#include <algorithm>
#include <atomic>
#include <chrono>
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
    // Long enough to leave the processor idle, short enough that a port that
    // works again is read at once in human terms.
    static constexpr std::chrono::milliseconds kPauseAfterFailedRead{50};

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
            bool failed = false;
            {
                std::lock_guard<std::mutex> lock(listenerMutex);
                failed = !readOnce();
            }
            // A line that has hung up fails every read at once: rest before
            // the next one rather than take a whole core until someone
            // notices the lost link.
            if (failed) {
                pauseUnlessTerminated(kPauseAfterFailedRead);
            }
        }
    }

private:
    // One read and its outcome, with listenerMutex held. The read itself
    // waits in the port until bytes arrive or the request's time-out ends.
    // False when the read failed without waiting.
    bool readOnce() {
        auto result = usb->read(readBuffer, kReadSize, static_cast<int>(readTimeout.load()));
        if (result.status == UsbTypes::Status::NotConnected) {
            handler->onLinkFailure();
            terminate();
            return true;
        }
        if (result.status == UsbTypes::Status::Timeout) {
            logger.log("Listener timeout waiting for response", BaseLogger::WARNING, tag);
            handler->onResponseTimeout();
            return true;
        }
        if (result.status != UsbTypes::Status::Ok) {
            handler->onLinkFailure();
        }
        // Any other failure reads as a block of `bytes` bytes, which is 0.
        const auto bytes = std::min<unsigned long long>(result.bytes, kReadSize);
        if (bytes == 0) {
            return result.status == UsbTypes::Status::Ok;
        }
        logger.log("Request was get", BaseLogger::INFO, tag);
        handler->update(readBuffer, bytes);
        std::memset(readBuffer, 0, sizeof(readBuffer));
        return true;
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
