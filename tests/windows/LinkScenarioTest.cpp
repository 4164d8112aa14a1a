// The program's whole serial exchange with the simulated board over a real
// port: the port listed and opened, the board and its fields found by the
// sender and listener threads, the STM32 image moved byte for byte, the
// ESP32 image flashed through the board's bridge. Under Wine the port is a
// COM port that the prefix maps to merid-devsim's pseudo-terminal, natively
// the pseudo-terminal itself.
//
// scripts/test-windows.sh runs this file built for Windows and built
// natively, each against its own merid-devsim, then compares the images the
// board kept with the files written here, and the two journals of what the
// board received with each other.
//
// MERID_LINK_PORT names the port, MERID_LINK_DIR the directory for the
// images (UTF-8, created when missing).
#include "LinkSession.h"
#include "MeridEspSerialFlasher.h"
#include "Platform.h"
#include "PlatformPaths.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;

namespace {

constexpr std::size_t kStm32ImageSize = 37312;
constexpr std::size_t kEsp32ImageSize = 64 * 1024;

// The fields of the simulated board, by index.
const std::vector<std::string> kBoardFields = {"erase",        "reboot",           "enterBootloader",
                                               "serialNumber", "hardwareRevision", "uptime"};

// The same bytes in every build, so that the journals of two runs compare.
Bytes scenarioImage(std::size_t size, std::uint32_t seed) {
    Bytes bytes(size);
    for (auto& byte : bytes) {
        seed ^= seed << 13;
        seed ^= seed >> 17;
        seed ^= seed << 5;
        byte = static_cast<std::uint8_t>(seed);
    }
    return bytes;
}

class LinkScenario : public ::testing::Test {
protected:
    void SetUp() override {
        port = Platform::getEnv("MERID_LINK_PORT").value_or("");
        dir = Platform::getEnv("MERID_LINK_DIR").value_or("");
        ASSERT_FALSE(port.empty()) << "MERID_LINK_PORT names no port (scripts/test-windows.sh sets it)";
        ASSERT_FALSE(dir.empty()) << "MERID_LINK_DIR names no directory (scripts/test-windows.sh sets it)";
        std::error_code ignored;
        std::filesystem::create_directories(Platform::pathFromUtf8(dir), ignored);
    }

    void TearDown() override {
        if (HasFailure()) {
            for (const auto& line : log.lines()) {
                std::cerr << "  log: " << line.tag << line.message << "\n";
            }
        }
    }

    static bool eventually(const std::function<bool()>& done) {
        const auto end = std::chrono::steady_clock::now() + 5s;
        while (!done() && std::chrono::steady_clock::now() < end) {
            std::this_thread::sleep_for(2ms);
        }
        return done();
    }

    // Writes the image where the script looks for it; the UTF-8 path of it.
    std::string writeImage(const std::string& name, const Bytes& bytes) {
        const std::string path = Platform::pathToUtf8(Platform::pathFromUtf8(dir) / name);
        std::ofstream out(Platform::pathFromUtf8(path), std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        out.close();
        EXPECT_TRUE(out.good()) << "cannot write " << path;
        return path;
    }

    testsupport::CapturingLogger log;
    std::string port;
    std::string dir;
};

} // namespace

// The connection dialog's list: the board's port is among the ports found.
TEST_F(LinkScenario, TheBoardsPortIsListed) {
    UsbCommunication usb;
    ASSERT_EQ(usb.toDetermineDevices(UsbCommunication::MethodCom), UsbTypes::Ok);
    EXPECT_NE(std::find(usb.availablePorts.begin(), usb.availablePorts.end(), port), usb.availablePorts.end())
        << "the list has " << usb.availablePorts.size() << " ports";
}

TEST_F(LinkScenario, SearchFindsTheBoardAndItsFields) {
    LinkSession session(port);
    ASSERT_EQ(session.connect(), UsbTypes::Ok);
    EXPECT_TRUE(log.contains("UsbCommunication: Port " + port + " is opened!"));
    ASSERT_TRUE(session.discover(20s));
    EXPECT_EQ(session.deviceAddress(), 2);
    EXPECT_EQ(session.deviceName(), "MeridKestal STM32");
    EXPECT_EQ(session.fieldNames(), kBoardFields);
    EXPECT_TRUE(log.contains("device info response (device 2, MeridKestal STM32, 2.7) Pack #1"));
    EXPECT_FALSE(log.contains("Listener timeout waiting for response"));
}

TEST_F(LinkScenario, Stm32ImageGoesOverByteForByte) {
    const std::string path = writeImage("stm32.bin", scenarioImage(kStm32ImageSize, 2463534242u));
    LinkSession session(port);
    ASSERT_EQ(session.connect(), UsbTypes::Ok);
    ASSERT_TRUE(session.discover(20s));
    ASSERT_TRUE(session.loadStm32(path, 180s));
    // The line follows the last progress report.
    const std::string complete =
        "Firmware transfer complete: " + std::to_string(kStm32ImageSize) + " bytes in ";
    EXPECT_TRUE(eventually([&] { return log.contains(complete, BaseLogger::WARNING); }));
    // At least one report for each of the 1166 chunks of 32 bytes.
    EXPECT_GE(session.progressReports(), 1166);
    EXPECT_FALSE(log.contains("Listener timeout waiting for response"));
    EXPECT_FALSE(log.contains("Message with problem"));
}

// The ESP32 branch of the upload button: flashBinary switches the board to
// its ESP32 loader with the enter frame, closes and reopens the port, and
// writes the image in blocks of 1024 bytes at offset 0.
TEST_F(LinkScenario, Esp32ImageIsFlashedThroughTheBridge) {
    const Bytes image = scenarioImage(kEsp32ImageSize, 88172645u);
    const std::string path = writeImage("esp32.bin", image);
    UsbCommunication usb;
    usb.portName = port;
    usb.baudrate = UsbTypes::Baud921600;
    ASSERT_EQ(usb.connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    std::vector<unsigned char> progress;
    std::string error;
    const MeridEspSerialFlasher::FlashOptions options{0, 1024, false};
    ASSERT_TRUE(MeridEspSerialFlasher::flashBinary(
        usb, path, options, [&](unsigned char percent) { progress.push_back(percent); }, &error))
        << error;
    EXPECT_TRUE(error.empty());
    ASSERT_EQ(progress.size(), kEsp32ImageSize / 1024);
    EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
    EXPECT_EQ(progress.back(), 100);
    // Closed by the switch and opened again on the same name.
    EXPECT_EQ(log.count("UsbCommunication: Port " + port + " is opened!"), 2u);
    EXPECT_TRUE(usb.isConnected());
    EXPECT_FALSE(log.contains("Failed to reconnect serial port after ESP prepare payload"));
    EXPECT_EQ(usb.disconnect(), UsbTypes::Ok);
}
