#include "BoardGang.h"

#include "Formatted.h"
#include "Platform.h"

#include <algorithm>
#include <cctype>

namespace {

constexpr auto kRedraw = std::chrono::milliseconds(200);

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::toupper(c); });
    return text;
}

} // namespace

std::uint64_t BoardGang::Target::bytes() const {
    std::uint64_t sum = 0;
    for (const Image& image : images) {
        sum += image.bytes;
    }
    return sum;
}

BoardGang::BoardGang(const CliSettings& settings, std::vector<Target> targets, std::ofstream* logFile)
    : settings(settings), targets(std::move(targets)), logFile(logFile), boards(settings.ports.size()) {
    for (const Target& target : this->targets) {
        totalBytes += target.bytes();
    }
    for (std::size_t i = 0; i < boards.size(); ++i) {
        boards[i].port = settings.ports[i];
        boards[i].stages.resize(this->targets.size());
    }
}

BoardGang::~BoardGang() = default;

// The same load for one port, in a process that reports to this one: the
// images as the copies, the ESP32's parts as address and file.
std::vector<std::string> BoardGang::workerArguments(const std::string& port) const {
    const bool both = targets.size() > 1;
    std::vector<std::string> arguments{both ? "board" : targets.front().name, "--worker", "-p", port, "-b",
                                       std::to_string(settings.baud)};
    // A board's process writes no report; it tells its parent what the
    // report keeps of the device.
    if (!settings.reportPath.empty()) {
        arguments.insert(arguments.end(), {"--report", settings.reportPath});
    }
    if (settings.loadsEsp32()) {
        for (const auto& [off, flag] :
             {std::pair{!settings.compress, "--no-compress"}, std::pair{!settings.verify, "--no-verify"},
              std::pair{settings.force, "--force"}}) {
            if (off) {
                arguments.push_back(flag);
            }
        }
    }
    for (const Target& target : targets) {
        arguments.push_back(both ? "--" + target.name : "--");
        for (const Image& image : target.images) {
            if (target.name == "esp32") {
                arguments.push_back(formatted("0x%x", static_cast<unsigned>(image.address)));
            }
            arguments.push_back(image.path);
        }
    }
    return arguments;
}

void BoardGang::writeLog(const std::string& port, const std::string& line) {
    std::lock_guard<std::mutex> lock(logMutex);
    *logFile << port << " " << line << '\n';
}

void BoardGang::onDone(Board& board, const BoardEvent& event) {
    if (board.current == board.stages.size()) {
        return;
    }
    Stage& stage = board.stages[board.current];
    stage.reported = true;
    stage.ok = event.ok;
    stage.reason = event.text;
    stage.code = event.code;
    stage.end = Clock::now();
    if (++board.current == board.stages.size()) {
        board.ended = true;
        board.end = stage.end;
    } else {
        board.stages[board.current].start = stage.end;
    }
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
    const bool under = board.current < board.stages.size();
    switch (event.kind) {
    case BoardEvent::Kind::Progress:
        if (under) {
            board.stages[board.current].bytes = event.bytes;
            board.progressed = true;
        }
        break;
    case BoardEvent::Kind::Device:
        // The search that names the device is no part of the load's time.
        if (under) {
            board.stages[board.current].start = Clock::now();
        }
        board.told.deviceName = event.text;
        board.told.deviceVersion = event.detail;
        board.told.serialNumber = event.ok ? std::optional<std::uint64_t>(event.bytes) : std::nullopt;
        return;
    case BoardEvent::Kind::Chip:
        board.told.chipType = event.text;
        board.told.chipMac = event.detail;
        return;
    case BoardEvent::Kind::Part:
        if (under) {
            board.stages[board.current].parts.push_back(
                {event.address, event.bytes, {}, event.ok ? "written" : "unchanged"});
        }
        return;
    case BoardEvent::Kind::Done:
        onDone(board, event);
        break;
    case BoardEvent::Kind::End:
        if (!board.ended) {
            board.ended = true;
            board.end = Clock::now();
        }
        break;
    case BoardEvent::Kind::Log:
        return;
    }
    if (board.ended && board.told.end == SystemClock::time_point{}) {
        board.told.end = SystemClock::now();
    }
    changed.notify_all();
}

void BoardGang::leaveOut(const std::string& port, const std::string& line) {
    for (Board& board : boards) {
        if (board.port == port) {
            Stage& first = board.stages.front();
            first.reported = true;
            first.reason = line;
            first.code = FailureCode::ofPort(line);
            board.ended = true;
        }
    }
}

void BoardGang::startBoards() {
    for (std::size_t i = 0; i < boards.size(); ++i) {
        Board& board = boards[i];
        if (board.ended) {
            continue;
        }
        board.process = std::make_unique<BoardProcess>(
            workerArguments(board.port), [this, i](const BoardEvent& event) { onEvent(i, event); });
        board.stages.front().start = Clock::now();
        board.told.start = SystemClock::now();
        if (!board.process->start()) {
            std::lock_guard<std::mutex> lock(mutex);
            board.stages.front().reported = true;
            board.stages.front().reason = "the board's process could not be started";
            board.stages.front().code = "worker-failed";
            board.stages.front().end = Clock::now();
            board.ended = true;
            board.process.reset();
        }
    }
}

