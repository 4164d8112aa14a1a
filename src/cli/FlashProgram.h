#pragma once

#include "BoardGang.h"
#include "BoardRecord.h"
#include "BoardResult.h"
#include "BoardSession.h"
#include "CliSettings.h"
#include "ImageCopy.h"

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

// merid-flash: the window's loads without the window. Exit code 0 when every
// board succeeded, 1 when any failed (a board whose port does not open among
// them), 2 for bad usage or bad input, which is found before anything is
// sent, and for a run none of whose ports opens; 130 or 143 when an
// interrupt or a termination stopped the run.
class FlashProgram {
public:
    int run(int argc, char** argv);

private:
    int listPorts();
    int searchPort();
    // A line to the parent of a board's process.
    using Emit = std::function<void(const std::string& text)>;

    int runWorker();
    BoardSession::Outcome identifyDevice(BoardSession& session, const Emit& emit);
    static BoardSession::Progress progressReport(const Emit& emit);
    BoardSession::Outcome flashEsp32(BoardSession& session, const Emit& emit);
    int runLoads();
    // What every board loads, in `targets`; the one line that says what
    // is wrong, before anything is sent.
    std::optional<std::string> checkLoadInput(ImageCopy& copies, std::vector<BoardGang::Target>& targets);
    std::optional<std::string> checkParts(std::vector<std::uint64_t>& sizes);
    // The lines of every port when none opens.
    std::optional<std::string> checkPorts();
    std::optional<std::string> copyImages(const std::vector<std::uint64_t>& sizes, ImageCopy& copies,
                                          std::vector<BoardGang::Target>& targets);
    // The images the command line names.
    std::vector<std::string> inputFiles() const;
    // The log file opened; the reason when it may not be. `images` are the
    // inputs it must not be.
    std::optional<std::string> openLogFile(const std::vector<std::string>& images);
    std::optional<std::string> checkReport(const std::vector<std::string>& images) const;
    void printResults(const std::vector<BoardResult>& results);
    bool writeReport(std::vector<BoardRecord> records, const std::vector<BoardResult>& results) const;
    // Where people read: the standard output, or the standard error when the
    // standard output carries JSON.
    std::FILE* humanOutput() const;
    static int badInput(const std::string& line);

    CliSettings settings;
    std::ofstream logFile;
    // The boards whose ports did not open, and why.
    std::map<std::string, std::string> unopened;
};
