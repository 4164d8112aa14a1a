#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "esp_loader_error.h"

class LoggerManager;
class UsbCommunication;

// One region of a multi-part ESP32 image.
struct FlashPart {
    uint32_t address = 0; // flash offset, a multiple of the 4 KiB sector (the caller checked it)
    std::string path;     // UTF-8 path of the part's bytes
};

// What became of one part of a multi-part flash.
struct PartOutcome {
    uint32_t address = 0;
    uint64_t size = 0;    // bytes of the part
    bool written = false; // false: the region already held these bytes (same MD5), nothing was sent
};

// The chip the ROM loader found at connect: its type ("ESP32", "ESP32-S3",
// ...) and its MAC address as six lower-case hexadecimal pairs with colons,
// empty when the chip did not give it.
struct ChipIdentity {
    std::string type;
    std::string mac;
};

// Writes binary images into the ESP32's flash through its ROM loader, over
// the program's one serial link.
class MeridEspSerialFlasher {
public:
    struct FlashOptions {
        uint32_t address = 0;       // flash offset of the image
        uint32_t blockSize = 1024;  // bytes of one data block; below 256 counts as 256
        bool reboot = false;        // leave the loader when done
        bool verify = true;         // compare the MD5 of the written region with the image's
        bool compress = false;      // send the image as one zlib stream, which the ROM inflates
        bool skipUnchanged = false; // flashParts: a region whose MD5 equals the part's is not written
    };

    // True when the image is written and, with `verify`, the chip reports
    // the MD5 of the image as sent. `path` is UTF-8. `progress` receives the
    // percentage after each acknowledged block and may be empty; the failure
    // text goes to `error` when it isn't null.
    static bool flashBinary(UsbCommunication& usb, const std::string& path, const FlashOptions& options,
                            const std::function<void(unsigned char)>& progress, std::string* error);

    // Connects once and writes each part at its own address, in address
    // order, each written and checked as flashBinary writes one image
    // (`options.address` is not used). Nothing is written when a part ends
    // past the flash the chip reports. `progress` receives the percentage of
    // all parts' bytes. `outcomes`, when not null, receives one entry per
    // part done, in address order, also on a failure. `chip`, when not null,
    // receives what the connect found out about the chip.
    static bool flashParts(UsbCommunication& usb, const std::vector<FlashPart>& parts,
                           const FlashOptions& options, const std::function<void(unsigned char)>& progress,
                           std::vector<PartOutcome>* outcomes, std::string* error,
                           ChipIdentity* chip = nullptr);

private:
    struct LoadedPart;

    static bool connect(UsbCommunication& usb, std::string* error);
    static ChipIdentity identify();
    static bool readParts(const std::vector<FlashPart>& parts, std::vector<LoadedPart>& loaded,
                          std::string* error);
    static bool partsFit(const std::vector<LoadedPart>& parts, std::string* error);
    static bool flashPart(const LoadedPart& part, const FlashOptions& options,
                          const std::function<void(unsigned char)>& progress, bool& written,
                          std::string* error);
    static bool regionHolds(const LoadedPart& part, bool& unchanged, std::string* error);
    static bool writeImage(const std::vector<uint8_t>& image, const FlashOptions& options,
                           const std::function<void(unsigned char)>& progress, std::string* error);
    static void finishWrite(const FlashOptions& options);
    static bool writePlain(const std::vector<uint8_t>& image, const FlashOptions& options, uint32_t block,
                           const std::function<void(unsigned char)>& progress, std::string* error);
    static bool writeCompressed(const std::vector<uint8_t>& image, const FlashOptions& options,
                                uint32_t block, const std::function<void(unsigned char)>& progress,
                                std::string* error);
    static void finish(esp_loader_error_t result, const char* operation);

    static LoggerManager* loggerManager;
};
