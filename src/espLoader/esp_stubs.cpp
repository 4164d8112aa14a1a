#include "esp_stubs.h"

#include <array>
#include <cstddef>

ESP_LOADER_NAMESPACE_BEGIN

namespace {

// Placeholder bytes: a xorshift sequence seeded by the segment's load
// address, so every segment differs and each build holds the same bytes.
template <std::size_t N> constexpr std::array<uint8_t, N> placeholderSegment(uint32_t seed) {
    std::array<uint8_t, N> bytes{};
    uint32_t state = seed ^ 0x9E3779B9u;
    for (std::size_t i = 0; i < N; ++i) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        bytes[i] = static_cast<uint8_t>(state >> 24);
    }
    return bytes;
}

constexpr auto kPlaceholderEsp32Text = placeholderSegment<12884>(0x40080000);
constexpr auto kPlaceholderEsp32Data = placeholderSegment<468>(0x3FFB0000);
constexpr auto kPlaceholderEsp32s2Text = placeholderSegment<11416>(0x40028000);
constexpr auto kPlaceholderEsp32s2Data = placeholderSegment<520>(0x3FFBC400);
constexpr auto kPlaceholderEsp32c3Text = placeholderSegment<11176>(0x40380000);
constexpr auto kPlaceholderEsp32c3Data = placeholderSegment<244>(0x3FC90020);
constexpr auto kPlaceholderEsp32s3Text = placeholderSegment<13864>(0x40378000);
constexpr auto kPlaceholderEsp32s3Data = placeholderSegment<3952>(0x3FC90020 ^ 0x5A5A);
constexpr auto kPlaceholderEsp32c2Text = placeholderSegment<10072>(0x40380000 ^ 0xC2);
constexpr auto kPlaceholderEsp32c2Data = placeholderSegment<404>(0x3FCB0020);
constexpr auto kPlaceholderEsp32h2Text = placeholderSegment<10728>(0x40800000);
constexpr auto kPlaceholderEsp32h2Data = placeholderSegment<384>(0x408029E8);
constexpr auto kPlaceholderEsp32c6Text = placeholderSegment<16420>(0x40800000 ^ 0xC6);
constexpr auto kPlaceholderEsp32c6Data = placeholderSegment<384>(0x40804024);

template <std::size_t N>
constexpr esp_stub_segment_t segment(uint32_t addr, const std::array<uint8_t, N>& bytes) {
    return {addr, static_cast<uint32_t>(N), bytes.data()};
}

constexpr esp_stub_segment_t kNoSegment = {0, 0, nullptr};

} // namespace

const esp_stub_t esp_stub[ESP_MAX_CHIP] = {
    // ESP8266
    {0, 0, {kNoSegment, kNoSegment}},
    // ESP32
    {0, 0x400822B4, {segment(0x40080000, kPlaceholderEsp32Text), segment(0x3FFB0000, kPlaceholderEsp32Data)}},
    // ESP32-S2
    {0,
     0x40029D34,
     {segment(0x40028000, kPlaceholderEsp32s2Text), segment(0x3FFBC400, kPlaceholderEsp32s2Data)}},
    // ESP32-C3
    {0,
     0x40380000,
     {segment(0x40380000, kPlaceholderEsp32c3Text), segment(0x3FC90020, kPlaceholderEsp32c3Data)}},
    // ESP32-S3
    {0,
     0x4037AFA4,
     {segment(0x40378000, kPlaceholderEsp32s3Text), segment(0x3FC90020, kPlaceholderEsp32s3Data)}},
    // ESP32-C2
    {0,
     0x40380000,
     {segment(0x40380000, kPlaceholderEsp32c2Text), segment(0x3FCB0020, kPlaceholderEsp32c2Data)}},
    // ESP32-C5
    {0, 0, {kNoSegment, kNoSegment}},
    // ESP32-H2
    {0,
     0x40800000,
     {segment(0x40800000, kPlaceholderEsp32h2Text), segment(0x408029E8, kPlaceholderEsp32h2Data)}},
    // ESP32-C6
    {0,
     0x40800000,
     {segment(0x40800000, kPlaceholderEsp32c6Text), segment(0x40804024, kPlaceholderEsp32c6Data)}},
    // ESP32-P4
    {0, 0, {kNoSegment, kNoSegment}},
};

bool esp_stub_available(target_chip_t target) {
    return target >= 0 && target < ESP_MAX_CHIP && esp_stub[target].segments[0].size != 0;
}

ESP_LOADER_NAMESPACE_END
