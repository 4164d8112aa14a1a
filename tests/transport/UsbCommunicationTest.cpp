#include "UsbCommunication.h"
#include "FakeSerialPort.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <memory>

using testsupport::CapturingLogger;

namespace {

class UsbCommunicationTest : public ::testing::Test {
protected:
    UsbCommunicationTest() {
        auto owned = std::make_unique<FakeSerialPort>();
        port = owned.get();
        usb = std::make_unique<UsbCommunication>(std::move(owned));
        usb->portName = "COM7";
        usb->baudrate = UsbTypes::Baud921600;
    }

    void connectCom() {
        ASSERT_EQ(usb->connect(UsbCommunication::MethodCom), UsbTypes::Ok);
        log.clear();
    }

    CapturingLogger log;
    FakeSerialPort* port = nullptr;
    std::unique_ptr<UsbCommunication> usb;
    unsigned char buffer[64] = {};
};

} // namespace

TEST_F(UsbCommunicationTest, ComConnectOpensAndConfiguresEvenWhenTheSettingsAreRefused) {
    port->configResult = false;
    EXPECT_EQ(usb->connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    EXPECT_EQ(port->openedName, "COM7");
    EXPECT_EQ(port->configuredSpeed, UsbTypes::Baud921600);
    EXPECT_TRUE(log.contains("UsbCommunication: Port COM7 is opened!", BaseLogger::INFO));
    EXPECT_TRUE(usb->isConnected());
    EXPECT_EQ(usb->disconnect(), UsbTypes::Ok);
    EXPECT_EQ(port->closeCalls, 1);
    EXPECT_FALSE(usb->isConnected());
}

TEST_F(UsbCommunicationTest, UsbMethodIsConnectedButMovesNothingAndSurvivesAFailedOpen) {
    ASSERT_EQ(usb->connect(UsbCommunication::MethodUsb), UsbTypes::Ok);
    port->openResult = UsbTypes::NotAvailable;
    EXPECT_EQ(usb->connect(UsbCommunication::MethodCom), UsbTypes::NotAvailable);
    EXPECT_TRUE(log.contains("UsbCommunication: Port COM7 is not available!", BaseLogger::ERROR));
    EXPECT_TRUE(usb->isConnected());
    EXPECT_EQ(usb->write(buffer, 4), UsbTypes::NotConnected);
    for (const auto& result : {usb->read(buffer, sizeof(buffer)), usb->read(buffer, sizeof(buffer), 10)}) {
        EXPECT_EQ(result.status, UsbTypes::NotConnected);
        EXPECT_EQ(result.bytes, 0u);
    }
    usb->availablePorts = {"COM9"};
    EXPECT_EQ(usb->toDetermineDevices(UsbCommunication::MethodUsb), UsbTypes::Ok);
    EXPECT_EQ(usb->availablePorts, std::vector<std::string>{"COM9"});
    EXPECT_EQ(usb->disconnect(), UsbTypes::Ok);
    EXPECT_FALSE(usb->isConnected());
}

TEST_F(UsbCommunicationTest, WithoutAMethodEveryOperationRefusesWithAWarning) {
    EXPECT_EQ(usb->disconnect(), UsbTypes::ReceiveError);
    EXPECT_EQ(usb->connect(static_cast<UsbCommunication::ConnectionMethod>(7)), UsbTypes::ReceiveError);
    EXPECT_EQ(usb->toDetermineDevices(UsbCommunication::MethodNone), UsbTypes::ReceiveError);
    EXPECT_EQ(usb->write(buffer, 4), UsbTypes::NotConnected);
    EXPECT_EQ(usb->read(buffer, 4).status, UsbTypes::NotConnected);
    EXPECT_EQ(usb->read(buffer, 4, 10).status, UsbTypes::NotConnected);
    EXPECT_EQ(log.count("UsbCommunication: Method didn't choose"), 6u);
    for (const auto& line : log.lines()) {
        EXPECT_EQ(line.type, BaseLogger::WARNING) << line.message;
    }
    EXPECT_EQ(port->openCalls, 0);
}

TEST_F(UsbCommunicationTest, FailedCloseKeepsTheMethodButThePortHasLetGo) {
    connectCom();
    port->closeResult = UsbTypes::CloseError;
    EXPECT_EQ(usb->disconnect(), UsbTypes::CloseError);
    EXPECT_TRUE(log.contains("UsbCommunication: Could not disconnect to COM port", BaseLogger::ERROR));
    EXPECT_FALSE(usb->isConnected());
    log.clear();
    EXPECT_EQ(usb->read(buffer, sizeof(buffer), 50).status, UsbTypes::ReceiveError);
    EXPECT_TRUE(log.lines().empty()) << "the timed read does not log";
    EXPECT_EQ(usb->read(buffer, sizeof(buffer)).status, UsbTypes::ReceiveError);
    EXPECT_TRUE(log.contains("UsbCommunication: Receive Error COM", BaseLogger::ERROR));
    EXPECT_EQ(usb->write(buffer, 4), UsbTypes::TransmitError);
    EXPECT_TRUE(log.contains("UsbCommunication: Transmit Error COM", BaseLogger::ERROR));
    EXPECT_FALSE(log.contains("treating as disconnect")) << "a closed port is not a dead link";
}

TEST_F(UsbCommunicationTest, FailedOrShortWriteEndsTheConnection) {
    for (const bool shortWrite : {false, true}) {
        connectCom();
        port->writeStatus = shortWrite ? UsbTypes::Ok : UsbTypes::TransmitError;
        port->writeShortBy = shortWrite ? 1 : 0;
        port->closeCalls = 0;
        EXPECT_EQ(usb->write(buffer, 8), UsbTypes::TransmitError) << shortWrite;
        EXPECT_TRUE(
            log.contains("UsbCommunication: COM write failed; treating as disconnect", BaseLogger::ERROR));
        EXPECT_TRUE(log.contains("UsbCommunication: Transmit Error COM", BaseLogger::ERROR));
        EXPECT_EQ(port->closeCalls, 1);
        EXPECT_FALSE(usb->isConnected());
        EXPECT_EQ(usb->read(buffer, sizeof(buffer), 10).status, UsbTypes::NotConnected);
        port->writeStatus = UsbTypes::Ok;
        port->writeShortBy = 0;
    }
}

// The window reconnects while the sender's write on the old line fails.
TEST_F(UsbCommunicationTest, WriteFailingOnAReplacedConnectionLeavesTheNewOneOpen) {
    connectCom();
    port->writeStatus = UsbTypes::TransmitError;
    port->duringWrite = [this] {
        port->duringWrite = nullptr;
        EXPECT_EQ(usb->connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    };
    EXPECT_EQ(usb->write(buffer, 8), UsbTypes::TransmitError);
    EXPECT_EQ(port->closeCalls, 0);
    EXPECT_TRUE(usb->isConnected());
}

TEST_F(UsbCommunicationTest, ReadsAndWritesPassThroughThePort) {
    connectCom();
    unsigned char frame[] = {0x7E, 0x08, 0x00, 0x02};
    EXPECT_EQ(usb->write(frame, sizeof(frame)), UsbTypes::Ok);
    EXPECT_EQ(port->written, std::string("\x7E\x08\x00\x02", 4));
    port->incoming = {"abc"};
    auto result = usb->read(buffer, sizeof(buffer), 250);
    EXPECT_EQ(port->lastReadTimeout, 250);
    ASSERT_EQ(result.status, UsbTypes::Ok);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer), result.bytes), "abc");
    EXPECT_EQ(usb->read(buffer, sizeof(buffer)).status, UsbTypes::Timeout);
    EXPECT_EQ(port->lastReadTimeout, 1000);
    EXPECT_TRUE(log.lines().empty()) << "a time-out is no failure";
    EXPECT_TRUE(usb->waitForReadyRead(0));
}

