// The connection dialog over a link whose port the test controls: the port
// list, the connect with the chosen port and speed, and the answers of
// connect and disconnect when the port misbehaves.
#include "ConnectionDialog.h"
#include "FakeSerialPort.h"
#include "TestSupport.h"
#include "WidgetTestSupport.h"

#include <memory>
#include <string>
#include <vector>

using testsupport::CapturingLogger;

namespace {

class ConnectionDialogTest : public widgettest::DerivedWidgetTest<MeridKestalWidgets::ConnectionDialog> {
protected:
    ConnectionDialogTest() : DerivedWidgetTest("ConnectionDialog") {
        auto fake = std::make_unique<FakeSerialPort>();
        port = fake.get();
        usb = std::make_unique<UsbCommunication>(std::move(fake));
    }

    std::vector<std::string> ports() {
        std::vector<std::string> texts;
        for (const auto& row : portList().get_model()->children()) {
            Glib::ustring text;
            row.get_value(0, text);
            texts.push_back(text);
        }
        return texts;
    }

    Gtk::ComboBoxText& portList() { return child<Gtk::ComboBoxText>("PortsListComboTextBox"); }
    Gtk::ComboBoxText& speeds() { return child<Gtk::ComboBoxText>("BaudratesListComboTextBox"); }

    // Opens the dialog as the window does.
    void open() {
        widget->setUsbConnetctionPtr(*usb);
        widget->setOwner(&owner);
        widget->show();
        owner.set_sensitive(false);
    }

    void pressConnect() { child<Gtk::Button>("DialogConnectButton").clicked(); }

    FakeSerialPort* port = nullptr;
    std::unique_ptr<UsbCommunication> usb;
    Gtk::Window owner;
};

} // namespace

TEST_F(ConnectionDialogTest, TheLastPortIsChosenAfterEachResetAndNoneWhenThereIsNone) {
    port->ports = {"/dev/ttyUSB0", "/dev/ttyUSB1", "/dev/ttyUSB2"};
    open();
    EXPECT_EQ(ports(), port->ports);
    EXPECT_EQ(portList().get_active_text(), "/dev/ttyUSB2");
    speeds().set_active_text("921600");

    port->ports = {"/dev/ttyACM0", "/dev/ttyACM1"};
    child<Gtk::Button>("ResetSearchPortsButton").clicked();
    EXPECT_EQ(ports(), port->ports);
    EXPECT_EQ(portList().get_active_text(), "/dev/ttyACM1");
    // The speed is not touched by a reset.
    EXPECT_EQ(speeds().get_active_text(), "921600");

    port->ports.clear();
    child<Gtk::Button>("ResetSearchPortsButton").clicked();
    EXPECT_EQ(ports(), std::vector<std::string>{"None"});
    CapturingLogger captured;
    pressConnect();
    EXPECT_TRUE(captured.contains(
        "ConnectionDialog: No COM ports available/selected. Plug the device in and press Reset/Search ports.",
        BaseLogger::ERROR));
    EXPECT_EQ(port->openCalls, 0);
    EXPECT_TRUE(widget->get_visible());
}

TEST_F(ConnectionDialogTest, ConnectUsesTheChoiceAndAPressWhileConnectedReconnects) {
    port->ports = {"/dev/ttyUSB0", "/dev/ttyUSB1"};
    open();
    speeds().set_active_text("921600");
    pressConnect();
    EXPECT_EQ(port->openedName, "/dev/ttyUSB1");
    EXPECT_EQ(port->configuredSpeed, UsbTypes::Baud921600);
    EXPECT_FALSE(widget->get_visible());
    EXPECT_TRUE(owner.get_sensitive());

    open();
    portList().set_active_text("/dev/ttyUSB0");
    pressConnect();
    EXPECT_EQ(port->closeCalls, 1);
    EXPECT_EQ(port->openCalls, 2);
    EXPECT_EQ(port->openedName, "/dev/ttyUSB0");

    // The cable is pulled: the next write fails and the link drops; the
    // next press opens it again.
    port->writeStatus = UsbTypes::TransmitError;
    unsigned char byte = 0x7E;
    usb->write(&byte, 1);
    ASSERT_FALSE(usb->isConnected());
    port->writeStatus = UsbTypes::Ok;
    open();
    pressConnect();
    EXPECT_EQ(port->openCalls, 3);
    EXPECT_TRUE(usb->isConnected());

    // A speed that is not a number falls back to 115200.
    speeds().append("fast");
    speeds().set_active_text("fast");
    ASSERT_EQ(widget->disconnect(), 0);
    EXPECT_EQ(widget->connect(), 0);
    EXPECT_EQ(port->configuredSpeed, UsbTypes::Baud115200);
}

TEST_F(ConnectionDialogTest, FailuresOfThePortAreAnsweredAndKeepTheDialogOpen) {
    port->ports = {"/dev/ttyUSB0"};
    port->openResult = UsbTypes::NotAvailable;
    open();
    CapturingLogger captured;
    pressConnect();
    EXPECT_TRUE(captured.contains(
        "ConnectionDialog: Connection failed (see SerialPort/UsbCommunication logs for details)",
        BaseLogger::ERROR));
    EXPECT_TRUE(widget->get_visible());
    EXPECT_FALSE(owner.get_sensitive());

    port->openResult = UsbTypes::Ok;
    ASSERT_EQ(widget->connect(), 0);
    port->closeResult = UsbTypes::CloseError;
    EXPECT_EQ(widget->disconnect(), 1);
}
