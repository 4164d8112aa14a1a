#include "SerialPortPosix.h"
#include "PortNames.h"
#include "PtyPair.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

using testsupport::CapturingLogger;

namespace {

class SerialPortPosixTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(pty.isValid());
        path = pty.slavePath();
    }

    void openAndConfigure() {
        ASSERT_EQ(port.openPort(path), UsbTypes::Ok);
        ASSERT_TRUE(port.serialPortConfig(UsbTypes::Baud115200));
        log.clear();
    }

    // Gathers `count` bytes from the port, as the callers above it do.
    std::string readFromPort(std::size_t count, int timeoutMs = 2000) {
        std::string text;
        unsigned char buffer[512];
        while (text.size() < count) {
            const auto result =
                port.readDataImpl(buffer, std::min(sizeof(buffer), count - text.size()), timeoutMs);
            if (result.status != UsbTypes::Ok) {
                break;
            }
            text.append(reinterpret_cast<char*>(buffer), result.bytes);
        }
        return text;
    }

    UsbTypes::IoResult writeToPort(const std::string& text) {
        std::string copy = text;
        return port.writeDataImpl(reinterpret_cast<unsigned char*>(copy.data()), copy.size());
    }

    CapturingLogger log;
    PtyPair pty;
    std::string path;
    SerialPortPosix port;
};

} // namespace

TEST_F(SerialPortPosixTest, OpensConfiguresAndClosesARealTerminal) {
    EXPECT_FALSE(port.isOpen());
    ASSERT_EQ(port.openPort(path), UsbTypes::Ok);
    EXPECT_TRUE(port.isOpen());
    EXPECT_TRUE(port.serialPortConfig(UsbTypes::Baud921600));
    EXPECT_TRUE(log.contains("SerialPort: Set baudrate: 921600", BaseLogger::INFO));
    port.verifyPortSettings();
    EXPECT_TRUE(
        log.contains("SerialPort: Current port settings: BaudRate=921600, ByteSize=8, Parity=0, StopBits=0",
                     BaseLogger::INFO));
    EXPECT_EQ(port.closePort(), UsbTypes::Ok);
    EXPECT_FALSE(port.isOpen());
    EXPECT_EQ(port.closePort(), UsbTypes::Ok) << "closing twice is fine";
    EXPECT_FALSE(log.contains("", BaseLogger::ERROR));
    // The line is free again for the next open.
    EXPECT_EQ(port.openPort(path), UsbTypes::Ok);
}

TEST_F(SerialPortPosixTest, UnknownSpeedIsLoggedAsAskedButFallsBackTo115200) {
    ASSERT_EQ(port.openPort(path), UsbTypes::Ok);
    port.speedConfig(static_cast<UsbTypes::Baudrate>(9600));
    EXPECT_TRUE(log.contains("SerialPort: Set baudrate: 9600", BaseLogger::INFO));
    EXPECT_EQ(port.configuredBaudrate(), UsbTypes::Baud115200);
    // And that is what the line gets.
    ASSERT_TRUE(port.serialPortConfig(static_cast<UsbTypes::Baudrate>(9600)));
    port.verifyPortSettings();
    EXPECT_TRUE(log.contains("Current port settings: BaudRate=115200,"));
}

TEST_F(SerialPortPosixTest, BytesGoBothWaysUnchanged) {
    openAndConfigure();
    // Every byte value, the control characters of a cooked terminal included.
    std::string all;
    for (int value = 0; value < 256; ++value) {
        all.push_back(static_cast<char>(value));
    }
    const auto sent = writeToPort(all);
    EXPECT_EQ(sent.status, UsbTypes::Ok);
    EXPECT_EQ(sent.bytes, all.size());
    EXPECT_EQ(pty.receive(all.size(), 2000), all);

    ASSERT_TRUE(pty.send(all));
    EXPECT_EQ(readFromPort(all.size()), all);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(SerialPortPosixTest, ReadTimesOutWhenNothingCameAndReturnsWhatIsThere) {
    openAndConfigure();
    unsigned char buffer[16];
    for (int timeout : {0, -5, 30}) {
        const auto result = port.readDataImpl(buffer, sizeof(buffer), timeout);
        EXPECT_EQ(result.status, UsbTypes::Timeout) << timeout;
        EXPECT_EQ(result.bytes, 0u) << timeout;
    }
    ASSERT_TRUE(pty.send("abc"));
    const auto result = port.readDataImpl(buffer, sizeof(buffer), 2000);
    ASSERT_EQ(result.status, UsbTypes::Ok);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer), result.bytes), "abc");
    EXPECT_TRUE(log.lines().empty()) << "a time-out is no failure";
}

