// The whole program, started as a child process under the test's X display,
// each run in a sandbox of its own.
#include "ProgramRun.h"
#include "Sandbox.h"
#include "X11Windows.h"

#include <gtest/gtest.h>

#include <signal.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <vector>

using namespace programtest;
namespace fs = std::filesystem;

namespace {

constexpr auto kWindowTimeout = std::chrono::seconds(90);
constexpr auto kExitTimeout = std::chrono::seconds(60);
constexpr std::size_t kTimestampLength = 21; // "2026-11-15T02:29:53Z "

std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::vector<std::string> earlyLog(const Sandbox& sandbox) {
    return splitLines(readFile(sandbox.logPath()));
}

// The line without its time stamp, for lines that have one.
std::string body(const std::string& line) {
    return line.size() > kTimestampLength ? line.substr(kTimestampLength) : "";
}

// Index of the first line at or after `from` whose body starts with `text`.
std::optional<std::size_t> findLine(const std::vector<std::string>& lines, const std::string& text,
                                    std::size_t from = 0) {
    for (std::size_t index = from; index < lines.size(); ++index) {
        if (body(lines[index]).rfind(text, 0) == 0) {
            return index;
        }
    }
    return std::nullopt;
}

bool logHas(const std::vector<std::string>& lines, const std::string& text) {
    for (const auto& line : lines) {
        if (line.find(text) != std::string::npos) {
            return true;
        }
    }
    return false;
}

std::string describe(const std::vector<std::string>& lines) {
    std::string all;
    for (const auto& line : lines) {
        all += line + "\n";
    }
    return all;
}

struct WindowRun {
    std::optional<unsigned long> window;
    std::optional<ProgramExit> exit;
};

// Starts the program, waits for its main window and closes it as a user would.
WindowRun runUntilWindowThenClose(const std::string& program, const Sandbox& sandbox,
                                  const ProgramRun::Environment& environment) {
    X11Windows x11;
    ProgramRun run(program, environment, sandbox.root());
    WindowRun result;
    result.window = x11.waitForWindow(run.pid(), "MeridKestalUtility", kWindowTimeout);
    if (result.window) {
        x11.requestClose(*result.window);
    }
    result.exit = run.wait(kExitTimeout);
    return result;
}

void expectCleanExit(const WindowRun& run) {
    ASSERT_TRUE(run.window.has_value()) << "the main window never showed";
    ASSERT_TRUE(run.exit.has_value()) << "the program did not end after its window was closed";
    EXPECT_TRUE(run.exit->exited);
    EXPECT_EQ(run.exit->exitCode, 0);
}

std::map<std::string, fs::file_time_type> treeTimes(const std::string& dir) {
    std::map<std::string, fs::file_time_type> times;
    for (const auto& entry : fs::recursive_directory_iterator(dir)) {
        if (entry.is_regular_file()) {
            times[entry.path().string()] = entry.last_write_time();
        }
    }
    return times;
}

class ProgramStart : public ::testing::Test {
protected:
    Sandbox sandbox;
    const std::string program = MERID_PROGRAM_PATH;
};

} // namespace

