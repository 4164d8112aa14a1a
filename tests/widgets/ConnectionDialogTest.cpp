// The connection dialog over a link whose port a test controls.
#include "ConnectionDialog.h"
#include "FakeSerialPort.h"
#include "TestSupport.h"
#include "WidgetTestSupport.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

using MeridKestalWidgets::ConnectionDialog;
using testsupport::CapturingLogger;
using widgettest::KeyRecorder;
using widgettest::loadInterface;

namespace {

class ConnectionDialogTest : public ::testing::Test {
protected:
    void SetUp() override {
        auto fake = std::make_unique<FakeSerialPort>();
        port = fake.get();
        usb = std::make_unique<UsbCommunication>(std::move(fake));
        builder = loadInterface();
        guard = std::make_unique<widgettest::ToplevelsGuard>(builder);
        ConnectionDialog* made = nullptr;
        builder->get_widget_derived("ConnectionDialog", made);
        dialog.reset(made);
        ASSERT_NE(dialog, nullptr);
        owner = std::make_unique<Gtk::Window>();
    }

    void TearDown() override {
        dialog.reset();
        guard.reset();
    }

    template <typename T> T& child(const char* id) {
        return *dynamic_cast<T*>(builder->get_object(id).get());
    }

    std::vector<std::string> entries(const char* id) {
        std::vector<std::string> texts;
        for (const auto& row : child<Gtk::ComboBoxText>(id).get_model()->children()) {
            Glib::ustring text;
            row.get_value(0, text);
            texts.push_back(text);
        }
        return texts;
    }

    // Opens the dialog as the window does.
    void open() {
        dialog->setUsbConnetctionPtr(*usb);
        dialog->setOwner(owner.get());
        dialog->show();
        owner->set_sensitive(false);
    }

    KeyRecorder keys;
    FakeSerialPort* port = nullptr;
    std::unique_ptr<UsbCommunication> usb;
    Glib::RefPtr<Gtk::Builder> builder;
    std::unique_ptr<widgettest::ToplevelsGuard> guard;
    std::unique_ptr<ConnectionDialog> dialog;
    std::unique_ptr<Gtk::Window> owner;
};

} // namespace

TEST_F(ConnectionDialogTest, ControlsAreFilledOnceWithTheirDefaults) {
    EXPECT_EQ(dialog->get_title(), "Connection");
    EXPECT_EQ(entries("BaudratesListComboTextBox"),
              (std::vector<std::string>{"57600", "115200", "230400", "460800", "500000", "576000", "921600",
                                        "1000000", "2000000"}));
    EXPECT_EQ(child<Gtk::ComboBoxText>("BaudratesListComboTextBox").get_active_text(), "115200");
    // The hidden type and protocol controls, English whatever the language.
    EXPECT_EQ(entries("TypeConnectionComboBoxText"), (std::vector<std::string>{"TCP", "Serial"}));
    EXPECT_EQ(child<Gtk::ComboBoxText>("TypeConnectionComboBoxText").get_active_text(), "Serial");
    EXPECT_EQ(entries("ProtocolTypeComboBoxText"), std::vector<std::string>{"Payload"});
    // No link yet: the port list is left alone.
    EXPECT_TRUE(entries("PortsListComboTextBox").empty());
    EXPECT_EQ(child<Gtk::Label>("PortLabel").get_label(), "Порт");
    dialog->redefinitionLabeles();
    EXPECT_EQ(child<Gtk::Label>("PortLabel").get_label(), "Port");
    EXPECT_EQ(child<Gtk::Button>("DialogConnectButton").get_label(), "Connect");
    EXPECT_EQ(dialog->get_title(), "Connection");
    EXPECT_EQ(entries("TypeConnectionComboBoxText"), (std::vector<std::string>{"TCP", "Serial"}));
}

TEST_F(ConnectionDialogTest, TheLastPortIsChosenAfterEachReset) {
    port->ports = {"/dev/ttyUSB0", "/dev/ttyUSB1", "/dev/ttyUSB2"};
    open();
    EXPECT_EQ(entries("PortsListComboTextBox"), port->ports);
    EXPECT_EQ(child<Gtk::ComboBoxText>("PortsListComboTextBox").get_active_text(), "/dev/ttyUSB2");
    child<Gtk::ComboBoxText>("PortsListComboTextBox").set_active(0);
    child<Gtk::ComboBoxText>("BaudratesListComboTextBox").set_active_text("921600");

    port->ports = {"/dev/ttyACM0", "/dev/ttyACM1"};
    child<Gtk::Button>("ResetSearchPortsButton").clicked();
    EXPECT_EQ(entries("PortsListComboTextBox"), port->ports);
    EXPECT_EQ(child<Gtk::ComboBoxText>("PortsListComboTextBox").get_active_text(), "/dev/ttyACM1");
    // The speeds are not touched by a reset.
    EXPECT_EQ(entries("BaudratesListComboTextBox").size(), 9u);
    EXPECT_EQ(child<Gtk::ComboBoxText>("BaudratesListComboTextBox").get_active_text(), "921600");

    port->ports.clear();
    CapturingLogger captured;
    child<Gtk::Button>("ResetSearchPortsButton").clicked();
    EXPECT_EQ(entries("PortsListComboTextBox"), std::vector<std::string>{"None"});
    EXPECT_TRUE(captured.contains("UsbCommunication: Device COM list is empty", BaseLogger::ERROR));
}

