#include "Formatted.h"

#include <cstdarg>
#include <cstdio>

std::string formatted(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    std::va_list measure;
    va_copy(measure, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    std::string text;
    if (length > 0) {
        text.resize(static_cast<std::size_t>(length));
        // The terminating zero goes into the string's own final slot.
        std::vsnprintf(text.data(), text.size() + 1, format, arguments);
    }
    va_end(arguments);
    return text;
}
