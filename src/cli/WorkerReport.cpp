#include "WorkerReport.h"

#include <algorithm>
#include <limits>
#include <string_view>
#include <type_traits>

namespace {

// The words of a report line, read as a stream in the classic locale reads
// them, without building one for every line: blanks skipped before each
// word, a number in decimal with an optional sign (a minus wraps an unsigned
// one around), and a number out of its type's range refused.
class Words {
public:
    explicit Words(const std::string& line) : line(line) {}

    // Takes `expected` if it is the next word. Only the length of the wanted
    // word is looked at, however long the one on the line.
    bool word(std::string_view expected) {
        skipBlanks();
        const std::size_t end = at + expected.size();
        // Most lines part from the wanted word at its first letter.
        if (at == line.size() || line[at] != expected.front() ||
            line.compare(at, expected.size(), expected) != 0 || (end < line.size() && !isBlank(line[end]))) {
            return false;
        }
        at = end;
        return true;
    }

    template <typename T> bool number(T& value) {
        using Magnitude = std::make_unsigned_t<T>;
        skipBlanks();
        const bool negative = at < line.size() && line[at] == '-';
        if (at < line.size() && (negative || line[at] == '+')) {
            ++at;
        }
        const Magnitude limit = negative && std::is_signed_v<T>
                                    ? Magnitude(0) - static_cast<Magnitude>(std::numeric_limits<T>::min())
                                    : static_cast<Magnitude>(std::numeric_limits<T>::max());
        Magnitude magnitude = 0;
        bool digits = false;
        bool overflow = false;
        for (; at < line.size() && line[at] >= '0' && line[at] <= '9'; ++at) {
            const auto digit = static_cast<Magnitude>(line[at] - '0');
            digits = true;
            overflow = overflow || magnitude > (limit - digit) / 10;
            magnitude = static_cast<Magnitude>(magnitude * 10 + digit);
        }
        if (!digits || overflow) {
            return false;
        }
        value = static_cast<T>(negative ? Magnitude(0) - magnitude : magnitude);
        return true;
    }

    // The next word, up to a blank.
    std::string token() {
        skipBlanks();
        const std::size_t start = at;
        while (at < line.size() && !isBlank(line[at])) {
            ++at;
        }
        return line.substr(start, at - start);
    }

    // What follows the one blank after the last word, blanks of its own kept.
    std::string rest() {
        const std::size_t start = std::min(at + 1, line.size());
        at = line.size();
        return line.substr(start);
    }

private:
    static bool isBlank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

    void skipBlanks() {
        while (at < line.size() && isBlank(line[at])) {
            ++at;
        }
    }

    const std::string& line;
    std::size_t at = 0;
};

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

std::optional<BoardEvent> deviceEvent(Words& in) {
    BoardEvent event;
    event.kind = BoardEvent::Kind::Device;
    event.detail = in.token();
    if (event.detail == "-") {
        event.detail.clear();
    }
    if (!in.word("-")) {
        if (!in.number(event.bytes)) {
            return std::nullopt;
        }
        event.ok = true;
    }
    event.text = fromOneLine(in.rest());
    return event;
}

} // namespace

std::string WorkerReport::progress(unsigned percent, std::uint64_t bytes) {
    return "progress " + std::to_string(percent) + " " + std::to_string(bytes) + "\n";
}

std::string WorkerReport::log(const std::string& line) {
    return "log " + line + "\n";
}

// The words the device chose go last, on one line; the others never hold a
// blank, and a dash stands for one that is missing.
std::string WorkerReport::device(const std::string& name, const std::string& version,
                                 std::optional<std::uint64_t> serial) {
    return "device " + (version.empty() ? "-" : version) + " " + (serial ? std::to_string(*serial) : "-") +
           " " + oneLine(name) + "\n";
}

std::string WorkerReport::chip(const std::string& type, const std::string& mac) {
    return "chip " + (mac.empty() ? "-" : mac) + " " + oneLine(type) + "\n";
}

std::string WorkerReport::part(std::uint32_t address, std::uint64_t size, bool written) {
    return "part " + std::to_string(address) + " " + std::to_string(size) + (written ? " 1\n" : " 0\n");
}

// A code is one word; "-" stands for none.
std::string WorkerReport::done(bool ok, const std::string& code, const std::string& reason) {
    return std::string("done ") + (ok ? "1 " : "0 ") + (code.empty() ? "-" : code) + " " + oneLine(reason) +
           "\n";
}

std::optional<BoardEvent> WorkerReport::parse(const std::string& line) {
    Words in(line);
    BoardEvent event;
    // The text after the kind's word and `skip` more characters.
    const auto rest = [&line](std::string_view kind, std::size_t skip) {
        const std::size_t at = kind.size() + 1 + skip;
        return at < line.size() ? line.substr(at) : std::string();
    };
    if (in.word("progress")) {
        if (!in.number(event.percent) || !in.number(event.bytes)) {
            return std::nullopt;
        }
        event.kind = BoardEvent::Kind::Progress;
        return event;
    }
    if (in.word("log")) {
        event.kind = BoardEvent::Kind::Log;
        event.text = rest("log", 0);
        return event;
    }
    if (in.word("device")) {
        return deviceEvent(in);
    }
    if (in.word("chip")) {
        event.kind = BoardEvent::Kind::Chip;
        event.detail = in.token();
        event.text = fromOneLine(in.rest());
        if (event.detail == "-") {
            event.detail.clear();
        }
        return event;
    }
    int ok = 0;
    if (in.word("part")) {
        if (!in.number(event.address) || !in.number(event.bytes) || !in.number(ok)) {
            return std::nullopt;
        }
        event.kind = BoardEvent::Kind::Part;
        event.ok = ok == 1;
        return event;
    }
    if (in.word("done") && in.number(ok)) {
        event.kind = BoardEvent::Kind::Done;
        event.ok = ok == 1;
        const std::string words = rest("done", 2);
        const std::size_t space = std::min(words.find(' '), words.size());
        event.code = words.compare(0, space, "-") == 0 ? std::string() : words.substr(0, space);
        event.text = fromOneLine(space < words.size() ? words.substr(space + 1) : std::string());
        return event;
    }
    return std::nullopt;
}
