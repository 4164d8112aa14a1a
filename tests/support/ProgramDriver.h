#pragma once

#include "X11Windows.h"

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

namespace programtest {

// The program's window driven from outside, as a user drives it: the menu
// from the keyboard, the buttons by clicks at the places where the default
// window size puts them.
class ProgramDriver {
public:
    ProgramDriver(X11Windows& x11, pid_t pid) : x11(x11), pid(pid) {}

    // Waits for the main window; false when it never shows.
    bool waitForWindow(std::chrono::milliseconds timeout);
    // Connection > Connect, `port` chosen from the dialog's list, then its
    // connect button; true once the dialog has gone, the link open.
    bool connect(const std::string& port);
    void search() { x11.click(*mainWindow, 120, 59); }
    void upload() { x11.click(*mainWindow, 380, 111); }
    // The ESP32 as the target and its preinstalled image as the source.
    void choosePreinstalledEsp32();
    // Connection > Quit from the keyboard: the menu opened on its last
    // entry, then that entry taken.
    void openQuitEntry();
    void takeMenuEntry() { x11.pressKey(*mainWindow, "Return"); }
    // The window's close button.
    void closeWindow() { x11.requestClose(*mainWindow); }

private:
    void press(const char* keysym);
    // Picks `port` in the dialog's list, which holds the machine's own ports
    // beside it.
    bool choosePort(unsigned long dialog, const std::string& port);

    X11Windows& x11;
    pid_t pid;
    std::optional<unsigned long> mainWindow;
};

} // namespace programtest
