#include "ProgressView.h"

#include "DeviceText.h"
#include "Formatted.h"

#include <algorithm>
#include <cinttypes>

ProgressView::ProgressView(std::FILE* out, bool terminal, const std::vector<std::string>& ports,
                           std::uint64_t imageBytes)
    : out(out), terminal(terminal), total(imageBytes), start(std::chrono::steady_clock::now()) {
    for (const auto& port : ports) {
        boards.push_back({port});
        width = std::max(width, DeviceText::forTerminal(port).size());
    }
}

std::string ProgressView::line(const std::string& port, unsigned percent, std::uint64_t bytes,
                               std::uint64_t total, double seconds) {
    const double rate = seconds > 0 ? static_cast<double>(bytes) / 1024.0 / seconds : 0.0;
    std::string text =
        DeviceText::forTerminal(port) +
        formatted(" %3u%% %9" PRIu64 "/%" PRIu64 " bytes %8.1f KiB/s", percent, bytes, total, rate);
    if (bytes > 0 && bytes < total && rate > 0) {
        const double left = static_cast<double>(total - bytes) / 1024.0 / rate;
        text += formatted(" %6.0f s left", left);
    }
    return text;
}

void ProgressView::update(std::size_t board, unsigned percent, std::uint64_t bytes) {
    Board& entry = boards.at(board);
    entry.percent = std::min(percent, 100u);
    entry.bytes = bytes;
    entry.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    changed = true;
    if (terminal) {
        return;
    }
    const unsigned tenth = entry.percent / 10;
    if (tenth > entry.reportedTenth) {
        entry.reportedTenth = tenth;
        std::string port = DeviceText::forTerminal(entry.port);
        port.resize(width, ' ');
        std::fprintf(out, "%s\n", line(port, entry.percent, entry.bytes, total, entry.seconds).c_str());
        std::fflush(out);
    }
}

void ProgressView::draw() {
    if (!terminal || !changed) {
        return;
    }
    changed = false;
    if (drawn) {
        std::fprintf(out, "\x1b[%uA", static_cast<unsigned>(boards.size())); // back to the first board's line
    }
    drawn = true;
    for (const Board& entry : boards) {
        std::string port = DeviceText::forTerminal(entry.port);
        port.resize(width, ' ');
        std::fprintf(out, "\r\x1b[K%s\n",
                     line(port, entry.percent, entry.bytes, total, entry.seconds).c_str());
    }
    std::fflush(out);
}
