#include "FakeLink.h"
#include "FastCrc8.h"
#include "GlobalHandlerEvents.h"
#include "PayloadHandler.h"
#include "PayloadTestKit.h"
#include "SerialListener.h"
#include "SerialSender.h"
#include "TestSupport.h"
#include "Thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>

using namespace std::chrono_literals;
using payloadkit::Bytes;

namespace {

using Sender = PayloadProtocol::SerialSender<256, FakeLink&, PayloadHandler, FastCrc8>;
using Listener = PayloadProtocol::SerialListener<FakeLink&, PayloadHandler>;

bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout = 3000ms) {
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

// Counts its working rounds; can end itself from inside its loop.
class CountingThread : public Thread {
public:
    CountingThread() : Thread("CountingThread: ") {}
    ~CountingThread() override { shutdown(); }

    std::atomic<int> rounds{0};
    std::atomic<int> runs{0};
    std::atomic<bool> endItself{false};

protected:
    void run() override {
        ++runs;
        while (running.load()) {
            if (active.load()) {
                ++rounds;
                if (endItself.exchange(false)) {
                    terminate();
                }
            }
            std::this_thread::sleep_for(1ms);
        }
    }
};

class ThreadsTest : public ::testing::Test {
protected:
    void SetUp() override { GlobalHandlerEvents::getInstance().clearAllHandlers(); }
    void TearDown() override { GlobalHandlerEvents::getInstance().clearAllHandlers(); }

    testsupport::CapturingLogger log;
    FakeLink link;
    PayloadHandler handler;
};

} // namespace

TEST_F(ThreadsTest, StartStopResumeAndTerminate) {
    CountingThread worker;
    worker.start(false);
    EXPECT_TRUE(log.contains("Thread is started", BaseLogger::DEBUG));
    ASSERT_TRUE(waitUntil([&] { return worker.rounds > 2; }));
    // Starting a running, active thread changes only `detached`.
    worker.start(true);
    EXPECT_EQ(log.count("Thread is started"), 1u);
    EXPECT_TRUE(worker.isDetached());
    worker.start(false);

    worker.stop();
    worker.stop();
    EXPECT_EQ(log.count("Thread is stoped"), 1u);
    EXPECT_TRUE(worker.isRunning());
    // A round under way when the pause came may still finish.
    std::this_thread::sleep_for(20ms);
    const int paused = worker.rounds;
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(worker.rounds, paused);

    worker.start(false); // resumes the same loop
    ASSERT_TRUE(waitUntil([&] { return worker.rounds > paused; }));
    EXPECT_EQ(worker.runs, 1);

    worker.terminate();
    EXPECT_FALSE(worker.isRunning());
    EXPECT_FALSE(worker.isActive());
    EXPECT_TRUE(log.contains("Thread is terminated", BaseLogger::DEBUG));
    worker.terminate(); // nothing left to end
    EXPECT_EQ(log.count("Thread is terminated"), 1u);

    worker.start(false); // a new loop
    ASSERT_TRUE(waitUntil([&] { return worker.runs == 2; }));
}

TEST_F(ThreadsTest, TerminateFromTheLoopItselfDoesNotWait) {
    CountingThread worker;
    worker.endItself = true;
    worker.start(false);
    ASSERT_TRUE(waitUntil([&] { return !worker.isRunning(); }));
    EXPECT_TRUE(waitUntil([&] { return log.contains("Thread is terminated"); }));
    // It can be started again after ending itself.
    worker.start(false);
    ASSERT_TRUE(waitUntil([&] { return worker.runs == 2; }));
}

TEST_F(ThreadsTest, SenderRetriesSixTimesThenDrops) {
    std::atomic<int> deadlines{0};
    GlobalHandlerEvents::getInstance().addHandler(SET_LISTENER_TIMEOUT, [&] {
        ++deadlines;
        return GlobalHandlerEvents::Success;
    });
    link.failNextWrites(6);
    handler.addToQueue("\x7E\x02\x01\xFF\x01\x74", 6, 3000);
    handler.addToQueue("AB", 2, 500);
    Sender sender(link, handler);
    sender.start(false);
    ASSERT_TRUE(waitUntil([&] { return handler.getQueueSize() == 0; }));
    sender.terminate();
    EXPECT_EQ(log.count("Response count exceeded"), 1u);
    EXPECT_TRUE(log.contains("Response count exceeded", BaseLogger::ERROR));
    EXPECT_EQ(log.count("Response transmit not success. Try again!"), 6u);
    // Six writes of the first frame before the next one is touched.
    auto writes = link.written();
    ASSERT_EQ(writes.size(), 7u);
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(writes[i].size(), 6u) << i;
    }
    EXPECT_EQ(writes.back(), (Bytes{'A', 'B'}));
    EXPECT_EQ(deadlines, 2);
    EXPECT_EQ(sender.getRetryCount(), 0u);
}

