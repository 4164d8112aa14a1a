// Quitting the whole program, by its menu or by closing its window, in each
// state a user can leave it in: the program runs as a child process against
// the simulated board served from this process. How fast it ends is the
// quit benchmark's (bench/quit); here it must end, and with code 0.
#include "DeviceSimulator.h"
#include "EspRomBridge.h"
#include "EspRomSimulator.h"
#include "ProgramDriver.h"
#include "ProgramRun.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>

using namespace programtest;

namespace {

constexpr std::uint8_t kAddress = 2;
constexpr auto kWindowTimeout = std::chrono::seconds(60);
// Only a program that never ends fails here.
constexpr auto kWatchdog = std::chrono::seconds(120);

enum class State { Idle, UnansweredSearch, UnansweredErase, Esp32Flash };

struct Case {
    const char* name;
    State state;
    bool fromMenu;
};

// The board of one run: a device whose erase takes a minute, an ESP32 behind
// it, and a link paced so that a flash lasts minutes.
struct Board {
    Board() {
        SimDevice device = SimDevice::standard(kAddress, "MeridKestal STM32");
        device.setEraseTime(std::chrono::minutes(1));
        simulator.addDevice(device);
        EspRomBridge::install(simulator, chip);
        simulator.setPacing(115200);
    }
    ~Board() { simulator.stop(); }

    DeviceSimulator simulator;
    std::shared_ptr<EspRomSimulator> chip = std::make_shared<EspRomSimulator>();
};

} // namespace

TEST(ProgramQuit, EndsWithCodeZeroInEveryState) {
    // The window is insensitive during an ESP32 flash: only its close
    // button is there to quit with.
    const Case cases[] = {
        {"idle", State::Idle, true},
        {"unanswered search", State::UnansweredSearch, true},
        {"unanswered erase", State::UnansweredErase, false},
        {"ESP32 flash", State::Esp32Flash, false},
    };
    X11Windows x11;
    ASSERT_TRUE(x11.connected()) << "no X display";
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Board board;
        if (c.state == State::UnansweredSearch) {
            DeviceSimulator::Faults faults;
            faults.silent = true;
            board.simulator.setFaults(faults);
        }
        Sandbox sandbox;
        ASSERT_TRUE(board.simulator.start()) << board.simulator.lastError();
        const std::string port = sandbox.root() + "/ttyMerid0";
        ASSERT_TRUE(board.simulator.createLink(port));
        auto environment = sandbox.environment();
        environment["MERID_EXTRA_PORTS"] = port;
        ProgramRun run(MERID_PROGRAM_PATH, environment, sandbox.root());
        ProgramDriver program(x11, run.pid());
        ASSERT_TRUE(program.waitForWindow(kWindowTimeout)) << run.standardError();

        std::function<bool()> reached = [] { return true; };
        if (c.state != State::Idle) {
            ASSERT_TRUE(program.connect(port));
        }
        if (c.state == State::UnansweredSearch) {
            program.search();
            reached = [&] { return board.simulator.journalSize() >= 1; };
        } else if (c.state == State::UnansweredErase) {
            program.upload();
            reached = [&] { return board.simulator.counters(kAddress)->eraseCommands >= 1; };
        } else if (c.state == State::Esp32Flash) {
            program.choosePreinstalledEsp32();
            program.upload();
            reached = [&] { return board.chip->counters().dataBlocks >= 1; };
        }
        ASSERT_TRUE(testsupport::waitUntil(reached, std::chrono::seconds(30))) << run.standardError();

        if (c.fromMenu) {
            program.quitFromMenu();
        } else {
            program.closeWindow();
        }
        const auto exit = run.wait(kWatchdog);
        ASSERT_TRUE(exit.has_value()) << "the program did not end";
        EXPECT_TRUE(exit->exited && exit->exitCode == 0) << exit->exitCode << " " << exit->termSignal;
    }
}
