// The Debian package that `make package` builds, as a user gets it: its
// control fields and files, and the program unpacked from it started the way
// its menu entry starts it, outside the build tree.
#include "ProgramRun.h"
#include "TestSupport.h"
#include "X11Windows.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <regex>

namespace {

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

} // namespace

TEST(DebianPackage, ControlFilesAndTheUnpackedProgramStartingFromItsMenuEntry) {
    std::vector<std::string> debs;
    for (const auto& entry : std::filesystem::directory_iterator(MERID_PACKAGE_OUT_DIR)) {
        if (entry.path().extension() == ".deb") {
            debs.push_back(entry.path().string());
        }
    }
    ASSERT_EQ(debs.size(), 1u);
    const std::string deb = debs.front();
    std::string arch = run("dpkg --print-architecture").second;
    arch.erase(arch.find_last_not_of('\n') + 1);
    EXPECT_EQ(std::filesystem::path(deb).filename(),
              "MeridKestalUtility-" MERID_PROJECT_VERSION "-" + arch + ".deb");
    EXPECT_EQ(run("dpkg-deb --field '" + deb + "' Package Version Architecture").second,
              "Package: meridkestalutility\nVersion: " MERID_PROJECT_VERSION "\nArchitecture: " + arch +
                  "\n");
    // Computed from the libraries the program links, with the versions the build saw.
    const std::string depends = run("dpkg-deb --field '" + deb + "' Depends").second;
    EXPECT_NE(depends.find("libgtkmm-3.0-1v5 (>= "), std::string::npos) << depends;

    programtest::Sandbox sandbox;
    const std::string root = sandbox.root() + "/root", bin = root + "/usr/bin";
    ASSERT_EQ(run("dpkg-deb -x '" + deb + "' '" + root + "'").first, 0);
    std::vector<std::string> expected;
    for (const auto& file : kInstalledFiles) {
        expected.push_back("usr/" + file);
    }
    EXPECT_EQ(filesUnder(root), expected);
    for (const auto& file : expected) {
        struct stat info {};
        ASSERT_EQ(stat((root + "/" + file).c_str(), &info), 0) << file;
        EXPECT_EQ(info.st_mode & 0777, file.rfind("usr/bin/", 0) == 0 ? 0755u : 0644u) << file;
    }
    const std::string icons = root + "/usr/share/icons/hicolor/";
    EXPECT_EQ(programtest::pngSize(icons + "256x256/apps/meridkestalutility.png"), std::make_pair(256, 256));
    // The menu entry starts the program by name along PATH, under the icon's
    // name and the window's class.
    const std::string entry =
        testsupport::readFile(root + "/usr/share/applications/meridkestalutility.desktop");
    for (const char* line : {"\nExec=MeridKestalUtility\n", "\nIcon=meridkestalutility\n",
                             "\nStartupWMClass=MeridKestalUtility\n", "\nTerminal=false\n"}) {
        EXPECT_NE(entry.find(line), std::string::npos) << line << entry;
    }
    EXPECT_NE(run("file -b '" + bin + "/MeridKestalUtility'").second.find(", stripped"), std::string::npos);
    EXPECT_EQ(run("readelf -d '" + bin + "/MeridKestalUtility' | grep -E 'RPATH|RUNPATH'").second, "");
    // Hardened: the stack protector and the checked C library calls, so that
    // an overrun aborts instead of running on.
    for (const std::string program : {"MeridKestalUtility", "merid-flash"}) {
        const std::string symbols = run("readelf --dyn-syms -W '" + bin + "/" + program + "'").second;
        EXPECT_NE(symbols.find(" __stack_chk_fail@"), std::string::npos) << program;
        EXPECT_TRUE(std::regex_search(symbols, std::regex(" __[a-z]+_chk@"))) << program;
    }

    // The menu entry's command along PATH, from a folder outside the build
    // tree, with the logs in their default places.
    programtest::X11Windows x11;
    ASSERT_TRUE(x11.connected()) << "no X display: run under xvfb-run";
    auto environment = sandbox.environment();
    environment["MERID_LOG_PATH"] = std::nullopt;
    environment["PATH"] = bin + ":/usr/bin:/bin";
    const auto cwd = std::filesystem::current_path();
    std::filesystem::current_path(sandbox.root());
    programtest::ProgramRun program(bin + "/MeridKestalUtility", environment, sandbox.root());
    std::filesystem::current_path(cwd);
    const auto window = x11.waitForWindow(program.pid(), "MeridKestalUtility", std::chrono::seconds(90));
    ASSERT_TRUE(window.has_value()) << program.standardError();
    EXPECT_NE(
        run("xprop -id " + std::to_string(*window) + " WM_CLASS").second.find("\"MeridKestalUtility\"\n"),
        std::string::npos);
    const std::string earlyLog =
        testsupport::readFile(sandbox.home() + "/.local/state/MeridKestalUtility/MeridKestalUtility.log");
    EXPECT_EQ(earlyLog.rfind("=== Application start ===\n", 0), 0u) << earlyLog;
    EXPECT_EQ(earlyLog.find(MERID_SOURCE_DIR), std::string::npos) << earlyLog;
    EXPECT_EQ(earlyLog.find(MERID_BUILD_DIR), std::string::npos) << earlyLog;

    x11.requestClose(*window);
    const auto exit = program.wait(std::chrono::seconds(60));
    ASSERT_TRUE(exit.has_value()) << "still running after its window was closed";
    EXPECT_TRUE(exit->exited && exit->exitCode == 0) << program.standardError();
}
