#include "ConnectionDialog.h"

#include "LoggerManager.h"
#include "WidgetChildren.h"

#include <cstdint>
#include <cstdlib>

namespace MeridKestalWidgets {

namespace {

const char* const kTag = "ConnectionDialog: ";
const char* const kNoPort = "None";

void log(const std::string& message, BaseLogger::MessageType type) {
    LoggerManager::getInstance().log(message, type, kTag);
}

} // namespace

ConnectionDialog::ConnectionDialog(_GtkDialog* cobject, const Glib::RefPtr<Gtk::Builder>& builder)
    : Glib::ObjectBase("ConnectionDialogMK"), Gtk::Dialog(cobject),
      baudrates{UsbTypes::Baud57600,  UsbTypes::Baud115200,  UsbTypes::Baud230400,
                UsbTypes::Baud460800, UsbTypes::Baud500000,  UsbTypes::Baud576000,
                UsbTypes::Baud921600, UsbTypes::Baud1000000, UsbTypes::Baud2000000},
      builder(builder) {
    labelsRu = {{CONNECTION, "Подключение"},
                {PROTOCOL, "Протокол"},
                {TYPE, "Тип"},
                {SERIAL, "Последовательный"},
                {TCP, "TCP"},
                {PORT, "Порт"},
                {BAUDRATE, "Скорость в бодах"},
                {CONNECT, "Подключить"},
                {CLOSE, "Закрыть"},
                {COM, "COM"}};
    labelsEn = {{CONNECTION, "Connection"},
                {PROTOCOL, "Protocol"},
                {TYPE, "Type"},
                {SERIAL, "Serial"},
                {TCP, "TCP"},
                {PORT, "Port"},
                {BAUDRATE, "Baudrate"},
                {CONNECT, "Connect"},
                {CLOSE, "Close"},
                {COM, "COM"}};
    currentLabels = nullptr;
    connectionLabel = fetchChild<Gtk::Label>(builder, "ConnectionLabel");
    protocolLabel = fetchChild<Gtk::Label>(builder, "ProtocolLabel");
    typeConnectionLabel = fetchChild<Gtk::Label>(builder, "TypeConnectionLable");
    currentTypeConnectionLabel = fetchChild<Gtk::Label>(builder, "CurrentTypeConnectionLable");
    portLabel = fetchChild<Gtk::Label>(builder, "PortLabel");
    baudrateLabel = fetchChild<Gtk::Label>(builder, "BaudrateLabel");
    connectionPortPage = fetchChild<Gtk::Label>(builder, "ConnectionPortPage");
    connectButton = fetchChild<Gtk::Button>(builder, "DialogConnectButton");
    closeButton = fetchChild<Gtk::Button>(builder, "DialogCloseButton");
    resetSearchPortsButton = fetchChild<Gtk::Button>(builder, "ResetSearchPortsButton");
    protocolTypeList = fetchChild<Gtk::ComboBoxText>(builder, "ProtocolTypeComboBoxText");
    typeConnectionList = fetchChild<Gtk::ComboBoxText>(builder, "TypeConnectionComboBoxText");
    portsList = fetchChild<Gtk::ComboBoxText>(builder, "PortsListComboTextBox");
    baudratesList = fetchChild<Gtk::ComboBoxText>(builder, "BaudratesListComboTextBox");
    serialNotebook = fetchChild<Gtk::Notebook>(builder, "SerialNotebook");
    // The title stays English whatever the language.
    set_title("Connection");
    definitionDefaultValues();
}

void ConnectionDialog::setOwner(Gtk::Window* window) {
    owner = window;
}

void ConnectionDialog::setUsbConnetctionPtr(UsbCommunication& usb) {
    usbCommunication = &usb;
    resetUsbList(usbList);
}

void ConnectionDialog::redefinitionLabeles() {
    currentLabels = nextLanguage(currentLabels, labelsRu, labelsEn);
    const auto& labels = *currentLabels;
    const std::pair<Glib::RefPtr<Gtk::Label>*, DialogItmesText> texts[] = {
        {&connectionLabel, CONNECTION},
        {&protocolLabel, PROTOCOL},
        {&typeConnectionLabel, TYPE},
        {&currentTypeConnectionLabel, SERIAL},
        {&portLabel, PORT},
        {&baudrateLabel, BAUDRATE},
        {&connectionPortPage, COM},
    };
    for (const auto& [label, key] : texts) {
        if (*label) {
            (*label)->set_label(labels.at(key));
        }
    }
    if (connectButton) {
        connectButton->set_label(labels.at(CONNECT));
    }
    if (closeButton) {
        closeButton->set_label(labels.at(CLOSE));
    }
}

void ConnectionDialog::definitionDefaultValues() {
    redefinitionLabeles();
    resetUsbList(usbList);
    // The type and the protocol each have one usable value; their controls
    // are filled but hidden, and always carry the English texts.
    if (typeConnectionList) {
        typeConnectionList->append(labelsEn.at(TCP));
        typeConnectionList->append(labelsEn.at(SERIAL));
        typeConnectionList->set_active_text(labelsEn.at(SERIAL));
    }
    if (protocolTypeList) {
        protocolTypeList->append("Payload");
        protocolTypeList->set_active_text("Payload");
    }
    if (baudratesList) {
        baudratesList->remove_all();
        for (auto rate : baudrates) {
            baudratesList->append(std::to_string(static_cast<int>(rate)));
        }
        baudratesList->set_active_text(std::to_string(static_cast<int>(UsbTypes::Baud115200)));
    }
    if (closeButton) {
        closeButton->signal_clicked().connect([this] { hide(); });
    }
    if (connectButton) {
        connectButton->signal_clicked().connect([this] { connectStep(); });
    }
    if (resetSearchPortsButton) {
        resetSearchPortsButton->signal_clicked().connect([this] { resetUsbList(usbList); });
    }
    // The window frame's close button hides the dialog too: it is shown again
    // at the next opening, never rebuilt.
    signal_delete_event().connect([this](GdkEventAny*) {
        hide();
        return true;
    });
    // Every way of closing the dialog ends here.
    signal_hide().connect([this] {
        if (owner != nullptr) {
            owner->set_sensitive(true);
        }
    });
}

void ConnectionDialog::connectStep() {
    // Pressed while connected: reconnect with the current choice.
    if (isConnected && usbCommunication != nullptr) {
        if (usbCommunication->disconnect() == UsbTypes::Ok) {
            isConnected = false;
        }
    }
    if (connect() == 0) {
        log("Connection success", BaseLogger::INFO);
        connected.emit();
        hide();
    } else {
        log("Connection failed (see SerialPort/UsbCommunication logs for details)", BaseLogger::ERROR);
    }
}

UsbTypes::Baudrate ConnectionDialog::chosenBaudrate() {
    if (!baudratesList) {
        return UsbTypes::Baud115200;
    }
    const std::string text = baudratesList->get_active_text();
    const long value = text.empty() ? 0 : std::strtol(text.c_str(), nullptr, 10);
    if (value < 1 || value > INT32_MAX) {
        return UsbTypes::Baud115200;
    }
    return static_cast<UsbTypes::Baudrate>(value);
}

int ConnectionDialog::connect() {
    if (usbCommunication == nullptr) {
        return 1;
    }
    // A link that dropped by itself (a cable pulled during a load) is no
    // longer this dialog's: it may be opened again.
    if (isConnected && usbCommunication->isConnected()) {
        return 0;
    }
    const std::string port = portsList ? std::string(portsList->get_active_text()) : std::string();
    if (usbList.empty() || port.empty() || port == kNoPort) {
        log("No COM ports available/selected. Plug the device in and press Reset/Search ports.",
            BaseLogger::ERROR);
        return 1;
    }
    usbCommunication->baudrate = chosenBaudrate();
    usbCommunication->portName = port;
    if (usbCommunication->connect(UsbCommunication::MethodCom) != UsbTypes::Ok) {
        // The port layers have said why.
        return 1;
    }
    isConnected = true;
    return 0;
}

int ConnectionDialog::disconnect() {
    if (usbCommunication == nullptr) {
        return 1;
    }
    if (!isConnected) {
        return 0;
    }
    if (usbCommunication->disconnect() != UsbTypes::Ok) {
        return 1;
    }
    isConnected = false;
    return 0;
}

void ConnectionDialog::resetUsbList(std::vector<std::string>& list) {
    if (usbCommunication == nullptr) {
        return;
    }
    usbCommunication->toDetermineDevices(UsbCommunication::MethodCom);
    list = usbCommunication->availablePorts;
    if (!portsList) {
        return;
    }
    portsList->remove_all();
    if (list.empty()) {
        portsList->append(kNoPort);
        portsList->set_active_text(kNoPort);
        return;
    }
    // Each new entry becomes the active one, so the last port ends up
    // selected.
    for (std::size_t index = 0; index < list.size(); ++index) {
        portsList->append(list[index]);
        portsList->set_active(static_cast<int>(index));
    }
}

} // namespace MeridKestalWidgets
