#include "InputCheck.h"

#include "BoardLog.h"
#include "UsbCommunication.h"

#include "Utf8Path.h"

#include <fstream>

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
