#pragma once

#include "MainWindow.h"

// What the load benchmark and the window tests look at behind the window:
// the builder it was made from, the link, the device model, and one tick of
// the erase wait's poll, for a test that counts the ticks itself.
class MainWindowTestAccess {
public:
    static Glib::RefPtr<Gtk::Builder> builder(MainWindow& window) { return window.builder; }
    static UsbCommunication& usb(MainWindow& window) { return window.usb; }
    static DeviceHandler* deviceHandler(MainWindow& window) { return window.deviceHandler; }
    static bool eraseWaitTick(MainWindow& window) { return window.probeStm32EraseReady(); }
};