TEST_F(SerialPortPosixTest, ShortReadLeavesTheRestQueued) {
    openAndConfigure();
    ASSERT_TRUE(pty.send("0123456789"));
    unsigned char buffer[16] = {};
    auto result = port.readDataImpl(buffer, 4, 2000);
    ASSERT_EQ(result.status, UsbTypes::Ok);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer), result.bytes), "0123");
    result = port.readDataImpl(buffer, sizeof(buffer), 0);
    ASSERT_EQ(result.status, UsbTypes::Ok);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer), result.bytes), "456789");
}

TEST_F(SerialPortPosixTest, UnpluggedLineFailsWritesAndReadsOnce) {
    openAndConfigure();
    pty.unplug();
    const auto written = writeToPort("ping");
    EXPECT_EQ(written.status, UsbTypes::TransmitError);
    EXPECT_TRUE(log.contains("SerialPort: write failed (err=5) on " + path + ": Input/output error",
                             BaseLogger::ERROR));

    unsigned char buffer[16];
    EXPECT_EQ(port.readDataImpl(buffer, sizeof(buffer), 100).status, UsbTypes::ReceiveError);
    EXPECT_EQ(port.readDataImpl(buffer, sizeof(buffer), 100).status, UsbTypes::ReceiveError);
    // A dead line is reported once, not on every poll of the listener.
    EXPECT_EQ(log.count("SerialPort: ioctl(FIONREAD) failed (err=5: Input/output error)"), 1u);
    EXPECT_EQ(port.closePort(), UsbTypes::Ok);
}

TEST_F(SerialPortPosixTest, MissingPathIsNotAvailable) {
    std::string missing = "/dev/merid-no-such-port";
    EXPECT_EQ(port.openPort(missing), UsbTypes::NotAvailable);
    EXPECT_TRUE(log.contains(
        "SerialPort: Error opening port /dev/merid-no-such-port (open err=2: No such file or directory)",
        BaseLogger::ERROR));
    EXPECT_FALSE(port.isOpen());
}

TEST_F(SerialPortPosixTest, FailedReopenLosesTheOldLine) {
    ASSERT_EQ(port.openPort(path), UsbTypes::Ok);
    std::string missing = "/dev/merid-no-such-port";
    EXPECT_EQ(port.openPort(missing), UsbTypes::NotAvailable);
    EXPECT_FALSE(port.isOpen());
    // The first terminal was released: another port can take it.
    SerialPortPosix other;
    EXPECT_EQ(other.openPort(path), UsbTypes::Ok);
}

TEST_F(SerialPortPosixTest, SecondOpenOfAHeldPortIsRefusedWithAHint) {
    ASSERT_EQ(port.openPort(path), UsbTypes::Ok);
    SerialPortPosix other;
    EXPECT_EQ(other.openPort(path), UsbTypes::NotAvailable);
    EXPECT_TRUE(log.contains("Error opening port " + path + " (flock err=11:", BaseLogger::ERROR));
    EXPECT_TRUE(log.contains("Port " + path + " is held by another program", BaseLogger::WARNING));
    EXPECT_TRUE(port.isOpen()) << "the holder keeps its line";
}

TEST_F(SerialPortPosixTest, FileThatIsNoTerminalIsRefused) {
    testsupport::TempDir dir;
    std::string file = dir.path() + "/not-a-port";
    std::ofstream(file) << "x";
    EXPECT_EQ(port.openPort(file), UsbTypes::NotAvailable);
    EXPECT_TRUE(log.contains("Error opening port " + file +
                                 " (ioctl(TIOCEXCL) err=25: Inappropriate ioctl for device)",
                             BaseLogger::ERROR));
    EXPECT_FALSE(port.isOpen());
}