TEST_F(ProgramStart, EarlyLogBeginsWithItsHeaderAndTheStartUpStepsInOrder) {
    auto run = runUntilWindowThenClose(program, sandbox, sandbox.environment());
    expectCleanExit(run);

    const auto lines = earlyLog(sandbox);
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[0], "=== Application start ===");
    EXPECT_EQ(lines[1], sandbox.logPath());

    const std::vector<std::string> steps = {
        "[MESSAGE] [MeridKestalUtility] Registering embedded resources...",
        "[MESSAGE] [MeridKestalUtility] Embedded resources registered.",
        "[MESSAGE] [GSettings] Embedded GSettings schemas: yes",
        "[MESSAGE] [Env] XDG_DATA_DIRS=" + sandbox.runtimeShare(),
        "[MESSAGE] [Env] GSETTINGS_SCHEMA_DIR=" + sandbox.runtimeShare() + "/glib-2.0/schemas",
        "[MESSAGE] [GResource] OK: /meridkestalutility/ui/UserInterface.glade",
        "[MESSAGE] [GResource] OK: /meridkestalutility/icons/hicolor/index.theme",
        "[MESSAGE] [GResource] OK: /meridkestalutility/icons/hicolor/16x16/places/user-home-symbolic-ltr.xpm",
        "[MESSAGE] [GResource] OK: /meridkestalutility/icons/hicolor/16x16/places/user-home-symbolic.xpm",
        "[MESSAGE] [GResource] OK: /meridkestalutility/icons/hicolor/16x16/actions/edit-find-symbolic.xpm",
        "[MESSAGE] [GResource] OK: /meridkestalutility/icons/hicolor/16x16/status/image-missing.xpm",
        "[MESSAGE] [GResource] OK: /meridkestalutility/gsettings/gschemas.compiled",
        "[MESSAGE] [MeridKestalUtility] Creating Gtk::Application...",
        "[MESSAGE] [MeridKestalUtility] Gtk::Application created.",
        "[MESSAGE] [Gtk] Gtk::IconTheme has icon user-home-symbolic-ltr",
        "[MESSAGE] [Gtk] Gtk::IconTheme has icon image-missing",
        "[MESSAGE] [Gtk] Gtk::IconTheme has icon edit-find-symbolic",
        "[MESSAGE] [MeridKestalUtility] Creating MainWindow...",
        "[MESSAGE] MainWindow: loading UI from GResource /meridkestalutility/ui/UserInterface.glade",
        "[MESSAGE] MainWindow: resolving derived widget MainWindow...",
        "[MESSAGE] MainWindow: widget resolved, initializing...",
        "[MESSAGE] MainWindow: initWidgets done.",
        "[MESSAGE] [MeridKestalUtility] MainWindow created. Entering event loop.",
    };
    std::size_t from = 2;
    for (const auto& step : steps) {
        auto found = findLine(lines, step, from);
        ASSERT_TRUE(found.has_value()) << "missing or out of order: " << step << "\n" << describe(lines);
        from = *found + 1;
    }
    // The registration steps come first of all, right after the header.
    EXPECT_EQ(findLine(lines, steps[0]), std::optional<std::size_t>(2));
    // A build without real images says so.
    EXPECT_TRUE(logHas(lines, "[WARNING] [MeridKestalUtility] PLACEHOLDER FIRMWARE"));
}

TEST_F(ProgramStart, EveryEarlyLogLineHasTheFixedFormat) {
    auto run = runUntilWindowThenClose(program, sandbox, sandbox.environment());
    expectCleanExit(run);

    const std::regex format(
        R"(^\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}Z \[(ERROR|CRITICAL|WARNING|MESSAGE|INFO|DEBUG|LOG)\])"
        R"(( \[[^\]]+\])? .*$)");
    const auto lines = earlyLog(sandbox);
    ASSERT_GT(lines.size(), 20u);
    for (std::size_t index = 2; index < lines.size(); ++index) {
        EXPECT_TRUE(std::regex_match(lines[index], format)) << "line " << index << ": " << lines[index];
    }
    // The window's own lines have no domain, so no second bracket.
    auto resolving = findLine(lines, "[MESSAGE] MainWindow: resolving derived widget MainWindow...");
    EXPECT_TRUE(resolving.has_value());
}

TEST_F(ProgramStart, EmptyLogPathBehavesAsUnset) {
    auto environment = sandbox.environment();
    environment["MERID_LOG_PATH"] = "";
    auto run = runUntilWindowThenClose(program, sandbox, environment);
    expectCleanExit(run);

    const std::string defaultLog = sandbox.home() + "/.local/state/MeridKestalUtility/MeridKestalUtility.log";
    const auto lines = splitLines(readFile(defaultLog));
    ASSERT_GE(lines.size(), 2u) << "no early log at " << defaultLog;
    EXPECT_EQ(lines[0], "=== Application start ===");
    EXPECT_EQ(lines[1], defaultLog);
    EXPECT_TRUE(findLine(lines, "[MESSAGE] [MeridKestalUtility] MainWindow created. Entering event loop."));
}

TEST_F(ProgramStart, LogPathInAMissingDirectoryGivesNoLogAndANormalRun) {
    auto environment = sandbox.environment();
    const std::string missingDir = sandbox.root() + "/no-such-dir";
    environment["MERID_LOG_PATH"] = missingDir + "/early.log";
    auto run = runUntilWindowThenClose(program, sandbox, environment);
    expectCleanExit(run);

    EXPECT_FALSE(fs::exists(missingDir)) << "a directory was made for the log";
    EXPECT_FALSE(fs::exists(sandbox.home() + "/.local/state/MeridKestalUtility"));
    EXPECT_FALSE(fs::exists(sandbox.logPath()));
}

