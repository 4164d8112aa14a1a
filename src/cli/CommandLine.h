#pragma once

#include "CliSettings.h"

#include <variant>

// The command line of merid-flash, parsed by CLI11. Either the settings of
// the run, or the exit code when the program ends here: 0 after the help, 2
// after a usage error, whose one line is then on standard error.
class CommandLine {
public:
    static std::variant<CliSettings, int> parse(int argc, char** argv);
};
