#include "BoardLink.h"

BoardLink::BoardLink() {
    current = handler.getDeviceHandler().currentAddress.load();
}

BoardLink::BoardLink(std::unique_ptr<SerialPort> serial) : port(std::move(serial)) {
    current = handler.getDeviceHandler().currentAddress.load();
}

BoardLink::~BoardLink() {
    close();
}

void BoardLink::takeCurrentDevice() {
    current = handler.getDeviceHandler().currentAddress.load();
}

void BoardLink::startThreads() {
    threadsWanted = true;
    listenerThread.start(false);
    senderThread.start(false);
}

void BoardLink::restartProtocol() {
    // The queue must not be cleared under a sender that writes from it.
    senderThread.terminate();
    handler.resetState();
    if (threadsWanted) {
        startThreads();
    }
}

void BoardLink::suspend() {
    senderThread.terminate();
    listenerThread.terminate();
    handler.resetState();
    port.disconnect();
}

void BoardLink::close() {
    if (port.isConnected()) {
        port.disconnect();
    }
    senderThread.terminate();
    listenerThread.terminate();
}
