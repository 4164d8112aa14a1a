#include "EspSerialFlasherPort.h"

#include "LoggerManager.h"
#include "UsbCommunication.h"

#include <atomic>
#include <chrono>
#include <thread>

const uint8_t kEnterEspFlashingPayload[12] = {0x7E, 0x08, 0x00, 0x02, 0x03, 0x02,
                                              0x08, 0x01, 0x00, 0x00, 0x00, 0x1E};

namespace {

using Clock = std::chrono::steady_clock;

// Set by the flashing worker before it connects; atomic so that a later
// flash from another thread sees it without a race.
std::atomic<UsbCommunication*> g_usb{nullptr};
std::atomic<bool> g_cancelled{false};
Clock::time_point g_deadline{};
LoggerManager* g_logger = &LoggerManager::getInstance();

const char* const kTag = "EspSerialFlasherPort: ";
constexpr std::chrono::milliseconds kSwitchSettle{150};
constexpr std::chrono::milliseconds kReconnectPause{200};
constexpr int kReconnectTries = 25;
constexpr int64_t kLargestWait = 0x7FFFFFFF;

// Whole milliseconds from now to `end`, 0 once it has passed.
int64_t millisecondsUntil(Clock::time_point end) {
    const Clock::time_point now = Clock::now();
    if (now >= end) {
        return 0;
    }
    const int64_t left = std::chrono::duration_cast<std::chrono::milliseconds>(end - now).count();
    return left >= 2147483648LL ? kLargestWait : left;
}

// sleep_for resumes after an interrupted sleep with the time that is left.
void sleepFor(std::chrono::milliseconds duration) {
    std::this_thread::sleep_for(duration);
}

} // namespace

void meridEspSerialFlasherPortSetUsb(UsbCommunication* usb) {
    g_usb = usb;
}

void meridEspSerialFlasherPortSetCancelled(bool cancelled) {
    g_cancelled = cancelled;
}

ESP_LOADER_NAMESPACE_BEGIN

esp_loader_error_t loader_port_write(const uint8_t* data, uint16_t size, uint32_t) {
    UsbCommunication* usb = g_usb;
    if (data == nullptr || size == 0 || usb == nullptr) {
        return ESP_LOADER_ERROR_INVALID_PARAM;
    }
    if (g_cancelled) {
        return ESP_LOADER_ERROR_FAIL;
    }
    // The port keeps its own write limit of 2000 ms.
    const UsbTypes::Status status = usb->write(const_cast<uint8_t*>(data), size);
    return status == UsbTypes::Ok ? ESP_LOADER_SUCCESS : ESP_LOADER_ERROR_FAIL;
}

esp_loader_error_t loader_port_read(uint8_t* data, uint16_t size, uint32_t timeout) {
    UsbCommunication* usb = g_usb;
    if (data == nullptr || size == 0 || usb == nullptr) {
        return ESP_LOADER_ERROR_INVALID_PARAM;
    }
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(timeout);
    uint16_t got = 0;
    for (;;) {
        if (g_cancelled) {
            return ESP_LOADER_ERROR_FAIL;
        }
        const int64_t left = millisecondsUntil(end);
        if (left < 1) {
            return ESP_LOADER_ERROR_TIMEOUT;
        }
        const UsbTypes::IoResult result = usb->read(data + got, size - got, static_cast<int>(left));
        if (result.status == UsbTypes::Timeout) {
            sleepFor(std::chrono::milliseconds(1));
            continue;
        }
        if (result.status != UsbTypes::Ok || result.bytes == 0) {
            return ESP_LOADER_ERROR_FAIL;
        }
        got = static_cast<uint16_t>(std::min<uint64_t>(size, got + result.bytes));
        if (got == size) {
            return ESP_LOADER_SUCCESS;
        }
    }
}

void loader_port_delay_ms(uint32_t ms) {
    if (ms > 0) {
        sleepFor(std::chrono::milliseconds(ms));
    }
}

void loader_port_start_timer(uint32_t ms) {
    g_deadline = Clock::now() + std::chrono::milliseconds(ms);
}

uint32_t loader_port_remaining_time() {
    return static_cast<uint32_t>(millisecondsUntil(g_deadline));
}

// The board switches its link to the ESP32's ROM loader on a payload frame;
// the port is then closed and opened again towards the loader. DTR and RTS
// are never moved.
void loader_port_enter_bootloader() {
    UsbCommunication* usb = g_usb;
    if (usb == nullptr) {
        return;
    }
    (void)usb->write(const_cast<uint8_t*>(kEnterEspFlashingPayload), sizeof(kEnterEspFlashingPayload));
    sleepFor(kSwitchSettle);
    (void)usb->disconnect();
    sleepFor(kSwitchSettle);
    for (int attempt = 0; attempt < kReconnectTries; ++attempt) {
        if (g_cancelled) {
            return;
        }
        if (usb->connect(UsbCommunication::MethodCom) == UsbTypes::Ok) {
            sleepFor(kSwitchSettle);
            return;
        }
        sleepFor(kReconnectPause);
    }
    g_logger->log("Failed to reconnect serial port after ESP prepare payload", BaseLogger::ERROR, kTag);
}

void loader_port_reset_target() {}

void loader_port_debug_print(const char* text) {
    if (text != nullptr) {
        g_logger->log(text, BaseLogger::DEBUG, kTag);
    }
}

esp_loader_error_t loader_port_change_transmission_rate(uint32_t) {
    return ESP_LOADER_SUCCESS;
}

ESP_LOADER_NAMESPACE_END