TEST_F(ProgramStart, GladeOverrideNamingNothingLoadsTheResourceSilently) {
    auto environment = sandbox.environment();
    environment["MERID_UI_GLADE"] = sandbox.root() + "/missing.glade";
    auto run = runUntilWindowThenClose(program, sandbox, environment);
    expectCleanExit(run);

    const auto lines = earlyLog(sandbox);
    EXPECT_TRUE(findLine(lines, "[MESSAGE] MainWindow: loading UI from GResource"));
    EXPECT_FALSE(logHas(lines, "override"));
    EXPECT_FALSE(logHas(lines, "missing.glade"));
}

TEST_F(ProgramStart, MalformedGladeOverrideEndsTheStartWithExitCodeOne) {
    const std::string glade = sandbox.root() + "/broken.glade";
    // Tags that do not nest: not XML at all.
    std::ofstream(glade)
        << "<?xml version=\"1.0\"?>\n<interface>\n  <object class=\"GtkWindow\" id=\"MainWindow\">\n"
           "</interface>\n";
    auto environment = sandbox.environment();
    environment["MERID_UI_GLADE"] = glade;
    ProgramRun run(program, environment, sandbox.root());
    auto exit = run.wait(kExitTimeout);

    ASSERT_TRUE(exit.has_value());
    EXPECT_TRUE(exit->exited);
    EXPECT_EQ(exit->exitCode, 1);
    const auto errors = splitLines(run.standardError());
    bool reported = false;
    for (const auto& line : errors) {
        reported = reported || line.rfind("Ошибка: ", 0) == 0;
    }
    EXPECT_TRUE(reported) << run.standardError();
    const auto lines = earlyLog(sandbox);
    EXPECT_TRUE(findLine(lines, "[MESSAGE] MainWindow: loading UI from file override: " + glade));
    EXPECT_TRUE(findLine(lines, "[ERROR] [Exception] ")) << describe(lines);
    EXPECT_FALSE(logHas(lines, "fallback"));
    EXPECT_FALSE(logHas(lines, "Entering event loop"));
}

TEST_F(ProgramStart, RuntimeTreeIsWrittenOnceAndNotRewritten) {
    expectCleanExit(runUntilWindowThenClose(program, sandbox, sandbox.environment()));
    const std::string share = sandbox.runtimeShare();
    auto firstTimes = treeTimes(share);
    ASSERT_EQ(firstTimes.size(), 16u);
    EXPECT_TRUE(fs::exists(share + "/glib-2.0/schemas/gschemas.compiled"));
    EXPECT_TRUE(fs::exists(share + "/icons/hicolor/256x256/apps/meridkestalutility.png"));

    // A file changed since is not compared with the embedded one.
    const std::string changed = share + "/icons/hicolor/16x16/places/folder.xpm";
    std::ofstream(changed, std::ios::trunc) << "changed by hand";
    firstTimes[changed] = fs::last_write_time(changed);
    fs::remove(sandbox.logPath());

    expectCleanExit(runUntilWindowThenClose(program, sandbox, sandbox.environment()));
    EXPECT_EQ(treeTimes(share), firstTimes);
    EXPECT_EQ(readFile(changed), "changed by hand");
    const auto lines = earlyLog(sandbox);
    EXPECT_FALSE(logHas(lines, "extract failed"));
    EXPECT_FALSE(logHas(lines, "] [FS] "));
    EXPECT_TRUE(findLine(lines, "[MESSAGE] [Env] XDG_DATA_DIRS=" + share));
    EXPECT_TRUE(findLine(lines, "[MESSAGE] [Env] GSETTINGS_SCHEMA_DIR=" + share + "/glib-2.0/schemas"));
}

TEST_F(ProgramStart, ZeroLengthFileLeftByAnEarlierRunStays) {
    const std::string share = sandbox.runtimeShare();
    const std::string empty = share + "/icons/hicolor/index.theme";
    fs::create_directories(fs::path(empty).parent_path());
    std::ofstream(empty).close();

    expectCleanExit(runUntilWindowThenClose(program, sandbox, sandbox.environment()));
    EXPECT_EQ(fs::file_size(empty), 0u);
    EXPECT_EQ(treeTimes(share).size(), 16u);
    // It counts as present, so the toolkit is pointed at the tree.
    EXPECT_TRUE(findLine(earlyLog(sandbox), "[MESSAGE] [Env] XDG_DATA_DIRS=" + share));
}

