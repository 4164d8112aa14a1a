#include "MeridEspSerialFlasher.h"

#include "EspSerialFlasherPort.h"
#include "LoggerManager.h"
#include "esp_loader.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <vector>

#include <zlib.h>

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

// The image as one zlib stream (RFC 1950), which the ROM's inflater takes.
bool deflateImage(const std::vector<uint8_t>& image, std::vector<uint8_t>& packed) {
    uLongf size = compressBound(static_cast<uLong>(image.size()));
    packed.resize(size);
    if (compress2(packed.data(), &size, image.data(), static_cast<uLong>(image.size()), Z_BEST_COMPRESSION) !=
        Z_OK) {
        return false;
    }
    packed.resize(size);
    return true;
}

std::string failedWith(const char* operation, esp_loader_error_t result) {
    return std::string(operation) + " failed: " + std::to_string(result);
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
    meridEspSerialFlasherPortSetUsb(&usb);

    esp_loader_connect_args_t args = kConnectArgs;
    esp_loader_error_t result = esp_loader_connect(&args);
    if (result != ESP_LOADER_SUCCESS) {
        return fail(error, "esp_loader_connect failed: " + std::to_string(result));
    }

    const uint32_t block = std::max(options.blockSize, kSmallestBlock);
    return options.compress ? writeCompressed(image, options, block, progress, error)
                            : writePlain(image, options, block, progress, error);
}

bool MeridEspSerialFlasher::writePlain(const std::vector<uint8_t>& image, const FlashOptions& options,
                                       uint32_t block, const std::function<void(unsigned char)>& progress,
                                       std::string* error) {
    const auto size = static_cast<uint32_t>(image.size());
    esp_loader_error_t result = esp_loader_flash_start(options.address, size, block);
    if (result != ESP_LOADER_SUCCESS) {
        return fail(error, failedWith("esp_loader_flash_start", result));
    }
    std::vector<uint8_t> blockBuffer(block, 0);
    uint32_t written = 0;
    for (;;) {
        const uint32_t n = std::min(block, size - written);
        std::copy_n(image.begin() + written, n, blockBuffer.begin());
        result = esp_loader_flash_write(blockBuffer.data(), n);
        if (result != ESP_LOADER_SUCCESS) {
            return fail(error, failedWith("esp_loader_flash_write", result));
        }
        written += n;
        if (progress) {
            progress(percentOf(written, size));
        }
        if (written >= size) {
            break;
        }
    }
    finish(esp_loader_flash_finish(options.reboot), "esp_loader_flash_finish");
    return true;
}

// The same image as a zlib stream: fewer bytes on the line, the same bytes in
// the flash. Progress counts the stream.
bool MeridEspSerialFlasher::writeCompressed(const std::vector<uint8_t>& image, const FlashOptions& options,
                                            uint32_t block,
                                            const std::function<void(unsigned char)>& progress,
                                            std::string* error) {
    std::vector<uint8_t> packed;
    if (!deflateImage(image, packed)) {
        return fail(error, "Can't compress the image");
    }
    const auto size = static_cast<uint32_t>(image.size());
    const auto packedSize = static_cast<uint32_t>(packed.size());
    esp_loader_error_t result = esp_loader_flash_deflate_start(options.address, size, packedSize, block);
    if (result != ESP_LOADER_SUCCESS) {
        return fail(error, failedWith("esp_loader_flash_deflate_start", result));
    }
    for (uint32_t sent = 0; sent < packedSize;) {
        const uint32_t n = std::min(block, packedSize - sent);
        result = esp_loader_flash_deflate_write(packed.data() + sent, n);
        if (result != ESP_LOADER_SUCCESS) {
            return fail(error, failedWith("esp_loader_flash_deflate_write", result));
        }
        sent += n;
        if (progress) {
            progress(percentOf(sent, packedSize));
        }
    }
    finish(esp_loader_flash_deflate_finish(options.reboot), "esp_loader_flash_deflate_finish");
    return true;
}

// A failed end is no failure of the flash: the image is written.
void MeridEspSerialFlasher::finish(esp_loader_error_t result, const char* operation) {
    if (result != ESP_LOADER_SUCCESS) {
        loggerManager->log(failedWith(operation, result), BaseLogger::WARNING, "EspSerialFlasher: ");
    }
}
