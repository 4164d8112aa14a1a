#include "UsbCommunication.h"
#include "FakeSerialPort.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <memory>

using testsupport::CapturingLogger;

namespace {

// Reaches the USB stubs, which nothing in the program calls.
class ExposedUsbCommunication : public UsbCommunication {
public:
    using UsbCommunication::readDataComImpl;
    using UsbCommunication::readDataUsbImpl;
    using UsbCommunication::UsbCommunication;
    using UsbCommunication::writeDataUsbImpl;
};

class UsbCommunicationTest : public ::testing::Test {
protected:
    UsbCommunicationTest() {
        auto owned = std::make_unique<FakeSerialPort>();
        port = owned.get();
        usb = std::make_unique<ExposedUsbCommunication>(std::move(owned));
        usb->portName = "COM7";
        usb->baudrate = UsbTypes::Baud921600;
    }

    void connectCom() {
        ASSERT_EQ(usb->connect(UsbCommunication::MethodCom), UsbTypes::Ok);
        log.clear();
    }

    CapturingLogger log;
    FakeSerialPort* port = nullptr;
    std::unique_ptr<ExposedUsbCommunication> usb;
    unsigned char buffer[64] = {};
};

const char* const kNoMethod = "UsbCommunication: Method didn't choose";
const char* const kNoBackend =
    "UsbCommunication: Serial port backend is not available on this platform/build";

} // namespace

