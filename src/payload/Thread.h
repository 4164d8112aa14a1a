#pragma once

#include "LoggerManager.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

// A long-lived worker: a loop flag, a pause flag and a log tag. The derived
// class supplies the loop in run() and keeps looking at `running` and
// `active` itself. A loop with nothing to do sleeps in waitForWake(); start,
// stop, terminate and wake() end that sleep at once.
class Thread {
public:
    explicit Thread(std::string logTag);
    virtual ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // Starts the loop, or resumes it after stop().
    void start(bool detach);
    // Ends the loop and waits for it, unless called from the loop itself.
    void terminate();
    // The pause: the loop goes on but does no work.
    void stop();
    // Ends the loop's current waitForWake(), or the next one if none is under way.
    void wake();

    bool isRunning() const { return running.load(); }
    bool isActive() const { return active.load(); }
    bool isDetached() const { return detached.load(); }
    const std::string& getTag() const { return tag; }

protected:
    virtual void run() = 0;

    // For the destructors of derived classes: ends the loop before their
    // members go, and waits for a loop that ended itself. A loop still
    // running in the base destructor would call into a destroyed object.
    void shutdown();

    // Sleeps until wake() (also through start, stop and terminate), or
    // until `limit` has passed.
    void waitForWake(std::chrono::milliseconds limit = std::chrono::milliseconds::max());
    // Sleeps for `pause` unless the loop is terminated meanwhile.
    void pauseUnlessTerminated(std::chrono::milliseconds pause);

    std::atomic<bool> running{false};
    std::atomic<bool> active{false};
    std::atomic<bool> detached{false};
    LoggerManager& logger;
    std::thread thread;
    std::string tag;

private:
    // Hands over a loop that ended by itself, to be joined before a new one starts.
    std::thread takeFinished();

    // Guards `thread`: the owner and the loop itself may both terminate.
    std::mutex threadMutex;
    std::mutex wakeMutex;
    std::condition_variable wakeCondition;
    bool wakeRequested = false;
};
