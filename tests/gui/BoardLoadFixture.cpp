#include "BoardLoadFixture.h"

#include "EspRomBridge.h"

#include <cstdio>

using testsupport::ToolkitLoop;

namespace guitest {

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
    plugBoard();
    ui = std::make_unique<WindowUnderTest>();
    captured = std::make_unique<testsupport::CapturingLogger>();
}

void BoardLoadTest::TearDown() {
    // The end of what the program said tells why a test failed.
    if (HasFailure()) {
        const auto lines = captured->lines();
        for (std::size_t i = lines.size() > 80 ? lines.size() - 80 : 0; i < lines.size(); ++i) {
            std::printf("  log: %s%s\n", lines[i].tag.c_str(), lines[i].message.c_str());
        }
    }
    ui.reset();
    captured.reset();
    board.stop();
}

void BoardLoadTest::plugBoard() {
    board.stop();
    ASSERT_TRUE(board.start()) << board.lastError();
    extraPorts.reset();
    extraPorts = std::make_unique<testsupport::ScopedEnv>("MERID_EXTRA_PORTS", board.slavePath());
}

void BoardLoadTest::connect() {
    ui->get<Gtk::MenuItem>("ConnectImageMenuItem")->activate();
    auto* ports = ui->get<Gtk::ComboBoxText>("PortsListComboTextBox");
    // The machine's own ports may be listed beside the simulated one.
    ports->set_active_text(board.slavePath());
    ASSERT_EQ(ports->get_active_text(), board.slavePath());
    ui->get<Gtk::ComboBoxText>("BaudratesListComboTextBox")->set_active_text("921600");
    ui->get<Gtk::Button>("DialogConnectButton")->clicked();
    // Only a connect that worked hides the dialog.
    ASSERT_TRUE(
        ToolkitLoop::runUntil([&] { return !ui->get<Gtk::Dialog>("ConnectionDialog")->get_visible(); }));
    ASSERT_TRUE(windowSensitive());
}

void BoardLoadTest::search() {
    const std::size_t fields = board.device(kAddress)->getFields().size();
    const std::string answer = "PayloadHandler: field info response (device " + std::to_string(kAddress);
    auto* list = ui->get<Gtk::ListBox>("ListDeviceListBox");
    ui->get<Gtk::Button>("SearchDeviceButton")->clicked();
    ASSERT_TRUE(ToolkitLoop::runUntil(
        [&] { return !list->get_children().empty() && captured->count(answer) >= fields; },
        std::chrono::seconds(20)));
}

LoadWatch BoardLoadTest::watch(std::function<bool()> done) {
    if (!done) {
        done = [&] { return statusText() == kFlashedText && windowSensitive(); };
    }
    LoadWatch seen;
    seen.finished = ToolkitLoop::runUntil(
        [&] {
            const double value = barValue();
            if (seen.barValues.empty() || seen.barValues.back() != value) {
                seen.barValues.push_back(value);
            }
            seen.everInsensitive = seen.everInsensitive || !windowSensitive();
            return done();
        },
        std::chrono::seconds(60));
    return seen;
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
