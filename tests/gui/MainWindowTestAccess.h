#pragma once

#include "MainWindow.h"

// What the load benchmark and the window tests look at behind the window:
// the builder it was made from, the link and the device model.
class MainWindowTestAccess {
public:
    static Glib::RefPtr<Gtk::Builder> builder(MainWindow& window) { return window.builder; }
    static UsbCommunication& usb(MainWindow& window) { return window.link->usb(); }
    static DeviceHandler* deviceHandler(MainWindow& window) { return &window.link->devices(); }
};
