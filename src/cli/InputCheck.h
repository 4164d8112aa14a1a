#pragma once

#include "BoardLog.h"
#include "MeridEspSerialFlasher.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// The checks made before anything is sent: each gives the one line that
// tells the user what is wrong, or nothing when the input can be used.
class InputCheck {
public:
    // The image can be read and is not empty, and fits its target: an
    // STM32 image its 32-bit offsets, an ESP32 image 16 MiB and a whole
    // number of 32-bit words, as the ROM loader takes them. An ESP32 image
    // is plainly binary: not ELF, and not the text of an Intel HEX or
    // Motorola S-record file, which would reach the flash as its letters;
    // the line then says what the file is.
    static std::optional<std::string> image(const std::string& path, bool esp32, std::uint64_t& size);

    // The parts of an ESP32 image, `sizes` their lengths: each at a 4 KiB
    // sector boundary, none overlapping another, in whatever order given,
    // and all inside the largest flash the loader writes.
    static std::optional<std::string> layout(const std::vector<FlashPart>& parts,
                                             const std::vector<std::uint64_t>& sizes);

    // The port opens, and is closed again at once: nothing goes on the line.
    // When it does not open, the words of the port's log with its hint.
    static std::optional<std::string> port(const std::string& name);

    // The line for port `name` that did not open: the port's own line from
    // `log` (its problems since the count `before`) with its hint.
    static std::string openFailure(BoardLog& log, const std::string& name, unsigned before);

    // The ports are all different, also through links: each line once.
    static std::optional<std::string> distinctPorts(const std::vector<std::string>& names);

    // A file the run writes (`what`: "log file", "report") may be written:
    // it is none of the images, and a regular file when it exists (never a
    // FIFO that would hold the run).
    static std::optional<std::string> outputFile(const std::string& path, const std::string& what,
                                                 const std::vector<std::string>& images);
};
