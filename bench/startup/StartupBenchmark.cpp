// Start-up time: from the start of the program's process to its main window
// mapped and viewable on the display (run under Xvfb, as `make bench` does).
#include "ProgramRun.h"
#include "X11Windows.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <memory>

using namespace programtest;

namespace {

constexpr auto kWindowTimeout = std::chrono::seconds(60);
constexpr auto kExitTimeout = std::chrono::seconds(30);

// One start: seconds until the window showed, or a negative value when it
// never did. The program is closed through its window afterwards.
double timeOneStart(X11Windows& x11, const Sandbox& sandbox) {
    const auto started = std::chrono::steady_clock::now();
    ProgramRun run(MERID_PROGRAM_PATH, sandbox.environment(), sandbox.root());
    auto window = x11.waitForWindow(run.pid(), "MeridKestalUtility", kWindowTimeout);
    const auto shown = std::chrono::steady_clock::now();
    if (!window) {
        return -1.0;
    }
    x11.requestClose(*window);
    run.wait(kExitTimeout);
    return std::chrono::duration<double>(shown - started).count();
}

void measure(benchmark::State& state, bool freshTree) {
    X11Windows x11;
    if (!x11.connected()) {
        state.SkipWithError("no X display: run under xvfb-run");
        return;
    }
    auto sandbox = std::make_unique<Sandbox>();
    if (!freshTree) {
        timeOneStart(x11, *sandbox); // writes the runtime tree once
    }
    for (auto _ : state) {
        if (freshTree) {
            state.PauseTiming();
            sandbox = std::make_unique<Sandbox>();
            state.ResumeTiming();
        }
        const double seconds = timeOneStart(x11, *sandbox);
        if (seconds < 0) {
            state.SkipWithError("the main window did not show");
            return;
        }
        state.SetIterationTime(seconds);
    }
}

// The first start on a machine: the runtime tree is written too.
void BM_StartupToWindowMapped_FirstStart(benchmark::State& state) {
    measure(state, true);
}
// Every later start: the tree is in place.
void BM_StartupToWindowMapped_TreeInPlace(benchmark::State& state) {
    measure(state, false);
}

} // namespace

BENCHMARK(BM_StartupToWindowMapped_FirstStart)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(10);
BENCHMARK(BM_StartupToWindowMapped_TreeInPlace)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(10);

BENCHMARK_MAIN();
