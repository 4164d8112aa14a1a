#include "FastCrc8.h"
#include "PayloadTestKit.h"
#include "SerialListener.h"
#include "SerialSender.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <mutex>
#include <thread>

using namespace payloadtest;
using testsupport::waitUntil;

namespace {

// A link in memory: records writes, fails as many as asked, and serves
// scripted reads; with nothing scripted a read brings no bytes.
class FakeLink {
public:
    UsbTypes::Status write(void* data, unsigned long long size) {
        std::lock_guard<std::mutex> lock(mutex);
        writes.emplace_back(static_cast<std::uint8_t*>(data), static_cast<std::uint8_t*>(data) + size);
        return failWrites-- > 0 ? UsbTypes::TransmitError : UsbTypes::Ok;
    }
    UsbTypes::IoResult read(void* buffer, unsigned long long, int timeoutMs) {
        std::lock_guard<std::mutex> lock(mutex);
        lastTimeout = timeoutMs;
        ++reads;
        if (script.empty()) {
            return {hungUp ? UsbTypes::ReceiveError : UsbTypes::Ok, 0};
        }
        auto [status, bytes] = script.front();
        script.pop_front();
        std::copy(bytes.begin(), bytes.end(), static_cast<std::uint8_t*>(buffer));
        return {status, bytes.size()};
    }
    bool waitForReadyRead(unsigned long long ms) {
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
        return true;
    }
    void push(UsbTypes::Status status, Bytes bytes = {}) {
        std::lock_guard<std::mutex> lock(mutex);
        script.emplace_back(status, std::move(bytes));
    }
    // Read by the test once the writing thread has ended.
    std::vector<Bytes> writes;
    int failWrites = 0;
    std::atomic<int> lastTimeout{0};
    std::atomic<int> reads{0};
    // With nothing scripted, every read fails at once, as on a line that has hung up.
    std::atomic<bool> hungUp{false};

private:
    std::mutex mutex;
    std::deque<std::pair<UsbTypes::Status, Bytes>> script;
};

} // namespace

TEST_F(PayloadTest, SenderWritesAFrameSixTimesAtMostBeforeTheNext) {
    FakeLink link;
    int deadlines = 0;
    GlobalHandlerEvents::getInstance().addHandler(SET_LISTENER_TIMEOUT, [&] {
        ++deadlines;
        return GlobalHandlerEvents::Success;
    });
    link.failWrites = 7;
    handler.addToQueue("", 0, 100); // an empty message leaves without a write
    handler.addToQueue("XYZ", 3, 3000);
    handler.addToQueue("AB", 2, 500);
    PayloadProtocol::SerialSender<256, FakeLink&, PayloadHandler, FastCrc8> sender(link, handler);
    sender.start(false);
    sender.stop(); // a stopped sender still sends
    ASSERT_TRUE(waitUntil([&] { return handler.getQueueSize() == 0; }));
    sender.terminate();
    std::vector<Bytes> expected(6, Bytes{'X', 'Y', 'Z'});
    expected.insert(expected.end(), 2, Bytes{'A', 'B'});
    EXPECT_EQ(link.writes, expected);
    EXPECT_EQ(deadlines, 3);
}

// The sender hands the listener the deadline of the frame it takes; a pause
// and a restart keep the one loop; a vanished link ends it from inside.
TEST_F(PayloadTest, ListenerReadsWithTheFramesDeadlinePausesAndEndsWithTheLink) {
    FakeLink link;
    PayloadProtocol::SerialListener<FakeLink&, PayloadHandler> listener(link, handler);
    EXPECT_EQ(listener.getReadTimeout(), 500u);
    GlobalHandlerEvents::getInstance()._executeHandler(SET_LISTENER_TIMEOUT); // an empty queue: no change
    EXPECT_EQ(listener.getReadTimeout(), 500u);
    handler.addToQueue("x", 1, 777);
    GlobalHandlerEvents::getInstance()._executeHandler(SET_LISTENER_TIMEOUT);
    listener.start(false);
    ASSERT_TRUE(waitUntil([&] { return link.lastTimeout != 0; }));
    EXPECT_EQ(link.lastTimeout, 777);

    listener.start(true); // running and active: only the flag changes
    EXPECT_TRUE(listener.isDetached());
    listener.stop();
    link.push(UsbTypes::Ok, frame({1, 2, 0}));
    listener.start(false);
    ASSERT_TRUE(waitUntil([&] { return log.contains("received unexpected message"); }));
    EXPECT_EQ(log.count("run() is START"), 1u);

    link.push(UsbTypes::NotConnected);
    ASSERT_TRUE(waitUntil([&] { return !listener.isRunning(); }));
    listener.terminate(); // nothing left to end
    listener.start(false);
    EXPECT_TRUE(waitUntil([&] { return log.count("run() is START") == 2; }));
}

// A read that fails at once (an adapter pulled, a board re-enumerating) is
// not retried at once: the listener rests, and reads again once the line works.
TEST_F(PayloadTest, ListenerRestsAfterAFailedReadAndReadsAgainWhenTheLineWorks) {
    FakeLink link;
    link.hungUp = true;
    PayloadProtocol::SerialListener<FakeLink&, PayloadHandler> listener(link, handler);
    listener.start(false);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const int failedReads = link.reads.load();
    EXPECT_GE(failedReads, 1);
    EXPECT_LE(failedReads, 25) << "the listener retried a failing read without a pause";

    link.push(UsbTypes::Ok, frame({1, 2, 0}));
    EXPECT_TRUE(waitUntil([&] { return log.contains("received unexpected message"); }));
    listener.terminate();
}