TEST_F(UsbCommunicationTest, ComConnectOpensConfiguresAndLogs) {
    EXPECT_FALSE(usb->isConnected());
    EXPECT_EQ(usb->connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    EXPECT_EQ(port->openedName, "COM7");
    EXPECT_EQ(port->configuredSpeed, UsbTypes::Baud921600);
    EXPECT_TRUE(log.contains("UsbCommunication: Port COM7 is opened!", BaseLogger::INFO));
    EXPECT_TRUE(usb->isConnected());
    // A second connect goes through the port again, which closes first.
    EXPECT_EQ(usb->connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    EXPECT_EQ(port->openCalls, 2);
}

TEST_F(UsbCommunicationTest, PortThatRefusesItsSettingsStillCountsAsConnected) {
    port->configResult = false;
    EXPECT_EQ(usb->connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    EXPECT_TRUE(usb->isConnected());
}

TEST_F(UsbCommunicationTest, FailedOpenIsNotAvailableAndKeepsTheMethod) {
    ASSERT_EQ(usb->connect(UsbCommunication::MethodUsb), UsbTypes::Ok);
    port->openResult = UsbTypes::NotAvailable;
    EXPECT_EQ(usb->connect(UsbCommunication::MethodCom), UsbTypes::NotAvailable);
    EXPECT_TRUE(log.contains("UsbCommunication: Port COM7 is not available!", BaseLogger::ERROR));
    EXPECT_FALSE(log.contains("is opened!"));
    // Still the USB method: connected by decree.
    EXPECT_TRUE(usb->isConnected());
    EXPECT_EQ(usb->disconnect(), UsbTypes::Ok);
}

TEST_F(UsbCommunicationTest, UsbMethodIsConnectedButMovesNothing) {
    EXPECT_EQ(usb->connect(UsbCommunication::MethodUsb), UsbTypes::Ok);
    EXPECT_TRUE(usb->isConnected());
    EXPECT_EQ(port->openCalls, 0);
    EXPECT_EQ(usb->write(buffer, 4), UsbTypes::NotConnected);
    auto result = usb->read(buffer, sizeof(buffer));
    EXPECT_EQ(result.status, UsbTypes::NotConnected);
    EXPECT_EQ(result.bytes, 0u);
    result = usb->read(buffer, sizeof(buffer), 10);
    EXPECT_EQ(result.status, UsbTypes::NotConnected);
    EXPECT_EQ(result.bytes, 0u);
    // The port list is left alone.
    usb->availablePorts = {"COM9"};
    EXPECT_EQ(usb->toDetermineDevices(UsbCommunication::MethodUsb), UsbTypes::Ok);
    EXPECT_EQ(usb->availablePorts, std::vector<std::string>{"COM9"});
    EXPECT_TRUE(log.lines().empty()) << "the USB method is silent";
    EXPECT_EQ(usb->disconnect(), UsbTypes::Ok);
    EXPECT_FALSE(usb->isConnected());
}

TEST_F(UsbCommunicationTest, WithoutAMethodEveryOperationRefusesWithAWarning) {
    EXPECT_EQ(usb->disconnect(), UsbTypes::ReceiveError);
    EXPECT_EQ(usb->connect(static_cast<UsbCommunication::ConnectionMethod>(7)), UsbTypes::ReceiveError);
    EXPECT_EQ(usb->connect(UsbCommunication::MethodNone), UsbTypes::ReceiveError);
    EXPECT_EQ(usb->toDetermineDevices(UsbCommunication::MethodNone), UsbTypes::ReceiveError);
    EXPECT_EQ(usb->write(buffer, 4), UsbTypes::NotConnected);
    EXPECT_EQ(usb->read(buffer, 4).status, UsbTypes::NotConnected);
    EXPECT_EQ(usb->read(buffer, 4, 10).status, UsbTypes::NotConnected);
    EXPECT_EQ(log.count(kNoMethod), 7u);
    for (const auto& line : log.lines()) {
        EXPECT_EQ(line.type, BaseLogger::WARNING);
    }
    EXPECT_EQ(port->openCalls, 0);
    EXPECT_FALSE(usb->isConnected());
}

TEST_F(UsbCommunicationTest, DisconnectClosesThePort) {
    connectCom();
    EXPECT_EQ(usb->disconnect(), UsbTypes::Ok);
    EXPECT_EQ(port->closeCalls, 1);
    EXPECT_FALSE(usb->isConnected());
    // Now there is no method any more.
    EXPECT_EQ(usb->disconnect(), UsbTypes::ReceiveError);
    EXPECT_TRUE(log.contains(kNoMethod, BaseLogger::WARNING));
}

TEST_F(UsbCommunicationTest, FailedCloseKeepsTheMethodButThePortHasLetGo) {
    connectCom();
    port->closeResult = UsbTypes::CloseError;
    EXPECT_EQ(usb->disconnect(), UsbTypes::CloseError);
    EXPECT_TRUE(log.contains("UsbCommunication: Could not disconnect to COM port", BaseLogger::ERROR));
    EXPECT_FALSE(usb->isConnected());
    log.clear();

    // The method is still COM, so the port answers for its closed handle.
    auto result = usb->read(buffer, sizeof(buffer), 50);
    EXPECT_EQ(result.status, UsbTypes::ReceiveError);
    EXPECT_TRUE(log.lines().empty()) << "the timed read does not log";
    result = usb->read(buffer, sizeof(buffer));
    EXPECT_EQ(result.status, UsbTypes::ReceiveError);
    EXPECT_TRUE(log.contains("UsbCommunication: Receive Error COM", BaseLogger::ERROR));
    EXPECT_EQ(usb->write(buffer, 4), UsbTypes::TransmitError);
    EXPECT_TRUE(log.contains("UsbCommunication: Transmit Error COM", BaseLogger::ERROR));
    // A closed port is not a dead link: nothing more to close.
    EXPECT_FALSE(log.contains("treating as disconnect"));
}

TEST_F(UsbCommunicationTest, WriteGoesToThePortWhole) {
    connectCom();
    unsigned char frame[] = {0x7E, 0x08, 0x00, 0x02};
    EXPECT_EQ(usb->write(frame, sizeof(frame)), UsbTypes::Ok);
    EXPECT_EQ(port->written, std::string("\x7E\x08\x00\x02", 4));
    EXPECT_TRUE(usb->isConnected());
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(UsbCommunicationTest, FailedWriteIsTakenForAnUnpluggedDevice) {
    connectCom();
    port->writeStatus = UsbTypes::TransmitError;
    EXPECT_EQ(usb->write(buffer, 8), UsbTypes::TransmitError);
    EXPECT_TRUE(
        log.contains("UsbCommunication: COM write failed; treating as disconnect", BaseLogger::ERROR));
    EXPECT_TRUE(log.contains("UsbCommunication: Transmit Error COM", BaseLogger::ERROR));
    EXPECT_EQ(port->closeCalls, 1);
    EXPECT_FALSE(usb->isConnected());
    // The reader then learns of it: no method any more.
    EXPECT_EQ(usb->read(buffer, sizeof(buffer), 10).status, UsbTypes::NotConnected);
}

TEST_F(UsbCommunicationTest, ShortWriteEndsTheConnectionToo) {
    connectCom();
    port->writeShortBy = 1;
    EXPECT_EQ(usb->write(buffer, 8), UsbTypes::TransmitError);
    EXPECT_EQ(log.count("COM write failed; treating as disconnect"), 1u);
    EXPECT_FALSE(usb->isConnected());
    EXPECT_EQ(usb->write(buffer, 8), UsbTypes::NotConnected);
}

TEST_F(UsbCommunicationTest, WriteFailingOnAReplacedConnectionLeavesTheNewOneOpen) {
    connectCom();
    port->writeStatus = UsbTypes::TransmitError;
    // The window reconnects while the sender's write is under way.
    port->duringWrite = [this] {
        port->duringWrite = nullptr;
        EXPECT_EQ(usb->connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    };
    EXPECT_EQ(usb->write(buffer, 8), UsbTypes::TransmitError);
    EXPECT_TRUE(log.contains("COM write failed; treating as disconnect"));
    EXPECT_EQ(port->closeCalls, 0);
    EXPECT_TRUE(usb->isConnected());
}

TEST_F(UsbCommunicationTest, ReadsPassThePortsResults) {
    connectCom();
    port->incoming = {"abc"};
    auto result = usb->read(buffer, sizeof(buffer), 250);
    EXPECT_EQ(port->lastReadTimeout, 250);
    ASSERT_EQ(result.status, UsbTypes::Ok);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer), result.bytes), "abc");

    // Nothing there: a time-out, unlogged, in both forms.
    result = usb->read(buffer, sizeof(buffer), 0);
    EXPECT_EQ(result.status, UsbTypes::Timeout);
    result = usb->read(buffer, sizeof(buffer));
    EXPECT_EQ(result.status, UsbTypes::Timeout);
    EXPECT_EQ(port->lastReadTimeout, 1000);
    EXPECT_TRUE(log.lines().empty());

    port->incoming = {"0123456789"};
    result = usb->readDataComImpl(buffer, 4);
    EXPECT_EQ(port->lastReadTimeout, 1000);
    EXPECT_EQ(result.bytes, 4u);
}

TEST_F(UsbCommunicationTest, DeviceListComesFromThePort) {
    port->ports = {"COM3", "COM12"};
    EXPECT_EQ(usb->toDetermineDevices(UsbCommunication::MethodCom), UsbTypes::Ok);
    EXPECT_EQ(usb->availablePorts, (std::vector<std::string>{"COM3", "COM12"}));
    EXPECT_FALSE(usb->isConnected()) << "listing needs no connection";

    port->ports.clear();
    EXPECT_EQ(usb->toDetermineDevices(UsbCommunication::MethodCom), UsbTypes::TransmitError);
    EXPECT_TRUE(usb->availablePorts.empty());
    EXPECT_TRUE(log.contains("UsbCommunication: Device COM list is empty", BaseLogger::ERROR));
}

TEST_F(UsbCommunicationTest, UsbStubsOnlyLog) {
    usb->writeDataUsbImpl(buffer, 4);
    EXPECT_TRUE(
        log.contains("UsbCommunication: libusb doesn't implemented :(... Can't write", BaseLogger::WARNING));
    EXPECT_EQ(usb->readDataUsbImpl(buffer, 4).status, UsbTypes::ReceiveError);
    EXPECT_TRUE(
        log.contains("UsbCommunication: libusb doesn't implemented :(... Can't read", BaseLogger::WARNING));
}

TEST_F(UsbCommunicationTest, WaitForReadyReadOnlyPauses) {
    EXPECT_TRUE(usb->waitForReadyRead(0));
    EXPECT_TRUE(usb->waitForReadyRead(2));
    EXPECT_EQ(port->lastReadTimeout, -1) << "the port is not asked";
}

TEST(UsbCommunicationWithoutPort, ReportsTheMissingBackend) {
    CapturingLogger log;
    UsbCommunication usb(nullptr);
    usb.portName = "COM1";
    EXPECT_EQ(usb.connect(UsbCommunication::MethodCom), UsbTypes::NotAvailable);
    EXPECT_EQ(usb.toDetermineDevices(UsbCommunication::MethodCom), UsbTypes::TransmitError);
    EXPECT_EQ(log.count(kNoBackend), 2u);
    EXPECT_FALSE(usb.isConnected());
    unsigned char byte = 0;
    EXPECT_EQ(usb.write(&byte, 1), UsbTypes::NotConnected);
}

