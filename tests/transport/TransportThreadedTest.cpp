#include "PtyPair.h"
#include "TestSupport.h"
#include "UsbCommunication.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

namespace {

// The sender writes, the listener reads and the window asks for the state,
// all on one object, as the payload threads do.
class TransportThreadedTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(pty.isValid());
        usb.portName = pty.slavePath();
        usb.baudrate = UsbTypes::Baud115200;
        ASSERT_EQ(usb.connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    }

    // Reads until `enough` holds or the link is gone; each read may wait long,
    // so it must end as soon as bytes arrive or the port closes.
    std::string listen(const std::function<bool(const std::string&)>& enough, UsbTypes::Status& last) {
        std::string heard;
        unsigned char buffer[256];
        while (!enough(heard)) {
            const auto result = usb.read(buffer, sizeof(buffer), 60000);
            last = result.status;
            if (result.status != UsbTypes::Ok) {
                break;
            }
            heard.append(reinterpret_cast<char*>(buffer), result.bytes);
        }
        return heard;
    }

    testsupport::CapturingLogger log;
    PtyPair pty;
    UsbCommunication usb;
    UsbTypes::Status lastRead = UsbTypes::Ok;
};

} // namespace

TEST_F(TransportThreadedTest, SenderListenerAndWindowShareTheLink) {
    constexpr int kFrames = 200;
    std::thread board([&] {
        for (int n = 0; n < kFrames; ++n) {
            const std::string frame = pty.receive(75, 5000);
            if (frame.size() != 75 || !pty.send(std::string(6, static_cast<char>(frame[0] + 32)))) {
                return;
            }
        }
    });
    std::string heard;
    std::thread listener(
        [&] { heard = listen([](const std::string& s) { return s.size() >= 6 * kFrames; }, lastRead); });
    std::atomic<bool> done{false};
    std::thread window([&] {
        while (!done) {
            EXPECT_TRUE(usb.isConnected());
        }
    });
    std::string expected;
    for (int n = 0; n < kFrames; ++n) {
        std::string frame(75, static_cast<char>('A' + n % 26));
        EXPECT_EQ(usb.write(frame.data(), frame.size()), UsbTypes::Ok);
        expected += std::string(6, static_cast<char>(frame[0] + 32));
    }
    board.join();
    listener.join();
    done = true;
    window.join();
    EXPECT_EQ(heard, expected);
}

// Quitting closes the link from the window's thread while the listener waits
// out a long read: bytes end the wait, and so does the close.
TEST_F(TransportThreadedTest, DataAndDisconnectEndAWaitingRead) {
    std::string heard;
    std::atomic<bool> gotLate{false};
    std::thread listener([&] {
        heard = listen([](const std::string& s) { return s.size() >= 4; }, lastRead);
        gotLate = true;
        listen([](const std::string&) { return false; }, lastRead);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    ASSERT_TRUE(pty.send("late"));
    EXPECT_TRUE(testsupport::waitUntil([&] { return gotLate.load(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(usb.disconnect(), UsbTypes::Ok);
    listener.join();
    EXPECT_EQ(heard, "late");
    EXPECT_EQ(lastRead, UsbTypes::ReceiveError);
}

// The board is pulled while both threads run: the sender's next write drops
// the link, and the listener ends on NotConnected.
TEST_F(TransportThreadedTest, UnplugEndsBothThreads) {
    std::thread listener([&] {
        unsigned char buffer[64];
        while (usb.waitForReadyRead(1) &&
               usb.read(buffer, sizeof(buffer), 50).status != UsbTypes::NotConnected) {
        }
    });
    std::thread sender([&] {
        std::string frame(75, 'A');
        while (usb.write(frame.data(), frame.size()) == UsbTypes::Ok) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    pty.unplug();
    sender.join();
    listener.join();
    EXPECT_FALSE(usb.isConnected());
    EXPECT_EQ(log.count("COM write failed; treating as disconnect"), 1u);
}
