#pragma once

#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

namespace packagetest {

// Every file that an installation puts under its prefix.
inline const std::vector<std::string> kInstalledFiles = {
    "bin/MeridKestalUtility",
    "bin/merid-flash",
    "share/applications/meridkestalutility.desktop",
    "share/doc/meridkestalutility/README.md",
    "share/doc/meridkestalutility/examples/70-meridkestalutility.rules",
    "share/icons/hicolor/256x256/apps/meridkestalutility.png",
    "share/icons/hicolor/scalable/apps/meridkestalutility.svg",
    "share/man/man1/MeridKestalUtility.1.gz",
    "share/man/man1/merid-flash.1.gz",
    "share/metainfo/org.meridkestal.meridkestalutility.metainfo.xml",
};

// Runs `command` through the shell: its exit code (-1 when it did not end
// normally) and what it printed on both streams.
inline std::pair<int, std::string> run(const std::string& command) {
    std::string output;
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    char buffer[4096];
    for (std::size_t n = 0; pipe != nullptr && (n = fread(buffer, 1, sizeof(buffer), pipe)) > 0;) {
        output.append(buffer, n);
    }
    const int status = pipe != nullptr ? pclose(pipe) : -1;
    return {status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

// Regular files and symbolic links under `root`, relative to it, sorted.
inline std::vector<std::string> filesUnder(const std::string& root) {
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
        if (entry.is_symlink() || entry.is_regular_file()) {
            files.push_back(std::filesystem::relative(entry.path(), root).string());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

} // namespace packagetest
