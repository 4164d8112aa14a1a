// The whole program, started as a child process under the test's X display,
// each run in a sandbox of its own.
#include "MeridFirmwareImages.h"
#include "ProgramRun.h"
#include "Sandbox.h"
#include "X11Windows.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <regex>
#include <sstream>
#include <vector>

using namespace programtest;

namespace {

constexpr auto kTimeout = std::chrono::seconds(90);

// The early log's lines, without the time stamp where there is one.
std::vector<std::string> logBodies(const Sandbox& sandbox) {
    std::istringstream in(readFile(sandbox.logPath()));
    std::vector<std::string> bodies;
    for (std::string line; std::getline(in, line);) {
        const bool stamped = line.size() > 21 && line.compare(19, 2, "Z ") == 0; // "2026-11-15T02:29:53Z "
        bodies.push_back(stamped ? line.substr(21) : line);
    }
    return bodies;
}

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

    const auto log = logBodies(sandbox);
    const std::string share = sandbox.tmp() + "/MeridKestalUtility-runtime-MeridKestalUtility/share";
    std::vector<std::string> steps = {
        "=== Application start ===",
        sandbox.logPath(),
        "[MESSAGE] [MeridKestalUtility] Registering embedded resources...",
        "[MESSAGE] [MeridKestalUtility] Embedded resources registered.",
        "[MESSAGE] [GSettings] Embedded GSettings schemas: yes",
        "[MESSAGE] [Env] XDG_DATA_DIRS=" + share,
        "[MESSAGE] [Env] GSETTINGS_SCHEMA_DIR=" + share + "/glib-2.0/schemas",
    };
    for (const char* path : {"ui/UserInterface.glade", "icons/hicolor/index.theme",
                             "icons/hicolor/16x16/places/user-home-symbolic-ltr.xpm",
                             "icons/hicolor/16x16/places/user-home-symbolic.xpm",
                             "icons/hicolor/16x16/actions/edit-find-symbolic.xpm",
                             "icons/hicolor/16x16/status/image-missing.xpm", "gsettings/gschemas.compiled"}) {
        steps.push_back(std::string("[MESSAGE] [GResource] OK: /meridkestalutility/") + path);
    }
    steps.insert(steps.end(), {"[MESSAGE] [MeridKestalUtility] Creating Gtk::Application...",
                               "[MESSAGE] [MeridKestalUtility] Gtk::Application created.",
                               "[MESSAGE] [Gtk] Gtk::IconTheme has icon user-home-symbolic-ltr",
                               "[MESSAGE] [Gtk] Gtk::IconTheme has icon image-missing",
                               "[MESSAGE] [Gtk] Gtk::IconTheme has icon edit-find-symbolic",
                               "[MESSAGE] [MeridKestalUtility] Creating MainWindow...",
                               "[MESSAGE] [MeridKestalUtility] MainWindow created. Entering event loop."});
    // In this order; the header and the registration come first of all.
    ASSERT_GT(log.size(), 3u);
    EXPECT_EQ(std::vector<std::string>(log.begin(), log.begin() + 3),
              std::vector<std::string>(steps.begin(), steps.begin() + 3));
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
    struct Case {
        std::string program, variable, value;
        int code;
    };
    for (const auto& [program, variable, value, code] :
         {Case{MERID_PROGRAM_PATH, "MERID_UI_GLADE", "broken.glade", 1},
          Case{MERID_CRASH_PROBE_PATH, "MERID_CRASH_PROBE", "throw", 134},
          Case{MERID_CRASH_PROBE_PATH, "MERID_CRASH_PROBE", "fault", 139}}) {
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

        const auto log = logBodies(sandbox);
        ASSERT_GE(log.size(), 4u) << joined(log);
        EXPECT_EQ(joined(log).find("Entering event loop"), std::string::npos) << value;
        if (value == "broken.glade") {
            EXPECT_NE(("\n" + run.standardError()).find("\nОшибка: "), std::string::npos)
                << run.standardError();
            EXPECT_TRUE(std::any_of(log.begin(), log.end(), [](const std::string& line) {
                return line.rfind("[ERROR] [Exception] ", 0) == 0;
            })) << joined(log);
        } else if (value == "throw") {
            EXPECT_EQ(log[log.size() - 2], "[CRITICAL] [Crash] std::terminate() called");
            EXPECT_EQ(log.back(), "[CRITICAL] [Crash] Signal 6");
        } else {
            // The fault's code, then its return addresses, then the signal.
            auto line = std::find(log.begin(), log.end(), "[CRITICAL] [Crash] Unhandled exception code=0xb");
            ASSERT_NE(line, log.end()) << joined(log);
            const std::regex frame(R"(\[CRITICAL\] \[Crash\]   #\d+ (0x)?[0-9a-f]+)");
            const auto frames =
                std::find_if_not(++line, log.end(),
                                 [&](const std::string& text) { return std::regex_match(text, frame); }) -
                line;
            EXPECT_TRUE(frames >= 2 && frames <= 64) << joined(log);
            EXPECT_EQ(log.back(), "[CRITICAL] [Crash] Signal 11");
        }
    }
}
