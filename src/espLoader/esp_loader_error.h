#pragma once

#include <cstdint>

// The loader's functions and tables live in an inline namespace, so callers
// name them plainly. The program builds them in one variant; the unit tests
// build a second one on an in-memory line, and both may share an executable.
#ifndef MERID_ESP_LOADER_VARIANT
#define MERID_ESP_LOADER_VARIANT serial
#endif
#define ESP_LOADER_NAMESPACE_BEGIN inline namespace MERID_ESP_LOADER_VARIANT {
#define ESP_LOADER_NAMESPACE_END }

ESP_LOADER_NAMESPACE_BEGIN

// The result of every loader operation and of the port functions below them.
enum esp_loader_error_t : std::int32_t {
    ESP_LOADER_SUCCESS = 0,
    ESP_LOADER_ERROR_FAIL = 1,
    ESP_LOADER_ERROR_TIMEOUT = 2,
    ESP_LOADER_ERROR_IMAGE_SIZE = 3,
    ESP_LOADER_ERROR_INVALID_MD5 = 4,
    ESP_LOADER_ERROR_INVALID_PARAM = 5,
    ESP_LOADER_ERROR_INVALID_TARGET = 6,
    ESP_LOADER_ERROR_UNSUPPORTED_CHIP = 7,
    ESP_LOADER_ERROR_UNSUPPORTED_FUNC = 8,
    ESP_LOADER_ERROR_INVALID_RESPONSE = 9,
};

ESP_LOADER_NAMESPACE_END

// Returns early from the calling function when a loader step fails.
#define LOADER_TRY(expr)                                                                                     \
    do {                                                                                                     \
        const esp_loader_error_t loaderResult_ = (expr);                                                     \
        if (loaderResult_ != ESP_LOADER_SUCCESS) {                                                           \
            return loaderResult_;                                                                            \
        }                                                                                                    \
    } while (0)
