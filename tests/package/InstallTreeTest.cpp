// What `cmake --install` lays out: the program and what a Linux desktop needs
// to offer it in its menu, each file where the desktop looks for it.
#include "PackageTestSupport.h"
#include "ProgramRun.h"
#include "TestSupport.h"
#include "X11Windows.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

using namespace packagetest;

TEST(InstallTree, FilesPermissionsIconAndMenuEntry) {
    testsupport::TempDir root;
    const std::string prefix = root.path() + "/usr";
    const auto [code, output] =
        run("'" MERID_CMAKE_COMMAND "' --install '" MERID_BUILD_DIR "' --prefix '" + prefix + "'");
    ASSERT_EQ(code, 0) << output;
    EXPECT_EQ(filesUnder(prefix), kInstalledFiles);
    for (const auto& file : kInstalledFiles) {
        struct stat info {};
        ASSERT_EQ(stat((prefix + "/" + file).c_str(), &info), 0) << file;
        EXPECT_EQ(info.st_mode & 0777, file.rfind("bin/", 0) == 0 ? 0755u : 0644u) << file;
    }
    const std::string icons = prefix + "/share/icons/hicolor/";
    EXPECT_EQ(programtest::pngSize(icons + "256x256/apps/meridkestalutility.png"), std::make_pair(256, 256));
    EXPECT_NE(testsupport::readFile(icons + "scalable/apps/meridkestalutility.svg").find("<svg"),
              std::string::npos);

    // The menu entry starts the installed program by name, as a launcher
    // finds it along PATH, under the icon's name and the window's class.
    const std::string entry =
        testsupport::readFile(prefix + "/share/applications/meridkestalutility.desktop");
    for (const char* line : {"\nExec=MeridKestalUtility\n", "\nIcon=meridkestalutility\n",
                             "\nStartupWMClass=MeridKestalUtility\n", "\nTerminal=false\n"}) {
        EXPECT_NE(entry.find(line), std::string::npos) << line << entry;
    }
}
