#include "PtyPair.h"
#include "TestSupport.h"
#include "UsbCommunication.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

namespace {

// The sender writes and the listener reads on one object while the window's
// thread may close it, as the payload threads do.
class TransportThreadedTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(pty.isValid());
        usb.portName = pty.slavePath();
        usb.baudrate = UsbTypes::Baud115200;
        ASSERT_EQ(usb.connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    }

    // Reads of a minute each until `size` bytes came or a read fails: each
    // must end as soon as bytes arrive.
    void listen(std::size_t size) {
        unsigned char buffer[256];
        while (heard.size() < size) {
            const auto result = usb.read(buffer, sizeof(buffer), 60000);
            last = result.status;
            if (result.status != UsbTypes::Ok) {
                return;
            }
            heard.append(reinterpret_cast<char*>(buffer), result.bytes);
        }
    }

    PtyPair pty;
    UsbCommunication usb;
    std::string heard;
    UsbTypes::Status last = UsbTypes::Ok;
};

} // namespace

TEST_F(TransportThreadedTest, SenderAndListenerShareTheLink) {
    constexpr int kFrames = 200;
    std::thread board([&] {
        for (int n = 0; n < kFrames && pty.send(pty.receive(75, 5000).substr(0, 6)); ++n) {
        }
    });
    std::thread listener([&] { listen(6 * kFrames); });
    std::string expected;
    for (int n = 0; n < kFrames; ++n) {
        std::string frame(75, static_cast<char>('A' + n % 26));
        EXPECT_EQ(usb.write(frame.data(), frame.size()), UsbTypes::Ok);
        expected += frame.substr(0, 6);
    }
    board.join();
    listener.join();
    EXPECT_EQ(heard, expected);
}

// Quitting closes the link from the window's thread while the listener waits
// out a long read: the read ends at once, as a closed port.
TEST_F(TransportThreadedTest, DisconnectEndsAWaitingRead) {
    std::thread listener([&] { listen(1); });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(usb.disconnect(), UsbTypes::Ok);
    listener.join();
    EXPECT_EQ(last, UsbTypes::ReceiveError);
}
