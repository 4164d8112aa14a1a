#include "SerialPortWindows.h"
#include "Platform.h"
#include "TestSupport.h"
#include "UsbCommunication.h"

#include <gtest/gtest.h>

#include <string>

using testsupport::CapturingLogger;

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
