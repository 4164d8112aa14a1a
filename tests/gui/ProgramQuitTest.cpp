// Quitting the whole program, by its menu or by closing its window, in each
// state a user can leave it in: the program runs as a child process against
// the simulated board served from this process. How fast it ends is the
// quit benchmark's (bench/quit); here it must end, with code 0, and without
// the work it was doing going on behind the quit.
#include "QuitScenario.h"

#include <gtest/gtest.h>

using namespace programtest;
using State = QuitScenario::State;

namespace {

// Only a program that never ends fails here.
constexpr auto kWatchdog = std::chrono::seconds(120);

struct Case {
    const char* name;
    State state;
    bool fromMenu;
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
        {"ESP32 flash switching ports", State::Esp32PortSwitch, false},
    };
    X11Windows x11;
    ASSERT_TRUE(x11.connected()) << "no X display";
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        QuitScenario scenario(x11, c.state);
        ASSERT_TRUE(scenario.reach()) << scenario.why();
        scenario.prepareQuit(c.fromMenu);
        scenario.quit(c.fromMenu);
        const auto exit = scenario.run().wait(kWatchdog);
        ASSERT_TRUE(exit.has_value()) << "the program did not end";
        EXPECT_TRUE(exit->exited && exit->exitCode == 0) << exit->exitCode << " " << exit->termSignal;
        // A flash switching ports stops trying to reopen the port at the quit.
        EXPECT_EQ(scenario.run().standardOutput().find("Failed to reconnect serial port"), std::string::npos);
    }
}
