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

// The digests of the run's images, from the first board's results: one
// line for one image, else a line per image saying which it is.
std::string digests(const std::vector<BoardResult>& results) {
    std::vector<std::pair<std::string, std::string>> images;
    for (const auto& result : results) {
        if (result.port != results.front().port) {
            break;
        }
        if (result.parts.size() > 1) {
            for (const auto& part : result.parts) {
                images.emplace_back(part.sha256, formatted("esp32 0x%" PRIx32, part.address));
            }
        } else if (!result.sha256.empty()) {
            images.emplace_back(result.sha256, result.target);
        }
    }
    std::string text;
    for (const auto& [sha256, which] : images) {
        text += "image SHA-256 " + sha256 + (images.size() > 1 ? "  " + which : "") + "\n";
    }
    return text;
}

// A part under its board's row: its address in the target's column, its
// size in the bytes' column, what became of it in the result's.
std::string partRow(const PartResult& part, std::size_t portWidth) {
    return padded("", portWidth) + formatted("  %-8s%9" PRIu64 "%21s%s\n",
                                             formatted("0x%" PRIx32, part.address).c_str(), part.bytes, "",
                                             part.result.c_str());
}

} // namespace

std::string Summary::table(const std::vector<BoardResult>& results) {
    std::size_t portWidth = 4;
    for (const auto& result : results) {
        portWidth = std::max(portWidth, DeviceText::forTerminal(result.port).size());
    }
    std::string text = digests(results);
    text += padded("PORT", portWidth) +
            formatted("  %-6s %10s %8s %9s  %s\n", "TARGET", "BYTES", "SECONDS", "KIB/S", "RESULT");
    for (const auto& result : results) {
        text += padded(DeviceText::forTerminal(result.port), portWidth) +
                formatted("  %-6s %10" PRIu64 " %8.2f %9.1f  ", result.target.c_str(), result.bytes,
                          result.seconds, result.kibPerSecond()) +
                (result.code.empty() ? "" : DeviceText::forTerminal(result.code) + ": ") +
                DeviceText::forTerminal(result.result) + "\n";
        for (const auto& part : result.parts) {
            text += partRow(part, portWidth);
        }
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
    std::string parts;
    for (const auto& part : result.parts) {
        parts += std::string(parts.empty() ? "" : ",") + "{\"address\":" + std::to_string(part.address) +
                 ",\"bytes\":" + std::to_string(part.bytes) + ",\"result\":" + jsonString(part.result) +
                 ",\"sha256\":" + jsonString(part.sha256) + "}";
    }
    return "{\"port\":" + jsonString(result.port) + ",\"target\":" + jsonString(result.target) +
           ",\"bytes\":" + std::to_string(result.bytes) + ",\"seconds\":" + fixed(result.seconds, 3) +
           ",\"kib_per_s\":" + fixed(result.kibPerSecond(), 1) + ",\"ok\":" + (result.ok ? "true" : "false") +
           ",\"result\":" + jsonString(result.result) + ",\"code\":" + jsonString(result.code) +
           (result.sha256.empty() ? "" : ",\"sha256\":" + jsonString(result.sha256)) +
           (result.target == "esp32" ? ",\"parts\":[" + parts + "]" : "") + "}";
}

std::string Summary::boardJson(const std::vector<BoardResult>& targets) {
    std::string list;
    bool ok = true;
    for (const auto& target : targets) {
        list += std::string(list.empty() ? "" : ",") + json(target);
        ok = ok && target.ok;
    }
    return "{\"port\":" + jsonString(targets.empty() ? std::string() : targets.front().port) +
           ",\"ok\":" + (ok ? "true" : "false") + ",\"targets\":[" + list + "]}";
}
