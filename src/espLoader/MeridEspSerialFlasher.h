#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "esp_loader_error.h"

class LoggerManager;
class UsbCommunication;

// Writes one binary file into the ESP32's flash through its ROM loader, over
// the program's one serial link.
class MeridEspSerialFlasher {
public:
    struct FlashOptions {
        uint32_t address = 0;      // flash offset of the image
        uint32_t blockSize = 1024; // bytes of one data block; below 256 counts as 256
        bool reboot = false;       // leave the loader when done
        bool verify = true;        // compare the MD5 of the written region with the image's
        bool compress = false;     // send the image as one zlib stream, which the ROM inflates
    };

    // True when the image is written and, with `verify`, the chip reports
    // the MD5 of the image as sent. `path` is UTF-8. `progress` receives the
    // percentage after each acknowledged block and may be empty; the failure
    // text goes to `error` when it isn't null.
    static bool flashBinary(UsbCommunication& usb, const std::string& path, const FlashOptions& options,
                            const std::function<void(unsigned char)>& progress, std::string* error);

private:
    static bool writePlain(const std::vector<uint8_t>& image, const FlashOptions& options, uint32_t block,
                           const std::function<void(unsigned char)>& progress, std::string* error);
    static bool writeCompressed(const std::vector<uint8_t>& image, const FlashOptions& options,
                                uint32_t block, const std::function<void(unsigned char)>& progress,
                                std::string* error);
    static void finish(esp_loader_error_t result, const char* operation);

    static LoggerManager* loggerManager;
};
