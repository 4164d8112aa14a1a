#pragma once

#include "QueuedMessage.h"

#include <deque>
#include <functional>
#include <mutex>
#include <string>

// What the sender and listener threads see of the protocol logic: the send
// queue and its operations.
class AbstractProtocolHandler {
public:
    AbstractProtocolHandler() = default;
    virtual ~AbstractProtocolHandler();
    AbstractProtocolHandler(const AbstractProtocolHandler&) = delete;
    AbstractProtocolHandler& operator=(const AbstractProtocolHandler&) = delete;

    virtual unsigned char getType() = 0;
    virtual unsigned long long getQueueSize() = 0;
    virtual void addToQueue(const void* data, unsigned long long size, unsigned int timeout) = 0;
    // Reads the front element without removing it.
    virtual QueuedMessage fetchToQueue() = 0;
    virtual void freeFrontFromQueue() = 0;
    virtual void clearQueue(bool force) = 0;
    virtual void logMessage(std::string& message) = 0;

    // Called, under the queue's lock, after each frame added to the queue:
    // the sender sleeps until then. An empty function removes the observer.
    void setQueueObserver(std::function<void()> observer);

protected:
    void notifyQueued();

    std::deque<QueuedMessage> sendQueue;
    // The UI and listener threads append while the sender reads and frees the
    // front. Recursive, because clearQueue frees through the virtual
    // freeFrontFromQueue. The sender writes a borrowed frame outside this
    // lock, so the queue must not be cleared while a sender is running: the
    // window terminates the sender before it resets the handler.
    std::recursive_mutex queueMutex;

private:
    std::function<void()> queueObserver;
};
