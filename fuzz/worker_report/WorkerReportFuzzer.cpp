// The lines a board's process writes to merid-flash, as the parent takes
// them: cut at line feeds, a carriage return dropped, each parsed and handed
// to the progress view. Whatever a line says, the view keeps its percent
// within 100, and a line the worker itself would write reads back as written.
#include "DefaultMaxLen.h"
#include "ProgressView.h"
#include "WorkerReport.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

namespace {

std::FILE* gSink = nullptr;

// A stream that takes whatever is written and keeps nothing, with no system
// call for each flush of the view.
std::FILE* openDiscardingStream() {
    cookie_io_functions_t io{};
    io.write = [](void*, const char*, std::size_t size) { return static_cast<ssize_t>(size); };
    return fopencookie(nullptr, "w", io);
}

void check(bool condition) {
    if (!condition) {
        __builtin_trap();
    }
}

// A written report without its line feed, as the parent cuts it.
std::optional<BoardEvent> reread(std::string written) {
    written.pop_back();
    return WorkerReport::parse(written);
}

// Writing an event the way the worker does and parsing it gives it back.
void roundTrip(const BoardEvent& event) {
    switch (event.kind) {
    case BoardEvent::Kind::Progress: {
        const auto again = reread(WorkerReport::progress(event.percent, event.bytes));
        check(again && again->kind == event.kind && again->percent == event.percent &&
              again->bytes == event.bytes);
        break;
    }
    case BoardEvent::Kind::Log: {
        const auto again = reread(WorkerReport::log(event.text));
        check(again && again->kind == event.kind && again->text == event.text);
        break;
    }
    case BoardEvent::Kind::Done: {
        const auto again = reread(WorkerReport::done(event.ok, event.code, event.text));
        check(again && again->kind == event.kind && again->ok == event.ok && again->code == event.code &&
              again->text == event.text);
        break;
    }
    }
}

} // namespace

// Each line is parsed on its own, and the lines a worker writes run from a
// dozen bytes to a few hundred for a log line; a kilobyte holds the longest
// or dozens of short ones in a row for the view, so longer inputs only add
// more of the same.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    setDefaultMaxLen(argc, argv, 1024);
    gSink = openDiscardingStream();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    ProgressView view(gSink, (size & 1) != 0, {"/dev/ttyUSB0"}, 0x10000);
    // One buffer for every line of the input.
    std::string line;
    std::size_t start = 0;
    for (std::size_t end = text.find('\n'); end != std::string_view::npos; end = text.find('\n', start)) {
        line.assign(text.substr(start, end - start));
        start = end + 1;
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        const auto event = WorkerReport::parse(line);
        if (!event) {
            continue;
        }
        roundTrip(*event);
        if (event->kind == BoardEvent::Kind::Progress) {
            view.update(0, event->percent, event->bytes);
            view.draw();
        }
    }
    return 0;
}
