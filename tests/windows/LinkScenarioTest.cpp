// The program's whole serial exchange with the simulated board over a real
// port: the port listed, the board and its fields found by the sender and
// listener threads, the STM32 image moved, the ESP32 image flashed through
// the board's bridge. Built for Windows it runs under Wine on a COM port that
// the prefix maps to merid-devsim's pseudo-terminal, built natively on the
// pseudo-terminal itself. scripts/test-windows.sh runs both, each against its
// own board, and compares the images the boards kept with the files written
// here and the two journals of what the boards received with each other.
//
// MERID_LINK_PORT names the port, MERID_LINK_DIR the directory for the
// images (UTF-8, created when missing).
#include "LinkSession.h"
#include "MeridEspSerialFlasher.h"
#include "Platform.h"
#include "ReadCountingPort.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <iostream>

#ifdef _WIN32
#include "SerialPortWindows.h"
using PlatformPort = SerialPortWindows;
#else
#include "SerialPortPosix.h"
using PlatformPort = SerialPortPosix;
#endif

using namespace std::chrono_literals;

namespace {

std::string writeImage(const std::string& dir, const char* name, std::size_t size, std::uint32_t seed) {
    const std::string path = dir + "/" + name;
    EXPECT_TRUE(testsupport::writeFile(path, linkImage(size, seed))) << path;
    return path;
}

// The port the program would use, its reads counted.
std::unique_ptr<ReadCountingPort> countedPort() {
    return std::make_unique<ReadCountingPort>(std::make_unique<PlatformPort>());
}

} // namespace

TEST(LinkScenario, ListSearchLoadTheStm32AndFlashTheEsp32) {
    const std::string port = Platform::getEnv("MERID_LINK_PORT").value_or("");
    const std::string dir = Platform::getEnv("MERID_LINK_DIR").value_or("");
    ASSERT_FALSE(port.empty() || dir.empty())
        << "scripts/test-windows.sh sets MERID_LINK_PORT and MERID_LINK_DIR";
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::u8path(dir), ignored);
    testsupport::CapturingLogger log;
    {
        auto counted = countedPort();
        const ReadCountingPort& stm32Link = *counted;
        LinkSession session(port, std::move(counted));
        ASSERT_EQ(session.usb().toDetermineDevices(UsbCommunication::MethodCom), UsbTypes::Ok);
        const auto& ports = session.usb().availablePorts;
        EXPECT_NE(std::find(ports.begin(), ports.end(), port), ports.end()) << ports.size() << " ports";
        ASSERT_EQ(session.usb().connect(UsbCommunication::MethodCom), UsbTypes::Ok);
        ASSERT_TRUE(session.discover(20s));
        EXPECT_EQ(session.link.currentDevice(), 2);
        ASSERT_TRUE(session.loadStm32(writeImage(dir, "stm32.bin", 37312, 2463534242u), 180s));
        EXPECT_TRUE(
            testsupport::waitUntil([&] { return log.contains("Firmware transfer complete: 37312 bytes"); }));
        // An answer comes in one write of the board; a port that took the
        // first byte apart would show two reads for every answer.
        EXPECT_LT(stm32Link.readsPerAnswer(), 1.5);
    }

    // The upload button's ESP32 branch: the enter frame, the port closed and
    // opened again, the image in blocks of 1024 bytes at offset 0.
    UsbCommunication usb(countedPort());
    usb.portName = port;
    usb.baudrate = UsbTypes::Baud921600;
    ASSERT_EQ(usb.connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    std::vector<unsigned char> progress;
    std::string error;
    EXPECT_TRUE(MeridEspSerialFlasher::flashBinary(
        usb, writeImage(dir, "esp32.bin", 64 * 1024, 88172645u), {0, 1024, false},
        [&](unsigned char percent) { progress.push_back(percent); }, &error))
        << error;
    EXPECT_EQ(progress.size(), 64u);
    EXPECT_TRUE(usb.isConnected());
    EXPECT_EQ(log.count("UsbCommunication: Port " + port + " is opened!"), 3u);
    if (HasFailure()) {
        for (const auto& line : log.lines()) {
            std::cerr << "  log: " << line.tag << line.message << "\n";
        }
    }
}
