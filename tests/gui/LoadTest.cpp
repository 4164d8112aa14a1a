// Loads through the real window against the simulated board as the user sees
// them: the level bar, the window's sensitivity and the text that ends a load;
// each failure followed by a load that works.
#include "DeviceSimulator.h"
#include "EspRomBridge.h"
#include "EspRomSimulator.h"
#include "GlobalHandlerEvents.h"
#include "GuiTestSupport.h"
#include "TestSupport.h"

#include <algorithm>
#include <thread>

using guitest::WindowUnderTest;
using testsupport::Bytes;
using testsupport::ToolkitLoop;

namespace {

// Budgets of the waits for the end of a load: watchdogs only, far above what
// a load takes, so that a busy machine running the sanitizer build still
// finishes (a mebibyte and more of ESP32 image can take a minute there).
constexpr auto kLoadBudget = std::chrono::minutes(3);
constexpr auto kLineBudget = std::chrono::seconds(90);

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

    void SetUp() override {
        guitest::application();
        board.addDevice(SimDevice::standard(kAddress, "MeridKestal STM32"));
        chip = std::make_shared<EspRomSimulator>();
        EspRomBridge::install(board, chip);
        plugBoard();
        ui = std::make_unique<WindowUnderTest>();
        captured = std::make_unique<testsupport::CapturingLogger>();
    }

    void plugBoard() {
        board.stop();
        ASSERT_TRUE(board.start()) << board.lastError();
        ASSERT_TRUE(board.createLink(portName())) << board.lastError();
        extraPorts.reset();
        extraPorts = std::make_unique<testsupport::ScopedEnv>("MERID_EXTRA_PORTS", portName());
    }
    std::string portName() const { return files.path() + "/ttyMerid0"; }

    void connect() {
        ui->get<Gtk::MenuItem>("ConnectImageMenuItem")->activate();
        auto* ports = ui->get<Gtk::ComboBoxText>("PortsListComboTextBox");
        // The machine's own ports may be listed beside the simulated one.
        ports->set_active_text(portName());
        ASSERT_EQ(ports->get_active_text(), portName());
        ui->get<Gtk::ComboBoxText>("BaudratesListComboTextBox")->set_active_text("921600");
        ui->get<Gtk::Button>("DialogConnectButton")->clicked();
        // Only a connect that worked hides the dialog.
        ASSERT_TRUE(ToolkitLoop::runUntil(
            [&] { return !ui->get<Gtk::Dialog>("ConnectionDialog")->get_visible(); }, kLineBudget));
        ASSERT_TRUE(windowSensitive());
    }

    void pickFile(const Bytes& bytes) {
        const std::string path = files.path() + "/image.bin";
        ASSERT_TRUE(testsupport::writeFile(path, bytes));
        const bool esp32 = ui->get<Gtk::Widget>("SelectFirmwareEsp32Button")->get_sensitive();
        ui->answerFileDialog(esp32 ? "SelectFirmwareEsp32Button" : "SelectFirmwareStm32Button", path);
    }

    Bytes usePreinstalled(const char* name, std::size_t size) {
        gsize length = 0;
        const auto data =
            Gio::Resource::lookup_data_global(std::string("/meridkestalutility/firmware/") + name);
        const auto* begin = static_cast<const std::uint8_t*>(data->get_data(length));
        EXPECT_EQ(length, size);
        ui->get<Gtk::Switch>("FirmwareSourceModeSwitch")->set_active(true);
        return Bytes(begin, begin + length);
    }

    void pressUpload() { ui->get<Gtk::Button>("UploadButton")->clicked(); }

    LoadWatch watch(std::function<bool()> done = {}) {
        if (!done) {
            done = [&] { return statusText() == kFlashedText && windowSensitive(); };
        }
        LoadWatch seen;
        seen.finished = ToolkitLoop::runUntil(
            [&] {
                if (seen.barValues.empty() || seen.barValues.back() != barValue()) {
                    seen.barValues.push_back(barValue());
                }
                seen.everInsensitive = seen.everInsensitive || !windowSensitive();
                return done();
            },
            kLoadBudget);
        return seen;
    }

