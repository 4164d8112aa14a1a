// The window against merid-devsim over a real port, driven as a user drives
// it: the connection dialog, the search, an STM32 load, an ESP32 flash that
// the board refuses and one that works. Built for Windows it runs under Wine
// from the unpacked zip on a COM port that the prefix maps to the board's
// pseudo-terminal; built natively it runs on the pseudo-terminal itself.
// scripts/test-windows.sh starts each board with refusals of ESP32 blocks 3
// to 5 on its command line, compares what the boards kept with the files
// written here and the two journals from the erase frame on.
//
// MERID_WINDOW_PORT names the port, MERID_WINDOW_DIR the directory for the
// images (UTF-8, created when missing).
#include "GuiTestSupport.h"
#include "LinkSession.h"
#include "Platform.h"
#include "PlatformPaths.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <iostream>

using guitest::WindowUnderTest;
using testsupport::ToolkitLoop;
using namespace std::chrono_literals;

namespace {

constexpr const char* kFlashedText = "Устройство прошито успешно";

class WindowScenario : public ::testing::Test {
protected:
    void SetUp() override {
        port = Platform::getEnv("MERID_WINDOW_PORT").value_or("");
        dir = Platform::getEnv("MERID_WINDOW_DIR").value_or("");
        ASSERT_FALSE(port.empty() || dir.empty())
            << "scripts/test-windows.sh sets MERID_WINDOW_PORT and MERID_WINDOW_DIR";
        std::error_code ignored;
        std::filesystem::create_directories(Platform::pathFromUtf8(dir), ignored);
        guitest::application();
        ui = std::make_unique<WindowUnderTest>();
    }

    void TearDown() override {
        if (HasFailure()) {
            for (const auto& line : log.lines()) {
                std::cerr << "  log: " << line.tag << line.message << "\n";
            }
        }
        ui.reset();
    }

    // Connection > Connect, the board's port, 921600 baud, the connect button;
    // only a connect that worked hides the dialog.
    void connect() {
        ui->get<Gtk::MenuItem>("ConnectImageMenuItem")->activate();
        auto* ports = ui->get<Gtk::ComboBoxText>("PortsListComboTextBox");
        ports->set_active_text(port);
        ASSERT_EQ(ports->get_active_text(), port) << "the dialog does not list the board's port";
        ui->get<Gtk::ComboBoxText>("BaudratesListComboTextBox")->set_active_text("921600");
        ui->get<Gtk::Button>("DialogConnectButton")->clicked();
        ASSERT_TRUE(
            ToolkitLoop::runUntil([&] { return !ui->get<Gtk::Dialog>("ConnectionDialog")->get_visible(); }));
    }

    // An image written to the directory and chosen with the file button.
    void pickImage(const char* button, const char* name, std::size_t size, std::uint32_t seed) {
        const std::string path = Platform::pathToUtf8(Platform::pathFromUtf8(dir) / name);
        ASSERT_TRUE(testsupport::writeFile(path, linkImage(size, seed))) << path;
        ui->answerFileDialog(button, path);
    }

    // Presses upload and waits for the window to be given back, with the
    // success text or after the failure the program logged.
    bool upload(const std::string& failure = {}) {
        ui->get<Gtk::Button>("UploadButton")->clicked();
        return ToolkitLoop::runUntil(
            [&] {
                const bool ended = failure.empty() ? statusText() == kFlashedText : log.contains(failure);
                return ended && ui->window().get_sensitive();
            },
            180s);
    }

    std::string statusText() { return ui->text("LoadStatusOverlayLabel"); }

    std::string port;
    std::string dir;
    testsupport::CapturingLogger log;
    std::unique_ptr<WindowUnderTest> ui;
};

} // namespace

TEST_F(WindowScenario, ConnectSearchLoadTheStm32AndFlashTheEsp32AfterARefusal) {
    connect();
    ui->get<Gtk::Button>("SearchDeviceButton")->clicked();
    auto* list = ui->get<Gtk::ListBox>("ListDeviceListBox");
    ASSERT_TRUE(ToolkitLoop::runUntil([&] { return list->get_children().size() == 1; }, 20s));

    pickImage("SelectFirmwareStm32Button", "stm32.bin", 37312, 2463534242u);
    ASSERT_TRUE(upload()) << "STM32 load, label: " << statusText();

    ui->get<Gtk::ComboBoxText>("FirmwareMethodComboBoxText")->set_active_text("ESP32");
    pickImage("SelectFirmwareEsp32Button", "esp32.bin", 64 * 1024, 88172645u);
    ASSERT_TRUE(upload("MainWindow: ESP32 flashing failed: esp_loader_flash_deflate_write failed: "))
        << "label: " << statusText();
    EXPECT_NE(statusText(), kFlashedText);
    ASSERT_TRUE(upload()) << "ESP32 flash after the refusal, label: " << statusText();
}
