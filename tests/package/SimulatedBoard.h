#pragma once

#include "ProgramRun.h"

#include <chrono>
#include <optional>
#include <string>

namespace packagetest {

// The device simulator program serving a simulated board on a
// pseudo-terminal, for as long as the object lives; it is stopped the way a
// user stops it, by SIGTERM.
class SimulatedBoard {
public:
    SimulatedBoard(const std::string& simulator, const std::string& outputDir);
    ~SimulatedBoard();
    SimulatedBoard(const SimulatedBoard&) = delete;
    SimulatedBoard& operator=(const SimulatedBoard&) = delete;

    // The port the simulator serves, once it has printed it.
    std::optional<std::string> waitForPort(std::chrono::milliseconds timeout);

    // Stops the simulator; true when it ended by itself with code 0.
    bool stop();

    std::string standardError() const { return run.standardError(); }

private:
    programtest::ProgramRun run;
    bool stopped = false;
};

} // namespace packagetest
