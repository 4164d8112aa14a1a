#pragma once

#include "BoardProcess.h"
#include "BoardRecord.h"
#include "BoardResult.h"
#include "CliSettings.h"
#include "FailureCode.h"
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
// the log file, and each board's result for each of its targets.
class BoardGang {
public:
    // One image every board loads: the one copy of it, its digest and size,
    // and where a part of an ESP32 image goes.
    struct Image {
        std::uint32_t address = 0;
        std::string path;
        std::string sha256;
        std::uint64_t bytes = 0;
    };
    // What a board loads into one processor: "stm32" with its image, or
    // "esp32" with the parts of its image.
    struct Target {
        std::string name;
        std::vector<Image> images;

        std::uint64_t bytes() const;
    };

    // `targets` in the order each board loads them; a board whose load of
    // one fails goes on to no other.
    BoardGang(const CliSettings& settings, std::vector<Target> targets, std::ofstream* logFile);
    ~BoardGang();
    BoardGang(const BoardGang&) = delete;
    BoardGang& operator=(const BoardGang&) = delete;

    // The board on `port`, which did not open with the words `line`, is not
    // started: its first target fails, the others are not attempted.
    void leaveOut(const std::string& port, const std::string& line);

    // Runs until every board has ended; `view` may be null. A stop request
    // (Platform::stopRequest) ends the boards under way, whose targets not
    // yet done are then "interrupted". One result per board and target, the
    // board's targets together in their order.
    std::vector<BoardResult> run(ProgressView* view);
    // After the run, in the order of the ports: when each board's process
    // started and ended (wall-clock time), and the device and the ESP32
    // chip it told of; the rest of each record is left empty.
    std::vector<BoardRecord> records();

private:
    using Clock = std::chrono::steady_clock;
    using SystemClock = std::chrono::system_clock;
    struct Moved {
        std::size_t index;
        unsigned percent;
        std::uint64_t bytes;
    };
    // One target on one board.
    struct Stage {
        bool reported = false;
        bool ok = false;
        std::string reason;
        std::string code;
        std::uint64_t bytes = 0;
        std::vector<PartResult> parts; // as reported, in the order done
        Clock::time_point start;
        Clock::time_point end;
    };
    struct Board {
        std::string port;
        std::unique_ptr<BoardProcess> process;
        std::vector<Stage> stages;
        std::size_t current = 0; // the stage under way
        bool ended = false;      // every stage reported, or the output ended
        bool progressed = false;
        Clock::time_point end;
        BoardRecord told;
    };

    std::vector<std::string> workerArguments(const std::string& port) const;
    void onEvent(std::size_t index, const BoardEvent& event);
    void onDone(Board& board, const BoardEvent& event);
    void startBoards();
    void watch(ProgressView* view);
    void stopBoards();
    bool takeMoves(std::vector<Moved>& moved);
    std::uint64_t bytesDone(const Board& board) const;
    void writeLog(const std::string& port, const std::string& line);
    BoardResult resultOf(const Board& board, std::size_t stage, int exitCode) const;
    // What a target that did not report its end became.
    FailureCode::Failure unreported(const Board& board, std::size_t stage, int exitCode) const;
    std::vector<PartResult> partsOf(const Stage& stage, const Target& target) const;

    const CliSettings& settings;
    std::vector<Target> targets;
    std::uint64_t totalBytes = 0;
    std::ofstream* logFile;
    std::mutex logMutex;
    std::vector<Board> boards;
    bool stopped = false;
    // Never held across a write to the terminal: the boards' reports go on
    // while the output stands still.
    std::mutex mutex;
    std::condition_variable changed;
};
