#include "WorkerReport.h"

#include <sstream>

namespace {

// A reason stays one line on the pipe, whatever bytes the board put in it.
std::string oneLine(const std::string& text) {
    std::string line;
    for (const char c : text) {
        if (c == '\\') {
            line += "\\\\";
        } else if (c == '\n') {
            line += "\\n";
        } else if (c == '\r') {
            line += "\\r";
        } else {
            line += c;
        }
    }
    return line;
}

std::string fromOneLine(const std::string& line) {
    std::string text;
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (line[i] != '\\' || i + 1 == line.size()) {
            text += line[i];
            continue;
        }
        const char next = line[++i];
        text += next == 'n' ? '\n' : next == 'r' ? '\r' : next;
    }
    return text;
}

} // namespace

std::string WorkerReport::progress(unsigned percent, std::uint64_t bytes) {
    return "progress " + std::to_string(percent) + " " + std::to_string(bytes) + "\n";
}

std::string WorkerReport::log(const std::string& line) {
    return "log " + line + "\n";
}

std::string WorkerReport::done(bool ok, const std::string& reason) {
    return std::string("done ") + (ok ? "1 " : "0 ") + oneLine(reason) + "\n";
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
        event.text = fromOneLine(rest(2));
        return event;
    }
    return std::nullopt;
}
