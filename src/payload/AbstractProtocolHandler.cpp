#include "AbstractProtocolHandler.h"

AbstractProtocolHandler::~AbstractProtocolHandler() {
    for (auto& message : sendQueue) {
        delete[] message.data;
    }
    sendQueue.clear();
}
