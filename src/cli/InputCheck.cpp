#include "InputCheck.h"

#include "BoardLog.h"
#include "UsbCommunication.h"

#include "Utf8Path.h"

#include <algorithm>
#include <fstream>

namespace {

// The STM32's offsets and sizes are 32-bit; an ESP32 image fits the largest
// flash the loader takes for an ESP32, 16 MiB.
constexpr std::uint64_t kStm32Largest = 0xFFFFFFFFu;
constexpr std::uint64_t kEsp32Largest = 16u << 20;

} // namespace

std::optional<std::string> InputCheck::image(const std::string& path, bool esp32, std::uint64_t& size) {
    const std::filesystem::path file = pathFromUtf8(path);
    std::error_code error;
    if (!std::filesystem::exists(file, error)) {
        return path + ": no such file";
    }
    if (!std::filesystem::is_regular_file(file, error)) {
        return path + ": not a regular file";
    }
    std::ifstream stream(file, std::ios::binary);
    char first = 0;
    if (!stream.is_open() || (!stream.read(&first, 1) && !stream.eof())) {
        return path + ": the file cannot be read";
    }
    size = std::filesystem::file_size(file, error);
    if (error || size == 0) {
        return path + ": the file is empty";
    }
    const std::uint64_t largest = esp32 ? kEsp32Largest : kStm32Largest;
    if (size > largest) {
        return path + ": the file has " + std::to_string(size) + " bytes; an " + (esp32 ? "ESP32" : "STM32") +
               " image can have at most " + std::to_string(largest) +
               (esp32 ? " (16 MiB, the largest flash the loader writes)" : " (its offsets are 32-bit)");
    }
    if (esp32 && size % 4 != 0) {
        return path + ": an ESP32 image must be a multiple of 4 bytes long; this one has " +
               std::to_string(size) + " bytes";
    }
    return std::nullopt;
}

std::optional<std::string> InputCheck::port(const std::string& name) {
    BoardLog log(nullptr);
    UsbCommunication usb;
    usb.portName = name;
    const unsigned before = log.problemCount();
    if (usb.connect(UsbCommunication::MethodCom) == UsbTypes::Ok) {
        usb.disconnect();
        return std::nullopt;
    }
    // The port's own line first, then its hint; the front's summary last.
    std::string line = log.problemStartingWith("Error opening port", before);
    const std::string hint = log.problemStartingWith("Port " + name + " is held", before) +
                             log.problemStartingWith("No permission for", before);
    if (line.empty()) {
        line = log.lastProblem();
    }
    if (!hint.empty()) {
        line += ". " + hint;
    }
    return line.empty() ? "Port " + name + " is not available" : line;
}

std::optional<std::string> InputCheck::distinctPorts(const std::vector<std::string>& names) {
    std::vector<std::filesystem::path> seen;
    for (const auto& name : names) {
        std::error_code error;
        std::filesystem::path line = std::filesystem::weakly_canonical(pathFromUtf8(name), error);
        if (error) {
            line = pathFromUtf8(name);
        }
        if (std::find(seen.begin(), seen.end(), line) != seen.end()) {
            return "port " + name + " is given twice";
        }
        seen.push_back(line);
    }
    return std::nullopt;
}

std::optional<std::string> InputCheck::logFile(const std::string& path, const std::string& image) {
    const std::filesystem::path log = pathFromUtf8(path);
    std::error_code error;
    if (!std::filesystem::exists(log, error)) {
        return std::nullopt;
    }
    if (!std::filesystem::is_regular_file(log, error)) {
        return path + ": the log file is not a regular file";
    }
    if (!image.empty() && std::filesystem::equivalent(log, pathFromUtf8(image), error)) {
        return path + ": the log file is the image itself";
    }
    return std::nullopt;
}
