// Quit: from the user's quit (Connection > Quit, or the window's close
// button) to the end of the program's process, in each state a user can
// leave it in: idle, during a search the board leaves unanswered, during an
// erase the board takes a minute over, and during an ESP32 flash. The
// program runs as a child process under the display against the simulated
// board served from this process, driven as the quit tests drive it.
#include "DeviceSimulator.h"
#include "EspRomBridge.h"
#include "EspRomSimulator.h"
#include "ProgramDriver.h"
#include "ProgramRun.h"
#include "TestBasics.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <functional>
#include <memory>

using namespace programtest;

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint8_t kAddress = 2;
constexpr auto kWindowTimeout = std::chrono::seconds(60);
constexpr auto kExitTimeout = std::chrono::seconds(120);

enum State { Idle, UnansweredSearch, UnansweredErase, Esp32Flash };

// One run: seconds from the quit to the end of the process, or an error.
double timeOneQuit(X11Windows& x11, State state, bool fromMenu, std::string& error) {
    DeviceSimulator board;
    auto chip = std::make_shared<EspRomSimulator>();
    SimDevice device = SimDevice::standard(kAddress, "MeridKestal STM32");
    device.setEraseTime(std::chrono::minutes(1));
    board.addDevice(device);
    EspRomBridge::install(board, chip);
    board.setPacing(115200);
    if (state == UnansweredSearch) {
        DeviceSimulator::Faults faults;
        faults.silent = true;
        board.setFaults(faults);
    }
    Sandbox sandbox;
    const std::string port = sandbox.root() + "/ttyMerid0";
    if (!board.start() || !board.createLink(port)) {
        error = "no simulated board";
        return -1;
    }
    auto environment = sandbox.environment();
    environment["MERID_EXTRA_PORTS"] = port;
    environment["MERID_LOG_LEVEL"] = "OFF";
    ProgramRun run(MERID_PROGRAM_PATH, environment, sandbox.root());
    ProgramDriver program(x11, run.pid());
    if (!program.waitForWindow(kWindowTimeout) || (state != Idle && !program.connect(port))) {
        error = "the window or the connection dialog did not answer";
        return -1;
    }
    std::function<bool()> reached = [] { return true; };
    if (state == UnansweredSearch) {
        program.search();
        reached = [&] { return board.journalSize() >= 1; };
    } else if (state == UnansweredErase) {
        program.upload();
        reached = [&] { return board.counters(kAddress)->eraseCommands >= 1; };
    } else if (state == Esp32Flash) {
        program.choosePreinstalledEsp32();
        program.upload();
        reached = [&] { return chip->counters().dataBlocks >= 1; };
    }
    if (!testsupport::waitUntil(reached, std::chrono::seconds(30))) {
        error = "the state was not reached";
        return -1;
    }
    if (fromMenu) {
        program.openQuitEntry();
    }
    const auto quit = Clock::now();
    if (fromMenu) {
        program.takeMenuEntry();
    } else {
        program.closeWindow();
    }
    const auto exit = run.wait(kExitTimeout);
    const double seconds = std::chrono::duration<double>(Clock::now() - quit).count();
    board.stop();
    if (!exit || !exit->exited || exit->exitCode != 0) {
        error = "the program did not end with code 0";
        return -1;
    }
    return seconds;
}

void measure(benchmark::State& benchState, State state, bool fromMenu) {
    X11Windows x11;
    if (!x11.connected()) {
        benchState.SkipWithError("no X display: run under xvfb-run");
        return;
    }
    for (auto _ : benchState) {
        std::string error;
        const double seconds = timeOneQuit(x11, state, fromMenu, error);
        if (seconds < 0) {
            benchState.SkipWithError(error.c_str());
            return;
        }
        benchState.SetIterationTime(seconds);
    }
}

// The menu's quit is timed from the key that takes its entry.
void BM_QuitIdle_Menu(benchmark::State& state) {
    measure(state, Idle, true);
}
void BM_QuitIdle_WindowClose(benchmark::State& state) {
    measure(state, Idle, false);
}
void BM_QuitUnansweredSearch_WindowClose(benchmark::State& state) {
    measure(state, UnansweredSearch, false);
}
void BM_QuitUnansweredErase_WindowClose(benchmark::State& state) {
    measure(state, UnansweredErase, false);
}
void BM_QuitEsp32Flash_WindowClose(benchmark::State& state) {
    measure(state, Esp32Flash, false);
}

} // namespace

BENCHMARK(BM_QuitIdle_Menu)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_QuitIdle_WindowClose)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_QuitUnansweredSearch_WindowClose)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_QuitUnansweredErase_WindowClose)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_QuitEsp32Flash_WindowClose)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