// The bytes of the board's whole load done: the targets it finished, and
// what the one under way or a failed one got through.
std::uint64_t BoardGang::bytesDone(const Board& board) const {
    std::uint64_t done = 0;
    for (std::size_t i = 0; i < board.stages.size() && i <= board.current; ++i) {
        const Stage& stage = board.stages[i];
        done += stage.reported && stage.ok ? targets[i].bytes() : stage.bytes;
    }
    return done;
}

// The boards that moved since the last look; true once every board has
// ended.
bool BoardGang::takeMoves(std::vector<Moved>& moved) {
    std::unique_lock<std::mutex> lock(mutex);
    // A wake-up lost between two looks costs one redraw period at most.
    changed.wait_for(lock, kRedraw, [this] {
        return std::all_of(boards.begin(), boards.end(), [](const Board& board) { return board.ended; });
    });
    moved.clear();
    bool all = true;
    for (std::size_t i = 0; i < boards.size(); ++i) {
        if (boards[i].progressed) {
            boards[i].progressed = false;
            const std::uint64_t bytes = bytesDone(boards[i]);
            const auto percent = static_cast<unsigned>(totalBytes > 0 ? bytes * 100 / totalBytes : 0);
            moved.push_back({i, percent, bytes});
        }
        all = all && boards[i].ended;
    }
    return all;
}

// Redraws the view until every board has ended.
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
        if (!stopped && Platform::stopRequest() != 0) {
            stopBoards();
        }
    }
}

// Their processes end; their reports end with them.
void BoardGang::stopBoards() {
    std::lock_guard<std::mutex> lock(mutex);
    stopped = true;
    for (Board& board : boards) {
        if (!board.ended && board.process) {
            board.process->stop();
        }
    }
}

// Every part of the target, with what the board made of it.
std::vector<PartResult> BoardGang::partsOf(const Stage& stage, const Target& target) const {
    std::vector<PartResult> parts;
    for (const Image& image : target.images) {
        PartResult part{image.address, image.bytes, image.sha256, "not written"};
        for (const PartResult& done : stage.parts) {
            if (done.address == image.address) {
                part.result = done.result;
            }
        }
        parts.push_back(part);
    }
    std::sort(parts.begin(), parts.end(),
              [](const PartResult& a, const PartResult& b) { return a.address < b.address; });
    return parts;
}

BoardResult BoardGang::resultOf(const Board& board, std::size_t index, int exitCode) const {
    const Target& target = targets[index];
    const Stage& stage = board.stages[index];
    BoardResult result;
    result.port = board.port;
    result.target = target.name;
    result.sha256 = target.images.size() == 1 ? target.images.front().sha256 : std::string();
    if (target.name == "esp32") {
        result.parts = partsOf(stage, target);
    }
    const Stage* before = index > 0 ? &board.stages[index - 1] : nullptr;
    if (!stage.reported && before != nullptr && !(before->reported && before->ok)) {
        const FailureCode::Failure failure = unreported(board, index, exitCode);
        result.code = failure.code;
        result.result = failure.text;
        return result;
    }
    // A failed target counts what it got through.
    result.bytes = stage.reported && stage.ok ? target.bytes() : stage.bytes;
    const Clock::time_point end = stage.reported ? stage.end : board.end;
    result.seconds = end > stage.start ? std::chrono::duration<double>(end - stage.start).count() : 0.0;
    result.ok = stage.reported && stage.ok;
    if (result.ok) {
        result.result = stage.reason;
        return result;
    }
    const FailureCode::Failure failure =
        stage.reported ? FailureCode::of(stage.code, stage.reason) : unreported(board, index, exitCode);
    result.code = failure.code;
    result.result = failure.text;
    return result;
}

FailureCode::Failure BoardGang::unreported(const Board& board, std::size_t index, int exitCode) const {
    for (std::size_t i = 0; i < index; ++i) {
        const Stage& earlier = board.stages[i];
        if (earlier.reported && !earlier.ok && earlier.code != "interrupted") {
            return FailureCode::of("not-attempted", "the " + upper(targets[i].name) + " load failed");
        }
    }
    if (stopped) {
        return FailureCode::of("interrupted", {});
    }
    return FailureCode::of("worker-failed",
                           "the board's process ended with code " + std::to_string(exitCode));
}

std::vector<BoardResult> BoardGang::run(ProgressView* view) {
    startBoards();
    watch(view);
    std::vector<BoardResult> results;
    for (Board& board : boards) {
        const int exitCode = board.process ? board.process->join() : -1;
        std::lock_guard<std::mutex> lock(mutex);
        for (std::size_t i = 0; i < targets.size(); ++i) {
            results.push_back(resultOf(board, i, exitCode));
        }
        // A board whose every target succeeded ends well, or its last fails.
        BoardResult& last = results.back();
        // A board stopped after its last report has still done its load.
        if (last.ok && exitCode != 0 && !stopped) {
            const FailureCode::Failure failure = unreported(board, targets.size() - 1, exitCode);
            last.ok = false;
            last.code = failure.code;
            last.result = failure.text;
        }
    }
    return results;
}

std::vector<BoardRecord> BoardGang::records() {
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<BoardRecord> told;
    const SystemClock::time_point now = SystemClock::now();
    for (const Board& board : boards) {
        told.push_back(board.told);
        // A board left out, or whose process never started, ends at once.
        for (SystemClock::time_point* time : {&told.back().start, &told.back().end}) {
            *time = *time == SystemClock::time_point{} ? now : *time;
        }
    }
    return told;
}
