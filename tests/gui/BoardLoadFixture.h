#pragma once

#include "DeviceSimulator.h"
#include "EspRomSimulator.h"
#include "GuiTestSupport.h"
#include "TestSupport.h"

#include <gtest/gtest.h>
#include <gtkmm.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace guitest {

using Bytes = std::vector<std::uint8_t>;

// Bytes of a deterministic pseudo-random image.
Bytes makeImage(std::size_t size, std::uint32_t seed);
// The bytes of a bundled resource.
Bytes resourceBytes(const char* path);

// What the user saw of a load: every value the level bar showed, in order,
// and whether the window ever lost its sensitivity meanwhile.
struct LoadWatch {
    std::vector<double> barValues;
    bool everInsensitive = false;
    bool finished = false;
};

// The real window against a simulated board (one payload device at address
// 2 with an ESP32 behind it) on a pseudo-terminal listed in
// MERID_EXTRA_PORTS. Its operations act as a user would: menus, dialogs,
// buttons and the method list.
class BoardLoadTest : public ::testing::Test {
protected:
    static constexpr std::uint8_t kAddress = 2;
    static constexpr const char* kFlashedText = "Устройство прошито успешно";

    void SetUp() override;
    void TearDown() override;
    void dumpLog();

    // The board on a fresh pseudo-terminal, listed for the program.
    void startBoard();
    // A new pseudo-terminal after an unplug; the devices, their images and
    // the ESP32's flash stay.
    void replugBoard();

    // Connection > Connect, the board's port, 921600 baud, the connect button.
    void connect();
    void disconnect();
    // The search button; waits until the board and its fields are known.
    void search();
    // "STM32" or "ESP32" in the method list.
    void chooseMethod(const std::string& method);
    // The target's file button, answered in the file dialog.
    void pickFile(const std::string& path);
    void usePreinstalled(bool on);
    void pressUpload();

    // Pumps the window's events until `done` (or the time is up), watching
    // the bar and the window's sensitivity.
    bool watchUntil(const std::function<bool()>& done, LoadWatch& watch,
                    std::chrono::milliseconds timeout = std::chrono::seconds(60));
    // Until the label shows the success text and the window is sensitive.
    LoadWatch watchLoad(std::chrono::milliseconds timeout = std::chrono::seconds(60));

    double barValue();
    std::string statusText();
    bool windowSensitive();
    MainWindow& window() { return ui->window(); }

    std::string writeFile(const std::string& name, const Bytes& bytes);
    std::size_t framesWithCommand(std::uint8_t command);
    std::optional<Bytes> stm32Image(std::uint8_t fileIndex = 0) {
        return board.finishedImage(kAddress, fileIndex);
    }

    testsupport::TempDir files;
    DeviceSimulator board;
    std::shared_ptr<EspRomSimulator> chip;
    std::unique_ptr<testsupport::ScopedEnv> extraPorts;
    std::unique_ptr<WindowUnderTest> ui;
    // Every line the program logs while the test runs.
    std::unique_ptr<testsupport::CapturingLogger> captured;
};

} // namespace guitest
