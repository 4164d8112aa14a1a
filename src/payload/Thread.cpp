#include "Thread.h"

#include <utility>

Thread::Thread(std::string logTag) : logger(LoggerManager::getInstance()), tag(std::move(logTag)) {}

Thread::~Thread() {
    shutdown();
}

void Thread::start(bool detach) {
    detached.exchange(detach);
    if (active.load()) {
        return;
    }
    // A loop that ended by itself is waited for first, outside the lock, as
    // it may still be leaving terminate().
    std::thread finished = takeFinished();
    if (finished.joinable()) {
        finished.join();
    }
    {
        std::lock_guard<std::mutex> lock(threadMutex);
        active.exchange(true);
        if (!running.load()) {
            running.exchange(true);
            if (!thread.joinable()) {
                thread = std::thread([this] { run(); });
                if (detached.load()) {
                    thread.detach();
                }
            }
        }
    }
    wake();
    logger.log("Thread is started", BaseLogger::DEBUG, tag);
}

void Thread::terminate() {
    bool wasRunning = running.exchange(false);
    bool wasActive = active.exchange(false);
    if (!wasRunning && !wasActive) {
        // A loop that ended by itself is waited for all the same, so that
        // no finished thread is left behind.
        std::thread finished = takeFinished();
        if (finished.joinable()) {
            finished.join();
        }
        return;
    }
    wake();
    std::thread finished;
    {
        std::lock_guard<std::mutex> lock(threadMutex);
        // From the loop itself there is nothing to wait for: the loop ends
        // when it next looks at `running`, and the owner joins it later.
        if (thread.joinable() && thread.get_id() != std::this_thread::get_id()) {
            finished = std::move(thread);
        }
    }
    if (finished.joinable()) {
        finished.join();
    }
    logger.log("Thread is terminated", BaseLogger::DEBUG, tag);
}

void Thread::stop() {
    if (active.exchange(false)) {
        wake();
        logger.log("Thread is stoped", BaseLogger::DEBUG, tag);
    }
}

void Thread::wake() {
    {
        std::lock_guard<std::mutex> lock(wakeMutex);
        wakeRequested = true;
    }
    wakeCondition.notify_all();
}

void Thread::waitForWake(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(wakeMutex);
    auto woken = [this] { return wakeRequested || !running.load(); };
    if (limit == std::chrono::milliseconds::max()) {
        wakeCondition.wait(lock, woken);
    } else {
        wakeCondition.wait_for(lock, limit, woken);
    }
    wakeRequested = false;
}

void Thread::pauseUnlessTerminated(std::chrono::milliseconds pause) {
    std::unique_lock<std::mutex> lock(wakeMutex);
    wakeCondition.wait_for(lock, pause, [this] { return !running.load(); });
}

void Thread::shutdown() {
    terminate();
    std::thread finished;
    {
        std::lock_guard<std::mutex> lock(threadMutex);
        if (thread.joinable()) {
            if (thread.get_id() == std::this_thread::get_id()) {
                thread.detach();
            } else {
                finished = std::move(thread);
            }
        }
    }
    if (finished.joinable()) {
        finished.join();
    }
}

std::thread Thread::takeFinished() {
    std::lock_guard<std::mutex> lock(threadMutex);
    if (!running.load() && thread.joinable() && thread.get_id() != std::this_thread::get_id()) {
        return std::move(thread);
    }
    return {};
}
