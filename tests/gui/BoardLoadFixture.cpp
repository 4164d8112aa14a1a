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
    gsize size = 0;
    const auto data = Gio::Resource::lookup_data_global(path);
    const auto* begin = static_cast<const std::uint8_t*>(data->get_data(size));
    return Bytes(begin, begin + size);
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
    const auto lines = captured->lines();
    for (std::size_t i = lines.size() > 80 ? lines.size() - 80 : 0; HasFailure() && i < lines.size(); ++i) {
        std::printf("  log: %s%s\n", lines[i].tag.c_str(), lines[i].message.c_str());
    }
    ui.reset();
    captured.reset();
    board.stop();
}

void BoardLoadTest::plugBoard() {
    board.stop();
    ASSERT_TRUE(board.start()) << board.lastError();
    ASSERT_TRUE(board.createLink(portName())) << board.lastError();
    extraPorts.reset();
    extraPorts = std::make_unique<testsupport::ScopedEnv>("MERID_EXTRA_PORTS", portName());
}

void BoardLoadTest::connect() {
    ui->get<Gtk::MenuItem>("ConnectImageMenuItem")->activate();
    auto* ports = ui->get<Gtk::ComboBoxText>("PortsListComboTextBox");
    // The machine's own ports may be listed beside the simulated one.
    ports->set_active_text(portName());
    ASSERT_EQ(ports->get_active_text(), portName());
    ui->get<Gtk::ComboBoxText>("BaudratesListComboTextBox")->set_active_text("921600");
    ui->get<Gtk::Button>("DialogConnectButton")->clicked();
    // Only a connect that worked hides the dialog.
    ASSERT_TRUE(
        ToolkitLoop::runUntil([&] { return !ui->get<Gtk::Dialog>("ConnectionDialog")->get_visible(); }));
    ASSERT_TRUE(windowSensitive());
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

std::string BoardLoadTest::writeFile(const std::string& name, const Bytes& bytes) {
    const std::string path = files.path() + "/" + name;
    EXPECT_TRUE(testsupport::writeFile(path, bytes)) << path;
    return path;
}

} // namespace guitest
