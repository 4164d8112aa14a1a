// The program as a user starts it: its window shows, and closing it ends
// the program cleanly.
#include "ProgramRun.h"
#include "Sandbox.h"
#include "X11Windows.h"

#include <gtest/gtest.h>

#include <cstdlib>

using namespace programtest;

TEST(ProgramWindow, ShowsTheMainWindowAndQuitsCleanlyWhenItIsClosed) {
    Sandbox sandbox;
    X11Windows x11;
    ASSERT_TRUE(x11.connected()) << "no X display: run under xvfb-run";
    ProgramRun run(MERID_PROGRAM_PATH, sandbox.environment(), sandbox.root());
    ASSERT_TRUE(run.started());

    auto window = x11.waitForWindow(run.pid(), "MeridKestalUtility", std::chrono::seconds(90));
    ASSERT_TRUE(window.has_value()) << "no window; standard error:\n" << run.standardError();
    EXPECT_TRUE(x11.isViewable(*window));
    EXPECT_EQ(x11.title(*window), "MeridKestalUtility");
    EXPECT_EQ(x11.size(*window), std::make_pair(500, 550));

    // What the user sees, taken from the screen.
    const std::string shot = sandbox.root() + "/window.png";
    const std::string command = "import -window " + std::to_string(*window) + " '" + shot + "'";
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
    EXPECT_EQ(pngSize(shot), std::make_optional(std::make_pair(500, 550)));

    x11.requestClose(*window);
    auto exit = run.wait(std::chrono::seconds(60));
    ASSERT_TRUE(exit.has_value()) << "still running after its window was closed";
    EXPECT_TRUE(exit->exited);
    EXPECT_EQ(exit->exitCode, 0);
}
