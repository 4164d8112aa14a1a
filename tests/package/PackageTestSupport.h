#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace packagetest {

// Every file that an installation of the program puts under its prefix.
const std::vector<std::string>& installedFiles();

struct CommandResult {
    int exitCode = -1;  // -1 when the command did not end normally
    std::string output; // standard output and error together
};

// Runs `command` through the shell and collects what it prints.
CommandResult runCommand(const std::string& command);

// `text` quoted for the shell.
std::string shellQuote(const std::string& text);

// Regular files and symbolic links under `root`, relative to it, sorted.
std::vector<std::string> filesUnder(const std::string& root);

// The keys of the [Desktop Entry] group of a desktop file.
std::map<std::string, std::string> readDesktopEntry(const std::string& path);

// Where a launcher finds `command` along `searchPath` (colon-separated), as
// an executable file; nothing when no directory has it.
std::optional<std::string> findInPath(const std::string& command, const std::string& searchPath);

// Marks every descriptor above standard error close-on-exec, so that a child
// started afterwards gets none of the test runner's open files (CTest leaves
// its log open), as when a desktop launcher starts it.
void keepDescriptorsFromChildren();

// The files a running process has mapped or open, from /proc.
std::vector<std::string> filesInUseBy(int pid);

// The class part of a window's WM_CLASS, which desktops match against the
// menu entry's StartupWMClass.
std::string windowClass(unsigned long window);

} // namespace packagetest