    bool logged(const std::string& text, std::chrono::milliseconds timeout = kLineBudget) {
        return ToolkitLoop::runUntil([&] { return captured->contains(text); }, timeout);
    }

    void expectFlashOf(const Bytes& bytes) {
        const LoadWatch seen = watch();
        ASSERT_TRUE(seen.finished) << "label: " << statusText() << ", bar: " << barValue();
        EXPECT_TRUE(seen.everInsensitive);
        EXPECT_EQ(barValue(), 100.0);
        EXPECT_TRUE(chip->flash(0, static_cast<std::uint32_t>(bytes.size())) == bytes);
    }

    void expectFlashFailure(const std::string& why) {
        ASSERT_TRUE(logged("MainWindow: ESP32 flashing failed: ", kLoadBudget));
        EXPECT_TRUE(captured->contains("MainWindow: ESP32 flashing failed: " + why, BaseLogger::ERROR))
            << why << "\nlogged: " << failureLine();
        EXPECT_TRUE(ToolkitLoop::runUntil([&] { return windowSensitive(); }, kLineBudget));
        EXPECT_NE(statusText(), kFlashedText);
        captured->clear();
    }

    std::string failureLine() {
        for (const auto& line : captured->lines()) {
            if (line.message.rfind("ESP32 flashing failed: ", 0) == 0) {
                return line.message;
            }
        }
        return {};
    }

    double barValue() { return ui->get<Gtk::LevelBar>("LoadStatusBar")->get_value(); }
    std::string statusText() { return ui->text("LoadStatusOverlayLabel"); }
    bool windowSensitive() { return ui->window().get_sensitive(); }

    testsupport::TempDir files;
    DeviceSimulator board;
    std::shared_ptr<EspRomSimulator> chip;
    std::unique_ptr<testsupport::ScopedEnv> extraPorts;
    std::unique_ptr<testsupport::CapturingLogger> captured;
    std::unique_ptr<WindowUnderTest> ui;
};

constexpr std::size_t kStm32ImageSize = 37312;

// The MD5 of `bytes`: the window flashes compressed, so the written region
// is the image alone.
std::string sentMd5(const Bytes& bytes) {
    return Glib::Checksum::compute_checksum(Glib::Checksum::CHECKSUM_MD5,
                                            std::string(bytes.begin(), bytes.end()));
}

class Stm32Load : public BoardLoadTest {
protected:
    // The window stays sensitive all along; the bytes count once the board answered the finish.
    void expectLoadOf(const Bytes& bytes) {
        const LoadWatch seen = watch();
        EXPECT_TRUE(seen.finished) << "label: " << statusText() << ", bar: " << barValue();
        EXPECT_FALSE(seen.everInsensitive);
        EXPECT_EQ(barValue(), 100.0);
        // The transfer's own erase step is the first value the bar shows.
        EXPECT_TRUE(std::is_sorted(seen.barValues.begin() + 1, seen.barValues.end()));
        EXPECT_GE(std::count_if(seen.barValues.begin(), seen.barValues.end(),
                                [](double value) { return value > 0 && value < 100; }),
                  3)
            << "the bar jumped instead of climbing";
        EXPECT_EQ(board.device(kAddress)->fieldValue("erase"), 0x6A1D42C7u);
        EXPECT_TRUE(ToolkitLoop::runUntil([&] { return board.finishedImage(kAddress, 0) == bytes; },
                                          std::chrono::seconds(30)));
    }

    std::size_t polls() {
        const auto journal = board.journal();
        return std::count_if(journal.begin(), journal.end(), [&](const DeviceSimulator::JournalEntry& entry) {
            return entry.kind == entry.Frame && entry.raw.size() > 4 && entry.raw[4] == 1;
        });
    }
};

} // namespace

