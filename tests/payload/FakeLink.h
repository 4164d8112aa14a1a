#pragma once

#include "SimDevice.h"
#include "SimFrameCodec.h"
#include "UsbTypes.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

// A link in memory with the operations the sender and listener use. Writes
// are recorded (and may be made to fail); reads take scripted results, or the
// answers of a simulated device that hears every write.
class FakeLink {
public:
    using Bytes = std::vector<std::uint8_t>;

    UsbTypes::Status write(void* data, unsigned long long size) {
        std::lock_guard<std::mutex> lock(mutex);
        const auto* bytes = static_cast<const std::uint8_t*>(data);
        writes.emplace_back(bytes, bytes + size);
        if (failWrites > 0) {
            --failWrites;
            return UsbTypes::TransmitError;
        }
        if (device) {
            codec.feed(bytes, size, [&](const SimFrameCodec::Frame& frame) {
                auto answer = device->handle(Bytes(frame.payload(), frame.payload() + frame.payloadSize()));
                if (answer) {
                    script.push_back(Result{UsbTypes::Ok, SimFrameCodec::encode(answer->payload)});
                }
                return true;
            });
        }
        changed.notify_all();
        return UsbTypes::Ok;
    }

    UsbTypes::IoResult read(void* buffer, unsigned long long size, int timeoutMs) {
        std::unique_lock<std::mutex> lock(mutex);
        readTimeouts.push_back(timeoutMs);
        // Waits a little only: a test never needs the whole time-out.
        changed.wait_for(lock, std::chrono::milliseconds(std::min(timeoutMs, 20)),
                         [&] { return !script.empty(); });
        if (script.empty()) {
            return UsbTypes::IoResult{UsbTypes::Timeout, 0};
        }
        Result result = script.front();
        script.pop_front();
        const std::size_t n = std::min<std::size_t>(result.bytes.size(), size);
        if (n > 0) {
            std::memcpy(buffer, result.bytes.data(), n);
        }
        ++reads;
        return UsbTypes::IoResult{result.status, n};
    }

    bool waitForReadyRead(unsigned long long ms) {
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
        return true;
    }

    void push(UsbTypes::Status status, Bytes bytes = {}) {
        std::lock_guard<std::mutex> lock(mutex);
        script.push_back(Result{status, std::move(bytes)});
        changed.notify_all();
    }

    void failNextWrites(int count) {
        std::lock_guard<std::mutex> lock(mutex);
        failWrites = count;
    }

    void attach(SimDevice* simulated) {
        std::lock_guard<std::mutex> lock(mutex);
        device = simulated;
    }

    std::vector<Bytes> written() {
        std::lock_guard<std::mutex> lock(mutex);
        return writes;
    }

    std::size_t readCount() {
        std::lock_guard<std::mutex> lock(mutex);
        return reads;
    }

    std::vector<int> timeouts() {
        std::lock_guard<std::mutex> lock(mutex);
        return readTimeouts;
    }

private:
    struct Result {
        UsbTypes::Status status;
        Bytes bytes;
    };

    std::mutex mutex;
    std::condition_variable changed;
    std::deque<Result> script;
    std::vector<Bytes> writes;
    std::vector<int> readTimeouts;
    std::size_t reads = 0;
    int failWrites = 0;
    SimDevice* device = nullptr;
    SimFrameCodec codec;
};
