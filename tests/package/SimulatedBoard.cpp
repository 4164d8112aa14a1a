#include "SimulatedBoard.h"

#include <csignal>
#include <filesystem>
#include <thread>

namespace packagetest {

namespace {

std::string prepared(const std::string& dir) {
    std::filesystem::create_directories(dir);
    return dir;
}

} // namespace

SimulatedBoard::SimulatedBoard(const std::string& simulator, const std::string& outputDir)
    : run(simulator, {}, prepared(outputDir)) {}

SimulatedBoard::~SimulatedBoard() {
    stop();
}

std::optional<std::string> SimulatedBoard::waitForPort(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        const std::string output = run.standardOutput();
        const auto end = output.find('\n');
        if (end != std::string::npos) {
            return output.substr(0, end);
        }
        if (run.wait(std::chrono::milliseconds(20))) {
            return std::nullopt; // it ended without serving a port
        }
    }
    return std::nullopt;
}

bool SimulatedBoard::stop() {
    if (stopped) {
        return false;
    }
    stopped = true;
    run.sendSignal(SIGTERM);
    const auto exit = run.wait(std::chrono::seconds(10));
    return exit && exit->exited && exit->exitCode == 0;
}

} // namespace packagetest
