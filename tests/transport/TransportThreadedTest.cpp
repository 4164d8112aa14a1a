#include "PortUsage.h"
#include "PtyPair.h"
#include "SerialPortPosix.h"
#include "TestSupport.h"
#include "UsbCommunication.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

using testsupport::CapturingLogger;

namespace {

constexpr int kFrames = 200;
constexpr std::size_t kFrameSize = 75;
constexpr std::size_t kAnswerSize = 6;

std::string frameFor(int n) {
    return std::string(kFrameSize, static_cast<char>('A' + n % 26));
}

std::string answerFor(char tag) {
    return std::string(kAnswerSize, static_cast<char>(tag + 32));
}

class TransportThreadedTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(pty.isValid());
        usb.portName = pty.slavePath();
        usb.baudrate = UsbTypes::Baud115200;
        ASSERT_EQ(usb.connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    }

    CapturingLogger log;
    PtyPair pty;
    UsbCommunication usb;
};

} // namespace

// The sender writes, the listener reads and the window asks for the state,
// all at once on one object, as the payload threads do.
TEST_F(TransportThreadedTest, SenderAndListenerShareTheLink) {
    std::atomic<bool> done{false};
    std::thread device([&] {
        for (int n = 0; n < kFrames; ++n) {
            const std::string frame = pty.receive(kFrameSize, 5000);
            if (frame.size() != kFrameSize || !pty.send(answerFor(frame[0]))) {
                return;
            }
        }
    });
    std::string heard;
    std::thread listener([&] {
        unsigned char buffer[256];
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (heard.size() < kFrames * kAnswerSize && std::chrono::steady_clock::now() < end) {
            usb.waitForReadyRead(0);
            const auto result = usb.read(buffer, sizeof(buffer), 100);
            if (result.status == UsbTypes::NotConnected) {
                return;
            }
            heard.append(reinterpret_cast<char*>(buffer), result.status == UsbTypes::Ok ? result.bytes : 0);
        }
    });
    std::thread window([&] {
        while (!done) {
            EXPECT_TRUE(usb.isConnected());
            std::this_thread::yield();
        }
    });
    int failedWrites = 0;
    for (int n = 0; n < kFrames; ++n) {
        std::string frame = frameFor(n);
        failedWrites += usb.write(frame.data(), frame.size()) == UsbTypes::Ok ? 0 : 1;
    }
    device.join();
    listener.join();
    done = true;
    window.join();

    EXPECT_EQ(failedWrites, 0);
    std::string expected;
    for (int n = 0; n < kFrames; ++n) {
        expected += answerFor(frameFor(n)[0]);
    }
    EXPECT_EQ(heard, expected);
}

// Disconnecting from the window's thread wakes a listener that waits for
// an answer: its read ends as a closed port, not after its time-out.
TEST_F(TransportThreadedTest, DisconnectWakesAWaitingRead) {
    std::atomic<bool> reading{false};
    UsbTypes::IoResult result;
    std::thread listener([&] {
        unsigned char buffer[16];
        reading = true;
        result = usb.read(buffer, sizeof(buffer), 60000);
    });
    while (!reading) {
        std::this_thread::yield();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(usb.disconnect(), UsbTypes::Ok);
    listener.join();
    EXPECT_EQ(result.status, UsbTypes::ReceiveError);
    EXPECT_FALSE(usb.isConnected());
}

// The device is pulled while both threads run: the sender's next write
// drops the link and the listener ends on NotConnected.
TEST_F(TransportThreadedTest, UnplugEndsBothThreads) {
    std::atomic<bool> listenerEnded{false};
    std::thread listener([&] {
        unsigned char buffer[64];
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (std::chrono::steady_clock::now() < end) {
            usb.waitForReadyRead(1);
            if (usb.read(buffer, sizeof(buffer), 50).status == UsbTypes::NotConnected) {
                listenerEnded = true;
                return;
            }
        }
    });
    // Fewer than the terminal buffers before the unplug, so nobody needs to
    // read the other end.
    std::thread sender([&] {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        std::string frame = frameFor(0);
        while (std::chrono::steady_clock::now() < end) {
            if (usb.write(frame.data(), frame.size()) != UsbTypes::Ok) {
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    pty.unplug();
    sender.join();
    listener.join();
    EXPECT_TRUE(listenerEnded);
    EXPECT_FALSE(usb.isConnected());
    EXPECT_EQ(log.count("COM write failed; treating as disconnect"), 1u);
}

TEST(SerialPortPosixThreaded, DataArrivingDuringTheWaitEndsIt) {
    CapturingLogger log;
    PtyPair pty;
    ASSERT_TRUE(pty.isValid());
    SerialPortPosix port;
    std::string path = pty.slavePath();
    ASSERT_EQ(port.openPort(path), UsbTypes::Ok);
    ASSERT_TRUE(port.serialPortConfig(UsbTypes::Baud115200));
    std::thread device([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        pty.send("late");
    });
    unsigned char buffer[16];
    const auto result = port.readDataImpl(buffer, sizeof(buffer), 60000);
    device.join();
    ASSERT_EQ(result.status, UsbTypes::Ok);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer), result.bytes), "late");
}

TEST(PortUsageThreaded, CloseWaitsForRunningCallsAndRefusesNewOnes) {
    PortUsage usage;
    std::atomic<bool> inside{false};
    std::atomic<bool> release{false};
    std::atomic<bool> left{false};
    std::thread call([&] {
        PortUsage::Scope scope(usage);
        ASSERT_TRUE(scope.isEntered());
        inside = true;
        while (!release) {
            std::this_thread::yield();
        }
        left = true;
    });
    while (!inside) {
        std::this_thread::yield();
    }
    bool woken = false;
    std::thread closer([&] {
        usage.beginClose([&] {
            woken = true;
            release = true;
        });
        // Every running call has left by now.
        EXPECT_TRUE(left);
        EXPECT_FALSE(usage.enter()) << "no new call while closing";
        usage.endClose();
    });
    closer.join();
    call.join();
    EXPECT_TRUE(woken);
    EXPECT_TRUE(usage.enter());
    usage.leave();
}
