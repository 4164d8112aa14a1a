#pragma once

#include "DeviceSimulator.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>

namespace testsupport {

// A test against the simulated board on a pseudo-terminal: the board, a
// folder for images, and every line the program logs, shown when the test
// failed.
class SimulatedBoardTest : public ::testing::Test {
protected:
    void TearDown() override {
        if (HasFailure()) {
            for (const auto& line : log.lines()) {
                std::cerr << "  log: " << line.tag << line.message << "\n";
            }
        }
        simulator.stop();
    }

    // `bytes` in a file of the test's folder; its path.
    std::string writeImage(const Bytes& bytes, const std::string& name = "image.bin") {
        const std::string path = dir.path() + "/" + name;
        EXPECT_TRUE(writeFile(path, bytes));
        return path;
    }

    // The frames of the request `command` that the board received: a
    // frame's fifth byte is its command.
    std::vector<Bytes> frames(std::uint8_t command) {
        std::vector<Bytes> found;
        for (auto& entry : simulator.journal()) {
            if (entry.kind == DeviceSimulator::JournalEntry::Frame && entry.raw.size() > 4 &&
                entry.raw[4] == command) {
                found.push_back(entry.raw);
            }
        }
        return found;
    }

    CapturingLogger log;
    TempDir dir;
    DeviceSimulator simulator;
};

} // namespace testsupport
