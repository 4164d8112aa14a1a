#include "Summary.h"

#include "DeviceText.h"
#include "Formatted.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

namespace {

std::string padded(std::string text, std::size_t width) {
    text.resize(std::max(width, text.size()), ' ');
    return text;
}

std::string fixed(double value, int decimals) {
    return formatted("%.*f", decimals, value);
}

} // namespace

std::string Summary::table(const std::vector<BoardResult>& results) {
    std::size_t portWidth = 4;
    for (const auto& result : results) {
        portWidth = std::max(portWidth, DeviceText::forTerminal(result.port).size());
    }
    std::string text;
    if (!results.empty() && !results.front().sha256.empty()) {
        text += "image SHA-256 " + results.front().sha256 + "\n";
    }
    text += padded("PORT", portWidth) +
            formatted("  %-6s %10s %8s %9s  %s\n", "TARGET", "BYTES", "SECONDS", "KIB/S", "RESULT");
    for (const auto& result : results) {
        text += padded(DeviceText::forTerminal(result.port), portWidth) +
                formatted("  %-6s %10" PRIu64 " %8.2f %9.1f  ", result.target.c_str(), result.bytes,
                          result.seconds, result.kibPerSecond()) +
                DeviceText::forTerminal(result.result) + "\n";
    }
    return text;
}

std::string Summary::jsonString(const std::string& text) {
    std::string out = "\"";
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = DeviceText::characterAt(text, at);
        const char c = text[at];
        if (length == 0) {
            out += "\\ufffd"; // a byte that is no UTF-8: the replacement character
        } else if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            out += formatted("\\u%04x", static_cast<unsigned>(c));
        } else {
            out.append(text, at, length);
        }
        at += length == 0 ? 1 : length;
    }
    return out + "\"";
}

std::string Summary::json(const BoardResult& result) {
    return "{\"port\":" + jsonString(result.port) + ",\"target\":" + jsonString(result.target) +
           ",\"bytes\":" + std::to_string(result.bytes) + ",\"seconds\":" + fixed(result.seconds, 3) +
           ",\"kib_per_s\":" + fixed(result.kibPerSecond(), 1) + ",\"ok\":" + (result.ok ? "true" : "false") +
           ",\"result\":" + jsonString(result.result) +
           (result.sha256.empty() ? "" : ",\"sha256\":" + jsonString(result.sha256)) + "}";
}