TEST_F(UsbCommunicationTest, DeviceListComesFromThePortWithoutAConnection) {
    port->ports = {"COM3", "COM12"};
    EXPECT_EQ(usb->toDetermineDevices(UsbCommunication::MethodCom), UsbTypes::Ok);
    EXPECT_EQ(usb->availablePorts, (std::vector<std::string>{"COM3", "COM12"}));
    port->ports.clear();
    EXPECT_EQ(usb->toDetermineDevices(UsbCommunication::MethodCom), UsbTypes::TransmitError);
    EXPECT_TRUE(usb->availablePorts.empty());
    EXPECT_TRUE(log.contains("UsbCommunication: Device COM list is empty", BaseLogger::ERROR));
}

TEST(UsbCommunicationWithoutPort, ReportsTheMissingBackend) {
    CapturingLogger log;
    UsbCommunication usb(nullptr);
    EXPECT_EQ(usb.connect(UsbCommunication::MethodCom), UsbTypes::NotAvailable);
    EXPECT_EQ(usb.toDetermineDevices(UsbCommunication::MethodCom), UsbTypes::TransmitError);
    EXPECT_EQ(log.count("UsbCommunication: Serial port backend is not available on this platform/build"), 2u);
    EXPECT_FALSE(usb.isConnected());
}