// A board that never answers and a link closed during the wait each end the
// load with the bar at 0, and a press while disconnected does nothing. Over
// a working link a press without a file is told; the reboot that none of
// the window's own flows asks for sets the field and restores the link
// behind it, once for two requests; a refused finish leaves no success text;
// the preinstalled image then loads.
TEST_F(Stm32Load, LoadsThatStopShortAnEraseWithoutAFileARefusedFinishAndThePreinstalledImage) {
    board.setFaults(DeviceSimulator::Faults{.silent = true});
    connect();
    pressUpload();
    ASSERT_TRUE(logged("MainWindow: Timeout waiting for device discovery before STM32 erase"));
    EXPECT_TRUE(captured->contains("MainWindow: Timeout waiting for device discovery before STM32 erase",
                                   BaseLogger::ERROR));
    EXPECT_EQ(barValue(), 0.0);
    EXPECT_EQ(statusText(), "0%");
    EXPECT_TRUE(windowSensitive());

    // The link closed during the wait ends it at the next tick.
    pressUpload();
    ToolkitLoop::runFor(std::chrono::milliseconds(500));
    ui->get<Gtk::MenuItem>("DisconnectImageMenuItem")->activate();
    ASSERT_TRUE(logged("MainWindow: USB connection lost while waiting to start STM32 erase",
                       std::chrono::seconds(5)));
    EXPECT_TRUE(captured->contains("MainWindow: USB connection lost while waiting to start STM32 erase",
                                   BaseLogger::ERROR));
    // A press while disconnected does nothing at all; a reboot finds no device.
    const std::size_t before = polls();
    captured->clear();
    pressUpload();
    ToolkitLoop::runFor(std::chrono::milliseconds(1200));
    EXPECT_EQ(polls(), before);
    EXPECT_EQ(captured->count("MainWindow: "), 0u);
    ui->window().rebootDevice();
    EXPECT_TRUE(captured->contains("MainWindow: device didn't exist for reboot", BaseLogger::ERROR));

    // Answering again, with no search first: the load's poll finds the board
    // and its fields.
    board.setFaults(DeviceSimulator::Faults{});
    connect();
    pressUpload();
    ASSERT_TRUE(logged("MainWindow: File path is empty or did't exist"));
    EXPECT_EQ(barValue(), 0.0);

    // The search lists the board; the reboot needs its fields.
    captured->clear();
    ui->get<Gtk::Button>("SearchDeviceButton")->clicked();
    auto* list = ui->get<Gtk::ListBox>("ListDeviceListBox");
    const std::size_t fields = board.device(kAddress)->getFields().size();
    ASSERT_TRUE(ToolkitLoop::runUntil(
        [&] {
            return list->get_children().size() == 1 &&
                   captured->count("PayloadHandler: field info response (device 2") >= fields;
        },
        kLineBudget));
    const std::size_t searches = polls();
    ui->window().rebootDevice();
    ui->window().rebootDevice();
    EXPECT_TRUE(
        ToolkitLoop::runUntil([&] { return board.counters(kAddress)->rebootCommands >= 1; }, kLineBudget));
    EXPECT_TRUE(ToolkitLoop::runUntil([&] { return polls() > searches; }, kLineBudget));
    ToolkitLoop::runFor(std::chrono::milliseconds(300));
    EXPECT_EQ(captured->count("is opened!"), 1u);

    // The whole image goes, but the board refuses the finish step.
    pickFile(linkImage(kStm32ImageSize, 7));
    board.failNext(8, 5, 1, 1167);
    pressUpload();
    ASSERT_TRUE(logged("MainWindow: The device did not confirm the firmware"));
    ToolkitLoop::runFor(std::chrono::milliseconds(300));
    EXPECT_LT(barValue(), 100.0);
    EXPECT_EQ(statusText(), std::to_string(static_cast<int>(barValue())) + "%");

    const Bytes bytes = usePreinstalled("Tovik_2.13.319.f75a0c3_aes.bin", kStm32ImageSize);
    pressUpload();
    EXPECT_EQ(statusText(), "0%");
    expectLoadOf(bytes);
}

