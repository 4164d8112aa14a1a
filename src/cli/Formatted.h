#pragma once

#include <string>

// printf-style text of whatever length the values make.
#ifdef _WIN32
std::string formatted(const char* format, ...);
#else
std::string formatted(const char* format, ...) __attribute__((format(printf, 1, 2)));
#endif
