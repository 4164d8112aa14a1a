#include "PackageTestSupport.h"

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

namespace packagetest {

const std::vector<std::string>& installedFiles() {
    static const std::vector<std::string> files = {
        "bin/MeridKestalUtility",
        "share/applications/meridkestalutility.desktop",
        "share/doc/meridkestalutility/README.md",
        "share/doc/meridkestalutility/examples/70-meridkestalutility.rules",
        "share/icons/hicolor/256x256/apps/meridkestalutility.png",
        "share/icons/hicolor/scalable/apps/meridkestalutility.svg",
        "share/man/man1/MeridKestalUtility.1.gz",
        "share/metainfo/org.meridkestal.meridkestalutility.metainfo.xml",
    };
    return files;
}

CommandResult runCommand(const std::string& command) {
    CommandResult result;
    FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        return result;
    }
    std::array<char, 4096> buffer{};
    std::size_t count = 0;
    while ((count = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0) {
        result.output.append(buffer.data(), count);
    }
    const int status = ::pclose(pipe);
    if (status != -1 && WIFEXITED(status)) {
        result.exitCode = WEXITSTATUS(status);
    }
    return result;
}

std::string shellQuote(const std::string& text) {
    std::string quoted = "'";
    for (char c : text) {
        if (c == '\'') {
            quoted += "'\\''";
        } else {
            quoted += c;
        }
    }
    return quoted + "'";
}

std::vector<std::string> filesUnder(const std::string& root) {
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
        if (entry.is_symlink() || entry.is_regular_file()) {
            files.push_back(std::filesystem::relative(entry.path(), root).string());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::map<std::string, std::string> readDesktopEntry(const std::string& path) {
    std::map<std::string, std::string> keys;
    std::ifstream in(path);
    std::string line;
    bool inGroup = false;
    while (std::getline(in, line)) {
        if (!line.empty() && line.front() == '[') {
            inGroup = line == "[Desktop Entry]";
            continue;
        }
        const auto equals = line.find('=');
        if (inGroup && equals != std::string::npos && line.front() != '#') {
            keys[line.substr(0, equals)] = line.substr(equals + 1);
        }
    }
    return keys;
}

std::optional<std::string> findInPath(const std::string& command, const std::string& searchPath) {
    std::stringstream dirs(searchPath);
    std::string dir;
    while (std::getline(dirs, dir, ':')) {
        if (dir.empty()) {
            continue;
        }
        const std::string candidate = dir + "/" + command;
        if (::access(candidate.c_str(), X_OK) == 0 && std::filesystem::is_regular_file(candidate)) {
            return candidate;
        }
    }
    return std::nullopt;
}

void keepDescriptorsFromChildren() {
    std::vector<int> descriptors;
    std::error_code error;
    for (std::filesystem::directory_iterator it("/proc/self/fd", error), end; !error && it != end;
         it.increment(error)) {
        descriptors.push_back(std::atoi(it->path().filename().c_str()));
    }
    for (int fd : descriptors) {
        if (fd > STDERR_FILENO) {
            const int flags = ::fcntl(fd, F_GETFD);
            if (flags >= 0) {
                ::fcntl(fd, F_SETFD, flags | FD_CLOEXEC);
            }
        }
    }
}

std::vector<std::string> filesInUseBy(int pid) {
    std::set<std::string> files;
    const std::string proc = "/proc/" + std::to_string(pid);
    std::ifstream maps(proc + "/maps");
    std::string line;
    while (std::getline(maps, line)) {
        // address perms offset device inode path
        const auto slash = line.find('/');
        if (slash != std::string::npos) {
            files.insert(line.substr(slash));
        }
    }
    std::error_code error;
    for (std::filesystem::directory_iterator it(proc + "/fd", error), end; !error && it != end;
         it.increment(error)) {
        std::error_code linkError;
        const auto target = std::filesystem::read_symlink(it->path(), linkError);
        if (!linkError && target.is_absolute()) {
            files.insert(target.string());
        }
    }
    std::error_code cwdError;
    const auto cwd = std::filesystem::read_symlink(proc + "/cwd", cwdError);
    if (!cwdError) {
        files.insert(cwd.string());
    }
    return {files.begin(), files.end()};
}

std::string windowClass(unsigned long window) {
    Display* display = XOpenDisplay(nullptr);
    if (display == nullptr) {
        return {};
    }
    std::string result;
    XClassHint hint{};
    if (XGetClassHint(display, window, &hint) != 0) {
        if (hint.res_class != nullptr) {
            result = hint.res_class;
        }
        XFree(hint.res_name);
        XFree(hint.res_class);
    }
    XCloseDisplay(display);
    return result;
}

} // namespace packagetest
