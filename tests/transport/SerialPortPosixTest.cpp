#include "SerialPortPosix.h"
#include "PortNames.h"
#include "PtyPair.h"
#include "TestSupport.h"
#include "UsbCommunication.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>

using testsupport::CapturingLogger;

namespace {

class SerialPortPosixTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(pty.isValid());
        path = pty.slavePath();
    }

    std::string read(std::size_t size, int timeoutMs, UsbTypes::Status expected = UsbTypes::Ok) {
        unsigned char buffer[512] = {};
        const auto result = port.readDataImpl(buffer, size, timeoutMs);
        EXPECT_EQ(result.status, expected) << timeoutMs;
        return std::string(reinterpret_cast<char*>(buffer), result.bytes);
    }

    CapturingLogger log;
    PtyPair pty;
    std::string path;
    SerialPortPosix port;
};

} // namespace

TEST_F(SerialPortPosixTest, OpenConfigureReopenAndClose) {
    ASSERT_EQ(port.openPort(path), UsbTypes::Ok);
    // A second open closes the first handle, or the lock would refuse it.
    ASSERT_EQ(port.openPort(path), UsbTypes::Ok);
    port.speedConfig(static_cast<UsbTypes::Baudrate>(9600));
    EXPECT_TRUE(log.contains("SerialPort: Set baudrate: 9600", BaseLogger::INFO));
    ASSERT_TRUE(port.serialPortConfig(port.configuredBaudrate()));
    port.verifyPortSettings();
    EXPECT_TRUE(log.contains("Current port settings: BaudRate=115200, ByteSize=8, Parity=0, StopBits=0"));
    ASSERT_TRUE(port.serialPortConfig(UsbTypes::Baud921600));
    port.verifyPortSettings();
    EXPECT_TRUE(log.contains("Current port settings: BaudRate=921600,"));

    SerialPortPosix other;
    EXPECT_EQ(other.openPort(path), UsbTypes::NotAvailable) << "the port is held exclusively";
    EXPECT_TRUE(log.contains("Port " + path + " is held by another program", BaseLogger::WARNING));
    EXPECT_EQ(port.closePort(), UsbTypes::Ok);
    EXPECT_EQ(port.closePort(), UsbTypes::Ok);
    EXPECT_EQ(other.openPort(path), UsbTypes::Ok);
}

TEST_F(SerialPortPosixTest, EveryByteValueBothWaysAndReadsReturnWhatIsThere) {
    ASSERT_EQ(port.openPort(path), UsbTypes::Ok);
    ASSERT_TRUE(port.serialPortConfig(UsbTypes::Baud115200));
    std::string all;
    for (int value = 0; value < 256; ++value) {
        all.push_back(static_cast<char>(value));
    }
    const auto sent = port.writeDataImpl(reinterpret_cast<unsigned char*>(all.data()), all.size());
    EXPECT_EQ(sent.status, UsbTypes::Ok);
    EXPECT_EQ(sent.bytes, all.size());
    EXPECT_EQ(pty.receive(all.size(), 2000), all);
    ASSERT_TRUE(pty.send(all));
    std::string got;
    while (got.size() < all.size() && !HasFailure()) {
        got += read(all.size() - got.size(), 2000);
    }
    EXPECT_EQ(got, all);

    for (int timeout : {0, -5, 30}) {
        EXPECT_EQ(read(16, timeout, UsbTypes::Timeout), "");
    }
    ASSERT_TRUE(pty.send("0123456789"));
    EXPECT_EQ(read(4, 2000), "0123");
    EXPECT_EQ(read(16, 0), "456789");
    EXPECT_FALSE(log.contains("", BaseLogger::ERROR));
}

TEST_F(SerialPortPosixTest, ClosedPortRefuses) {
    unsigned char buffer[4] = {};
    EXPECT_EQ(port.readDataImpl(buffer, sizeof(buffer), 10).status, UsbTypes::ReceiveError);
    EXPECT_EQ(port.writeDataImpl(buffer, sizeof(buffer)).status, UsbTypes::TransmitError);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_FALSE(port.serialPortConfig(UsbTypes::Baud115200));
    EXPECT_TRUE(log.contains("SerialPort: serialPortConfig called with unopened port", BaseLogger::ERROR));
}

