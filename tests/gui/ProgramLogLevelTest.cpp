// MERID_LOG_LEVEL in the running program: the user makes the program report
// a warning and an error (the STM32 file dialog closed without a file), and
// the log file shows what the level lets through.
#include "ProgramRun.h"
#include "Sandbox.h"
#include "X11Windows.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using namespace programtest;

namespace {

namespace fs = std::filesystem;

std::string commandOutput(const std::string& command) {
    std::string output;
    if (FILE* pipe = popen(command.c_str(), "r")) {
        char buffer[256];
        while (fgets(buffer, sizeof(buffer), pipe) != nullptr) {
            output += buffer;
        }
        pclose(pipe);
    }
    return output;
}

// The program's visible windows other than `main`: the file dialog.
std::optional<std::string> otherWindow(pid_t pid, unsigned long main) {
    std::istringstream ids(commandOutput("xdotool search --onlyvisible --pid " + std::to_string(pid)));
    std::string id;
    while (ids >> id) {
        if (id != std::to_string(main)) {
            return id;
        }
    }
    return std::nullopt;
}

// Every application log file in `dir`, joined; nothing when there is none.
std::optional<std::string> logText(const fs::path& dir) {
    std::optional<std::string> text;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(dir, error)) {
        if (entry.path().filename().string().rfind("application", 0) == 0) {
            text = text.value_or("") + readFile(entry.path().string());
        }
    }
    return text;
}

struct LevelRun {
    std::optional<std::string> log;
    bool fallbackLogWritten = false;
};

// Starts the program with MERID_LOG_LEVEL = `level`, presses the STM32
// "Поиск" button, closes the file dialog with Escape, closes the window.
LevelRun runAtLevel(const std::optional<std::string>& level) {
    Sandbox sandbox;
    X11Windows x11;
    EXPECT_TRUE(x11.connected()) << "no X display: run under xvfb-run";
    const fs::path logDir = fs::path(sandbox.root()) / "logs";
    fs::create_directories(logDir);
    auto environment = sandbox.environment();
    environment["MERID_LOG_DIR"] = logDir.string();
    environment["MERID_LOG_LEVEL"] = level;
    environment["MERID_EXTRA_PORTS"] = std::nullopt;
    ProgramRun run(MERID_PROGRAM_PATH, environment, sandbox.root());
    EXPECT_TRUE(run.started());

    LevelRun result;
    auto window = x11.waitForWindow(run.pid(), "MeridKestalUtility", std::chrono::seconds(90));
    EXPECT_TRUE(window.has_value()) << run.standardError();
    if (!window) {
        return result;
    }
    // The STM32 file button, where the window's layout puts it.
    std::system(("xdotool mousemove --window " + std::to_string(*window) + " 460 295 click 1").c_str());
    std::optional<std::string> dialog;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!(dialog = otherWindow(run.pid(), *window)) && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    EXPECT_TRUE(dialog.has_value()) << "the file dialog did not open";
    if (dialog) {
        std::system(("xdotool windowfocus --sync " + *dialog + " key Escape").c_str());
        while (otherWindow(run.pid(), *window) && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    }
    x11.requestClose(*window);
    auto exit = run.wait(std::chrono::seconds(60));
    EXPECT_TRUE(exit.has_value() && exit->exited && exit->exitCode == 0) << run.standardError();
    result.log = logText(logDir);
    result.fallbackLogWritten = logText(fs::path(sandbox.tmp()) / "MeridKestalUtility").has_value();
    return result;
}

bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

} // namespace

TEST(ProgramLogLevel, WithoutTheVariableEveryLineIsWritten) {
    const LevelRun run = runAtLevel(std::nullopt);
    ASSERT_TRUE(run.log.has_value());
    EXPECT_TRUE(has(*run.log, "[DEBUG] MainWindow: Init Payload protocol"));
    EXPECT_TRUE(has(*run.log, "[INFO] MainWindow: Start searching file"));
    EXPECT_TRUE(has(*run.log, "[WARNING] MainWindow: File not found or path is not set!"));
    EXPECT_TRUE(has(*run.log, "[ERROR] OpenFileDialog: Error with Open File for STM32!"));
}

TEST(ProgramLogLevel, OffWritesNoLogFileAtAll) {
    const LevelRun run = runAtLevel("oFF");
    EXPECT_FALSE(run.log.has_value()) << *run.log;
    EXPECT_FALSE(run.fallbackLogWritten);
}

TEST(ProgramLogLevel, MinimumWritesErrorsOnly) {
    const LevelRun run = runAtLevel("minimum");
    ASSERT_TRUE(run.log.has_value());
    EXPECT_TRUE(has(*run.log, "[ERROR] OpenFileDialog: Error with Open File for STM32!"));
    EXPECT_FALSE(has(*run.log, "[WARNING]"));
    EXPECT_FALSE(has(*run.log, "[INFO]"));
    EXPECT_FALSE(has(*run.log, "[DEBUG]"));
}

TEST(ProgramLogLevel, ImportantWritesWarningsAndErrors) {
    const LevelRun run = runAtLevel("Important");
    ASSERT_TRUE(run.log.has_value());
    EXPECT_TRUE(has(*run.log, "[WARNING] MainWindow: File not found or path is not set!"));
    EXPECT_TRUE(has(*run.log, "[ERROR] OpenFileDialog: Error with Open File for STM32!"));
    EXPECT_FALSE(has(*run.log, "[INFO]"));
    EXPECT_FALSE(has(*run.log, "[DEBUG]"));
}
