// Quit: from the user's quit (Connection > Quit, or the window's close
// button) to the end of the program's process, in each state a user can
// leave it in: idle, during a search the board leaves unanswered, during an
// erase the board takes a minute over, during an ESP32 flash, and while
// that flash waits for its port to come back after handing the link to the
// ESP32. The program runs as a child process under the display against the
// simulated board served from this process, driven as the quit tests drive
// it.
#include "QuitScenario.h"

#include <benchmark/benchmark.h>

#include <chrono>

using namespace programtest;
using State = QuitScenario::State;

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kExitTimeout = std::chrono::seconds(120);

// One run: seconds from the quit to the end of the process, or an error.
double timeOneQuit(X11Windows& x11, State state, bool fromMenu, std::string& error) {
    QuitScenario scenario(x11, state, {{"MERID_LOG_LEVEL", "OFF"}});
    if (!scenario.reach()) {
        error = scenario.why();
        return -1;
    }
    scenario.prepareQuit(fromMenu);
    const auto quit = Clock::now();
    scenario.quit(fromMenu);
    const auto exit = scenario.run().wait(kExitTimeout);
    const double seconds = std::chrono::duration<double>(Clock::now() - quit).count();
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
    measure(state, State::Idle, true);
}
void BM_QuitIdle_WindowClose(benchmark::State& state) {
    measure(state, State::Idle, false);
}
void BM_QuitUnansweredSearch_WindowClose(benchmark::State& state) {
    measure(state, State::UnansweredSearch, false);
}
void BM_QuitUnansweredErase_WindowClose(benchmark::State& state) {
    measure(state, State::UnansweredErase, false);
}
void BM_QuitEsp32Flash_WindowClose(benchmark::State& state) {
    measure(state, State::Esp32Flash, false);
}
void BM_QuitEsp32PortSwitch_WindowClose(benchmark::State& state) {
    measure(state, State::Esp32PortSwitch, false);
}

} // namespace

BENCHMARK(BM_QuitIdle_Menu)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_QuitIdle_WindowClose)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_QuitUnansweredSearch_WindowClose)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_QuitUnansweredErase_WindowClose)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_QuitEsp32Flash_WindowClose)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_QuitEsp32PortSwitch_WindowClose)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
