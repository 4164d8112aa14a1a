#pragma once

#include "MainWindow.h"

// What the load benchmark and the window tests look at behind the window:
// the builder it was made from, the link, the device model, and one tick of
// the erase wait's poll, for a test that counts the ticks itself.
class MainWindowTestAccess {
public:
    static Glib::RefPtr<Gtk::Builder> builder(MainWindow& window) { return window.builder; }
    static UsbCommunication& usb(MainWindow& window) { return window.link->usb(); }
    static DeviceHandler* deviceHandler(MainWindow& window) { return &window.link->devices(); }
    // One tick of the 200 ms clock of the STM32 load's wait for its erase.
    static bool eraseWaitTick(MainWindow& window) { return window.stm32Load->tick(); }
};
