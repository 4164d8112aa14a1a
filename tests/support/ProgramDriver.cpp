#include "ProgramDriver.h"

#include "SerialPortPosix.h"
#include "TestBasics.h"
#include "TestSupport.h"

#include <algorithm>
#include <thread>

namespace programtest {
namespace {

constexpr auto kDialogTimeout = std::chrono::seconds(30);
// Time for the toolkit to act on one input before the next.
constexpr auto kSettle = std::chrono::milliseconds(300);

// The ports the program offers with `extra` named in MERID_EXTRA_PORTS, in
// its order: the lookup is the program's own.
std::vector<std::string> offeredPorts(const std::string& extra) {
    const testsupport::ScopedEnv named("MERID_EXTRA_PORTS", extra);
    return SerialPortPosix().getAvailablePorts();
}

} // namespace

bool ProgramDriver::waitForWindow(std::chrono::milliseconds timeout) {
    mainWindow = x11.waitForWindow(pid, "MeridKestalUtility", timeout);
    return mainWindow.has_value();
}

void ProgramDriver::press(const char* keysym) {
    x11.pressKey(*mainWindow, keysym);
    std::this_thread::sleep_for(kSettle);
}

bool ProgramDriver::connect(const std::string& port) {
    press("F10");
    press("Down");
    press("Return");
    const auto dialog = x11.waitForWindow(pid, "Connection", kDialogTimeout);
    if (!dialog) {
        return false;
    }
    std::this_thread::sleep_for(kSettle);
    if (!choosePort(*dialog, port)) {
        return false;
    }
    // The dialog grows with the port's name; its buttons keep to its
    // bottom right corner.
    const auto [width, height] = x11.size(*dialog);
    x11.click(*dialog, width - 198, height - 21);
    return testsupport::waitUntil([&] { return !x11.isViewable(*dialog); }, kDialogTimeout);
}

bool ProgramDriver::choosePort(unsigned long dialog, const std::string& port) {
    const std::vector<std::string> ports = offeredPorts(port);
    const auto found = std::find(ports.begin(), ports.end(), port);
    if (found == ports.end()) {
        return false;
    }
    // The list opens with the last port, the chosen one, under the pointer.
    x11.click(dialog, 140, 91);
    std::this_thread::sleep_for(kSettle);
    for (auto above = ports.end() - 1; above != found; --above) {
        press("Up");
    }
    press("Return");
    return true;
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
