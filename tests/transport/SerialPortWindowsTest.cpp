#include "SerialPortWindows.h"
#include "Platform.h"
#include "TestSupport.h"
#include "UsbCommunication.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <iostream>
#include <optional>
#include <string>
#include <thread>

using namespace std::chrono_literals;
using testsupport::CapturingLogger;

namespace {

using Clock = std::chrono::steady_clock;

// The port named in `variable`, opened and configured; none when the
// variable is unset (the test then skips).
std::optional<std::string> openNamedPort(SerialPortWindows& port, const char* variable) {
    const auto name = Platform::getEnv(variable);
    if (!name || name->empty()) {
        return std::nullopt;
    }
    std::string portName = *name;
    EXPECT_EQ(port.openPort(portName), UsbTypes::Ok);
    EXPECT_TRUE(port.serialPortConfig(UsbTypes::Baud115200));
    return portName;
}

double msSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

std::string received(const unsigned char* buffer, const UsbTypes::IoResult& result) {
    return std::string(reinterpret_cast<const char*>(buffer), static_cast<std::size_t>(result.bytes));
}

} // namespace

TEST(SerialPortWindows, MissingPortAndAnEchoingOne) {
    CapturingLogger log;
    UsbCommunication usb;
    usb.portName = "COM250";
    usb.baudrate = UsbTypes::Baud115200;
    EXPECT_EQ(usb.connect(UsbCommunication::MethodCom), UsbTypes::NotAvailable);
    EXPECT_TRUE(log.contains("SerialPort: Error opening port COM250 (CreateFileA err=", BaseLogger::ERROR));

    // The rest needs a COM port whose other end echoes every byte, named in
    // MERID_TEST_ECHO_PORT (under Wine: a port mapped to a pseudo-terminal).
    const auto name = Platform::getEnv("MERID_TEST_ECHO_PORT");
    if (!name || name->empty()) {
        GTEST_SKIP() << "no echo port named in MERID_TEST_ECHO_PORT";
    }
    SerialPortWindows port;
    std::string portName = *name;
    ASSERT_EQ(port.openPort(portName), UsbTypes::Ok);
    ASSERT_TRUE(port.serialPortConfig(static_cast<UsbTypes::Baudrate>(9600)));
    EXPECT_TRUE(log.contains("SerialPort: Set baudrate: 9600", BaseLogger::INFO));
    port.verifyPortSettings();
    EXPECT_TRUE(log.contains("Current port settings: BaudRate=115200, ByteSize=8, Parity=0, StopBits=0"));

    const char raw[] = "ping\r\n\x11\x13\x00 12345";
    std::string text(raw, sizeof(raw) - 1);
    const auto sent = port.writeDataImpl(reinterpret_cast<unsigned char*>(text.data()), text.size());
    EXPECT_EQ(sent.status, UsbTypes::Ok);
    EXPECT_EQ(sent.bytes, text.size());
    std::string echoed;
    unsigned char buffer[64];
    for (auto got = port.readDataImpl(buffer, 4, 2000); got.status == UsbTypes::Ok;
         got = port.readDataImpl(buffer, sizeof(buffer), 2000)) {
        echoed.append(reinterpret_cast<char*>(buffer), got.bytes);
        if (echoed.size() >= text.size()) {
            break;
        }
    }
    EXPECT_EQ(echoed, text);
    EXPECT_EQ(port.readDataImpl(buffer, sizeof(buffer), 0).status, UsbTypes::Timeout);
    EXPECT_EQ(port.closePort(), UsbTypes::Ok);
    EXPECT_EQ(port.closePort(), UsbTypes::Ok);
    log.clear();
    EXPECT_EQ(port.readDataImpl(buffer, sizeof(buffer), 0).status, UsbTypes::ReceiveError);
    EXPECT_EQ(port.writeDataImpl(buffer, sizeof(buffer)).status, UsbTypes::TransmitError);
    EXPECT_TRUE(log.lines().empty()) << "a closed port refuses without a word";
}

// On a synchronous handle the system would queue the write behind the read,
// which waits for the echo of that very write: the read would end with its
// time-out and no bytes. Here the write goes out while the read waits, and
// the whole echo comes back in that one read. A close then ends a read that
// waits, long before its time-out.
TEST(SerialPortWindows, AWriteGoesOutWhileAReadWaitsAndACloseEndsTheWait) {
    CapturingLogger log;
    SerialPortWindows port;
    if (!openNamedPort(port, "MERID_TEST_ECHO_PORT")) {
        GTEST_SKIP() << "no echo port named in MERID_TEST_ECHO_PORT";
    }
    unsigned char buffer[64];
    auto reading =
        std::async(std::launch::async, [&] { return port.readDataImpl(buffer, sizeof(buffer), 20000); });
    std::this_thread::sleep_for(200ms); // the read is waiting by now
    std::string text = "request";
    const auto sent = port.writeDataImpl(reinterpret_cast<unsigned char*>(text.data()), text.size());
    EXPECT_EQ(sent.status, UsbTypes::Ok);
    EXPECT_EQ(sent.bytes, text.size());
    const auto answer = reading.get();
    ASSERT_EQ(answer.status, UsbTypes::Ok);
    EXPECT_EQ(received(buffer, answer), text) << "the echo in one read";

    reading =
        std::async(std::launch::async, [&] { return port.readDataImpl(buffer, sizeof(buffer), 20000); });
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(port.closePort(), UsbTypes::Ok);
    const auto ended = reading.get();
    EXPECT_EQ(ended.status, UsbTypes::ReceiveError) << "woken by the close, not ended by its time-out";
    EXPECT_FALSE(log.contains("", BaseLogger::ERROR));
}

// A line whose other end goes away: the first failing read says so in one
// ERROR line; the reads after it fail quietly, each held for its time-out
// rather than returning at once to a caller that reads in a loop.
TEST(SerialPortWindows, ALineThatHangsUpIsReportedOnceAndDoesNotSpin) {
    CapturingLogger log;
    SerialPortWindows port;
    if (!openNamedPort(port, "MERID_TEST_HANGUP_PORT")) {
        GTEST_SKIP() << "no port that hangs up named in MERID_TEST_HANGUP_PORT";
    }
    unsigned char byte = 0x55;
    ASSERT_EQ(port.writeDataImpl(&byte, 1).status, UsbTypes::Ok); // the other end hangs up on it
    UsbTypes::IoResult result;
    for (int i = 0; i < 50 && result.status != UsbTypes::ReceiveError; ++i) {
        result = port.readDataImpl(&byte, 1, 100);
    }
    ASSERT_EQ(result.status, UsbTypes::ReceiveError);
    constexpr int kReads = 5;
    constexpr int kTimeoutMs = 200;
    const auto start = Clock::now();
    for (int i = 0; i < kReads; ++i) {
        EXPECT_EQ(port.readDataImpl(&byte, 1, kTimeoutMs).status, UsbTypes::ReceiveError);
    }
    EXPECT_GE(msSince(start), kReads * kTimeoutMs * 0.9) << "each failing read waits out its time-out";
    EXPECT_EQ(log.count("SerialPort: ", BaseLogger::ERROR), 1u);
    if (HasFailure()) {
        for (const auto& line : log.lines()) {
            std::cerr << "  log: " << line.tag << line.message << "\n";
        }
    }
    EXPECT_EQ(port.closePort(), UsbTypes::Ok);
}
