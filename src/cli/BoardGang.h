#pragma once

#include "BoardProcess.h"
#include "BoardResult.h"
#include "CliSettings.h"
#include "ProgressView.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

// Loads every board of the command line at once, each in a process of its
// own, and gathers what they report: progress for the view, log lines for
// the log file, and each board's result.
class BoardGang {
public:
    // What every board loads: the one copy of the image, its digest and size.
    struct Image {
        std::string path;
        std::string sha256;
        std::uint64_t bytes = 0;
    };

    BoardGang(const CliSettings& settings, Image image, std::ofstream* logFile);
    ~BoardGang();
    BoardGang(const BoardGang&) = delete;
    BoardGang& operator=(const BoardGang&) = delete;

    // Runs until every board has ended; `view` may be null.
    std::vector<BoardResult> run(ProgressView* view);

private:
    using Clock = std::chrono::steady_clock;
    struct Moved {
        std::size_t index;
        unsigned percent;
        std::uint64_t bytes;
    };
    struct Board {
        std::string port;
        std::unique_ptr<BoardProcess> process;
        bool reported = false; // its result came, or its output ended
        bool ok = false;
        std::string reason;
        unsigned percent = 0;
        std::uint64_t bytes = 0;
        bool progressed = false;
        Clock::time_point start;
        Clock::time_point end;
    };

    std::vector<std::string> workerArguments(const std::string& port) const;
    void onEvent(std::size_t index, const BoardEvent& event);
    void startBoards();
    void watch(ProgressView* view);
    bool takeMoves(std::vector<Moved>& moved);
    void writeLog(const std::string& port, const std::string& line);
    BoardResult resultOf(Board& board, int exitCode);

    const CliSettings& settings;
    Image image;
    std::ofstream* logFile;
    std::mutex logMutex;
    std::vector<Board> boards;
    // Never held across a write to the terminal: the boards' reports go on
    // while the output stands still.
    std::mutex mutex;
    std::condition_variable changed;
};
