#include "DeviceText.h"

#include "Formatted.h"

namespace {

bool isContinuation(unsigned char byte) {
    return (byte & 0xC0) == 0x80;
}

// The two bytes of U+0080 to U+009F, which some terminals take as controls.
bool isC1Control(const std::string& text, std::size_t at, std::size_t length) {
    return length == 2 && static_cast<unsigned char>(text[at]) == 0xC2 &&
           static_cast<unsigned char>(text[at + 1]) < 0xA0;
}

} // namespace

std::size_t DeviceText::characterAt(const std::string& text, std::size_t at) {
    const auto lead = static_cast<unsigned char>(text[at]);
    if (lead < 0x80) {
        return 1;
    }
    std::size_t length = 0;
    unsigned char low = 0x80; // the bounds of the second byte
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        low = lead == 0xE0 ? 0xA0 : 0x80;
        high = lead == 0xED ? 0x9F : 0xBF;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        low = lead == 0xF0 ? 0x90 : 0x80;
        high = lead == 0xF4 ? 0x8F : 0xBF;
    } else {
        return 0;
    }
    if (at + length > text.size()) {
        return 0;
    }
    const auto second = static_cast<unsigned char>(text[at + 1]);
    if (second < low || second > high) {
        return 0;
    }
    for (std::size_t i = 2; i < length; ++i) {
        if (!isContinuation(static_cast<unsigned char>(text[at + i]))) {
            return 0;
        }
    }
    return length;
}

std::string DeviceText::forTerminal(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = characterAt(text, at);
        const auto byte = static_cast<unsigned char>(text[at]);
        const bool control = length == 1 && (byte < 0x20 || byte == 0x7F);
        if (length == 0 || control || isC1Control(text, at, length)) {
            const std::size_t shown = length == 0 ? 1 : length;
            for (std::size_t i = 0; i < shown; ++i) {
                out += formatted("\\x%02x", static_cast<unsigned char>(text[at + i]));
            }
            at += shown;
            continue;
        }
        out.append(text, at, length);
        at += length;
    }
    return out;
}
