// What `cmake --install` lays out: the program and what a Linux desktop needs
// to offer it in its menu, each file where the desktop looks for it and clean
// under the desktop's own validators.
#include "PackageTestSupport.h"
#include "ProgramRun.h"
#include "TestSupport.h"
#include "X11Windows.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <sys/stat.h>

using namespace packagetest;

namespace {

class InstallTree : public ::testing::Test {
protected:
    void SetUp() override {
        const CommandResult install =
            runCommand(shellQuote(MERID_CMAKE_COMMAND) + " --install " + shellQuote(MERID_BUILD_DIR) +
                       " --prefix " + shellQuote(prefix));
        ASSERT_EQ(install.exitCode, 0) << install.output;
    }

    std::string file(const std::string& relative) const { return prefix + "/" + relative; }

    testsupport::TempDir root;
    const std::string prefix = root.path() + "/usr";
};

TEST_F(InstallTree, HoldsExactlyTheApplicationFilesWithAnExecutableProgram) {
    EXPECT_EQ(filesUnder(prefix), installedFiles());
    struct stat info {};
    ASSERT_EQ(::stat(file("bin/MeridKestalUtility").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0755u);
    for (const auto& data : installedFiles()) {
        if (data.rfind("share/", 0) == 0) {
            ASSERT_EQ(::stat(file(data).c_str(), &info), 0) << data;
            EXPECT_EQ(info.st_mode & 0777, 0644u) << data;
        }
    }
}

TEST_F(InstallTree, IconIsTheScalableSvgAndThe256PixelPng) {
    EXPECT_EQ(programtest::pngSize(file("share/icons/hicolor/256x256/apps/meridkestalutility.png")),
              std::make_optional(std::make_pair(256, 256)));
    const std::string svg =
        programtest::readFile(file("share/icons/hicolor/scalable/apps/meridkestalutility.svg"));
    EXPECT_NE(svg.find("<svg"), std::string::npos);
    // The menu entry names the icon by the files' common name.
    EXPECT_EQ(readDesktopEntry(file("share/applications/meridkestalutility.desktop"))["Icon"],
              "meridkestalutility");
}

TEST_F(InstallTree, DesktopEntryIsCleanAndLaunchesTheInstalledProgram) {
    const std::string desktop = file("share/applications/meridkestalutility.desktop");
    const CommandResult validate = runCommand("desktop-file-validate " + shellQuote(desktop));
    EXPECT_EQ(validate.exitCode, 0);
    EXPECT_EQ(validate.output, "");

    auto entry = readDesktopEntry(desktop);
    EXPECT_EQ(entry["Type"], "Application");
    EXPECT_EQ(entry["Name"], "MeridKestalUtility");
    EXPECT_EQ(entry["Terminal"], "false");
    // The program takes no arguments, so the command line is its name alone,
    // found along PATH as a launcher finds it.
    EXPECT_EQ(findInPath(entry["Exec"], "/nonexistent:" + file("bin")), file("bin/MeridKestalUtility"));
    // Desktops tie the window to the entry by its class.
    EXPECT_EQ(entry["StartupWMClass"], "MeridKestalUtility");
}

TEST_F(InstallTree, MetainfoIsCleanAndNamesTheMenuEntryAndTheProgram) {
    const std::string metainfo = file("share/metainfo/org.meridkestal.meridkestalutility.metainfo.xml");
    const CommandResult alone =
        runCommand("appstreamcli validate --no-net --pedantic " + shellQuote(metainfo));
    EXPECT_EQ(alone.exitCode, 0) << alone.output;
    EXPECT_FALSE(std::regex_search(alone.output, std::regex("(^|\n)[EWIP]: "))) << alone.output;

    // The tree as a whole: the menu entry that the metadata launches exists.
    const CommandResult tree = runCommand("appstreamcli validate-tree --no-net " + shellQuote(root.path()));
    EXPECT_EQ(tree.exitCode, 0) << tree.output;

    const std::string text = programtest::readFile(metainfo);
    EXPECT_NE(text.find("<id>org.meridkestal.meridkestalutility</id>"), std::string::npos);
    EXPECT_NE(text.find("<launchable type=\"desktop-id\">meridkestalutility.desktop</launchable>"),
              std::string::npos);
    EXPECT_NE(text.find("<binary>MeridKestalUtility</binary>"), std::string::npos);
    EXPECT_NE(text.find("<release version=\"" MERID_PROJECT_VERSION "\""), std::string::npos);
}

TEST_F(InstallTree, ManualPageRendersCleanAndListsEveryVariable) {
    const std::string page = shellQuote(file("share/man/man1/MeridKestalUtility.1.gz"));
    const CommandResult render = runCommand("gzip -dc " + page + " | groff -man -ww -z -t");
    EXPECT_EQ(render.exitCode, 0);
    EXPECT_EQ(render.output, "");
    const CommandResult text = runCommand("gzip -dc " + page);
    ASSERT_EQ(text.exitCode, 0);
    for (const char* variable :
         {"MERID_LOG_PATH", "MERID_LOG_DIR", "MERID_LOG_LEVEL", "MERID_UI_GLADE", "MERID_EXTRA_PORTS"}) {
        EXPECT_NE(text.output.find(std::string(".B ") + variable + "\n"), std::string::npos) << variable;
    }
    EXPECT_NE(text.output.find("\"MeridKestalUtility " MERID_PROJECT_VERSION "\""), std::string::npos);
}

TEST_F(InstallTree, UdevExampleIsOneWellFormedRuleForTheSerialPort) {
    std::ifstream in(file("share/doc/meridkestalutility/examples/70-meridkestalutility.rules"));
    ASSERT_TRUE(in.good());
    std::vector<std::string> rules;
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line.front() != '#') {
            rules.push_back(line);
        }
    }
    ASSERT_EQ(rules.size(), 1u);
    // Every assignment or match is KEY, operator, quoted value.
    const std::regex pair(R"re(^[A-Z]+(\{[A-Za-z_]+\})?(==|!=|\+=|=|:=)"[^"]*"$)re");
    std::stringstream items(rules.front());
    std::string item;
    std::vector<std::string> seen;
    while (std::getline(items, item, ',')) {
        item.erase(0, item.find_first_not_of(' '));
        EXPECT_TRUE(std::regex_match(item, pair)) << item;
        seen.push_back(item);
    }
    for (const char* wanted :
         {R"(SUBSYSTEM=="tty")", R"(GROUP="dialout")", R"(TAG+="uaccess")", R"(MODE="0660")"}) {
        EXPECT_NE(std::find(seen.begin(), seen.end(), wanted), seen.end()) << wanted;
    }
}

} // namespace