TEST_F(SerialPortPosixTest, FailedOpenLosesTheOldLineAndLogsBothLayers) {
    UsbCommunication usb;
    usb.portName = path;
    usb.baudrate = UsbTypes::Baud115200;
    ASSERT_EQ(usb.connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    usb.portName = "/dev/merid-no-such-port";
    EXPECT_EQ(usb.connect(UsbCommunication::MethodCom), UsbTypes::NotAvailable);
    EXPECT_TRUE(log.contains(
        "SerialPort: Error opening port /dev/merid-no-such-port (open err=2: No such file or directory)",
        BaseLogger::ERROR));
    EXPECT_TRUE(
        log.contains("UsbCommunication: Port /dev/merid-no-such-port is not available!", BaseLogger::ERROR));
    EXPECT_FALSE(usb.isConnected());
    EXPECT_EQ(port.openPort(path), UsbTypes::Ok) << "the first line was released";
}

// Nobody reads the other end: the terminal's buffer fills, the write time-out
// runs out, and the link counts as lost.
TEST_F(SerialPortPosixTest, StalledWriteIsPartialAndEndsTheConnection) {
    UsbCommunication usb;
    usb.portName = path;
    usb.baudrate = UsbTypes::Baud115200;
    ASSERT_EQ(usb.connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    std::string big(256 * 1024, 'x');
    EXPECT_EQ(usb.write(big.data(), big.size()), UsbTypes::TransmitError);
    EXPECT_TRUE(log.contains("SerialPort: Partial write: ", BaseLogger::WARNING));
    EXPECT_TRUE(log.contains(" of 262144 bytes", BaseLogger::WARNING));
    EXPECT_TRUE(log.contains("COM write failed; treating as disconnect", BaseLogger::ERROR));
    EXPECT_FALSE(usb.isConnected());
}

TEST_F(SerialPortPosixTest, UnpluggedLineFailsWritesAndReads) {
    ASSERT_EQ(port.openPort(path), UsbTypes::Ok);
    pty.unplug();
    unsigned char buffer[4] = {'p', 'i', 'n', 'g'};
    EXPECT_EQ(port.writeDataImpl(buffer, sizeof(buffer)).status, UsbTypes::TransmitError);
    EXPECT_TRUE(log.contains("SerialPort: write failed (err=5) on " + path + ": Input/output error",
                             BaseLogger::ERROR));
    EXPECT_EQ(port.readDataImpl(buffer, sizeof(buffer), 100).status, UsbTypes::ReceiveError);
}

TEST_F(SerialPortPosixTest, ExtraPortsThatExistAreListedOnceInNameOrder) {
    PtyPair second;
    ASSERT_TRUE(second.isValid());
    testsupport::TempDir dir;
    const std::string port9 = dir.path() + "/port9", port10 = dir.path() + "/port10";
    std::filesystem::create_symlink(path, port9);
    std::filesystem::create_symlink(second.slavePath(), port10);
    testsupport::ScopedEnv extra("MERID_EXTRA_PORTS",
                                 port10 + "::" + dir.path() + "/port11:" + port9 + ":" + port10 + ":");
    UsbCommunication usb;
    usb.availablePorts = {"stale"};
    ASSERT_EQ(usb.toDetermineDevices(UsbCommunication::MethodCom), UsbTypes::Ok);
    const auto& ports = usb.availablePorts;
    EXPECT_TRUE(std::is_sorted(ports.begin(), ports.end(), PortNames::devicePortLess));
    std::vector<std::string> ours;
    std::copy_if(ports.begin(), ports.end(), std::back_inserter(ours),
                 [&](const std::string& name) { return name.rfind(dir.path(), 0) == 0 || name == "stale"; });
    EXPECT_EQ(ours, (std::vector<std::string>{port9, port10}));
}
