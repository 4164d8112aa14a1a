#include "PtyPair.h"
#include "TestSupport.h"
#include "UsbCommunication.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

// The listener waits out long reads: bytes that arrive end the wait, and so
// does quitting, which closes the link from the window's thread. (The sender
// and the listener on one link are the payload integration tests' threads.)
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
        second = usb.read(buffer, sizeof(buffer), 60000);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_TRUE(pty.send("late"));
    EXPECT_TRUE(testsupport::waitUntil([&] { return firstDone.load(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(usb.disconnect(), UsbTypes::Ok);
    listener.join();
    EXPECT_EQ(first.status, UsbTypes::Ok);
    EXPECT_EQ(first.bytes, 4u);
    EXPECT_EQ(second.status, UsbTypes::ReceiveError);
    EXPECT_FALSE(usb.isConnected());
}
