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

// The early log's lines, and the same without the time stamp where there is one.
struct EarlyLog {
    explicit EarlyLog(const std::string& path) {
        std::istringstream in(readFile(path));
        for (std::string line; std::getline(in, line);) {
            all += line + "\n";
            lines.push_back(line);
            bodies.push_back(line.size() > 21 ? line.substr(21) : ""); // "2026-11-15T02:29:53Z "
        }
    }
    bool has(const std::string& text) const { return all.find(text) != std::string::npos; }

    std::vector<std::string> lines;
    std::vector<std::string> bodies;
    std::string all;
};

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

    const EarlyLog log(sandbox.logPath());
    ASSERT_GT(log.lines.size(), 20u);
    EXPECT_EQ(log.lines[0], "=== Application start ===");
    EXPECT_EQ(log.lines[1], sandbox.logPath());
    const std::regex format(
        R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ \[(ERROR|CRITICAL|WARNING|MESSAGE|INFO|DEBUG|LOG)\])"
        R"(( \[[^\]]+\])? .*)");
    for (std::size_t index = 2; index < log.lines.size(); ++index) {
        EXPECT_TRUE(std::regex_match(log.lines[index], format)) << log.lines[index];
    }
    const std::string share = sandbox.tmp() + "/MeridKestalUtility-runtime-MeridKestalUtility/share";
    const std::string ok = "[MESSAGE] [GResource] OK: /meridkestalutility/";
    const std::vector<std::string> steps = {
        "[MESSAGE] [MeridKestalUtility] Registering embedded resources...",
        "[MESSAGE] [MeridKestalUtility] Embedded resources registered.",
        "[MESSAGE] [GSettings] Embedded GSettings schemas: yes",
        "[MESSAGE] [Env] XDG_DATA_DIRS=" + share,
        "[MESSAGE] [Env] GSETTINGS_SCHEMA_DIR=" + share + "/glib-2.0/schemas",
        ok + "ui/UserInterface.glade",
        ok + "icons/hicolor/index.theme",
        ok + "icons/hicolor/16x16/places/user-home-symbolic-ltr.xpm",
        ok + "icons/hicolor/16x16/places/user-home-symbolic.xpm",
        ok + "icons/hicolor/16x16/actions/edit-find-symbolic.xpm",
        ok + "icons/hicolor/16x16/status/image-missing.xpm",
        ok + "gsettings/gschemas.compiled",
        "[MESSAGE] [MeridKestalUtility] Creating Gtk::Application...",
        "[MESSAGE] [MeridKestalUtility] Gtk::Application created.",
        "[MESSAGE] [Gtk] Gtk::IconTheme has icon user-home-symbolic-ltr",
        "[MESSAGE] [Gtk] Gtk::IconTheme has icon image-missing",
        "[MESSAGE] [Gtk] Gtk::IconTheme has icon edit-find-symbolic",
        "[MESSAGE] [MeridKestalUtility] Creating MainWindow...",
        "[MESSAGE] [MeridKestalUtility] MainWindow created. Entering event loop.",
    };
    // In this order, the registration right after the header.
    EXPECT_EQ(log.bodies[2], steps[0]);
    auto next = log.bodies.begin() + 2;
    for (const auto& step : steps) {
        next = std::find_if(next, log.bodies.end(),
                            [&](const std::string& body) { return body.rfind(step, 0) == 0; });
        ASSERT_NE(next, log.bodies.end()) << "missing or out of order: " << step << "\n" << log.all;
        ++next;
    }
    // A build without real images says so.
    EXPECT_EQ(log.has("[WARNING] [MeridKestalUtility] PLACEHOLDER FIRMWARE"),
              kEsp32ImageIsPlaceholder || kStm32ImageIsPlaceholder);
}

TEST(ProgramStart, MalformedInterfaceFileEndsTheStartWithCodeOne) {
    Sandbox sandbox;
    const std::string glade = sandbox.root() + "/broken.glade";
    std::ofstream(glade)
        << "<?xml version=\"1.0\"?>\n<interface>\n  <object class=\"GtkWindow\" id=\"MainWindow\">\n"
           "</interface>\n"; // tags that do not nest
    auto environment = sandbox.environment();
    environment["MERID_UI_GLADE"] = glade;
    ProgramRun run(MERID_PROGRAM_PATH, environment, sandbox.root());
    const auto exit = run.wait(kTimeout);

    ASSERT_TRUE(exit.has_value());
    EXPECT_TRUE(exit->exited && exit->exitCode == 1) << exit->exitCode << " " << exit->termSignal;
    EXPECT_NE(("\n" + run.standardError()).find("\nОшибка: "), std::string::npos) << run.standardError();
    const EarlyLog log(sandbox.logPath());
    EXPECT_TRUE(log.has("Z [ERROR] [Exception] ")) << log.all;
    EXPECT_FALSE(log.has("Entering event loop"));
}

// A failure before the guarded region, and a hardware fault: the last lines
// of the early log tell what happened, and the exit code is 128 plus the signal.
TEST(ProgramStart, CrashesLeaveTheirLastWordsInTheEarlyLog) {
    for (const auto& [probe, code] : {std::pair<std::string, int>{"throw", 134}, {"fault", 139}}) {
        Sandbox sandbox;
        auto environment = sandbox.environment();
        environment["MERID_CRASH_PROBE"] = probe;
        ProgramRun run(MERID_CRASH_PROBE_PATH, environment, sandbox.root());
        const auto exit = run.wait(kTimeout);
        ASSERT_TRUE(exit.has_value()) << probe;
        EXPECT_TRUE(exit->exited && exit->exitCode == code)
            << probe << ": " << exit->exitCode << " " << exit->termSignal;

        const EarlyLog log(sandbox.logPath());
        const auto& bodies = log.bodies;
        ASSERT_GE(bodies.size(), 4u) << log.all;
        EXPECT_FALSE(log.has("Creating Gtk::Application")) << probe;
        if (probe == "throw") {
            EXPECT_EQ(bodies[bodies.size() - 2], "[CRITICAL] [Crash] std::terminate() called");
            EXPECT_EQ(bodies.back(), "[CRITICAL] [Crash] Signal 6");
            continue;
        }
        // The fault's code, then its return addresses, then the signal.
        auto line =
            std::find(bodies.begin(), bodies.end(), "[CRITICAL] [Crash] Unhandled exception code=0xb");
        ASSERT_NE(line, bodies.end()) << log.all;
        const std::regex frame(R"(\[CRITICAL\] \[Crash\]   #\d+ (0x)?[0-9a-f]+)");
        int frames = 0;
        for (++line; line != bodies.end() && std::regex_match(*line, frame); ++line) {
            ++frames;
        }
        EXPECT_TRUE(frames >= 2 && frames <= 64) << log.all;
        EXPECT_EQ(bodies.back(), "[CRITICAL] [Crash] Signal 11");
    }
}
