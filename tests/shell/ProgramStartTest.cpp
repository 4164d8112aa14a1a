// The whole program, started as a child process under the test's X display,
// each run in a sandbox of its own.
#include "MeridFirmwareImages.h"
#include "ProgramRun.h"
#include "ShellTestSupport.h"
#include "X11Windows.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <regex>
#include <tuple>
#include <vector>

using namespace programtest;

namespace {

constexpr auto kTimeout = std::chrono::seconds(90);

std::string joined(const std::vector<std::string>& lines) {
    std::string all;
    for (const auto& line : lines) {
        all += line + "\n";
    }
    return all;
}

} // namespace

TEST(ProgramStart, WindowShowsAfterEveryStartUpStepAndClosingEndsWithCodeZero) {
    Sandbox sandbox;
    X11Windows x11;
    ProgramRun run(MERID_PROGRAM_PATH, sandbox.environment(), sandbox.root());
    const auto window = x11.waitForWindow(run.pid(), "MeridKestalUtility", kTimeout);
    ASSERT_TRUE(window.has_value()) << "the main window never showed:\n" << run.standardError();
    x11.requestClose(*window);
    const auto exit = run.wait(kTimeout);
    ASSERT_TRUE(exit.has_value()) << "the program did not end after its window was closed";
    EXPECT_TRUE(exit->exited && exit->exitCode == 0) << exit->exitCode << " " << exit->termSignal;

    const auto log = shelltest::logBodies(sandbox.logPath());
    const std::string share = sandbox.tmp() + "/MeridKestalUtility-runtime-MeridKestalUtility/share";
    // The steps that show each part of the start did its work, in this order,
    // the registration first of all.
    const std::vector<std::string> steps = {
        "[MESSAGE] [MeridKestalUtility] Registering embedded resources...",
        "[MESSAGE] [Env] XDG_DATA_DIRS=" + share,
        "[MESSAGE] [Env] GSETTINGS_SCHEMA_DIR=" + share + "/glib-2.0/schemas",
        "[MESSAGE] [GResource] OK: /meridkestalutility/ui/UserInterface.glade",
        "[MESSAGE] [MeridKestalUtility] Creating Gtk::Application...",
        "[MESSAGE] [Gtk] Gtk::IconTheme has icon edit-find-symbolic",
        "[MESSAGE] [MeridKestalUtility] Creating MainWindow...",
        "[MESSAGE] [MeridKestalUtility] MainWindow created. Entering event loop.",
    };
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log[0], steps[0]);
    auto next = log.begin();
    for (const auto& step : steps) {
        next =
            std::find_if(next, log.end(), [&](const std::string& line) { return line.rfind(step, 0) == 0; });
        ASSERT_NE(next++, log.end()) << "missing or out of order: " << step << "\n" << joined(log);
    }
    // A build without real images says so.
    EXPECT_EQ(joined(log).find("[WARNING] [MeridKestalUtility] PLACEHOLDER FIRMWARE") != std::string::npos,
              kEsp32ImageIsPlaceholder || kStm32ImageIsPlaceholder);
}

// An interface file that does not parse ends the start in main's guarded
// region; a failure before it, and a hardware fault, end in the crash paths
// with 128 plus the signal. Each leaves its last words in the early log.
TEST(ProgramStart, FailedStartsEndWithTheirCodeAndLastWords) {
    const std::string crash = R"(\[CRITICAL\] \[Crash\] )";
    // Program, variable, value, exit code, last words, standard error.
    using Case = std::tuple<std::string, std::string, std::string, int, std::string, std::string>;
    for (const auto& [program, variable, value, code, lastWords, standardError] :
         {Case{MERID_PROGRAM_PATH, "MERID_UI_GLADE", "broken.glade", 1, R"(\n\[ERROR\] \[Exception\] )",
               "\nОшибка: "},
          Case{MERID_CRASH_PROBE_PATH, "MERID_CRASH_PROBE", "throw", 134,
               crash + R"(std::terminate\(\) called\n)" + crash + "Signal 6\n$", ""},
          // The fault's code, then its return addresses, then the signal.
          Case{MERID_CRASH_PROBE_PATH, "MERID_CRASH_PROBE", "fault", 139,
               crash + "Unhandled exception code=0xb\n(" + crash + R"(  #\d+ (0x)?[0-9a-f]+\n){2,64})" +
                   crash + "Signal 11\n$",
               ""}}) {
        Sandbox sandbox;
        auto environment = sandbox.environment();
        environment[variable] = variable == "MERID_UI_GLADE" ? sandbox.root() + "/" + value : value;
        // Tags that do not nest.
        std::ofstream(sandbox.root() + "/broken.glade")
            << "<interface><object class=\"GtkWindow\"></interface>";
        ProgramRun run(program, environment, sandbox.root());
        const auto exit = run.wait(kTimeout);
        ASSERT_TRUE(exit.has_value()) << value;
        EXPECT_TRUE(exit->exited && exit->exitCode == code)
            << value << ": " << exit->exitCode << " " << exit->termSignal;
        const std::string log = joined(shelltest::logBodies(sandbox.logPath()));
        EXPECT_TRUE(std::regex_search(log, std::regex(lastWords))) << value << ":\n" << log;
        EXPECT_EQ(log.find("Entering event loop"), std::string::npos) << value;
        EXPECT_NE(("\n" + run.standardError()).find(standardError), std::string::npos) << run.standardError();
    }
}
