#pragma once

#include "BoardLink.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

// The link's return after a reboot of the device, on a worker: the device
// drops off the link while it reboots and comes back on the same port. The
// threads end and the port closes, the port is opened again, the threads
// start and a search goes out. A quit ends every pause at once.
class RebootReconnect {
public:
    explicit RebootReconnect(BoardLink& link) : link(link) {}
    ~RebootReconnect();
    RebootReconnect(const RebootReconnect&) = delete;
    RebootReconnect& operator=(const RebootReconnect&) = delete;

    // Starts the worker on a serial link, unless one is under way.
    void schedule();
    // Ends the pauses for good; the port is not opened after this returns.
    void quit();
    void join();

private:
    void run();
    bool reopen();
    // Sleeps for `pause`; false when a quit comes meanwhile.
    bool pauseUnlessQuitting(std::chrono::milliseconds pause);

    BoardLink& link;
    std::thread worker;
    std::atomic<bool> scheduled{false};
    std::mutex quitMutex;
    std::condition_variable quitCondition;
    bool quitting = false;
};
