#include "BoardLoadFixture.h"

#include "EspRomBridge.h"

#include <cstdio>
#include <fstream>

namespace guitest {

namespace {
constexpr std::size_t kLinesShownOnFailure = 120;
}

Bytes makeImage(std::size_t size, std::uint32_t seed) {
    Bytes bytes(size);
    for (auto& byte : bytes) {
        seed = seed * 1664525u + 1013904223u;
        byte = static_cast<std::uint8_t>(seed >> 24);
    }
    return bytes;
}

Bytes resourceBytes(const char* path) {
    GBytes* data = g_resources_lookup_data(path, G_RESOURCE_LOOKUP_FLAGS_NONE, nullptr);
    if (data == nullptr) {
        ADD_FAILURE() << "no resource " << path;
        return {};
    }
    gsize size = 0;
    const auto* begin = static_cast<const std::uint8_t*>(g_bytes_get_data(data, &size));
    Bytes bytes(begin, begin + size);
    g_bytes_unref(data);
    return bytes;
}

void BoardLoadTest::SetUp() {
    application();
    board.addDevice(SimDevice::standard(kAddress, "MeridKestal STM32"));
    chip = std::make_shared<EspRomSimulator>();
    EspRomBridge::install(board, chip);
    startBoard();
    ui = std::make_unique<WindowUnderTest>();
    captured = std::make_unique<testsupport::CapturingLogger>();
}

void BoardLoadTest::TearDown() {
    if (HasFailure() && captured) {
        dumpLog();
    }
    ui.reset();
    captured.reset();
    board.stop();
}

// The end of what the program said, to tell why a test failed; all of it
// goes to a file beside the test's temporary files.
void BoardLoadTest::dumpLog() {
    const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
    const std::string path = std::string(g_get_tmp_dir()) + "/" + test->name() + ".log";
    std::ofstream file(path);
    const auto lines = captured->lines();
    for (const auto& line : lines) {
        file << line.tag << line.message << "\n";
    }
    const std::size_t from = lines.size() > kLinesShownOnFailure ? lines.size() - kLinesShownOnFailure : 0;
    for (std::size_t i = from; i < lines.size(); ++i) {
        std::printf("  log: %s%s\n", lines[i].tag.c_str(), lines[i].message.c_str());
    }
    std::printf("  the whole log: %s\n", path.c_str());
}

void BoardLoadTest::startBoard() {
    ASSERT_TRUE(board.start()) << board.lastError();
    extraPorts.reset();
    extraPorts = std::make_unique<testsupport::ScopedEnv>("MERID_EXTRA_PORTS", board.slavePath());
}

void BoardLoadTest::replugBoard() {
    board.stop();
    startBoard();
}

void BoardLoadTest::connect() {
    ui->get<Gtk::MenuItem>("ConnectImageMenuItem")->activate();
    auto* ports = ui->get<Gtk::ComboBoxText>("PortsListComboTextBox");
    // The machine's own ports may be listed beside the simulated one.
    ports->set_active_text(board.slavePath());
    ASSERT_EQ(ports->get_active_text(), board.slavePath());
    ui->get<Gtk::ComboBoxText>("BaudratesListComboTextBox")->set_active_text("921600");
    ui->get<Gtk::Button>("DialogConnectButton")->clicked();
    ASSERT_TRUE(pumpUntil([&] { return !ui->get<Gtk::Dialog>("ConnectionDialog")->get_visible(); }));
    ASSERT_TRUE(MainWindowTestAccess::usb(window()).isConnected());
    ASSERT_TRUE(windowSensitive());
}

void BoardLoadTest::disconnect() {
    ui->get<Gtk::MenuItem>("DisconnectImageMenuItem")->activate();
    ASSERT_FALSE(MainWindowTestAccess::usb(window()).isConnected());
}

void BoardLoadTest::search() {
    ui->get<Gtk::Button>("SearchDeviceButton")->clicked();
    // The board and all the fields it declares are known: the discovery the
    // press started has run its course.
    DeviceHandler* model = MainWindowTestAccess::deviceHandler(window());
    ASSERT_TRUE(pumpUntil(
        [&] {
            std::lock_guard<std::recursive_mutex> lock(model->getMutex());
            App::Device* device = model->getDevice(kAddress);
            return device != nullptr && device->getFieldCount() == device->getInfo()->fieldCount;
        },
        std::chrono::seconds(20)));
}

void BoardLoadTest::chooseMethod(const std::string& method) {
    auto* methods = ui->get<Gtk::ComboBoxText>("FirmwareMethodComboBoxText");
    methods->set_active_text(method);
    ASSERT_EQ(methods->get_active_text(), method);
    ASSERT_EQ(MainWindowTestAccess::firmwareTarget(window()), method == "ESP32" ? 1 : 0);
}

void BoardLoadTest::pickFile(const std::string& path) {
    const bool esp32 = MainWindowTestAccess::firmwareTarget(window()) == 1;
    auto* dialog = ui->get<Gtk::FileChooserDialog>("OpenFileDialog");
    // The dialog runs in a nested loop: it is answered from a timer set
    // before the click, once the chooser has taken the file.
    unsigned asked = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    auto answer = Glib::signal_timeout().connect(
        [&] {
            if (!dialog->get_visible()) {
                return true;
            }
            // The chooser loads its folder in the background and may drop a
            // name given too early: it is given again.
            if (asked++ % 10 == 0) {
                dialog->set_filename(path);
                return true;
            }
            if (dialog->get_filename() == path) {
                dialog->response(Gtk::RESPONSE_OK);
                return false;
            }
            if (std::chrono::steady_clock::now() > deadline) {
                dialog->response(Gtk::RESPONSE_CANCEL);
                return false;
            }
            return true;
        },
        20);
    ui->get<Gtk::Button>(esp32 ? "SelectFirmwareEsp32Button" : "SelectFirmwareStm32Button")->clicked();
    answer.disconnect();
    auto* entry =
        ui->get<Gtk::Entry>(esp32 ? "SelectFirmwareSearchEntryEsp32" : "SelectFirmwareSearchEntryStm32");
    ASSERT_EQ(std::string(entry->get_tooltip_text()), path);
}

void BoardLoadTest::usePreinstalled(bool on) {
    ui->get<Gtk::Switch>("FirmwareSourceModeSwitch")->set_active(on);
    pumpFor(std::chrono::milliseconds(10));
}

void BoardLoadTest::pressUpload() {
    auto* upload = ui->get<Gtk::Button>("UploadButton");
    ASSERT_TRUE(upload->is_sensitive());
    upload->clicked();
}

bool BoardLoadTest::watchUntil(const std::function<bool()>& done, LoadWatch& watch,
                               std::chrono::milliseconds timeout) {
    watch.finished = pumpUntil(
        [&] {
            const double value = barValue();
            if (watch.barValues.empty() || watch.barValues.back() != value) {
                watch.barValues.push_back(value);
            }
            watch.everInsensitive = watch.everInsensitive || !windowSensitive();
            return done();
        },
        timeout);
    return watch.finished;
}

LoadWatch BoardLoadTest::watchLoad(std::chrono::milliseconds timeout) {
    LoadWatch watch;
    watchUntil([&] { return statusText() == kFlashedText && windowSensitive(); }, watch, timeout);
    return watch;
}

double BoardLoadTest::barValue() {
    return ui->get<Gtk::LevelBar>("LoadStatusBar")->get_value();
}

std::string BoardLoadTest::statusText() {
    return ui->labelText("LoadStatusOverlayLabel");
}

bool BoardLoadTest::windowSensitive() {
    return window().get_sensitive();
}

std::string BoardLoadTest::writeFile(const std::string& name, const Bytes& bytes) {
    const std::string path = files.path() + "/" + name;
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return path;
}

std::size_t BoardLoadTest::framesWithCommand(std::uint8_t command) {
    std::size_t count = 0;
    for (const auto& entry : board.journal()) {
        // Sync, length, pack number, address, command.
        if (entry.kind == DeviceSimulator::JournalEntry::Frame && entry.raw.size() > 4 &&
            entry.raw[4] == command) {
            ++count;
        }
    }
    return count;
}

} // namespace guitest
