#include "MeridEspSerialFlasher.h"

#include "EspSerialFlasherPort.h"
#include "LoggerManager.h"
#include "esp_loader.h"
#include "loader_port.h"
#include "md5_hash.h"
#include "protocol.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include <zlib.h>

LoggerManager* MeridEspSerialFlasher::loggerManager = &LoggerManager::getInstance();

namespace {

constexpr uint32_t kSmallestBlock = 256;
constexpr esp_loader_connect_args_t kConnectArgs = {500, 20};
// The ROM reads the region back to digest it: 8 s per MiB, never below 3 s.
constexpr uint64_t kMd5MsPerMiB = 8000;
constexpr uint32_t kMd5LeastMs = 3000;
constexpr uint32_t kMd5HexDigits = 32;
const char* const kTag = "EspSerialFlasher: ";

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

// The MD5 of the bytes the chip was sent: the image and the 0xFF that pads
// its last block, in lower-case hexadecimal.
std::string sentDigest(const std::vector<uint8_t>& image, uint32_t paddedSize) {
    MD5Context context;
    MD5Init(&context);
    MD5Update(&context, image.data(), static_cast<uint32_t>(image.size()));
    const std::vector<uint8_t> padding(paddedSize - image.size(), 0xFF);
    MD5Update(&context, padding.data(), static_cast<uint32_t>(padding.size()));
    uint8_t digest[16];
    MD5Final(digest, &context);
    static const char kHex[] = "0123456789abcdef";
    std::string text;
    for (const uint8_t byte : digest) {
        text += kHex[byte >> 4];
        text += kHex[byte & 15];
    }
    return text;
}

// The chip's MD5 of a flash region in lower-case hexadecimal. The ROM reads
// the region back to digest it, so the time limit grows with the size.
esp_loader_error_t regionDigest(uint32_t address, uint32_t size, std::string& reported) {
    loader_port_start_timer(
        std::max(kMd5LeastMs, static_cast<uint32_t>(uint64_t{size} * kMd5MsPerMiB / (1u << 20))));
    uint8_t answer[kMd5HexDigits] = {};
    const esp_loader_error_t result = loader_md5_cmd(address, size, answer);
    reported.assign(reinterpret_cast<const char*>(answer), kMd5HexDigits);
    std::transform(reported.begin(), reported.end(), reported.begin(),
                   [](char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); });
    return result;
}

// Asks the ROM for the MD5 of the written region; its 32 hexadecimal digits
// must match the image's, which goes to `digest`.
// `paddedSize` covers the 0xFF behind a plain flash's last block; a
// compressed flash writes the image alone.
bool verifyFlash(uint32_t address, const std::vector<uint8_t>& image, uint32_t paddedSize,
                 std::string& digest, std::string* error) {
    digest = sentDigest(image, paddedSize);
    std::string reported;
    const esp_loader_error_t result = regionDigest(address, paddedSize, reported);
    if (result != ESP_LOADER_SUCCESS) {
        return fail(error, "flash MD5 check failed: image MD5 " + digest +
                               ", no MD5 from the chip (loader_md5_cmd failed: " + std::to_string(result) +
                               ")");
    }
    if (reported != digest) {
        return fail(error, "flash MD5 mismatch: image MD5 " + digest + ", flash MD5 " + reported);
    }
    return true;
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

std::string hexAddress(uint32_t address) {
    char text[16];
    std::snprintf(text, sizeof(text), "0x%X", static_cast<unsigned>(address));
    return text;
}

// A flash size as the chip's data sheet gives it: "4 MiB", "512 KiB".
std::string sizeText(uint32_t bytes) {
    constexpr uint32_t kMiB = 1u << 20;
    if (bytes % kMiB == 0) {
        return std::to_string(bytes / kMiB) + " MiB";
    }
    return std::to_string(bytes / 1024) + " KiB";
}

// The chip's name as its maker writes it.
std::string chipName(target_chip_t target) {
    static const char* const kNames[] = {"ESP8266",  "ESP32",    "ESP32-S2", "ESP32-C3", "ESP32-S3",
                                         "ESP32-C2", "ESP32-C5", "ESP32-H2", "ESP32-C6", "ESP32-P4"};
    const auto index = static_cast<size_t>(target);
    return index < std::size(kNames) ? kNames[index] : "unknown";
}

} // namespace

