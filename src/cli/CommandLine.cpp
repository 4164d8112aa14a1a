#include "CommandLine.h"

#include "UsbTypes.h"

#include <CLI/CLI.hpp>

#include <iostream>

namespace {

constexpr int kUsageError = 2;

void addCommonOptions(CLI::App& command, CliSettings& settings) {
    command.add_flag("--json", settings.json, "One JSON object per board at the end, on standard output");
    command.add_option("--log", settings.logPath, "Write the full protocol log to this file");
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
    load->add_option("FILE", settings.file, "The firmware image")->required();
    addCommonOptions(*load, settings);
    // The process that runs one board for a parent: not for people.
    load->add_flag("--worker", settings.worker)->group("");
    load->callback([&settings, command] { settings.command = command; });
    return load;
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

    addLoadCommand(app, "stm32", "Load FILE into the STM32 of each board", settings,
                   CliSettings::Command::Stm32);
    CLI::App* esp32 = addLoadCommand(app, "esp32", "Flash FILE into the ESP32 of each board", settings,
                                     CliSettings::Command::Esp32);
    bool plain = false;
    bool unchecked = false;
    esp32->add_flag("--no-compress", plain, "Send the image as it is, not compressed");
    esp32->add_flag("--no-verify", unchecked, "Skip the MD5 check of the written flash");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            return app.exit(error); // the help
        }
        std::cerr << "merid-flash: " << error.what() << " (see merid-flash --help)" << std::endl;
        return kUsageError;
    }
    settings.compress = !plain;
    settings.verify = !unchecked;
    return settings;
}
