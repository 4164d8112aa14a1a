// The window against a simulated board on a pseudo-terminal named in
// MERID_EXTRA_PORTS: connect, search, and the discovery that follows.
#include "DeviceSimulator.h"
#include "GuiTestSupport.h"
#include "TestSupport.h"

#include <gtest/gtest.h>
#include <gtkmm.h>

#include <memory>
#include <string>
#include <vector>

using guitest::pumpUntil;
using guitest::WindowUnderTest;
using testsupport::CapturingLogger;
using testsupport::ScopedEnv;

namespace {

std::vector<std::string> rowTexts(Gtk::ListBox& list) {
    std::vector<std::string> texts;
    for (Gtk::Widget* child : list.get_children()) {
        auto* row = dynamic_cast<Gtk::ListBoxRow*>(child);
        auto* label = row != nullptr ? dynamic_cast<Gtk::Label*>(row->get_child()) : nullptr;
        texts.push_back(label != nullptr ? std::string(label->get_text()) : std::string("<not a label>"));
    }
    return texts;
}

class WindowWithBoard : public ::testing::Test {
protected:
    void SetUp() override {
        guitest::application();
        board.addDevice(SimDevice::standard(7, "Kestal-7"));
        ASSERT_TRUE(board.start()) << board.lastError();
        extraPorts = std::make_unique<ScopedEnv>("MERID_EXTRA_PORTS", board.slavePath());
        ui = std::make_unique<WindowUnderTest>();
    }

    void TearDown() override {
        ui.reset();
        board.stop();
    }

    // Opens the dialog from the menu and connects to the board's port.
    void connect() {
        ui->get<Gtk::MenuItem>("ConnectImageMenuItem")->activate();
        auto* ports = ui->get<Gtk::ComboBoxText>("PortsListComboTextBox");
        // The machine's own ports may be listed beside the simulated one.
        ports->set_active_text(board.slavePath());
        ASSERT_EQ(ports->get_active_text(), board.slavePath());
        ui->get<Gtk::ComboBoxText>("BaudratesListComboTextBox")->set_active_text("921600");
        ui->get<Gtk::Button>("DialogConnectButton")->clicked();
        ASSERT_TRUE(pumpUntil([&] { return !ui->get<Gtk::Dialog>("ConnectionDialog")->get_visible(); }));
        ASSERT_TRUE(MainWindowTestAccess::usb(ui->window()).isConnected());
    }

    std::size_t knownFields(std::uint8_t address) {
        DeviceHandler* model = MainWindowTestAccess::deviceHandler(ui->window());
        std::lock_guard<std::recursive_mutex> lock(model->getMutex());
        App::Device* device = model->getDevice(address);
        return device != nullptr ? device->getFieldCount() : 0;
    }

    DeviceSimulator board;
    std::unique_ptr<ScopedEnv> extraPorts;
    std::unique_ptr<WindowUnderTest> ui;
};

} // namespace

TEST_F(WindowWithBoard, ConnectSucceedsAndGivesTheWindowBack) {
    CapturingLogger captured;
    connect();
    EXPECT_TRUE(captured.contains("ConnectionDialog: Connection success", BaseLogger::INFO));
    EXPECT_TRUE(captured.contains("UsbCommunication: Port " + board.slavePath() + " is opened!"));
    EXPECT_TRUE(ui->window().get_sensitive());

    // Disconnect from the menu closes the link.
    ui->get<Gtk::MenuItem>("DisconnectImageMenuItem")->activate();
    EXPECT_FALSE(MainWindowTestAccess::usb(ui->window()).isConnected());
    EXPECT_TRUE(captured.contains("MenuBar: USB disconnection success!", BaseLogger::DEBUG));
}

TEST_F(WindowWithBoard, SearchListsTheBoardAndItsFieldsArriveByThemselves) {
    connect();
    CapturingLogger captured;
    auto* list = ui->get<Gtk::ListBox>("ListDeviceListBox");
    ui->get<Gtk::Button>("SearchDeviceButton")->clicked();
    EXPECT_TRUE(captured.contains("DeviceListBox: Device search request transmitted successfully!",
                                  BaseLogger::INFO));

    // One pass, 200 ms after the press, on the window's thread.
    EXPECT_TRUE(pumpUntil([&] { return !list->get_children().empty(); }));
    EXPECT_EQ(rowTexts(*list), std::vector<std::string>{"Kestal-7"});

    // The discovery chain asks for the fields without anyone pressing more.
    const std::size_t expected = SimDevice::standard(7, "Kestal-7").getFields().size();
    EXPECT_TRUE(pumpUntil([&] { return knownFields(7) == expected; }, std::chrono::seconds(10)))
        << knownFields(7) << " of " << expected << " fields";
    EXPECT_EQ(MainWindowTestAccess::currentDeviceAddress(ui->window()), 7u);
    EXPECT_TRUE(captured.contains("MainWindow: Current device address was set", BaseLogger::DEBUG));
    EXPECT_TRUE(captured.contains("MainWindow: Trying get device field info", BaseLogger::INFO));

    // A second press clears the list and lists the board again.
    ui->get<Gtk::Button>("SearchDeviceButton")->clicked();
    EXPECT_TRUE(list->get_children().empty());
    EXPECT_TRUE(pumpUntil([&] { return !list->get_children().empty(); }));
    EXPECT_EQ(rowTexts(*list), std::vector<std::string>{"Kestal-7"});
}