bool MeridEspSerialFlasher::flashBinary(UsbCommunication& usb, const std::string& path,
                                        const FlashOptions& options,
                                        const std::function<void(unsigned char)>& progress,
                                        std::string* error) {
    std::vector<uint8_t> image;
    if (!readImage(path, image, error) || !connect(usb, error) ||
        !writeImage(image, options, progress, error)) {
        return false;
    }
    finishWrite(options);
    return true;
}

// A part with its bytes, read before anything goes over the line.
struct MeridEspSerialFlasher::LoadedPart {
    uint32_t address = 0;
    std::vector<uint8_t> image;
};

bool MeridEspSerialFlasher::flashParts(UsbCommunication& usb, const std::vector<FlashPart>& parts,
                                       const FlashOptions& options,
                                       const std::function<void(unsigned char)>& progress,
                                       std::vector<PartOutcome>* outcomes, std::string* error,
                                       ChipIdentity* chip) {
    std::vector<LoadedPart> loaded;
    if (!readParts(parts, loaded, error) || !connect(usb, error)) {
        return false;
    }
    if (chip != nullptr) {
        *chip = identify();
    }
    if (!partsFit(loaded, error)) {
        return false;
    }
    uint64_t total = 0;
    for (const LoadedPart& part : loaded) {
        total += part.image.size();
    }
    uint64_t done = 0;
    bool wroteAny = false;
    for (const LoadedPart& part : loaded) {
        const uint64_t size = part.image.size();
        const auto partProgress = [&progress, done, size, total](unsigned char percent) {
            if (progress) {
                progress(static_cast<unsigned char>((done + size * percent / 100) * 100 / total));
            }
        };
        bool written = false;
        if (!flashPart(part, options, partProgress, written, error)) {
            return false;
        }
        wroteAny = wroteAny || written;
        done += size;
        if (outcomes != nullptr) {
            outcomes->push_back({part.address, size, written});
        }
    }
    // A chip that was sent nothing needs no end, unless it is to leave its loader.
    if (wroteAny || options.reboot) {
        finishWrite(options);
    }
    return true;
}

// Every part's bytes, in address order.
bool MeridEspSerialFlasher::readParts(const std::vector<FlashPart>& parts, std::vector<LoadedPart>& loaded,
                                      std::string* error) {
    if (parts.empty()) {
        return fail(error, "no part to flash");
    }
    loaded.resize(parts.size());
    for (size_t i = 0; i < parts.size(); ++i) {
        loaded[i].address = parts[i].address;
        if (!readImage(parts[i].path, loaded[i].image, error)) {
            return false;
        }
    }
    std::stable_sort(loaded.begin(), loaded.end(),
                     [](const LoadedPart& a, const LoadedPart& b) { return a.address < b.address; });
    return true;
}

// One part: left alone when its region already holds it (with
// `skipUnchanged`), else written as one image.
bool MeridEspSerialFlasher::flashPart(const LoadedPart& part, const FlashOptions& options,
                                      const std::function<void(unsigned char)>& progress, bool& written,
                                      std::string* error) {
    bool unchanged = false;
    if (options.skipUnchanged && !regionHolds(part, unchanged, error)) {
        return false;
    }
    if (unchanged) {
        progress(100);
        return true;
    }
    FlashOptions partOptions = options;
    partOptions.address = part.address;
    written = writeImage(part.image, partOptions, progress, error);
    return written;
}

bool MeridEspSerialFlasher::connect(UsbCommunication& usb, std::string* error) {
    meridEspSerialFlasherPortSetUsb(&usb);
    esp_loader_connect_args_t args = kConnectArgs;
    const esp_loader_error_t result = esp_loader_connect(&args);
    if (result != ESP_LOADER_SUCCESS) {
        return fail(error, "esp_loader_connect failed: " + std::to_string(result));
    }
    return true;
}

