#include "MeridEspSerialFlasher.h"

#include "EspSerialFlasherPort.h"
#include "LoggerManager.h"
#include "esp_loader.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <vector>

LoggerManager* MeridEspSerialFlasher::loggerManager = &LoggerManager::getInstance();

namespace {

constexpr uint32_t kSmallestBlock = 256;
constexpr esp_loader_connect_args_t kConnectArgs = {500, 20};

bool fail(std::string* error, const std::string& text) {
    if (error != nullptr) {
        *error = text;
    }
    return false;
}

std::filesystem::path pathFromUtf8(const std::string& path) {
    return std::filesystem::path(std::u8string(reinterpret_cast<const char8_t*>(path.data()), path.size()));
}

// The whole file, or false with the words for what went wrong.
bool readImage(const std::string& path, std::vector<uint8_t>& image, std::string* error) {
    std::ifstream file(pathFromUtf8(path), std::ios::binary | std::ios::ate);
    if (!file.is_open()) {
        return fail(error, "Can't open file: " + path);
    }
    const std::streamoff size = file.tellg();
    if (size <= 0) {
        return fail(error, "File is empty or size is invalid: " + path);
    }
    image.resize(static_cast<size_t>(size));
    file.seekg(0, std::ios::beg);
    if (!file.read(reinterpret_cast<char*>(image.data()), size)) {
        return fail(error, "Can't read file: " + path);
    }
    return true;
}

// Percent of the image acknowledged; the 32-bit product wraps for images
// above 42949672 bytes, as it always has.
unsigned char percentOf(uint32_t written, uint32_t size) {
    const uint32_t percent = written * 100u / size;
    return static_cast<unsigned char>(std::min<uint32_t>(percent, 100));
}

} // namespace

bool MeridEspSerialFlasher::flashBinary(UsbCommunication& usb, const std::string& path,
                                        const FlashOptions& options,
                                        const std::function<void(unsigned char)>& progress,
                                        std::string* error) {
    std::vector<uint8_t> image;
    if (!readImage(path, image, error)) {
        return false;
    }
    const auto size = static_cast<uint32_t>(image.size());

    meridEspSerialFlasherPortSetUsb(&usb);

    esp_loader_connect_args_t args = kConnectArgs;
    esp_loader_error_t result = esp_loader_connect(&args);
    if (result != ESP_LOADER_SUCCESS) {
        return fail(error, "esp_loader_connect failed: " + std::to_string(result));
    }

    const uint32_t block = std::max(options.blockSize, kSmallestBlock);
    result = esp_loader_flash_start(options.address, size, block);
    if (result != ESP_LOADER_SUCCESS) {
        return fail(error, "esp_loader_flash_start failed: " + std::to_string(result));
    }

    std::vector<uint8_t> blockBuffer(block, 0);
    uint32_t written = 0;
    for (;;) {
        const uint32_t n = std::min(block, size - written);
        std::copy_n(image.begin() + written, n, blockBuffer.begin());
        result = esp_loader_flash_write(blockBuffer.data(), n);
        if (result != ESP_LOADER_SUCCESS) {
            return fail(error, "esp_loader_flash_write failed: " + std::to_string(result));
        }
        written += n;
        if (progress) {
            progress(percentOf(written, size));
        }
        if (written >= size) {
            break;
        }
    }

    result = esp_loader_flash_finish(options.reboot);
    if (result != ESP_LOADER_SUCCESS) {
        loggerManager->log("esp_loader_flash_finish failed: " + std::to_string(result), BaseLogger::WARNING,
                           "EspSerialFlasher: ");
    }
    return true;
}
