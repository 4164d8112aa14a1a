// The Debian package that `make package` builds, as a user gets it: its
// control fields, its files, apt's view of it, and the program unpacked from
// it into a scratch root, started the way its menu entry starts it, with a
// simulated board on a port when the build has the device simulator.
#include "PackageTestSupport.h"
#include "ProgramRun.h"
#include "Sandbox.h"
#include "SimulatedBoard.h"
#include "X11Windows.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <stdexcept>

using namespace packagetest;
using namespace programtest;

namespace {

// The one package that the build step left in its output folder.
std::string packageFile() {
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(MERID_PACKAGE_OUT_DIR)) {
        const std::string name = entry.path().filename().string();
        if (name.rfind("MeridKestalUtility-", 0) == 0 && entry.path().extension() == ".deb") {
            found.push_back(entry.path().string());
        }
    }
    if (found.size() != 1) {
        throw std::runtime_error("expected one MeridKestalUtility-*.deb in " MERID_PACKAGE_OUT_DIR
                                 ", found " +
                                 std::to_string(found.size()));
    }
    return found.front();
}

std::string controlField(const std::string& deb, const std::string& field) {
    CommandResult result = runCommand("dpkg-deb --field " + shellQuote(deb) + " " + field);
    while (!result.output.empty() && result.output.back() == '\n') {
        result.output.pop_back();
    }
    return result.exitCode == 0 ? result.output : "<dpkg-deb failed: " + result.output + ">";
}

bool startsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

// Changes the working directory while the object lives, so that a child
// started meanwhile runs outside the build tree.
class ScopedWorkingDirectory {
public:
    explicit ScopedWorkingDirectory(const std::string& dir) : previous(std::filesystem::current_path()) {
        std::filesystem::current_path(dir);
    }
    ~ScopedWorkingDirectory() {
        std::error_code ignored;
        std::filesystem::current_path(previous, ignored);
    }
    ScopedWorkingDirectory(const ScopedWorkingDirectory&) = delete;
    ScopedWorkingDirectory& operator=(const ScopedWorkingDirectory&) = delete;

private:
    std::filesystem::path previous;
};

class DebianPackage : public ::testing::Test {
protected:
    void SetUp() override { deb = packageFile(); }

    // Unpacks the package as dpkg would install it, under `root`.
    void unpackInto(const std::string& root) {
        const CommandResult unpack = runCommand("dpkg-deb -x " + shellQuote(deb) + " " + shellQuote(root));
        ASSERT_EQ(unpack.exitCode, 0) << unpack.output;
    }

    std::string deb;
};

TEST_F(DebianPackage, ControlFieldsNameTheProgramAndItsComputedDependencies) {
    EXPECT_EQ(controlField(deb, "Package"), "meridkestalutility");
    EXPECT_EQ(controlField(deb, "Version"), MERID_PROJECT_VERSION);
    const CommandResult arch = runCommand("dpkg --print-architecture");
    EXPECT_EQ(controlField(deb, "Architecture") + "\n", arch.output);
    EXPECT_EQ(std::filesystem::path(deb).filename().string(),
              "MeridKestalUtility-" MERID_PROJECT_VERSION "-" + controlField(deb, "Architecture") + ".deb");
    // Nobody writes these by hand: the shared libraries the program links
    // decide them, with the versions the build saw.
    const std::string depends = controlField(deb, "Depends");
    EXPECT_NE(depends.find("libgtkmm-3.0-1v5 (>= "), std::string::npos) << depends;
    EXPECT_NE(depends.find("libglibmm-2.4-1v5 (>= "), std::string::npos) << depends;
    EXPECT_NE(depends.find("libc6 (>= "), std::string::npos) << depends;
    EXPECT_NE(controlField(deb, "Maintainer"), "");
    EXPECT_NE(controlField(deb, "Description"), "");
}

TEST_F(DebianPackage, HoldsTheApplicationFilesUnderUsrWithAStrippedProgram) {
    Sandbox sandbox;
    const std::string root = sandbox.root() + "/root";
    unpackInto(root);
    std::vector<std::string> expected;
    for (const auto& file : installedFiles()) {
        expected.push_back("usr/" + file);
    }
    EXPECT_EQ(filesUnder(root), expected);
    const CommandResult symbols = runCommand("file -b " + shellQuote(root + "/usr/bin/MeridKestalUtility"));
    EXPECT_NE(symbols.output.find("ELF 64-bit"), std::string::npos) << symbols.output;
    EXPECT_NE(symbols.output.find(", stripped"), std::string::npos) << symbols.output;
    // Nothing of the build tree is looked up at run time.
    const CommandResult dynamic =
        runCommand("readelf -d " + shellQuote(root + "/usr/bin/MeridKestalUtility"));
    EXPECT_EQ(dynamic.output.find("RPATH"), std::string::npos) << dynamic.output;
    EXPECT_EQ(dynamic.output.find("RUNPATH"), std::string::npos) << dynamic.output;
}