TEST_F(ProgramStart, SegmentationFaultSignalEndsWithCode139) {
    X11Windows x11;
    ProgramRun run(program, sandbox.environment(), sandbox.root());
    ASSERT_TRUE(x11.waitForWindow(run.pid(), "MeridKestalUtility", kWindowTimeout).has_value());
    run.sendSignal(SIGSEGV);
    auto exit = run.wait(kExitTimeout);

    ASSERT_TRUE(exit.has_value());
    EXPECT_TRUE(exit->exited) << "killed by signal " << exit->termSignal;
    EXPECT_EQ(exit->exitCode, 139);
    const auto lines = earlyLog(sandbox);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(body(lines.back()), "[CRITICAL] [Crash] Signal 11");
    // Sent from outside, it is no fault of the program: no fault report.
    EXPECT_FALSE(logHas(lines, "Unhandled exception"));
}

TEST_F(ProgramStart, ExceptionOutsideTheGuardedRegionAbortsAfterTerminate) {
    auto environment = sandbox.environment();
    environment["MERID_CRASH_PROBE"] = "throw";
    ProgramRun run(MERID_CRASH_PROBE_PATH, environment, sandbox.root());
    auto exit = run.wait(kExitTimeout);

    ASSERT_TRUE(exit.has_value());
    EXPECT_TRUE(exit->exited) << "killed by signal " << exit->termSignal;
    EXPECT_EQ(exit->exitCode, 134);
    const auto lines = earlyLog(sandbox);
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(body(lines[lines.size() - 2]), "[CRITICAL] [Crash] std::terminate() called");
    EXPECT_EQ(body(lines.back()), "[CRITICAL] [Crash] Signal 6");
    EXPECT_FALSE(logHas(lines, "Creating Gtk::Application"));
}

TEST_F(ProgramStart, HardwareFaultLogsItsCodeAndFramesBeforeTheSignal) {
    auto environment = sandbox.environment();
    environment["MERID_CRASH_PROBE"] = "fault";
    ProgramRun run(MERID_CRASH_PROBE_PATH, environment, sandbox.root());
    auto exit = run.wait(kExitTimeout);

    ASSERT_TRUE(exit.has_value());
    EXPECT_TRUE(exit->exited) << "killed by signal " << exit->termSignal;
    EXPECT_EQ(exit->exitCode, 139);
    const auto lines = earlyLog(sandbox);
    auto code = findLine(lines, "[CRITICAL] [Crash] Unhandled exception code=0xb");
    ASSERT_TRUE(code.has_value()) << describe(lines);
    const std::regex frame(R"(\[CRITICAL\] \[Crash\]   #\d+ (0x)?[0-9a-f]+)");
    std::size_t frames = 0;
    for (std::size_t index = *code + 1; index < lines.size() && std::regex_match(body(lines[index]), frame);
         ++index) {
        ++frames;
    }
    EXPECT_GE(frames, 2u) << describe(lines);
    EXPECT_LE(frames, 64u);
    EXPECT_EQ(body(lines.back()), "[CRITICAL] [Crash] Signal 11");
}

TEST_F(ProgramStart, CopiedAloneUnderAnotherNameItRunsAndNamesItsTreeAfterItself) {
    // One file, nothing beside it: a blank and an extension in its name.
    const std::string copy = sandbox.root() + "/Merid Tool.v2.bin";
    fs::copy_file(program, copy);
    fs::permissions(copy, fs::perms::owner_exec, fs::perm_options::add);
    auto run = runUntilWindowThenClose(copy, sandbox, sandbox.environment());
    expectCleanExit(run);

    const std::string share = sandbox.runtimeShare("Merid_Tool.v2");
    EXPECT_EQ(treeTimes(share).size(), 16u);
    EXPECT_FALSE(fs::exists(sandbox.runtimeShare()));
    EXPECT_TRUE(findLine(earlyLog(sandbox), "[MESSAGE] [Env] XDG_DATA_DIRS=" + share));
}