// The detected chip's type, and its MAC from the efuses: a chip that does
// not give it is still flashed.
ChipIdentity MeridEspSerialFlasher::identify() {
    ChipIdentity chip;
    chip.type = chipName(esp_loader_get_target());
    uint8_t mac[6] = {};
    const esp_loader_error_t result = esp_loader_read_mac(mac);
    if (result != ESP_LOADER_SUCCESS) {
        loggerManager->log(failedWith("esp_loader_read_mac", result), BaseLogger::WARNING, kTag);
        return chip;
    }
    static const char kHex[] = "0123456789abcdef";
    for (const uint8_t byte : mac) {
        chip.mac += std::string(chip.mac.empty() ? "" : ":") + kHex[byte >> 4] + kHex[byte & 15];
    }
    return chip;
}

// The flash size the chip reports bounds every part; the loader keeps it for
// the writes that follow.
bool MeridEspSerialFlasher::partsFit(const std::vector<LoadedPart>& parts, std::string* error) {
    uint32_t flashSize = 0;
    const esp_loader_error_t result = esp_loader_flash_detect_size(&flashSize);
    if (result != ESP_LOADER_SUCCESS) {
        return fail(error, "the chip's flash size is unknown: " +
                               failedWith("esp_loader_flash_detect_size", result));
    }
    loader_set_target_flash_size(flashSize);
    for (const LoadedPart& part : parts) {
        if (uint64_t{part.address} + part.image.size() > flashSize) {
            return fail(error, "part at " + hexAddress(part.address) + " (" +
                                   std::to_string(part.image.size()) + " bytes) ends past the end of the " +
                                   sizeText(flashSize) + " flash");
        }
    }
    return true;
}

// True with `unchanged` set when the chip's MD5 of the part's region (the
// part's bytes, no padding) equals the part's.
bool MeridEspSerialFlasher::regionHolds(const LoadedPart& part, bool& unchanged, std::string* error) {
    const uint32_t address = part.address;
    const std::vector<uint8_t>& image = part.image;
    const std::string digest = sentDigest(image, static_cast<uint32_t>(image.size()));
    std::string reported;
    const esp_loader_error_t result = regionDigest(address, static_cast<uint32_t>(image.size()), reported);
    if (result != ESP_LOADER_SUCCESS) {
        return fail(error, "no MD5 from the chip for the region at " + hexAddress(address) +
                               " (loader_md5_cmd failed: " + std::to_string(result) + ")");
    }
    unchanged = reported == digest;
    if (unchanged) {
        loggerManager->log("Flash at " + hexAddress(address) + " already holds the image: " + digest,
                           BaseLogger::INFO, kTag);
    }
    return true;
}

// One image at `options.address`: written plain or compressed and, with
// `verify`, checked by the chip's MD5.
bool MeridEspSerialFlasher::writeImage(const std::vector<uint8_t>& image, const FlashOptions& options,
                                       const std::function<void(unsigned char)>& progress,
                                       std::string* error) {
    const uint32_t block = std::max(options.blockSize, kSmallestBlock);
    const bool written = options.compress ? writeCompressed(image, options, block, progress, error)
                                          : writePlain(image, options, block, progress, error);
    if (!written) {
        return false;
    }
    // Before the finish: a chip that leaves its loader answers nothing more.
    if (options.verify) {
        const auto size = static_cast<uint32_t>(image.size());
        const uint32_t region = options.compress ? size : (size + block - 1) / block * block;
        std::string digest;
        if (!verifyFlash(options.address, image, region, digest, error)) {
            return false;
        }
        loggerManager->log("Flash MD5 matches the image: " + digest, BaseLogger::INFO, kTag);
    }
    return true;
}

void MeridEspSerialFlasher::finishWrite(const FlashOptions& options) {
    if (options.compress) {
        finish(esp_loader_flash_deflate_finish(options.reboot), "esp_loader_flash_deflate_finish");
    } else {
        finish(esp_loader_flash_finish(options.reboot), "esp_loader_flash_finish");
    }
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
            return true;
        }
    }
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
    return true;
}

// A failed end is no failure of the flash: the image is written.
void MeridEspSerialFlasher::finish(esp_loader_error_t result, const char* operation) {
    if (result != ESP_LOADER_SUCCESS) {
        loggerManager->log(failedWith(operation, result), BaseLogger::WARNING, kTag);
    }
}