TEST_F(DebianPackage, AptAcceptsItForInstallation) {
    const CommandResult apt = runCommand("apt-get install --simulate " + shellQuote(deb));
    EXPECT_EQ(apt.exitCode, 0) << apt.output;
    const bool installs = apt.output.find("Inst meridkestalutility ") != std::string::npos;
    const bool present =
        apt.output.find("meridkestalutility is already the newest version") != std::string::npos;
    EXPECT_TRUE(installs || present) << apt.output;
}

TEST_F(DebianPackage, UnpackedProgramStartsFromItsMenuEntryWithNothingFromTheBuildTree) {
    Sandbox sandbox;
    X11Windows x11;
    ASSERT_TRUE(x11.connected()) << "no X display: run under xvfb-run";
    const std::string root = sandbox.root() + "/root";
    unpackInto(root);
    const std::string bin = root + "/usr/bin";

    // The menu entry's command, found along PATH as a launcher finds it.
    auto entry = readDesktopEntry(root + "/usr/share/applications/meridkestalutility.desktop");
    const auto program = findInPath(entry["Exec"], bin + ":/usr/bin:/bin");
    ASSERT_EQ(program, std::make_optional(bin + "/MeridKestalUtility"));

    // A first run: the logs go to their default places in the user's home
    // and the temporary directory.
    auto environment = sandbox.environment();
    environment["MERID_LOG_PATH"] = std::nullopt;
    environment["MERID_LOG_DIR"] = std::nullopt;
    environment["PATH"] = bin + ":/usr/bin:/bin";
    keepDescriptorsFromChildren();
#ifdef MERID_DEVSIM_PATH
    // A board on a pseudo-terminal, offered to the program as a port.
    SimulatedBoard board(MERID_DEVSIM_PATH, sandbox.root() + "/board");
    const auto port = board.waitForPort(std::chrono::seconds(20));
    ASSERT_TRUE(port.has_value()) << "the simulator served no port:\n" << board.standardError();
    environment["MERID_EXTRA_PORTS"] = *port;
#endif
    std::optional<ProgramRun> run;
    {
        ScopedWorkingDirectory outside(sandbox.root());
        run.emplace(*program, environment, sandbox.root());
    }
    ASSERT_TRUE(run->started());

    auto window = x11.waitForWindow(run->pid(), "MeridKestalUtility", std::chrono::seconds(90));
    ASSERT_TRUE(window.has_value()) << "no window; standard error:\n" << run->standardError();
    EXPECT_TRUE(x11.isViewable(*window));
    EXPECT_EQ(windowClass(*window), entry["StartupWMClass"]);

    const auto inUse = filesInUseBy(run->pid());
    EXPECT_NE(std::find(inUse.begin(), inUse.end(), *program), inUse.end()) << "not the unpacked program";
    for (const auto& file : inUse) {
        EXPECT_FALSE(startsWith(file, MERID_SOURCE_DIR "/")) << file;
        EXPECT_FALSE(startsWith(file, MERID_BUILD_DIR "/")) << file;
    }

    const std::string earlyLog =
        readFile(sandbox.home() + "/.local/state/MeridKestalUtility/MeridKestalUtility.log");
    EXPECT_TRUE(startsWith(earlyLog, "=== Application start ===\n")) << earlyLog;
    EXPECT_EQ(earlyLog.find(MERID_SOURCE_DIR), std::string::npos) << earlyLog;

    x11.requestClose(*window);
    auto exit = run->wait(std::chrono::seconds(60));
    ASSERT_TRUE(exit.has_value()) << "still running after its window was closed";
    EXPECT_TRUE(exit->exited);
    EXPECT_EQ(exit->exitCode, 0) << run->standardError();
#ifdef MERID_DEVSIM_PATH
    EXPECT_TRUE(board.stop()) << "the simulator did not outlive the program:\n" << board.standardError();
#endif
}

} // namespace
