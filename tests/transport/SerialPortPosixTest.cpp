#include "SerialPortPosix.h"
#include "PtyPair.h"
#include "TestSupport.h"
#include "UsbCommunication.h"

#include <gtest/gtest.h>

#include <numeric>
#include <string>

using testsupport::CapturingLogger;

namespace {

class SerialPortPosixTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(pty.isValid());
        path = pty.slavePath();
        usb.portName = path;
        usb.baudrate = UsbTypes::Baud115200;
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
    UsbCommunication usb;
};

} // namespace

// The list the connection dialog and merid-flash show: the named ports that
// exist, each once, a number compared as a number within one stem, a stem
// without a number before its numbered ones.
TEST_F(SerialPortPosixTest, PortListComesInNumberOrderWithinEachStem) {
    testsupport::TempDir dir;
    const std::string at = dir.path() + "/";
    for (const char* name : {"ttyMerid10", "ttyMerid2", "ttyMerid", "ttyMerid1", "ttyAlpha3"}) {
        ASSERT_TRUE(testsupport::writeFile(at + name, {}));
    }
    const testsupport::ScopedEnv extra(
        "MERID_EXTRA_PORTS", at + "ttyMerid10:" + at + "ttyMerid2::" + at + "ttyMerid:" + at +
                                 "ttyGone7:" + at + "ttyMerid1:" + at + "ttyAlpha3:" + at + "ttyMerid2");
    std::vector<std::string> named;
    for (const auto& name : port.getAvailablePorts()) {
        if (name.rfind(at, 0) == 0) {
            named.push_back(name.substr(at.size()));
        }
    }
    EXPECT_EQ(named,
              (std::vector<std::string>{"ttyAlpha3", "ttyMerid", "ttyMerid1", "ttyMerid2", "ttyMerid10"}));
}

TEST_F(SerialPortPosixTest, OpenConfigureReopenAndClose) {
    ASSERT_EQ(port.openPort(path), UsbTypes::Ok);
    // A second open closes the first handle, or the lock would refuse it.
    ASSERT_EQ(port.openPort(path), UsbTypes::Ok);
    ASSERT_TRUE(port.serialPortConfig(static_cast<UsbTypes::Baudrate>(9600)));
    EXPECT_TRUE(log.contains("SerialPort: Set baudrate: 9600", BaseLogger::INFO));
    port.verifyPortSettings();
    EXPECT_TRUE(log.contains("Current port settings: BaudRate=115200, ByteSize=8, Parity=0, StopBits=0"));
    ASSERT_TRUE(port.serialPortConfig(UsbTypes::Baud921600));
    port.verifyPortSettings();
    EXPECT_TRUE(log.contains("Current port settings: BaudRate=921600,"));

    SerialPortPosix other;
    EXPECT_EQ(other.openPort(path), UsbTypes::NotAvailable) << "the port is held exclusively";
    EXPECT_EQ(port.closePort(), UsbTypes::Ok);
    EXPECT_EQ(port.closePort(), UsbTypes::Ok);
    EXPECT_EQ(other.openPort(path), UsbTypes::Ok);
}

TEST_F(SerialPortPosixTest, EveryByteValueBothWaysAndReadsReturnWhatIsThere) {
    ASSERT_EQ(port.openPort(path), UsbTypes::Ok);
    ASSERT_TRUE(port.serialPortConfig(UsbTypes::Baud115200));
    std::string all(256, '\0');
    std::iota(all.begin(), all.end(), '\0');
    EXPECT_EQ(port.writeDataImpl(reinterpret_cast<unsigned char*>(all.data()), all.size()).bytes, all.size());
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

TEST_F(SerialPortPosixTest, FailedOpenLosesTheOldLine) {
    ASSERT_EQ(usb.connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    usb.portName = "/dev/merid-no-such-port";
    EXPECT_EQ(usb.connect(UsbCommunication::MethodCom), UsbTypes::NotAvailable);
    EXPECT_TRUE(log.contains(
        "SerialPort: Error opening port /dev/merid-no-such-port (open err=2: No such file or directory)",
        BaseLogger::ERROR));
    EXPECT_FALSE(usb.isConnected());
    EXPECT_EQ(port.openPort(path), UsbTypes::Ok) << "the first line was released";
}

// Nobody reads the other end: the terminal's buffer fills, the write time-out
// runs out, and the link counts as lost.
TEST_F(SerialPortPosixTest, StalledWriteIsPartialAndEndsTheConnection) {
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
    // Once closed, the port refuses without a word; only a configure complains.
    EXPECT_EQ(port.closePort(), UsbTypes::Ok);
    log.clear();
    EXPECT_EQ(port.readDataImpl(buffer, sizeof(buffer), 10).status, UsbTypes::ReceiveError);
    EXPECT_EQ(port.writeDataImpl(buffer, sizeof(buffer)).status, UsbTypes::TransmitError);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_FALSE(port.serialPortConfig(UsbTypes::Baud115200));
    EXPECT_TRUE(log.contains("SerialPort: serialPortConfig called with unopened port", BaseLogger::ERROR));
}
