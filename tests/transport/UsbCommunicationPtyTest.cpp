#include "PtyPair.h"
#include "TestSupport.h"
#include "UsbCommunication.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

using testsupport::CapturingLogger;

namespace {

class UsbCommunicationPtyTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(pty.isValid());
        usb.portName = pty.slavePath();
        usb.baudrate = UsbTypes::Baud115200;
    }

    UsbTypes::Status send(std::string text) { return usb.write(text.data(), text.size()); }

    CapturingLogger log;
    PtyPair pty;
    UsbCommunication usb; // the platform's own port
    unsigned char buffer[256] = {};
};

} // namespace

TEST_F(UsbCommunicationPtyTest, ConnectTalkAndDisconnect) {
    ASSERT_EQ(usb.connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    EXPECT_TRUE(log.contains("UsbCommunication: Port " + pty.slavePath() + " is opened!", BaseLogger::INFO));
    EXPECT_TRUE(log.contains("SerialPort: Set baudrate: 115200", BaseLogger::INFO));
    EXPECT_TRUE(usb.isConnected());

    EXPECT_EQ(send("request"), UsbTypes::Ok);
    EXPECT_EQ(pty.receive(7, 2000), "request");

    ASSERT_TRUE(pty.send("answer"));
    auto result = usb.read(buffer, sizeof(buffer), 2000);
    ASSERT_EQ(result.status, UsbTypes::Ok);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer), result.bytes), "answer");

    // Silence: a time-out, not an error.
    result = usb.read(buffer, sizeof(buffer), 20);
    EXPECT_EQ(result.status, UsbTypes::Timeout);
    EXPECT_EQ(result.bytes, 0u);

    EXPECT_EQ(usb.disconnect(), UsbTypes::Ok);
    EXPECT_FALSE(usb.isConnected());
    EXPECT_FALSE(log.contains("", BaseLogger::ERROR));
}

TEST_F(UsbCommunicationPtyTest, UnpluggedDeviceIsNoticedOnTheNextWrite) {
    ASSERT_EQ(usb.connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    pty.unplug();
    EXPECT_TRUE(usb.isConnected()) << "nothing has noticed yet";
    EXPECT_EQ(send("ping"), UsbTypes::TransmitError);
    EXPECT_TRUE(
        log.contains("UsbCommunication: COM write failed; treating as disconnect", BaseLogger::ERROR));
    EXPECT_TRUE(log.contains("UsbCommunication: Transmit Error COM", BaseLogger::ERROR));
    EXPECT_FALSE(usb.isConnected());
    // The listener's next read ends it.
    EXPECT_EQ(usb.read(buffer, sizeof(buffer), 100).status, UsbTypes::NotConnected);
}

TEST_F(UsbCommunicationPtyTest, MissingPortLogsBothLines) {
    usb.portName = "/dev/merid-no-such-port";
    EXPECT_EQ(usb.connect(UsbCommunication::MethodCom), UsbTypes::NotAvailable);
    EXPECT_TRUE(log.contains("SerialPort: Error opening port /dev/merid-no-such-port (open err=2:",
                             BaseLogger::ERROR));
    EXPECT_TRUE(
        log.contains("UsbCommunication: Port /dev/merid-no-such-port is not available!", BaseLogger::ERROR));
    EXPECT_FALSE(usb.isConnected());
    EXPECT_EQ(usb.disconnect(), UsbTypes::ReceiveError) << "no method was taken";
}

TEST_F(UsbCommunicationPtyTest, StalledLineEndsTheConnectionAfterAPartialWrite) {
    ASSERT_EQ(usb.connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    std::string big(256 * 1024, 'x');
    EXPECT_EQ(usb.write(big.data(), big.size()), UsbTypes::TransmitError);
    EXPECT_TRUE(log.contains("SerialPort: Partial write: ", BaseLogger::WARNING));
    EXPECT_TRUE(log.contains("COM write failed; treating as disconnect", BaseLogger::ERROR));
    EXPECT_FALSE(usb.isConnected());
}

TEST_F(UsbCommunicationPtyTest, DeviceListNamesTheExtraPorts) {
    testsupport::ScopedEnv extra("MERID_EXTRA_PORTS", pty.slavePath());
    usb.availablePorts = {"stale"};
    EXPECT_EQ(usb.toDetermineDevices(UsbCommunication::MethodCom), UsbTypes::Ok);
    EXPECT_NE(std::find(usb.availablePorts.begin(), usb.availablePorts.end(), pty.slavePath()),
              usb.availablePorts.end());
    EXPECT_EQ(std::find(usb.availablePorts.begin(), usb.availablePorts.end(), "stale"),
              usb.availablePorts.end());
}

TEST_F(UsbCommunicationPtyTest, ReconnectWhileConnectedReplacesTheLine) {
    ASSERT_EQ(usb.connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    ASSERT_EQ(usb.connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    EXPECT_TRUE(usb.isConnected());
    EXPECT_EQ(send("again"), UsbTypes::Ok);
    EXPECT_EQ(pty.receive(5, 2000), "again");
}
