#pragma once

#include "Platform.h"
#include "WorkerReport.h"

#include <functional>
#include <string>
#include <thread>
#include <vector>

// The process that loads one board: this program started again for one
// port. A thread of this process reads its reports and hands each to
// `listener`, and the end of its output last; a board that fails or crashes
// stays in its process.
class BoardProcess {
public:
    using Listener = std::function<void(const BoardEvent& event)>;

    BoardProcess(std::vector<std::string> arguments, Listener listener);
    ~BoardProcess();
    BoardProcess(const BoardProcess&) = delete;
    BoardProcess& operator=(const BoardProcess&) = delete;

    bool start();
    // Ends the process before its load is done.
    void stop();
    // Waits for the end of the reports and of the process: its exit code.
    int join();

private:
    void readReports();

    std::vector<std::string> arguments;
    Listener listener;
    Platform::ChildProcess child;
    std::thread reader;
    bool started = false;
};