TEST_F(ThreadsTest, SenderRecoversAfterAFailedWriteAndSkipsEmptyMessages) {
    link.failNextWrites(2);
    const unsigned char payload[] = {1, 255, 1};
    handler.castCommand(payload, 0, 100); // an empty message: off the queue without a write
    handler.castCommand(payload, sizeof(payload), 3000);
    Sender sender(link, handler);
    sender.stop(); // a stopped sender still sends
    sender.start(false);
    sender.stop();
    ASSERT_TRUE(waitUntil([&] { return handler.getQueueSize() == 0; }));
    sender.terminate();
    auto writes = link.written();
    ASSERT_EQ(writes.size(), 3u);
    EXPECT_EQ(writes[2], (Bytes{0x7E, 0x02, 0x01, 0xFF, 0x01, 0x74}));
    EXPECT_EQ(log.count("Response transmit success"), 2u);
    EXPECT_EQ(log.count("Get message from queue!"), 2u);
    EXPECT_FALSE(log.contains("Response count exceeded"));
}

TEST_F(ThreadsTest, ListenerTakesTheDeadlineOfTheFrameBeingSent) {
    Listener listener(link, handler);
    EXPECT_EQ(listener.getReadTimeout(), 500u);
    // An empty queue leaves the deadline alone.
    EXPECT_EQ(GlobalHandlerEvents::getInstance()._executeHandler(SET_LISTENER_TIMEOUT),
              GlobalHandlerEvents::Success);
    EXPECT_EQ(listener.getReadTimeout(), 500u);
    handler.addToQueue("x", 1, 777);
    GlobalHandlerEvents::getInstance()._executeHandler(SET_LISTENER_TIMEOUT);
    EXPECT_EQ(listener.getReadTimeout(), 777u);
    EXPECT_EQ(listener.getPendingMessage().timeout, 777u);
    EXPECT_EQ(listener.getPendingMessage().size, 1u);

    listener.start(false);
    ASSERT_TRUE(waitUntil([&] { return !link.timeouts().empty(); }));
    EXPECT_EQ(link.timeouts().front(), 777);
}

TEST_F(ThreadsTest, ListenerHandsBlocksToTheHandlerAndLogsTimeouts) {
    Bytes block = payloadkit::frame({1, 2, 0});
    const Bytes second = payloadkit::frame({2, 2, 0});
    block.insert(block.end(), second.begin(), second.end());
    block.insert(block.end(), second.begin(), second.begin() + 3); // and half a frame
    link.push(UsbTypes::Ok, block);
    link.push(UsbTypes::Ok, Bytes(second.begin() + 3, second.end()));
    link.push(UsbTypes::ReceiveError, {});
    Listener listener(link, handler);
    listener.start(false);
    ASSERT_TRUE(waitUntil([&] { return log.count("received unexpected message") == 3; }));
    EXPECT_EQ(log.count("Request was get"), 2u);
    ASSERT_TRUE(waitUntil(
        [&] { return log.contains("Listener timeout waiting for response", BaseLogger::WARNING); }));

    // Paused, it neither reads nor updates.
    listener.stop();
    std::this_thread::sleep_for(30ms);
    const std::size_t reads = link.readCount();
    link.push(UsbTypes::Ok, second);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(link.readCount(), reads);
    listener.start(false);
    ASSERT_TRUE(waitUntil([&] { return log.count("received unexpected message") == 4; }));
}

TEST_F(ThreadsTest, ListenerEndsItselfWhenTheLinkIsGone) {
    Listener listener(link, handler);
    listener.start(false);
    link.push(UsbTypes::NotConnected, {});
    ASSERT_TRUE(waitUntil([&] { return !listener.isRunning(); }));
    EXPECT_TRUE(waitUntil([&] { return log.contains("Thread is terminated"); }));
    EXPECT_FALSE(listener.isActive());
}
