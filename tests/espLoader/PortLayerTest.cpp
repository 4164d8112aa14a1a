#include "EspSerialFlasherPort.h"
#include "ScriptedSerialPort.h"
#include "TestSupport.h"
#include "UsbCommunication.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>

using testsupport::CapturingLogger;

namespace {

using Clock = std::chrono::steady_clock;

class PortLayer : public ::testing::Test {
protected:
    PortLayer() {
        auto owned = std::make_unique<ScriptedSerialPort>();
        port = owned.get();
        usb = std::make_unique<UsbCommunication>(std::move(owned));
        usb->portName = "scripted";
        EXPECT_EQ(usb->connect(UsbCommunication::MethodCom), UsbTypes::Ok);
        port->events.clear();
        meridEspSerialFlasherPortSetUsb(usb.get());
    }

    ScriptedSerialPort* port = nullptr;
    std::unique_ptr<UsbCommunication> usb;
};

long long msSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

} // namespace

TEST_F(PortLayer, WriteRefusesEmptyAndMissingInputAndAClosedLink) {
    const uint8_t byte = 1;
    EXPECT_EQ(loader_port_write(&byte, 0, 100), ESP_LOADER_ERROR_INVALID_PARAM);
    EXPECT_EQ(loader_port_write(nullptr, 1, 100), ESP_LOADER_ERROR_INVALID_PARAM);
    EXPECT_TRUE(port->written.empty());
    ASSERT_EQ(loader_port_write(&byte, 1, 100), ESP_LOADER_SUCCESS);
    EXPECT_EQ(port->written.size(), 1u);

    meridEspSerialFlasherPortSetUsb(nullptr);
    EXPECT_EQ(loader_port_write(&byte, 1, 100), ESP_LOADER_ERROR_INVALID_PARAM);
    uint8_t in = 0;
    EXPECT_EQ(loader_port_read(&in, 1, 100), ESP_LOADER_ERROR_INVALID_PARAM);

    meridEspSerialFlasherPortSetUsb(usb.get());
    ASSERT_EQ(usb->disconnect(), UsbTypes::Ok);
    EXPECT_EQ(loader_port_write(&byte, 1, 100), ESP_LOADER_ERROR_FAIL);
}

TEST_F(PortLayer, ReadGathersTricklingBytesWithinOneEndTime) {
    port->incoming = {{0x01}, {}, {0x02}, {}, {}, {0x03, 0x04, 0x05}};
    uint8_t data[4] = {};
    ASSERT_EQ(loader_port_read(data, 4, 1000), ESP_LOADER_SUCCESS);
    EXPECT_EQ(std::vector<uint8_t>(data, data + 4), (std::vector<uint8_t>{1, 2, 3, 4}));
    // Each read asks for what is still missing, with the time that is left.
    ASSERT_EQ(port->readTimeouts.size(), 6u);
    for (size_t i = 1; i < port->readTimeouts.size(); ++i) {
        EXPECT_LE(port->readTimeouts[i], port->readTimeouts[i - 1]);
    }
    EXPECT_LE(port->readTimeouts.front(), 1000);
    EXPECT_GT(port->readTimeouts.back(), 900);
}

TEST_F(PortLayer, ReadTimesOutAtItsEndTime) {
    uint8_t data[2] = {};
    port->incoming = {{0x01}};
    const auto start = Clock::now();
    EXPECT_EQ(loader_port_read(data, 2, 60), ESP_LOADER_ERROR_TIMEOUT);
    EXPECT_GE(msSince(start), 59);
    EXPECT_LT(msSince(start), 1000);
}

TEST_F(PortLayer, ZeroTimeoutAndPortErrors) {
    uint8_t data = 0;
    port->incoming = {{0x01}};
    EXPECT_EQ(loader_port_read(&data, 1, 0), ESP_LOADER_ERROR_TIMEOUT);
    EXPECT_EQ(port->readCalls, 0);

    // Port errors, and success with nothing, fail.
    port->incoming = {};
    port->readFailure = UsbTypes::ReceiveError;
    EXPECT_EQ(loader_port_read(&data, 1, 500), ESP_LOADER_ERROR_FAIL);
    EXPECT_EQ(port->readCalls, 1);

    port->readFailure = UsbTypes::Ok; // Ok with 0 bytes
    EXPECT_EQ(loader_port_read(&data, 1, 500), ESP_LOADER_ERROR_FAIL);
}

TEST_F(PortLayer, TimerCountsDownInWholeMilliseconds) {
    loader_port_start_timer(0);
    EXPECT_EQ(loader_port_remaining_time(), 0u);
    loader_port_start_timer(5000);
    const uint32_t left = loader_port_remaining_time();
    EXPECT_LE(left, 5000u);
    EXPECT_GT(left, 4000u);
    loader_port_start_timer(3000000000u);
    EXPECT_EQ(loader_port_remaining_time(), 0x7FFFFFFFu);
    loader_port_start_timer(20);
    loader_port_delay_ms(30);
    EXPECT_EQ(loader_port_remaining_time(), 0u);
}

TEST_F(PortLayer, EnterBootloaderSendsTheFrameAndReopensThePort) {
    const auto start = Clock::now();
    loader_port_enter_bootloader();
    EXPECT_GE(msSince(start), 450); // three waits of 150 ms
    ASSERT_EQ(port->written.size(), 1u);
    EXPECT_EQ(port->written[0], (std::vector<unsigned char>{0x7E, 0x08, 0x00, 0x02, 0x03, 0x02, 0x08, 0x01,
                                                            0x00, 0x00, 0x00, 0x1E}));
    EXPECT_EQ(port->events, (std::vector<std::string>{"write", "close", "open"}));
    EXPECT_TRUE(usb->isConnected());
}

TEST_F(PortLayer, EnterBootloaderGivesUpAfterTwentyFiveTries) {
    CapturingLogger log;
    port->openResult = UsbTypes::NotAvailable;
    loader_port_enter_bootloader();
    EXPECT_EQ(port->openCalls, 1 + 25);
    EXPECT_TRUE(log.contains("Failed to reconnect serial port after ESP prepare payload", BaseLogger::ERROR));
    EXPECT_FALSE(usb->isConnected());

    // Without a port it does nothing.
    port->events.clear();
    meridEspSerialFlasherPortSetUsb(nullptr);
    loader_port_enter_bootloader();
    EXPECT_TRUE(port->events.empty());
}

TEST_F(PortLayer, DebugPrintGoesToTheLog) {
    CapturingLogger log;
    loader_port_debug_print("Error: INVALID_CRC");
    loader_port_debug_print(nullptr);
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].message, "Error: INVALID_CRC");
    EXPECT_EQ(lines[0].type, BaseLogger::DEBUG);
    EXPECT_EQ(lines[0].tag, "EspSerialFlasherPort: ");
    EXPECT_EQ(loader_port_change_transmission_rate(921600), ESP_LOADER_SUCCESS);
}
