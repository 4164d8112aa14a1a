#pragma once

#include <cstdint>
#include <optional>
#include <string>

// What the process of one board tells its parent, one line each on its
// standard output: progress, the lines of its log, the device that answered
// and the ESP32 chip that was found, what became of each part of an ESP32
// image, and the result of each target in the order loaded. The end of its
// output is an event of its own.
struct BoardEvent {
    enum class Kind { Progress, Log, Device, Chip, Part, Done, End };
    Kind kind = Kind::Log;
    unsigned percent = 0;
    std::uint64_t bytes = 0;   // of the target's image; a part's size; the device's serial number
    std::uint32_t address = 0; // a part's
    bool ok = false;           // a target's success; a part written; the device has a serial number
    std::string text;          // the log line, the reason of a failure, the device's name, the chip's type
    std::string detail;        // the device's version, the chip's MAC
    std::string code;          // a failure's (FailureCode)
};

class WorkerReport {
public:
    static std::string progress(unsigned percent, std::uint64_t bytes);
    static std::string log(const std::string& line);
    // A device with no "serialNumber" field has no `serial`.
    static std::string device(const std::string& name, const std::string& version,
                              std::optional<std::uint64_t> serial);
    // `mac` empty when the chip did not give it.
    static std::string chip(const std::string& type, const std::string& mac);
    static std::string part(std::uint32_t address, std::uint64_t size, bool written);
    // `code` a failure's (FailureCode), empty for a success.
    static std::string done(bool ok, const std::string& code, const std::string& reason);
    // Nothing for a line that is none of these.
    static std::optional<BoardEvent> parse(const std::string& line);
};
