#pragma once

#include "DeviceSimulator.h"
#include "EspRomSimulator.h"
#include "GuiTestSupport.h"
#include "TestSupport.h"

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

// What the user saw of a load: the level bar's values in order, and whether
// the window ever lost its sensitivity meanwhile.
struct LoadWatch {
    std::vector<double> barValues;
    bool everInsensitive = false;
    bool finished = false;
};

// The real window against a simulated board (one payload device at address
// 2 with an ESP32 behind it) on a pseudo-terminal listed in
// MERID_EXTRA_PORTS, driven as a user drives it.
class BoardLoadTest : public ::testing::Test {
protected:
    static constexpr std::uint8_t kAddress = 2;
    static constexpr const char* kFlashedText = "Устройство прошито успешно";

    void SetUp() override;
    void TearDown() override;

    // The board on a fresh pseudo-terminal under the same port name; after
    // an unplug the devices, their images and the ESP32's flash stay.
    void plugBoard();
    std::string portName() const { return files.path() + "/ttyMerid0"; }
    // Connection > Connect, the board's port, 921600 baud, the connect button.
    void connect();
    // The file button the user can reach, answered in the file dialog.
    void pickFile(const std::string& path) {
        const bool esp32 = ui->get<Gtk::Widget>("SelectFirmwareEsp32Button")->get_sensitive();
        ui->answerFileDialog(esp32 ? "SelectFirmwareEsp32Button" : "SelectFirmwareStm32Button", path);
    }
    void pressUpload() { ui->get<Gtk::Button>("UploadButton")->clicked(); }

    // Runs the window's events until `done`, watching the bar and the
    // window's sensitivity; by default until the label shows the success
    // text and the window is sensitive.
    LoadWatch watch(std::function<bool()> done = {});

    double barValue() { return ui->get<Gtk::LevelBar>("LoadStatusBar")->get_value(); }
    std::string statusText() { return ui->text("LoadStatusOverlayLabel"); }
    bool windowSensitive() { return ui->window().get_sensitive(); }
    std::string writeFile(const std::string& name, const Bytes& bytes);

    testsupport::TempDir files;
    DeviceSimulator board;
    std::shared_ptr<EspRomSimulator> chip;
    std::unique_ptr<testsupport::ScopedEnv> extraPorts;
    std::unique_ptr<WindowUnderTest> ui;
    // Every line the program logs while the test runs.
    std::unique_ptr<testsupport::CapturingLogger> captured;
};

} // namespace guitest
