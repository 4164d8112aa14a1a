#pragma once

#include <filesystem>
#include <string>

// A path from the UTF-8 text of the command line, on every system.
inline std::filesystem::path pathFromUtf8(const std::string& path) {
    return std::filesystem::path(std::u8string(reinterpret_cast<const char8_t*>(path.data()), path.size()));
}
