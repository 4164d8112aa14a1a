#include "esp_loader.h"
#include "esp_stubs.h"
#include "loader_port.h"
#include "protocol.h"
#include "slip.h"

#include <algorithm>
#include <cstring>

ESP_LOADER_NAMESPACE_BEGIN

namespace {

constexpr uint32_t kDefaultTimeoutMs = 1000;
constexpr uint32_t kMinRamTimeoutMs = 3000;
constexpr double kRamTimePerMbMs = 2000000.0;
constexpr uint32_t kStubBlockSize = 6144;
constexpr char kGreeting[] = "OHAI";
constexpr uint32_t kGreetingSize = 4;

uint32_t ramTimeout(uint32_t size) {
    const double scaled = size / 1000000.0 * kRamTimePerMbMs;
    if (scaled >= 4294967295.0) {
        return UINT32_MAX;
    }
    return std::max(kMinRamTimeoutMs, static_cast<uint32_t>(scaled));
}

bool overlapsRunningStub(uint32_t offset, uint32_t size) {
    if (!esp_stub_available(s_target)) {
        return false;
    }
    const uint64_t start = offset;
    const uint64_t end = start + size;
    for (const esp_stub_segment_t& segment : esp_stub[s_target].segments) {
        const uint64_t segmentEnd = static_cast<uint64_t>(segment.addr) + segment.size;
        if (start < segmentEnd && end > segment.addr) {
            return true;
        }
    }
    return false;
}

esp_loader_error_t loadSegment(const esp_stub_segment_t& segment) {
    LOADER_TRY(esp_loader_mem_start(segment.addr, segment.size, kStubBlockSize));
    for (uint32_t sent = 0; sent < segment.size; sent += kStubBlockSize) {
        const uint32_t block = std::min(kStubBlockSize, segment.size - sent);
        LOADER_TRY(esp_loader_mem_write(segment.data + sent, block));
    }
    return ESP_LOADER_SUCCESS;
}

} // namespace

esp_loader_error_t esp_loader_mem_start(uint32_t offset, uint32_t size, uint32_t block_size) {
    if (esp_stub_get_running() && overlapsRunningStub(offset, size)) {
        loader_port_debug_print("Software loader is resident at the requested address, can't load binary at "
                                "overlapping address range");
        return ESP_LOADER_ERROR_INVALID_PARAM;
    }
    if (block_size == 0) {
        return ESP_LOADER_ERROR_INVALID_PARAM;
    }
    // The blocks field carries the size rounded up to whole blocks.
    const uint32_t rounded =
        static_cast<uint32_t>((static_cast<uint64_t>(size) + block_size - 1) / block_size * block_size);
    loader_port_start_timer(ramTimeout(size));
    return loader_mem_begin_cmd(offset, size, rounded, block_size);
}

esp_loader_error_t esp_loader_mem_write(const void* payload, uint32_t size) {
    return loader_send_data_block(MEM_DATA, static_cast<const uint8_t*>(payload), size, ramTimeout(size));
}

esp_loader_error_t esp_loader_mem_finish(uint32_t entry) {
    loader_port_start_timer(kDefaultTimeoutMs);
    return loader_mem_end_cmd(entry);
}

esp_loader_error_t loader_run_stub(target_chip_t target) {
    if (target < 0 || target >= ESP_MAX_CHIP) {
        return ESP_LOADER_ERROR_UNSUPPORTED_CHIP;
    }
    const esp_stub_t& stub = esp_stub[target];
    for (const esp_stub_segment_t& segment : stub.segments) {
        LOADER_TRY(loadSegment(segment));
    }
    LOADER_TRY(esp_loader_mem_finish(stub.entry));

    // The stub says hello once it runs, still under the limit of the jump.
    uint8_t greeting[kGreetingSize] = {};
    uint32_t received = 0;
    LOADER_TRY(SLIP_receive_packet(greeting, kGreetingSize, &received));
    if (received != kGreetingSize || std::memcmp(greeting, kGreeting, kGreetingSize) != 0) {
        return ESP_LOADER_ERROR_INVALID_RESPONSE;
    }
    esp_stub_set_running(true);
    return ESP_LOADER_SUCCESS;
}

esp_loader_error_t esp_loader_connect_with_stub(esp_loader_connect_args_t* args) {
    loader_set_target_flash_size(0);
    loader_port_enter_bootloader();
    LOADER_TRY(loader_initialize_conn(args));
    LOADER_TRY(loader_detect_chip(&s_target, &s_reg));
    if (s_target == ESP32P4_CHIP || s_target == ESP32C5_CHIP) {
        return ESP_LOADER_ERROR_UNSUPPORTED_CHIP;
    }
    return loader_run_stub(s_target);
}

ESP_LOADER_NAMESPACE_END
