#include "CommandLine.h"

#include "UsbTypes.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdint>
#include <iostream>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace {

constexpr int kUsageError = 2;

void addCommonOptions(CLI::App& command, CliSettings& settings) {
    command.add_flag("--json", settings.json, "One JSON object per board at the end, on standard output");
    command.add_option("--log", settings.logPath, "Write the full protocol log to this file");
    command.add_option("--report", settings.reportPath,
                       "Append a record of every board to this file (.csv: CSV)");
    command.add_flag("-q,--quiet", settings.quiet, "No progress and no table; failures only");
}

void addBaudOption(CLI::App& command, CliSettings& settings) {
    command.add_option("-b,--baud", settings.baud, "Line speed in bits per second (default 115200)")
        ->check(CLI::Validator(
            [](const std::string& text) {
                try {
                    if (UsbTypes::isSupportedBaudrate(std::stoll(text))) {
                        return std::string();
                    }
                } catch (const std::exception&) {
                }
                return "unsupported speed " + text +
                       " (57600, 115200, 230400, 460800, 500000, 576000, 921600, 1000000 or 2000000)";
            },
            "BAUD"));
}

CLI::App* addLoadCommand(CLI::App& app, const char* name, const char* help, CliSettings& settings,
                         CliSettings::Command command) {
    CLI::App* load = app.add_subcommand(name, help);
    load->add_option("-p,--port", settings.ports, "Serial port of one board; repeat for several boards")
        ->required()
        ->allow_extra_args(false);
    addBaudOption(*load, settings);
    addCommonOptions(*load, settings);
    // The process that runs one board for a parent: not for people.
    load->add_flag("--worker", settings.worker)->group("");
    load->callback([&settings, command] { settings.command = command; });
    return load;
}

void addEsp32Options(CLI::App& command, CliSettings& settings, bool& plain, bool& unchecked) {
    command.add_flag("--no-compress", plain, "Send the image as it is, not compressed");
    command.add_flag("--no-verify", unchecked, "Skip the MD5 check of the written flash");
    command.add_flag("--force", settings.force, "Write every part, even one the flash already holds");
}

// A flash address: hexadecimal after 0x, otherwise decimal, 32 bits at most.
std::optional<std::uint32_t> flashAddress(const std::string& text) {
    const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const std::string digits = hex ? text.substr(2) : text;
    const char* allowed = hex ? "0123456789abcdefABCDEF" : "0123456789";
    if (digits.empty() || digits.find_first_not_of(allowed) != std::string::npos) {
        return std::nullopt;
    }
    const std::size_t first = digits.find_first_not_of('0');
    const std::size_t significant = first == std::string::npos ? 0 : digits.size() - first;
    if (significant > (hex ? 8u : 10u)) {
        return std::nullopt;
    }
    const unsigned long long value = std::stoull(digits, nullptr, hex ? 16 : 10);
    if (value > 0xFFFFFFFFull) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(value);
}

// FILE alone is one part at offset 0; otherwise ADDR FILE pairs.
std::optional<std::string> readParts(const std::vector<std::string>& words, std::vector<FlashPart>& parts) {
    if (words.size() == 1) {
        parts.push_back(FlashPart{0, words.front()});
        return std::nullopt;
    }
    if (words.size() % 2 != 0) {
        return "the ESP32 image is FILE alone or ADDR FILE pairs; the last, " + words.back() +
               ", has no pair";
    }
    for (std::size_t i = 0; i < words.size(); i += 2) {
        const auto at = flashAddress(words[i]);
        if (!at) {
            return words[i] + " " + words[i + 1] +
                   ": not a flash address (hexadecimal after 0x, or decimal, up to 32 bits)";
        }
        parts.push_back(FlashPart{*at, words[i + 1]});
    }
    return std::nullopt;
}

// The common options, given before the subcommand, go after it, where the
// subcommand takes them: `-p X --json stm32 F` reads as `stm32 -p X --json
// F`. Words before the subcommand that are none of them stay where they are,
// for CLI11 to refuse.
std::vector<char*> commonOptionsAfterCommand(int argc, char** argv, const CLI::App& app) {
    static const std::set<std::string> kFlags{"--json", "-q", "--quiet"};
    static const std::set<std::string> kValued{"-p", "--port", "-b", "--baud", "--log", "--report"};
    std::vector<char*> words(argv, argv + argc);
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        // `--log=F`, and `-pX` for a short one.
        const bool joinedShort = word.size() > 2 && word[0] == '-' && word[1] != '-';
        const std::string name = joinedShort ? word.substr(0, 2) : word.substr(0, word.find('='));
        if (kValued.count(word) > 0) {
            ++i;
        } else if (kFlags.count(word) == 0 && kValued.count(name) == 0) {
            const auto named = [&word](const CLI::App* command) { return command->check_name(word); };
            if (i > 1 && !app.get_subcommands(named).empty()) {
                std::rotate(words.begin() + 1, words.begin() + i, words.begin() + i + 1);
            }
            break;
        }
    }
    return words;
}

} // namespace

std::variant<CliSettings, int> CommandLine::parse(int argc, char** argv) {
    CliSettings settings;
    CLI::App app{"Loads firmware into MeridKestal boards, several at once, without a window"};
    app.name("merid-flash");
    app.require_subcommand(1);
    app.set_version_flag("--version", std::string("merid-flash ") + MERID_VERSION);

    CLI::App* ports = app.add_subcommand("ports", "List the serial ports, as the connection dialog does");
    addCommonOptions(*ports, settings);
    ports->callback([&settings] { settings.command = CliSettings::Command::Ports; });

    CLI::App* search =
        app.add_subcommand("search", "List the devices that answer on a port, with their fields");
    search->add_option("-p,--port", settings.ports, "Serial port")->required()->expected(1)->take_last();
    addBaudOption(*search, settings);
    addCommonOptions(*search, settings);
    search->callback([&settings] { settings.command = CliSettings::Command::Search; });

    CLI::App* stm32 = addLoadCommand(app, "stm32", "Load FILE into the STM32 of each board", settings,
                                     CliSettings::Command::Stm32);
    stm32->add_option("FILE", settings.file, "The firmware image")->required();

    std::vector<std::string> partWords;
    bool plain = false;
    bool unchecked = false;
    CLI::App* esp32 = addLoadCommand(app, "esp32", "Flash the image into the ESP32 of each board", settings,
                                     CliSettings::Command::Esp32);
    esp32->add_option("PARTS", partWords, "FILE alone (at offset 0), or ADDR FILE [ADDR FILE ...]")
        ->required();
    addEsp32Options(*esp32, settings, plain, unchecked);

    CLI::App* board = addLoadCommand(app, "board", "Load the STM32, then flash the ESP32, of each board",
                                     settings, CliSettings::Command::Board);
    board->add_option("--stm32", settings.file, "The STM32 image")->required();
    board->add_option("--esp32", partWords, "The ESP32 image: FILE alone, or ADDR FILE [ADDR FILE ...]")
        ->required();
    addEsp32Options(*board, settings, plain, unchecked);

    try {
        std::vector<char*> words = commonOptionsAfterCommand(argc, argv, app);
        app.parse(static_cast<int>(words.size()), words.data());
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            return app.exit(error); // the help
        }
        std::cerr << "merid-flash: " << error.what() << " (see merid-flash --help)" << std::endl;
        return kUsageError;
    }
    if (auto problem = readParts(partWords, settings.parts)) {
        std::cerr << "merid-flash: " << *problem << " (see merid-flash --help)" << std::endl;
        return kUsageError;
    }
    settings.compress = !plain;
    settings.verify = !unchecked;
    return settings;
}
