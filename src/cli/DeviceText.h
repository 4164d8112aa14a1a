#pragma once

#include <cstddef>
#include <string>

// Text that came from outside (a board, a chip, a file name) made safe to
// show: nothing in it can move the cursor, retitle or clear a terminal, or
// start a line of its own.
class DeviceText {
public:
    // Control characters (C0, DEL, C1) and bytes that are not UTF-8 as
    // \xNN; everything else as it is.
    static std::string forTerminal(const std::string& text);
    // The length of the well-formed UTF-8 character at `at`: 1 to 4, or 0
    // for a byte that begins none (overlong forms and surrogates included).
    static std::size_t characterAt(const std::string& text, std::size_t at);
};
