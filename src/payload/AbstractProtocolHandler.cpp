#include "AbstractProtocolHandler.h"

#include <utility>

AbstractProtocolHandler::~AbstractProtocolHandler() {
    for (auto& message : sendQueue) {
        delete[] message.data;
    }
    sendQueue.clear();
}

void AbstractProtocolHandler::setQueueObserver(std::function<void()> observer) {
    std::lock_guard<std::recursive_mutex> lock(queueMutex);
    queueObserver = std::move(observer);
}

void AbstractProtocolHandler::notifyQueued() {
    std::lock_guard<std::recursive_mutex> lock(queueMutex);
    if (queueObserver) {
        queueObserver();
    }
}
