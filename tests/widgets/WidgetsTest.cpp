// What the window cannot reach of the widgets: a port that misbehaves, the
// chooser's start folder, and a disk not as the program left it.
#include "ConnectionDialog.h"
#include "FakeSerialPort.h"
#include "OpenFileDialog.h"
#include "SelectFirmwareBox.h"
#include "TestSupport.h"
#include "WidgetTestSupport.h"

#include <filesystem>
#include <fstream>

using testsupport::CapturingLogger;
using testsupport::ToolkitLoop;

namespace {

namespace fs = std::filesystem;

class ConnectionDialogTest : public widgettest::DerivedWidgetTest<MeridKestalWidgets::ConnectionDialog> {
protected:
    ConnectionDialogTest() : DerivedWidgetTest("ConnectionDialog") {}

    // How many ports the list holds, and which one is chosen.
    std::pair<std::size_t, std::string> ports() {
        return {portList().get_model()->children().size(), portList().get_active_text()};
    }
    Gtk::ComboBoxText& portList() { return child<Gtk::ComboBoxText>("PortsListComboTextBox"); }

    void open() {
        widget->setUsbConnetctionPtr(usb);
        widget->setOwner(&owner);
        widget->show();
        owner.set_sensitive(false);
    }

    FakeSerialPort* port = new FakeSerialPort;
    UsbCommunication usb{std::unique_ptr<SerialPort>(port)};
    Gtk::Window owner;
};

struct OpenFileDialogTest : widgettest::DerivedWidgetTest<MeridKestalWidgets::OpenFileDialog> {
    OpenFileDialogTest() : DerivedWidgetTest("OpenFileDialog") {}
};

class SelectFirmwareBoxTest : public widgettest::DerivedWidgetTest<MeridKestalWidgets::SelectFirmwareBox> {
protected:
    SelectFirmwareBoxTest() : DerivedWidgetTest("SelectFirmwareBox") { fs::remove_all(root); }
    ~SelectFirmwareBoxTest() override { fs::remove_all(root); }

    // Off and on again: the images are looked for anew.
    void switchOn() {
        child<Gtk::Switch>("FirmwareSourceModeSwitch").set_active(false);
        child<Gtk::Switch>("FirmwareSourceModeSwitch").set_active(true);
    }
    bool uploadSensitive() { return child<Gtk::Widget>("UploadButton").get_sensitive(); }

    static char firstByte(const fs::path& path) { return static_cast<char>(std::ifstream(path).get()); }

    const fs::path root = fs::path(Glib::get_tmp_dir()) / "MeridKestalUtility";
    const fs::path esp32Image = root / "firmware" / "merid_firmware.bin";
    const fs::path stm32Image = root / "firmware" / "Tovik_2.13.319.f75a0c3_aes.bin";
};

} // namespace

