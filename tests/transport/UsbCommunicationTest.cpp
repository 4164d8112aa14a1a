#include "UsbCommunication.h"
#include "FakeSerialPort.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <memory>

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

    testsupport::CapturingLogger log;
    FakeSerialPort* port = nullptr;
    std::unique_ptr<UsbCommunication> usb;
    unsigned char buffer[64] = {};
};

} // namespace

TEST_F(UsbCommunicationTest, UsbMethodMovesNothingAndOutlivesAFailedComOpen) {
    ASSERT_EQ(usb->connect(UsbCommunication::MethodUsb), UsbTypes::Ok);
    EXPECT_TRUE(usb->isConnected());
    EXPECT_EQ(usb->write(buffer, 4), UsbTypes::NotConnected);
    EXPECT_EQ(usb->read(buffer, sizeof(buffer), 10).status, UsbTypes::NotConnected);
    port->openResult = UsbTypes::NotAvailable;
    EXPECT_EQ(usb->connect(UsbCommunication::MethodCom), UsbTypes::NotAvailable);
    EXPECT_TRUE(log.contains("UsbCommunication: Port COM7 is not available!", BaseLogger::ERROR));
    EXPECT_TRUE(usb->isConnected()) << "still the USB method";

    // A port that opens but refuses its settings still counts as connected.
    port->openResult = UsbTypes::Ok;
    port->configResult = false;
    EXPECT_EQ(usb->connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    EXPECT_EQ(port->openedName, "COM7");
    EXPECT_EQ(port->configuredSpeed, UsbTypes::Baud921600);
    EXPECT_TRUE(log.contains("UsbCommunication: Port COM7 is opened!", BaseLogger::INFO));
    EXPECT_TRUE(usb->isConnected());
}

TEST_F(UsbCommunicationTest, WithoutAMethodEveryOperationRefusesWithAWarning) {
    EXPECT_EQ(usb->disconnect(), UsbTypes::ReceiveError);
    EXPECT_EQ(usb->connect(static_cast<UsbCommunication::ConnectionMethod>(7)), UsbTypes::ReceiveError);
    EXPECT_EQ(usb->write(buffer, 4), UsbTypes::NotConnected);
    EXPECT_EQ(usb->read(buffer, 4, 10).status, UsbTypes::NotConnected);
    EXPECT_EQ(log.count("UsbCommunication: Method didn't choose"), 4u);
    EXPECT_EQ(log.lines().size(), 4u);
    EXPECT_TRUE(log.contains("Method didn't choose", BaseLogger::WARNING));
}

TEST_F(UsbCommunicationTest, FailedCloseKeepsTheMethodButThePortHasLetGo) {
    ASSERT_EQ(usb->connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    port->closeResult = UsbTypes::CloseError;
    EXPECT_EQ(usb->disconnect(), UsbTypes::CloseError);
    EXPECT_TRUE(log.contains("UsbCommunication: Could not disconnect to COM port", BaseLogger::ERROR));
    EXPECT_FALSE(usb->isConnected());
    log.clear();
    EXPECT_EQ(usb->read(buffer, sizeof(buffer), 50).status, UsbTypes::ReceiveError);
    EXPECT_TRUE(log.lines().empty()) << "the timed read does not log";
    EXPECT_EQ(usb->write(buffer, 4), UsbTypes::TransmitError);
    EXPECT_TRUE(log.contains("UsbCommunication: Transmit Error COM", BaseLogger::ERROR));
    EXPECT_FALSE(log.contains("treating as disconnect")) << "a closed port is not a dead link";
}

// The short write is the pseudo-terminal tests' stalled line.
TEST_F(UsbCommunicationTest, FailedWriteEndsTheConnection) {
    ASSERT_EQ(usb->connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    port->writeStatus = UsbTypes::TransmitError;
    EXPECT_EQ(usb->write(buffer, 8), UsbTypes::TransmitError);
    EXPECT_TRUE(
        log.contains("UsbCommunication: COM write failed; treating as disconnect", BaseLogger::ERROR));
    EXPECT_EQ(port->closeCalls, 1);
    EXPECT_FALSE(usb->isConnected());
    EXPECT_EQ(usb->read(buffer, sizeof(buffer), 10).status, UsbTypes::NotConnected);
}

TEST_F(UsbCommunicationTest, EmptyDeviceListOrNoPortAtAll) {
    usb->availablePorts = {"COM3"};
    EXPECT_EQ(usb->toDetermineDevices(UsbCommunication::MethodCom), UsbTypes::TransmitError);
    EXPECT_TRUE(usb->availablePorts.empty());
    EXPECT_TRUE(log.contains("UsbCommunication: Device COM list is empty", BaseLogger::ERROR));

    UsbCommunication without(nullptr);
    EXPECT_EQ(without.connect(UsbCommunication::MethodCom), UsbTypes::NotAvailable);
    EXPECT_EQ(without.toDetermineDevices(UsbCommunication::MethodCom), UsbTypes::TransmitError);
    EXPECT_EQ(log.count("UsbCommunication: Serial port backend is not available on this platform/build"), 2u);
    EXPECT_FALSE(without.isConnected());
}
