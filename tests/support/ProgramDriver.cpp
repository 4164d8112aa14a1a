#include "ProgramDriver.h"

#include "TestBasics.h"

#include <thread>

namespace programtest {
namespace {

constexpr auto kDialogTimeout = std::chrono::seconds(30);
// Time for the toolkit to act on one input before the next.
constexpr auto kSettle = std::chrono::milliseconds(300);

} // namespace

bool ProgramDriver::waitForWindow(std::chrono::milliseconds timeout) {
    mainWindow = x11.waitForWindow(pid, "MeridKestalUtility", timeout);
    return mainWindow.has_value();
}

void ProgramDriver::press(const char* keysym) {
    x11.pressKey(*mainWindow, keysym);
    std::this_thread::sleep_for(kSettle);
}

bool ProgramDriver::connect() {
    press("F10");
    press("Down");
    press("Return");
    const auto dialog = x11.waitForWindow(pid, "Connection", kDialogTimeout);
    if (!dialog) {
        return false;
    }
    // The dialog grows with the port's name; its buttons keep to its
    // bottom right corner.
    std::this_thread::sleep_for(kSettle);
    const auto [width, height] = x11.size(*dialog);
    x11.click(*dialog, width - 198, height - 21);
    return testsupport::waitUntil([&] { return !x11.isViewable(*dialog); }, kDialogTimeout);
}

void ProgramDriver::choosePreinstalledEsp32() {
    // The target's list opens over its button with the STM32 under the
    // pointer; the ESP32 is the entry below.
    x11.click(*mainWindow, 375, 70);
    std::this_thread::sleep_for(kSettle);
    press("Down");
    press("Return");
    x11.click(*mainWindow, 37, 181);
    std::this_thread::sleep_for(kSettle);
}

void ProgramDriver::openQuitEntry() {
    // Up from the opened menu wraps to its last entry.
    press("F10");
    press("Up");
}

} // namespace programtest