// The last port is chosen after each reset, and none when there is none; a
// failed open keeps the dialog, and a press while connected reconnects.
TEST_F(ConnectionDialogTest, PortChoiceFailedOpenAndReconnect) {
    port->ports = {"/dev/ttyUSB0", "/dev/ttyUSB1", "/dev/ttyUSB2"};
    open();
    EXPECT_EQ(ports(), std::make_pair(std::size_t{3}, std::string("/dev/ttyUSB2")));
    child<Gtk::ComboBoxText>("BaudratesListComboTextBox").set_active_text("921600");
    port->ports.clear();
    child<Gtk::Button>("ResetSearchPortsButton").clicked();
    EXPECT_EQ(ports(), std::make_pair(std::size_t{1}, std::string("None")));
    CapturingLogger captured;
    child<Gtk::Button>("DialogConnectButton").clicked();
    EXPECT_TRUE(captured.contains("ConnectionDialog: No COM ports available/selected.", BaseLogger::ERROR));
    EXPECT_EQ(port->openCalls, 0);

    port->ports = {"/dev/ttyACM0", "/dev/ttyACM1"};
    port->openResult = UsbTypes::NotAvailable;
    child<Gtk::Button>("ResetSearchPortsButton").clicked();
    EXPECT_EQ(ports(), std::make_pair(std::size_t{2}, std::string("/dev/ttyACM1")));
    child<Gtk::Button>("DialogConnectButton").clicked();
    EXPECT_TRUE(captured.contains("ConnectionDialog: Connection failed", BaseLogger::ERROR));
    EXPECT_TRUE(widget->get_visible());
    EXPECT_FALSE(owner.get_sensitive());

    // The speed outlasts the resets.
    port->openResult = UsbTypes::Ok;
    child<Gtk::Button>("DialogConnectButton").clicked();
    EXPECT_EQ(port->openedName, "/dev/ttyACM1");
    EXPECT_EQ(port->configuredSpeed, UsbTypes::Baud921600);
    EXPECT_TRUE(owner.get_sensitive());
    open();
    portList().set_active_text("/dev/ttyACM0");
    child<Gtk::Button>("DialogConnectButton").clicked();
    EXPECT_EQ(port->closeCalls, 1);
    EXPECT_EQ(port->openedName, "/dev/ttyACM0");
    port->closeResult = UsbTypes::CloseError;
    EXPECT_EQ(widget->disconnect(), 1);
}

TEST_F(OpenFileDialogTest, StartsOnTheDesktop) {
    const std::string desktop = Glib::build_filename(Glib::get_home_dir(), "Desktop");
    if (!fs::is_directory(desktop)) {
        GTEST_SKIP() << "needs a home with a Desktop folder, as CTest gives it";
    }
    EXPECT_TRUE(ToolkitLoop::runUntil([&] { return widget->get_current_folder() == desktop; }))
        << widget->get_current_folder();
}

// One case only: CTest runs cases as parallel processes, and this one puts
// a file where the firmware folder goes.
TEST_F(SelectFirmwareBoxTest, AFailedWriteOutBlocksTheLoadAndOnlyTheEmbeddedBytesAreUsed) {
    std::ofstream(root) << "in the way";
    CapturingLogger captured;
    switchOn();
    EXPECT_TRUE(
        captured.contains("SelectFirmwareBox: Failed to write preinstalled firmware: ", BaseLogger::ERROR));
    EXPECT_FALSE(uploadSensitive());
    EXPECT_EQ(child<Gtk::Entry>("SelectFirmwareSearchEntryStm32").get_text(), ".");
    EXPECT_EQ(widget->getFilePath(), "");

    // The next move tries again. A file of the right size with other content
    // is replaced; a link planted in an image's place goes, and what it
    // points at is left alone; a folder others may write to is closed to them.
    fs::remove(root);
    fs::create_directories(root / "firmware");
    const fs::path planted = root.parent_path() / "planted.bin";
    std::ofstream(planted, std::ios::binary) << std::string(37312, 'x');
    fs::create_symlink(planted, stm32Image);
    std::ofstream(esp32Image, std::ios::binary) << std::string(1803184, 'x');
    fs::permissions(root, fs::perms::all);
    switchOn();
    EXPECT_TRUE(uploadSensitive());
    EXPECT_FALSE(fs::is_symlink(stm32Image));
    EXPECT_NE(firstByte(stm32Image), 'x');
    EXPECT_EQ(firstByte(planted), 'x');
    EXPECT_EQ(fs::file_size(esp32Image), 1803184u);
    EXPECT_NE(firstByte(esp32Image), 'x');
    EXPECT_EQ(fs::status(root).permissions() & (fs::perms::group_write | fs::perms::others_write),
              fs::perms::none);
    fs::remove(planted);

    // Once written in this run, an image removed behind the program's back is
    // not written again.
    fs::remove_all(root);
    switchOn();
    EXPECT_FALSE(fs::exists(stm32Image));
    EXPECT_EQ(widget->getFilePath(), stm32Image.string());
}
