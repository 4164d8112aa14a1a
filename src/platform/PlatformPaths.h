#pragma once

#include <filesystem>
#include <string>
#include <system_error>

// Paths travel as UTF-8 text between the program's parts and the toolkit;
// these convert at the edge, whatever the system's narrow encoding is.
namespace Platform {

inline std::filesystem::path pathFromUtf8(const std::string& text) {
    return std::filesystem::path(std::u8string(text.begin(), text.end()));
}

inline std::string pathToUtf8(const std::filesystem::path& path) {
    const std::u8string text = path.u8string();
    return std::string(text.begin(), text.end());
}

// True when std::filesystem::status reports anything but "none" or "not
// found"; errors count as absent.
inline bool pathExists(const std::filesystem::path& path) {
    std::error_code error;
    const auto type = std::filesystem::status(path, error).type();
    return type != std::filesystem::file_type::none && type != std::filesystem::file_type::not_found;
}

} // namespace Platform
