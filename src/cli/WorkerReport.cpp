#include "WorkerReport.h"

#include <sstream>

std::string WorkerReport::progress(unsigned percent, std::uint64_t bytes) {
    return "progress " + std::to_string(percent) + " " + std::to_string(bytes) + "\n";
}

std::string WorkerReport::log(const std::string& line) {
    return "log " + line + "\n";
}

std::string WorkerReport::done(bool ok, const std::string& reason) {
    return std::string("done ") + (ok ? "1 " : "0 ") + reason + "\n";
}

std::optional<BoardEvent> WorkerReport::parse(const std::string& line) {
    std::istringstream in(line);
    std::string kind;
    in >> kind;
    BoardEvent event;
    const auto rest = [&line, &kind](std::size_t skip) {
        const std::size_t at = kind.size() + 1 + skip;
        return at < line.size() ? line.substr(at) : std::string();
    };
    if (kind == "progress" && in >> event.percent >> event.bytes) {
        event.kind = BoardEvent::Kind::Progress;
        return event;
    }
    if (kind == "log") {
        event.kind = BoardEvent::Kind::Log;
        event.text = rest(0);
        return event;
    }
    int ok = 0;
    if (kind == "done" && in >> ok) {
        event.kind = BoardEvent::Kind::Done;
        event.ok = ok == 1;
        event.text = rest(2);
        return event;
    }
    return std::nullopt;
}