TEST_F(ConnectionDialogTest, ConnectUsesTheChoiceAndAPressWhileConnectedReconnects) {
    port->ports = {"/dev/ttyUSB0", "/dev/ttyUSB1"};
    open();
    child<Gtk::ComboBoxText>("BaudratesListComboTextBox").set_active_text("921600");
    CapturingLogger captured;
    child<Gtk::Button>("DialogConnectButton").clicked();
    EXPECT_EQ(port->openCalls, 1);
    EXPECT_EQ(port->openedName, "/dev/ttyUSB1");
    EXPECT_EQ(port->configuredSpeed, UsbTypes::Baud921600);
    EXPECT_TRUE(captured.contains("ConnectionDialog: Connection success", BaseLogger::INFO));
    EXPECT_FALSE(dialog->get_visible());
    EXPECT_TRUE(owner->get_sensitive());
    EXPECT_EQ(dialog->connect(), 0); // already connected: nothing to do

    open();
    child<Gtk::ComboBoxText>("PortsListComboTextBox").set_active_text("/dev/ttyUSB0");
    child<Gtk::Button>("DialogConnectButton").clicked();
    EXPECT_EQ(port->closeCalls, 1);
    EXPECT_EQ(port->openCalls, 2);
    EXPECT_EQ(port->openedName, "/dev/ttyUSB0");
    EXPECT_TRUE(usb->isConnected());
}

TEST_F(ConnectionDialogTest, AFailedConnectKeepsTheDialogOpen) {
    port->ports = {"/dev/ttyUSB0"};
    port->openResult = UsbTypes::NotAvailable;
    open();
    CapturingLogger captured;
    child<Gtk::Button>("DialogConnectButton").clicked();
    EXPECT_TRUE(captured.contains(
        "ConnectionDialog: Connection failed (see SerialPort/UsbCommunication logs for details)",
        BaseLogger::ERROR));
    EXPECT_TRUE(dialog->get_visible());
    EXPECT_FALSE(owner->get_sensitive());
    EXPECT_FALSE(usb->isConnected());
}

TEST_F(ConnectionDialogTest, AnUnreadableSpeedFallsBackTo115200) {
    port->ports = {"/dev/ttyUSB0"};
    open();
    child<Gtk::ComboBoxText>("BaudratesListComboTextBox").append("fast");
    child<Gtk::ComboBoxText>("BaudratesListComboTextBox").set_active_text("fast");
    EXPECT_EQ(dialog->connect(), 0);
    EXPECT_EQ(port->configuredSpeed, UsbTypes::Baud115200);
}

TEST_F(ConnectionDialogTest, DisconnectAnswers) {
    // No link known yet.
    EXPECT_EQ(dialog->disconnect(), 1);
    EXPECT_EQ(dialog->connect(), 1);
    port->ports = {"/dev/ttyUSB0"};
    open();
    // Not connected: nothing to do is success, and the port is not touched.
    EXPECT_EQ(dialog->disconnect(), 0);
    EXPECT_EQ(port->closeCalls, 0);
    ASSERT_EQ(dialog->connect(), 0);
    port->closeResult = UsbTypes::CloseError;
    EXPECT_EQ(dialog->disconnect(), 1);
    port->closeResult = UsbTypes::Ok;
    ASSERT_EQ(dialog->connect(), 0);
    EXPECT_EQ(dialog->disconnect(), 0);
    EXPECT_FALSE(usb->isConnected());
}

TEST_F(ConnectionDialogTest, ALinkThatDroppedByItselfIsOpenedAgain) {
    port->ports = {"/dev/ttyUSB0"};
    open();
    child<Gtk::Button>("DialogConnectButton").clicked();
    ASSERT_TRUE(usb->isConnected());
    // The cable is pulled: the next write fails and the link drops.
    port->writeStatus = UsbTypes::TransmitError;
    unsigned char byte = 0x7E;
    usb->write(&byte, 1);
    ASSERT_FALSE(usb->isConnected());

    port->writeStatus = UsbTypes::Ok;
    open();
    CapturingLogger captured;
    child<Gtk::Button>("DialogConnectButton").clicked();
    EXPECT_EQ(port->openCalls, 2);
    EXPECT_TRUE(usb->isConnected());
    EXPECT_TRUE(captured.contains("ConnectionDialog: Connection success", BaseLogger::INFO));
    EXPECT_FALSE(dialog->get_visible());
}

TEST_F(ConnectionDialogTest, EveryWayOfClosingGivesTheOwnerBack) {
    open();
    child<Gtk::Button>("DialogCloseButton").clicked();
    EXPECT_TRUE(owner->get_sensitive());

    open();
    ASSERT_TRUE(widgettest::pumpUntil([&] { return dialog->get_mapped(); }));
    GdkEvent* event = gdk_event_new(GDK_DELETE);
    event->any.window = GDK_WINDOW(g_object_ref(dialog->get_window()->gobj()));
    gtk_main_do_event(event);
    gdk_event_free(event);
    EXPECT_FALSE(dialog->get_visible());
    EXPECT_TRUE(owner->get_sensitive());
    // Still there for the next opening.
    open();
    EXPECT_TRUE(dialog->get_visible());
    dialog->hide();
    EXPECT_TRUE(owner->get_sensitive());
}
