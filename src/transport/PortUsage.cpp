#include "PortUsage.h"

bool PortUsage::enter() {
    std::lock_guard<std::mutex> lock(mutex);
    if (closing.load(std::memory_order_relaxed)) {
        return false;
    }
    ++active;
    return true;
}

void PortUsage::leave() {
    std::lock_guard<std::mutex> lock(mutex);
    if (--active == 0) {
        idle.notify_all();
    }
}

void PortUsage::beginClose(const std::function<void()>& wake) {
    std::unique_lock<std::mutex> lock(mutex);
    closing.store(true, std::memory_order_release);
    if (wake) {
        wake();
    }
    idle.wait(lock, [this] { return active == 0; });
}

void PortUsage::endClose() {
    std::lock_guard<std::mutex> lock(mutex);
    closing.store(false, std::memory_order_release);
}
