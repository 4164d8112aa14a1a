#include "EspSerialFlasherPort.h"
#include "FakeSerialPort.h"
#include "MeridEspSerialFlasher.h"
#include "TestSupport.h"
#include "UsbCommunication.h"

#include <gtest/gtest.h>

using testsupport::CapturingLogger;

namespace {

class PortLayer : public ::testing::Test {
protected:
    PortLayer() : usb(std::unique_ptr<SerialPort>(port = new FakeSerialPort)) {
        usb.portName = "fake";
        EXPECT_EQ(usb.connect(UsbCommunication::MethodCom), UsbTypes::Ok);
        meridEspSerialFlasherPortSetUsb(&usb);
    }

    FakeSerialPort* port;
    UsbCommunication usb;
};

} // namespace

TEST_F(PortLayer, FileWriteReadAndTimerOnGoodAndBadInput) {
    // A file that can't be read fails before the port is touched.
    testsupport::TempDir dir;
    const std::string missing = dir.path() + "/none.bin", empty = dir.path() + "/empty.bin";
    ASSERT_TRUE(testsupport::writeFile(empty, {}));
    std::string error;
    EXPECT_FALSE(MeridEspSerialFlasher::flashBinary(usb, missing, {0, 1024, false}, {}, &error));
    EXPECT_EQ(error, "Can't open file: " + missing);
    EXPECT_FALSE(MeridEspSerialFlasher::flashBinary(usb, empty, {0, 1024, false}, {}, &error));
    EXPECT_EQ(error, "File is empty or size is invalid: " + empty);
    EXPECT_TRUE(port->written.empty());

    uint8_t data[4] = {};
    EXPECT_EQ(loader_port_write(data, 0, 100), ESP_LOADER_ERROR_INVALID_PARAM);
    EXPECT_TRUE(port->written.empty());
    // Bytes trickling in are gathered until all are there.
    port->incoming = {"\x01", "\x02", "\x03\x04\x05"};
    ASSERT_EQ(loader_port_read(data, 4, 1000), ESP_LOADER_SUCCESS);
    EXPECT_EQ(std::string(data, data + 4), "\x01\x02\x03\x04");
    EXPECT_EQ(port->incoming.front(), "\x05");
    EXPECT_EQ(loader_port_read(data, 1, 0), ESP_LOADER_ERROR_TIMEOUT); // with the "\x05" waiting
    port->incoming = {""};
    EXPECT_EQ(loader_port_read(data, 1, 500), ESP_LOADER_ERROR_FAIL); // Ok with nothing
    EXPECT_EQ(loader_port_read(data, 1, 60), ESP_LOADER_ERROR_TIMEOUT);
    ASSERT_EQ(usb.disconnect(), UsbTypes::Ok);
    EXPECT_EQ(loader_port_write(data, 1, 100), ESP_LOADER_ERROR_FAIL);
    EXPECT_EQ(loader_port_read(data, 1, 100), ESP_LOADER_ERROR_FAIL);
    meridEspSerialFlasherPortSetUsb(nullptr);
    EXPECT_EQ(loader_port_write(data, 1, 100), ESP_LOADER_ERROR_INVALID_PARAM);
    EXPECT_EQ(loader_port_read(data, 1, 100), ESP_LOADER_ERROR_INVALID_PARAM);

    loader_port_start_timer(0);
    EXPECT_EQ(loader_port_remaining_time(), 0u);
    loader_port_start_timer(3000000000u);
    EXPECT_EQ(loader_port_remaining_time(), 0x7FFFFFFFu);
}

// Waits out the 25 reconnect attempts, about five seconds: the pauses are fixed.
TEST_F(PortLayer, EnterBootloaderSendsTheFrameAndGivesUpAfterTwentyFiveReopens) {
    CapturingLogger log;
    port->openResult = UsbTypes::NotAvailable;
    const int opens = port->openCalls;
    loader_port_enter_bootloader();
    EXPECT_EQ(port->written, std::string("\x7E\x08\x00\x02\x03\x02\x08\x01\x00\x00\x00\x1E", 12));
    EXPECT_EQ(port->openCalls - opens, 25);
    EXPECT_TRUE(log.contains("Failed to reconnect serial port after ESP prepare payload", BaseLogger::ERROR));

    loader_port_debug_print("Error: INVALID_CRC");
    EXPECT_TRUE(log.contains("Error: INVALID_CRC", BaseLogger::DEBUG));
}
