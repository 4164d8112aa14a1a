#pragma once

#include "MainWindow.h"

// What the GUI tests look at behind the window: the builder it was made
// from, the link and the device model.
class MainWindowTestAccess {
public:
    static Glib::RefPtr<Gtk::Builder> builder(MainWindow& window) { return window.builder; }
    static UsbCommunication& usb(MainWindow& window) { return window.usb; }
    static DeviceHandler* deviceHandler(MainWindow& window) { return window.deviceHandler; }
    static int firmwareTarget(MainWindow& window) { return window.firmwareTarget.load(); }
    static std::uint64_t currentDeviceAddress(MainWindow& window) {
        return window.currentDeviceAddress.load();
    }
    static MeridKestalWidgets::ConnectionDialog* connectionDialog(MainWindow& window) {
        return window.connectionDialog.get();
    }
    static MeridKestalWidgets::SelectFirmwareBox* selectFirmwareBox(MainWindow& window) {
        return window.selectFirmwareBox.get();
    }
};
