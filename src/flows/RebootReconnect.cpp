#include "RebootReconnect.h"

namespace {

constexpr int kReconnectAttempts = 30;

} // namespace

RebootReconnect::~RebootReconnect() {
    quit();
    join();
}

void RebootReconnect::schedule() {
    if (link.usb().getConnectionMethod() != UsbCommunication::MethodCom) {
        return;
    }
    if (scheduled.exchange(true)) {
        return;
    }
    join();
    worker = std::thread([this] { run(); });
}

void RebootReconnect::quit() {
    {
        std::lock_guard<std::mutex> lock(quitMutex);
        quitting = true;
    }
    quitCondition.notify_all();
}

void RebootReconnect::join() {
    if (worker.joinable()) {
        worker.join();
    }
}

void RebootReconnect::run() {
    // Lets the reboot request leave.
    if (pauseUnlessQuitting(std::chrono::milliseconds(300))) {
        link.suspend();
        // The threads stay stopped when the port does not come back.
        if (pauseUnlessQuitting(std::chrono::milliseconds(150)) && reopen() &&
            pauseUnlessQuitting(std::chrono::milliseconds(150)) &&
            pauseUnlessQuitting(std::chrono::milliseconds(500))) {
            link.startThreads();
            link.sender().search();
        }
    }
    scheduled = false;
}

bool RebootReconnect::reopen() {
    for (int attempt = 0; attempt < kReconnectAttempts; ++attempt) {
        {
            // Under the quit lock: the port is never opened after a quit.
            std::lock_guard<std::mutex> lock(quitMutex);
            if (quitting) {
                return false;
            }
            if (link.usb().connect(UsbCommunication::MethodCom) == UsbTypes::Ok) {
                return true;
            }
        }
        if (!pauseUnlessQuitting(std::chrono::milliseconds(200))) {
            return false;
        }
    }
    return false;
}

bool RebootReconnect::pauseUnlessQuitting(std::chrono::milliseconds pause) {
    std::unique_lock<std::mutex> lock(quitMutex);
    return !quitCondition.wait_for(lock, pause, [this] { return quitting; });
}
