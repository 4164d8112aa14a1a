#include "QuitScenario.h"

#include "EspRomBridge.h"
#include "TestBasics.h"

#include <filesystem>
#include <functional>

namespace programtest {
namespace {

constexpr std::uint8_t kAddress = 2;
constexpr auto kWindowTimeout = std::chrono::seconds(60);
constexpr auto kStateTimeout = std::chrono::seconds(30);

} // namespace

QuitScenario::QuitScenario(X11Windows& x11, State state, const ProgramRun::Environment& extra)
    : x11(x11), state(state), port(sandbox.root() + "/ttyMerid0"), environment(sandbox.environment()) {
    SimDevice device = SimDevice::standard(kAddress, "MeridKestal STM32");
    device.setEraseTime(std::chrono::minutes(1));
    board.addDevice(device);
    EspRomBridge::install(board, chip);
    board.setPacing(115200);
    if (state == State::UnansweredSearch) {
        board.setFaults(DeviceSimulator::Faults{.silent = true});
    }
    environment["MERID_EXTRA_PORTS"] = port;
    for (const auto& [name, value] : extra) {
        environment[name] = value;
    }
}

QuitScenario::~QuitScenario() {
    driver.reset();
    program.reset();
    board.stop();
}

bool QuitScenario::fail(const std::string& reason) {
    problem = reason + (program ? "\n" + program->standardError() : std::string());
    return false;
}

bool QuitScenario::reach() {
    if (!board.start() || !board.createLink(port)) {
        return fail("no simulated board: " + board.lastError());
    }
    program = std::make_unique<ProgramRun>(MERID_PROGRAM_PATH, environment, sandbox.root());
    driver = std::make_unique<ProgramDriver>(x11, program->pid());
    if (!driver->waitForWindow(kWindowTimeout)) {
        return fail("the window did not show");
    }
    if (state != State::Idle && !driver->connect(port)) {
        return fail("the connection dialog did not connect");
    }
    std::function<bool()> reached = [] { return true; };
    switch (state) {
    case State::Idle:
        break;
    case State::UnansweredSearch:
        driver->search();
        reached = [&] { return board.journalSize() >= 1; };
        break;
    case State::UnansweredErase:
        driver->upload();
        reached = [&] { return board.counters(kAddress)->eraseCommands >= 1; };
        break;
    case State::Esp32Flash:
        driver->choosePreinstalledEsp32();
        driver->upload();
        reached = [&] { return chip->counters().dataBlocks >= 1; };
        break;
    case State::Esp32PortSwitch:
        driver->choosePreinstalledEsp32();
        // The open port stays usable; once closed, its name is gone.
        std::filesystem::remove(port);
        driver->upload();
        reached = [&] { return chip->counters().portCloses >= 1; };
        break;
    }
    return testsupport::waitUntil(reached, kStateTimeout) || fail("the state was not reached");
}

void QuitScenario::prepareQuit(bool fromMenu) {
    if (fromMenu) {
        driver->openQuitEntry();
    }
}

void QuitScenario::quit(bool fromMenu) {
    if (fromMenu) {
        driver->takeMenuEntry();
    } else {
        driver->closeWindow();
    }
}

} // namespace programtest