TEST_F(SerialPortPosixTest, PermissionDeniedNamesTheOwningGroup) {
    // The check needs a user without root's rights: a child drops them.
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) {
            ::_exit(77);
        }
        if (::geteuid() == 0) {
            ::_exit(77);
        }
        CapturingLogger childLog;
        SerialPortPosix denied;
        const bool refused = denied.openPort(path) == UsbTypes::NotAvailable;
        const bool logged =
            childLog.contains("Error opening port " + path + " (open err=13: Permission denied)");
        const bool hinted = childLog.contains("add the user to the group '");
        ::_exit(refused && logged && hinted ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 77) {
        GTEST_SKIP() << "cannot drop to an unprivileged user here";
    }
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(SerialPortPosixTest, WriteThatTheLineCannotTakeIsPartial) {
    openAndConfigure();
    // Nobody reads the other end: the terminal's buffer fills and the
    // write limit runs out.
    std::string big(256 * 1024, 'x');
    const auto result = writeToPort(big);
    EXPECT_EQ(result.status, UsbTypes::Ok);
    EXPECT_GT(result.bytes, 0u);
    EXPECT_LT(result.bytes, big.size());
    EXPECT_TRUE(log.contains("SerialPort: Partial write: " + std::to_string(result.bytes) + " of " +
                                 std::to_string(big.size()) + " bytes",
                             BaseLogger::WARNING));
}

TEST_F(SerialPortPosixTest, ClosedPortRefusesQuietly) {
    unsigned char buffer[4] = {};
    EXPECT_EQ(port.readDataImpl(buffer, sizeof(buffer), 10).status, UsbTypes::ReceiveError);
    EXPECT_EQ(port.writeDataImpl(buffer, sizeof(buffer)).status, UsbTypes::TransmitError);
    port.verifyPortSettings();
    EXPECT_TRUE(log.lines().empty());
    EXPECT_FALSE(port.serialPortConfig(UsbTypes::Baud115200));
    EXPECT_TRUE(log.contains("SerialPort: serialPortConfig called with unopened port", BaseLogger::ERROR));
}

TEST_F(SerialPortPosixTest, MissingBufferIsRefusedWithALine) {
    openAndConfigure();
    EXPECT_EQ(port.readDataImpl(nullptr, 4, 0).status, UsbTypes::ReceiveError);
    EXPECT_EQ(port.writeDataImpl(nullptr, 4).status, UsbTypes::TransmitError);
    EXPECT_EQ(log.count("called without a buffer"), 2u);
    // An empty write moves nothing and succeeds.
    const auto result = port.writeDataImpl(nullptr, 0);
    EXPECT_EQ(result.status, UsbTypes::Ok);
    EXPECT_EQ(result.bytes, 0u);
}

TEST_F(SerialPortPosixTest, ExtraPortsAreListedInNameOrder) {
    PtyPair second;
    ASSERT_TRUE(second.isValid());
    testsupport::TempDir dir;
    // Links with numbers that string order would get wrong.
    const std::string port9 = dir.path() + "/merid-port9";
    const std::string port10 = dir.path() + "/merid-port10";
    std::filesystem::create_symlink(path, port9);
    std::filesystem::create_symlink(second.slavePath(), port10);
    const std::string missing = dir.path() + "/merid-port11";
    testsupport::ScopedEnv extra("MERID_EXTRA_PORTS", port10 + "::" + missing + ":" + port9 + ":" + port10 +
                                                          ":" + second.slavePath());

    const auto ports = port.getAvailablePorts();
    const auto at = [&](const std::string& name) { return std::find(ports.begin(), ports.end(), name); };
    ASSERT_NE(at(port9), ports.end());
    ASSERT_NE(at(port10), ports.end());
    ASSERT_NE(at(second.slavePath()), ports.end());
    EXPECT_LT(at(port9), at(port10));
    EXPECT_EQ(at(missing), ports.end()) << "only paths that exist";
    EXPECT_EQ(std::count(ports.begin(), ports.end(), port10), 1) << "each path once";
    EXPECT_TRUE(std::is_sorted(ports.begin(), ports.end(), PortNames::devicePortLess));
    // What the list offers, the port opens.
    std::string chosen = *at(port10);
    EXPECT_EQ(port.openPort(chosen), UsbTypes::Ok);
}

