#include "InputCheck.h"

#include "BoardLog.h"
#include "Formatted.h"
#include "UsbCommunication.h"

#include "Utf8Path.h"

#include <algorithm>
#include <cinttypes>
#include <fstream>

namespace {

// The STM32's offsets and sizes are 32-bit; an ESP32 image fits the largest
// flash the loader takes for an ESP32, 16 MiB.
constexpr std::uint64_t kStm32Largest = 0xFFFFFFFFu;
constexpr std::uint64_t kEsp32Largest = 16u << 20;
constexpr std::uint32_t kSector = 4096;
// Enough of a file's start to see the first record of a text format.
constexpr std::size_t kHead = 512;

bool allHex(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
}

// The first line of the file, without its line end.
std::string firstLine(const std::string& head) {
    std::string line = head.substr(0, head.find('\n'));
    if (!line.empty() && line.back() == '\r') {
        line.pop_back();
    }
    return line;
}

// What a file whose start is `head` is, when it is no plain binary image.
std::optional<std::string> textOrElf(const std::string& head) {
    if (head.rfind("\x7f"
                   "ELF",
                   0) == 0) {
        return "an ELF file";
    }
    const std::string line = firstLine(head);
    if (line.size() >= 11 && line[0] == ':' && allHex(line.substr(1))) {
        return "Intel HEX text";
    }
    if (line.size() >= 10 && line[0] == 'S' && line[1] >= '0' && line[1] <= '9' && allHex(line.substr(2))) {
        return "Motorola S-record text";
    }
    return std::nullopt;
}

// The line for a file that is plainly no binary image, read from its start.
std::optional<std::string> notBinary(const std::string& path) {
    std::ifstream stream(pathFromUtf8(path), std::ios::binary);
    std::string head(kHead, '\0');
    stream.read(head.data(), static_cast<std::streamsize>(head.size()));
    head.resize(static_cast<std::size_t>(stream.gcount()));
    if (const auto kind = textOrElf(head)) {
        return path + ": the file is " + *kind + ", not a binary image; convert it to a binary image first";
    }
    return std::nullopt;
}

std::string hexAddress(std::uint64_t address) {
    return formatted("0x%" PRIx64, address);
}

std::string named(const FlashPart& part) {
    return part.path + " at " + hexAddress(part.address);
}

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
    if (auto problem = esp32 ? notBinary(path) : std::nullopt) {
        return problem;
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

std::optional<std::string> InputCheck::layout(const std::vector<FlashPart>& parts,
                                              const std::vector<std::uint64_t>& sizes) {
    std::vector<std::size_t> order(parts.size());
    for (std::size_t i = 0; i < parts.size(); ++i) {
        order[i] = i;
        if (parts[i].address % kSector != 0) {
            return named(parts[i]) + ": the address is not a multiple of the 4 KiB flash sector";
        }
        if (parts[i].address + sizes[i] > kEsp32Largest) {
            return named(parts[i]) + ": the part ends at " + hexAddress(parts[i].address + sizes[i]) +
                   ", past 16 MiB, the largest flash the loader writes";
        }
    }
    std::sort(order.begin(), order.end(),
              [&parts](std::size_t a, std::size_t b) { return parts[a].address < parts[b].address; });
    for (std::size_t i = 1; i < order.size(); ++i) {
        const std::size_t before = order[i - 1], after = order[i];
        if (parts[before].address + sizes[before] > parts[after].address) {
            return named(parts[before]) + " (" + std::to_string(sizes[before]) + " bytes, to " +
                   hexAddress(parts[before].address + sizes[before]) + ") overlaps " + named(parts[after]);
        }
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
    return openFailure(log, name, before);
}

std::string InputCheck::openFailure(BoardLog& log, const std::string& name, unsigned before) {
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

std::optional<std::string> InputCheck::outputFile(const std::string& path, const std::string& what,
                                                  const std::vector<std::string>& images) {
    const std::filesystem::path log = pathFromUtf8(path);
    std::error_code error;
    if (!std::filesystem::exists(log, error)) {
        return std::nullopt;
    }
    if (!std::filesystem::is_regular_file(log, error)) {
        return path + ": the " + what + " is not a regular file";
    }
    for (const auto& image : images) {
        if (std::filesystem::equivalent(log, pathFromUtf8(image), error)) {
            return path + ": the " + what + " is the image itself";
        }
    }
    return std::nullopt;
}
