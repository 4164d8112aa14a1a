#include "BoardGang.h"

#include <algorithm>

namespace {

constexpr auto kRedraw = std::chrono::milliseconds(200);

} // namespace

BoardGang::BoardGang(const CliSettings& settings, Image image, std::ofstream* logFile)
    : settings(settings), image(std::move(image)), logFile(logFile), boards(settings.ports.size()) {
    for (std::size_t i = 0; i < boards.size(); ++i) {
        boards[i].port = settings.ports[i];
    }
}

BoardGang::~BoardGang() = default;

// The same load for one port, in a process that reports to this one.
std::vector<std::string> BoardGang::workerArguments(const std::string& port) const {
    std::vector<std::string> arguments{settings.targetName(),        "--worker", "-p", port, "-b",
                                       std::to_string(settings.baud)};
    if (!settings.compress) {
        arguments.push_back("--no-compress");
    }
    if (!settings.verify) {
        arguments.push_back("--no-verify");
    }
    arguments.push_back("--");
    arguments.push_back(image.path);
    return arguments;
}

void BoardGang::writeLog(const std::string& port, const std::string& line) {
    std::lock_guard<std::mutex> lock(logMutex);
    *logFile << port << " " << line << '\n';
}

void BoardGang::onEvent(std::size_t index, const BoardEvent& event) {
    if (event.kind == BoardEvent::Kind::Log) {
        if (logFile != nullptr) {
            writeLog(boards[index].port, event.text);
        }
        return;
    }
    std::lock_guard<std::mutex> lock(mutex);
    Board& board = boards[index];
    switch (event.kind) {
    case BoardEvent::Kind::Progress:
        board.percent = event.percent;
        board.bytes = event.bytes;
        board.progressed = true;
        break;
    case BoardEvent::Kind::Log:
        return;
    case BoardEvent::Kind::Done:
        if (board.reported) {
            return;
        }
        board.reported = true;
        board.ok = event.ok;
        board.reason = event.text;
        board.end = Clock::now();
        break;
    }
    changed.notify_all();
}

void BoardGang::startBoards() {
    for (std::size_t i = 0; i < boards.size(); ++i) {
        Board& board = boards[i];
        board.process = std::make_unique<BoardProcess>(
            workerArguments(board.port), [this, i](const BoardEvent& event) { onEvent(i, event); });
        board.start = Clock::now();
        if (!board.process->start()) {
            std::lock_guard<std::mutex> lock(mutex);
            board.reported = true;
            board.reason = "the board's process could not be started";
            board.end = Clock::now();
            board.process.reset();
        }
    }
}

// The boards that moved since the last look; true once every board has
// reported its result.
bool BoardGang::takeMoves(std::vector<Moved>& moved) {
    std::unique_lock<std::mutex> lock(mutex);
    // A wake-up lost between two looks costs one redraw period at most.
    changed.wait_for(lock, kRedraw, [this] {
        return std::all_of(boards.begin(), boards.end(), [](const Board& board) { return board.reported; });
    });
    moved.clear();
    bool all = true;
    for (std::size_t i = 0; i < boards.size(); ++i) {
        if (boards[i].progressed) {
            boards[i].progressed = false;
            moved.push_back({i, boards[i].percent, boards[i].bytes});
        }
        all = all && boards[i].reported;
    }
    return all;
}

// Redraws the view until every board has reported its result.
void BoardGang::watch(ProgressView* view) {
    std::vector<Moved> moved;
    for (;;) {
        const bool all = takeMoves(moved);
        if (view != nullptr) {
            for (const Moved& move : moved) {
                view->update(move.index, move.percent, move.bytes);
            }
            view->draw();
        }
        if (all) {
            return;
        }
    }
}

BoardResult BoardGang::resultOf(Board& board, int exitCode) {
    BoardResult result;
    result.port = board.port;
    result.target = settings.targetName();
    // A failed board counts what it got through.
    result.bytes = board.reported && board.ok ? image.bytes : board.bytes;
    result.sha256 = image.sha256;
    const Clock::time_point end = board.reported ? board.end : Clock::now();
    result.seconds = std::chrono::duration<double>(end - board.start).count();
    result.ok = board.reported && board.ok && exitCode == 0;
    if (result.ok) {
        result.result = board.reason;
    } else if (board.reported && !board.reason.empty()) {
        result.result = board.reason;
    } else {
        result.result = "the board's process ended with code " + std::to_string(exitCode);
    }
    return result;
}

std::vector<BoardResult> BoardGang::run(ProgressView* view) {
    startBoards();
    watch(view);
    std::vector<BoardResult> results;
    for (Board& board : boards) {
        const int exitCode = board.process ? board.process->join() : -1;
        std::lock_guard<std::mutex> lock(mutex);
        results.push_back(resultOf(board, exitCode));
    }
    return results;
}
