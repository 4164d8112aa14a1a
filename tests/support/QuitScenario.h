#pragma once

#include "DeviceSimulator.h"
#include "EspRomSimulator.h"
#include "ProgramDriver.h"
#include "ProgramRun.h"

#include <memory>
#include <string>

namespace programtest {

// The whole program as a child process against a simulated board served
// from this process, brought to a state a user can quit it in; the quit
// tests and the quit benchmark drive it alike. The board's device takes a
// minute over an erase, its ESP32 sits behind it, and the link is paced so
// that a flash lasts minutes.
class QuitScenario {
public:
    enum class State {
        Idle,
        UnansweredSearch,
        UnansweredErase,
        Esp32Flash,
        // The flash has closed the port to hand the link to the ESP32, and
        // the port does not come back.
        Esp32PortSwitch,
    };

    QuitScenario(X11Windows& x11, State state, const ProgramRun::Environment& extra = {});
    ~QuitScenario();
    QuitScenario(const QuitScenario&) = delete;
    QuitScenario& operator=(const QuitScenario&) = delete;

    // Starts the program and brings it to the state; false with the reason
    // in why() when that fails.
    bool reach();
    const std::string& why() const { return problem; }

    // The quit itself: Connection > Quit is opened first and then taken; the
    // window's close button is one step.
    void prepareQuit(bool fromMenu);
    void quit(bool fromMenu);

    ProgramRun& run() { return *program; }

private:
    bool fail(const std::string& reason);

    X11Windows& x11;
    State state;
    Sandbox sandbox;
    std::string port;
    ProgramRun::Environment environment;
    DeviceSimulator board;
    std::shared_ptr<EspRomSimulator> chip = std::make_shared<EspRomSimulator>();
    std::unique_ptr<ProgramRun> program;
    std::unique_ptr<ProgramDriver> driver;
    std::string problem;
};

} // namespace programtest
