#pragma once

#include "UsbCommunication.h"
#include "UsbTypes.h"

#include <gtkmm.h>

#include <map>
#include <string>
#include <vector>

namespace MeridKestalWidgets {

// The dialog in which the user picks a serial port and a speed and opens the
// link. It writes the choice into the window's UsbCommunication and keeps
// its own flag of whether it has connected.
class ConnectionDialog : public Gtk::Dialog {
public:
    enum DialogItmesText {
        CONNECTION = 0,
        PROTOCOL = 1,
        TYPE = 2,
        SERIAL = 3,
        TCP = 4,
        PORT = 5,
        BAUDRATE = 6,
        CONNECT = 7,
        CLOSE = 8,
        COM = 9,
    };

    ConnectionDialog(_GtkDialog* cobject, const Glib::RefPtr<Gtk::Builder>& builder);

    // The window made insensitive while the dialog is open; it gets its
    // sensitivity back whenever the dialog hides.
    void setOwner(Gtk::Window* window);
    // Stores the link and reads its ports anew.
    void setUsbConnetctionPtr(UsbCommunication& usb);
    // 0 on success, 1 on failure.
    int connect();
    // 0 on success (also when there was nothing to close), 1 on failure.
    int disconnect();
    // Asks the link for its ports, copies them into `list` and shows them,
    // the last one selected, or "None" when there is none.
    void resetUsbList(std::vector<std::string>& list);
    void redefinitionLabeles();
    void definitionDefaultValues();
    // Emitted when the connect button has opened the link, before the
    // dialog hides.
    sigc::signal<void()>& signalConnected() { return connected; }

private:
    void connectStep();
    UsbTypes::Baudrate chosenBaudrate();

    std::vector<UsbTypes::Baudrate> baudrates;
    std::map<DialogItmesText, std::string> labelsRu;
    std::map<DialogItmesText, std::string> labelsEn;
    const std::map<DialogItmesText, std::string>* currentLabels = nullptr;
    Glib::RefPtr<Gtk::Builder> builder;
    Glib::RefPtr<Gtk::Label> connectionLabel;
    Glib::RefPtr<Gtk::Label> protocolLabel;
    Glib::RefPtr<Gtk::Label> typeConnectionLabel;
    Glib::RefPtr<Gtk::Label> currentTypeConnectionLabel;
    Glib::RefPtr<Gtk::Label> portLabel;
    Glib::RefPtr<Gtk::Label> baudrateLabel;
    Glib::RefPtr<Gtk::Label> connectionPortPage;
    Glib::RefPtr<Gtk::Button> connectButton;
    Glib::RefPtr<Gtk::Button> closeButton;
    Glib::RefPtr<Gtk::Button> resetSearchPortsButton;
    Glib::RefPtr<Gtk::ComboBoxText> protocolTypeList;
    Glib::RefPtr<Gtk::ComboBoxText> typeConnectionList;
    Glib::RefPtr<Gtk::ComboBoxText> portsList;
    Glib::RefPtr<Gtk::ComboBoxText> baudratesList;
    Glib::RefPtr<Gtk::Notebook> serialNotebook;
    Gtk::Window* owner = nullptr;
    UsbCommunication* usbCommunication = nullptr;
    std::vector<std::string> usbList;
    bool isConnected = false;
    sigc::signal<void()> connected;
};

} // namespace MeridKestalWidgets
