#include "EarlyLog.h"
#include "PortableRuntimeData.h"
#include "RuntimeEnvironment.h"
#include "ShellTestSupport.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>

using testsupport::ScopedEnv;
namespace fs = std::filesystem;

namespace {

std::string env(const char* name) {
    return std::getenv(name) != nullptr ? std::getenv(name) : "<unset>";
}

// Each file of the tree with its size.
std::map<std::string, std::uintmax_t> tree(const fs::path& root) {
    std::map<std::string, std::uintmax_t> files;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        if (entry.is_regular_file()) {
            files[fs::relative(entry.path(), root).string()] = entry.file_size();
        }
    }
    return files;
}

class RuntimeData : public ::testing::Test {
protected:
    void SetUp() override {
        shelltest::registerBundles();
        ASSERT_TRUE(openEarlyLog(dir.path() + "/early.log"));
    }
    std::vector<std::string> logBodies() const { return shelltest::logBodies(dir.path() + "/early.log"); }

    testsupport::TempDir dir;
    testsupport::TempDir temp;
    testsupport::ScopedTempDirEnv tempEnv{temp.path()};
    ScopedEnv dataDirs{"XDG_DATA_DIRS", std::string("/before")};
    ScopedEnv schemas{"GSETTINGS_SCHEMA_DIR", std::string("/before/schemas")};
    ScopedEnv prefix{"GTK_DATA_PREFIX", std::nullopt};
    // The tree of this test program, named after its file.
    const fs::path share = fs::path(temp.path()) / "MeridKestalUtility-runtime-shell_tests" / "share";
};

} // namespace

// What the toolkit's variables hold as share/, share/glib-2.0/schemas and
// glib-2.0/schemas appear beside the executable, one after the other.
TEST_F(RuntimeData, EnvironmentBesideTheExecutable) {
    const std::string base = dir.path();
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"", "/before", "/before/schemas"},
        {"share", base + "/share:", "/before/schemas"},
        {"share/glib-2.0/schemas", base + "/share:", base + "/share/glib-2.0/schemas"},
        {"glib-2.0/schemas", base + "/share:", base + "/glib-2.0/schemas"}};
    for (const auto& [sub, dataDirsStart, schemaDir] : cases) {
        ScopedEnv data("XDG_DATA_DIRS", std::string("/before"));
        ScopedEnv schema("GSETTINGS_SCHEMA_DIR", std::string("/before/schemas"));
        fs::create_directories(base + "/" + sub);
        configureRuntimeEnvironmentFor(fs::path(base) / "MeridKestalUtility");
        EXPECT_EQ(env("XDG_DATA_DIRS").rfind(dataDirsStart, 0), 0u) << sub << ": " << env("XDG_DATA_DIRS");
        EXPECT_EQ(env("GSETTINGS_SCHEMA_DIR"), schemaDir) << sub;
        EXPECT_EQ(env("GTK_DATA_PREFIX"), base) << sub;
    }
    ScopedEnv unsetPrefix("GTK_DATA_PREFIX", std::nullopt);
    configureRuntimeEnvironmentFor(std::nullopt);
    EXPECT_EQ(env("GTK_DATA_PREFIX"), "<unset>");
}

TEST(RuntimeTag, KeepsSafeBytesAndReplacesEveryOtherByte) {
    EXPECT_EQ(cleanRuntimeTag("My Tool.v2-x_y"), "My_Tool.v2-x_y");
    EXPECT_EQ(cleanRuntimeTag("a/b\\c:d"), "a_b_c_d");
    EXPECT_EQ(cleanRuntimeTag("Прошивка"), std::string(16, '_')); // two bytes of UTF-8 each
}

TEST_F(RuntimeData, FailuresAreWarningsInTheEarlyLog) {
    const fs::path base(dir.path());
    testsupport::writeFile((base / "plain-file").string(), {'x'});
    const fs::path underFile = base / "plain-file" / "sub" / "UserInterface.glade";
    const fs::path tooLong = base / std::string(300, 'n');
    EXPECT_FALSE(writeResourceToFileIfMissing("/meridkestalutility/none.xpm", base / "none.xpm"));
    EXPECT_FALSE(writeResourceToFileIfMissing("/meridkestalutility/ui/UserInterface.glade", underFile));
    EXPECT_FALSE(writeResourceToFileIfMissing("/meridkestalutility/ui/UserInterface.glade", tooLong));

    const auto lines = logBodies();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].rfind("[WARNING] [GResource] extract failed: /meridkestalutility/none.xpm (", 0), 0u);
    EXPECT_EQ(lines[1], "[WARNING] [FS] mkdir failed: " + underFile.string());
    EXPECT_EQ(lines[2], "[WARNING] [FS] open failed: " + tooLong.string());
}

// A start without the icon bundle writes the schema file alone and sets only
// its variable; the next start completes the tree, the one after writes
// nothing. A file already there, even an empty one left by a crash, stays.
TEST_F(RuntimeData, TreeIsCompletedByALaterStartButNeverRewritten) {
    const std::string empty = "icons/hicolor/16x16/places/folder.xpm";
    const std::string schemaDir = (share / "glib-2.0" / "schemas").string();
    fs::create_directories((share / empty).parent_path());
    testsupport::writeFile((share / empty).string(), {});
    shelltest::withoutIconBundle([] { ensurePortableRuntimeData(); });
    EXPECT_EQ(env("XDG_DATA_DIRS"), "/before");
    EXPECT_EQ(env("GSETTINGS_SCHEMA_DIR"), schemaDir);
    EXPECT_EQ(tree(share).size(), 2u);
    const auto warnings = logBodies();
    ASSERT_EQ(warnings.size(), 14u);
    EXPECT_EQ(warnings[0].rfind("[WARNING] [GResource] extract failed: /meridkestalutility/icons/", 0), 0u);

    ensurePortableRuntimeData();
    auto files = tree(share);
    ASSERT_EQ(files.size(), 16u);
    EXPECT_EQ(files.at(empty), 0u);
    const auto index = testsupport::readFile((share / "icons/hicolor/index.theme").string());
    EXPECT_EQ(index.rfind("[Icon Theme]\nName=hicolor\n", 0), 0u);
    fs::resize_file(share / "icons/hicolor/index.theme", 1);
    files["icons/hicolor/index.theme"] = 1;

    ScopedEnv data("XDG_DATA_DIRS", std::string("/before"));
    ensurePortableRuntimeData();
    EXPECT_EQ(env("XDG_DATA_DIRS").rfind(share.string() + ":", 0), 0u) << env("XDG_DATA_DIRS");
    EXPECT_EQ(env("GSETTINGS_SCHEMA_DIR"), schemaDir);
    EXPECT_EQ(tree(share), files);
    EXPECT_EQ(logBodies(), warnings);
}
