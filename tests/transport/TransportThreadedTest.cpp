#include "PtyPair.h"
#include "TestSupport.h"
#include "UsbCommunication.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <limits>
#include <thread>

// The listener waits out long reads: bytes that arrive end the wait, and so
// does quitting, which closes the link from the window's thread. (The sender
// and the listener on one link are the payload integration tests' threads.)
// The second read would last weeks: only the close can end it, and the
// close must not wait for it.
TEST(TransportThreaded, BytesAndADisconnectEndAWaitingRead) {
    testsupport::CapturingLogger log;
    PtyPair pty;
    ASSERT_TRUE(pty.isValid());
    UsbCommunication usb;
    usb.portName = pty.slavePath();
    usb.baudrate = UsbTypes::Baud115200;
    ASSERT_EQ(usb.connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    UsbTypes::IoResult first, second;
    std::atomic<bool> firstDone{false};
    std::thread listener([&] {
        unsigned char buffer[16];
        first = usb.read(buffer, sizeof(buffer), 60000);
        firstDone = true;
        second = usb.read(buffer, sizeof(buffer), std::numeric_limits<int>::max());
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_TRUE(pty.send("late"));
    EXPECT_TRUE(testsupport::waitUntil([&] { return firstDone.load(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    std::atomic<bool> closed{false};
    std::thread closer([&] {
        EXPECT_EQ(usb.disconnect(), UsbTypes::Ok);
        closed = true;
    });
    const bool woken = testsupport::waitUntil([&] { return closed.load(); }, std::chrono::seconds(60));
    EXPECT_TRUE(woken) << "the close waited for the read";
    if (!woken) {
        pty.send("end"); // lets the read, and with it the close, return
    }
    closer.join();
    listener.join();
    EXPECT_EQ(first.status, UsbTypes::Ok);
    EXPECT_EQ(first.bytes, 4u);
    EXPECT_EQ(second.status, UsbTypes::ReceiveError);
    EXPECT_FALSE(usb.isConnected());
}