// An empty path starts nothing; a refused block, a flash that reads back
// other than it was sent and an unplug each give the window back without the
// success text; the preinstalled image then lands in the chip's flash, its
// digest confirmed.
TEST_F(BoardLoadTest, Esp32FailuresLeaveNoSuccessTextAndThePreinstalledImageLandsAfterThem) {
    connect();
    ui->get<Gtk::ComboBoxText>("FirmwareMethodComboBoxText")->set_active_text("ESP32");
    pressUpload();
    EXPECT_TRUE(windowSensitive());
    EXPECT_TRUE(captured->contains("MainWindow: File path is empty or did't exist", BaseLogger::WARNING));
    ToolkitLoop::runFor(std::chrono::milliseconds(500));
    EXPECT_EQ(chip->counters().syncs, 0u);

    // A block of the compressed stream refused at 40 % keeps the bar and the
    // text there (bytes that do not compress, so that the stream has three
    // blocks). The worker's wake-ups for the bar and for the end all wait
    // for the window here: the end is read once.
    chip->setFaults(EspRomSimulator::Faults{.failDataBlock = 2, .failDataCount = 3});
    pickFile(linkImage(2500, 17));
    pressUpload();
    ASSERT_TRUE(
        testsupport::waitUntil([&] { return chip->counters().refusals >= 3; }, std::chrono::seconds(30)));
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    expectFlashFailure("esp_loader_flash_deflate_write failed: 9");
    ToolkitLoop::runFor(std::chrono::milliseconds(200));
    EXPECT_EQ(failureLine(), "") << "the end was read twice";
    EXPECT_EQ(barValue(), 40.0);
    EXPECT_EQ(statusText(), "40%");

    // Every block taken, but the simulator inverts the byte in the middle of
    // the written region, the image alone: the bar at 100 %, no success text.
    chip->setFaults(EspRomSimulator::Faults{.corruptFlash = true});
    pickFile(Bytes(2500, 0x5A));
    pressUpload();
    Bytes corrupted(2500, 0x5A);
    corrupted[corrupted.size() / 2] ^= 0xFF;
    expectFlashFailure("flash MD5 mismatch: image MD5 " + sentMd5(Bytes(2500, 0x5A)) + ", flash MD5 " +
                       sentMd5(corrupted));
    EXPECT_EQ(statusText(), "100%");

    // A mebibyte that does not compress holds the window while it runs;
    // another start meanwhile is refused, and an unplug ends the flash.
    chip->setFaults(EspRomSimulator::Faults{});
    pickFile(linkImage(1u << 20, 21));
    pressUpload();
    EXPECT_FALSE(windowSensitive());
    EXPECT_EQ(statusText(), "0%");
    ASSERT_TRUE(watch([&] { return barValue() >= 10; }).finished);
    EXPECT_EQ(GlobalHandlerEvents::getInstance()._executeHandlerWithArgs<LoadStage>(UPLOAD_FIRMWARE, Erase),
              GlobalHandlerEvents::Failure);
    EXPECT_TRUE(captured->contains("MainWindow: ESP32 flashing already in progress", BaseLogger::WARNING));
    // The stream may all have gone before the unplug lands; the check of
    // the flash then fails instead.
    board.unplug();
    expectFlashFailure("");

    plugBoard();
    connect();
    const Bytes image = usePreinstalled("merid_firmware.bin", 1803184);
    pressUpload();
    expectFlashOf(image);
    EXPECT_TRUE(captured->contains("EspSerialFlasher: Flash MD5 matches the image: " + sentMd5(image),
                                   BaseLogger::INFO));
}
