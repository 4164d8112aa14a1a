#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>

// Keeps a port's handle alive while reads and writes use it. The sender
// writes, the listener reads and another thread may close the port at any
// time: closing first stops new operations, waits for the running ones to
// leave, and only then releases the handle, so no call ever works on a
// handle that was closed (or reused) under it.
class PortUsage {
public:
    // Registers one operation; false while a close is under way.
    bool enter();
    void leave();

    // Stops new operations, calls `wake` so that operations blocked on the
    // line return, and waits until the running ones have left.
    void beginClose(const std::function<void()>& wake = {});
    // Lets operations in again.
    void endClose();

    // Checked by long waits so that they end early when a close begins.
    bool isClosing() const { return closing.load(std::memory_order_acquire); }

    // One operation for the life of the object.
    class Scope {
    public:
        explicit Scope(PortUsage& usage) : owner(usage), entered(usage.enter()) {}
        ~Scope() {
            if (entered) {
                owner.leave();
            }
        }
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;
        bool isEntered() const { return entered; }

    private:
        PortUsage& owner;
        bool entered;
    };

private:
    std::mutex mutex;
    std::condition_variable idle;
    int active = 0;
    std::atomic<bool> closing{false};
};
