#pragma once

#include <cstdint>
#include <optional>
#include <string>

// The checks made before anything is sent: each gives the one line that
// tells the user what is wrong, or nothing when the input can be used.
class InputCheck {
public:
    // The image can be read and is not empty; an ESP32 image is a whole
    // number of 32-bit words, as the ROM loader takes them.
    static std::optional<std::string> image(const std::string& path, bool esp32, std::uint64_t& size);

    // The port opens, and is closed again at once: nothing goes on the line.
    // When it does not open, the words of the port's log with its hint.
    static std::optional<std::string> port(const std::string& name);
};
