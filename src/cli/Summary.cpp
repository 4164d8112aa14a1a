#include "Summary.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

namespace {

std::string padded(std::string text, std::size_t width) {
    text.resize(std::max(width, text.size()), ' ');
    return text;
}

std::string fixed(double value, int decimals) {
    char text[64];
    std::snprintf(text, sizeof(text), "%.*f", decimals, value);
    return text;
}

} // namespace

std::string Summary::table(const std::vector<BoardResult>& results) {
    std::size_t portWidth = 4;
    for (const auto& result : results) {
        portWidth = std::max(portWidth, result.port.size());
    }
    char row[128];
    std::snprintf(row, sizeof(row), "%s  %-6s %10s %8s %9s  %s\n", padded("PORT", portWidth).c_str(),
                  "TARGET", "BYTES", "SECONDS", "KIB/S", "RESULT");
    std::string text = row;
    for (const auto& result : results) {
        std::snprintf(row, sizeof(row), "%s  %-6s %10" PRIu64 " %8.2f %9.1f  ",
                      padded(result.port, portWidth).c_str(), result.target.c_str(), result.bytes,
                      result.seconds, result.kibPerSecond());
        text += row + result.result + "\n";
    }
    return text;
}

std::string Summary::jsonString(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (byte < 0x20) {
            char escape[8];
            std::snprintf(escape, sizeof(escape), "\\u%04x", byte);
            out += escape;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

std::string Summary::json(const BoardResult& result) {
    return "{\"port\":" + jsonString(result.port) + ",\"target\":" + jsonString(result.target) +
           ",\"bytes\":" + std::to_string(result.bytes) + ",\"seconds\":" + fixed(result.seconds, 3) +
           ",\"kib_per_s\":" + fixed(result.kibPerSecond(), 1) + ",\"ok\":" + (result.ok ? "true" : "false") +
           ",\"result\":" + jsonString(result.result) + "}";
}
