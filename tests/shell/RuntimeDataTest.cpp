#include "EarlyLog.h"
#include "PortableRuntimeData.h"
#include "RuntimeEnvironment.h"
#include "ShellTestSupport.h"
#include "TestSupport.h"

#include <gio/gio.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>

using testsupport::ScopedEnv;
using testsupport::TempDir;
namespace fs = std::filesystem;

namespace {

constexpr const char* kGlade = "/meridkestalutility/ui/UserInterface.glade";

std::string env(const char* name) {
    return std::getenv(name) != nullptr ? std::getenv(name) : "<unset>";
}

std::string readAll(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::string resourceBytes(const char* resource) {
    GBytes* bytes = g_resources_lookup_data(resource, G_RESOURCE_LOOKUP_FLAGS_NONE, nullptr);
    if (bytes == nullptr) {
        return "<missing>";
    }
    gsize size = 0;
    const auto* data = static_cast<const char*>(g_bytes_get_data(bytes, &size));
    std::string result(data, size);
    g_bytes_unref(bytes);
    return result;
}

std::map<std::string, fs::file_time_type> treeTimes(const fs::path& root) {
    std::map<std::string, fs::file_time_type> times;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        if (entry.is_regular_file()) {
            times[entry.path().string()] = entry.last_write_time();
        }
    }
    return times;
}

class RuntimeData : public ::testing::Test {
protected:
    void SetUp() override {
        shelltest::registerBundles();
        ASSERT_TRUE(openEarlyLog(logPath));
    }
    std::vector<std::string> logBodies() const { return shelltest::logBodies(logPath); }

    TempDir dir;
    const std::string logPath = dir.path() + "/early.log";
    TempDir temp;
    testsupport::ScopedTempDirEnv tempEnv{temp.path()};
    ScopedEnv dataDirs{"XDG_DATA_DIRS", std::string("/before")};
    ScopedEnv schemas{"GSETTINGS_SCHEMA_DIR", std::string("/before/schemas")};
    ScopedEnv prefix{"GTK_DATA_PREFIX", std::nullopt};
    // The tree of this test program, named after its file.
    const fs::path share = fs::path(temp.path()) / "MeridKestalUtility-runtime-shell_tests" / "share";
};

} // namespace

// Which of share/, share/glib-2.0/schemas and glib-2.0/schemas exist beside
// the executable, and what the toolkit's variables then hold.
TEST_F(RuntimeData, EnvironmentBesideTheExecutable) {
    struct Case {
        std::vector<std::string> dirs;
        std::string dataDirsPrefix;
        std::string schemaDir;
    };
    const std::string base = dir.path();
    const std::vector<Case> cases = {
        {{}, "/before", "/before/schemas"},
        {{"share"}, base + "/share:", "/before/schemas"},
        {{"share/glib-2.0/schemas"}, base + "/share:", base + "/share/glib-2.0/schemas"},
        {{"share/glib-2.0/schemas", "glib-2.0/schemas"}, base + "/share:", base + "/glib-2.0/schemas"},
        {{"glib-2.0/schemas"}, "/before", base + "/glib-2.0/schemas"},
    };
    for (const auto& item : cases) {
        ScopedEnv data("XDG_DATA_DIRS", std::string("/before"));
        ScopedEnv schema("GSETTINGS_SCHEMA_DIR", std::string("/before/schemas"));
        fs::remove_all(base + "/share");
        fs::remove_all(base + "/glib-2.0");
        for (const auto& sub : item.dirs) {
            fs::create_directories(base + "/" + sub);
        }
        configureRuntimeEnvironmentFor(fs::path(base) / "MeridKestalUtility");
        const std::string what = ::testing::PrintToString(item.dirs);
        EXPECT_EQ(env("XDG_DATA_DIRS").rfind(item.dataDirsPrefix, 0), 0u)
            << what << ": " << env("XDG_DATA_DIRS");
        EXPECT_EQ(env("GSETTINGS_SCHEMA_DIR"), item.schemaDir) << what;
        EXPECT_EQ(env("GTK_DATA_PREFIX"), base) << what;
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

TEST_F(RuntimeData, OneFileIsWrittenWithItsDirectoriesButNeverRewritten) {
    const fs::path target = fs::path(dir.path()) / "a" / "b" / "UserInterface.glade";
    EXPECT_TRUE(writeResourceToFileIfMissing(kGlade, target));
    EXPECT_EQ(readAll(target), resourceBytes(kGlade));
    // A zero-length file left by a crash counts as present.
    const fs::path empty = fs::path(dir.path()) / "empty.glade";
    std::ofstream(empty).close();
    EXPECT_TRUE(writeResourceToFileIfMissing(kGlade, empty));
    EXPECT_EQ(fs::file_size(empty), 0u);
    EXPECT_TRUE(logBodies().empty());
}

TEST_F(RuntimeData, FailuresAreWarningsInTheEarlyLog) {
    const fs::path base(dir.path());
    std::ofstream(base / "plain-file") << "x";
    const fs::path underFile = base / "plain-file" / "sub" / "UserInterface.glade";
    const fs::path tooLong = base / std::string(300, 'n');
    EXPECT_FALSE(writeResourceToFileIfMissing("/meridkestalutility/none.xpm", base / "none.xpm"));
    EXPECT_FALSE(writeResourceToFileIfMissing(kGlade, underFile));
    EXPECT_FALSE(writeResourceToFileIfMissing(kGlade, tooLong));

    const auto lines = logBodies();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_TRUE(lines[0].rfind("[WARNING] [GResource] extract failed: /meridkestalutility/none.xpm (", 0) ==
                    0 &&
                lines[0].back() == ')')
        << lines[0];
    EXPECT_EQ(lines[1], "[WARNING] [FS] mkdir failed: " + underFile.string());
    EXPECT_EQ(lines[2], "[WARNING] [FS] open failed: " + tooLong.string());
}

TEST_F(RuntimeData, TreeIsMadeOnceAndTheVariablesPointAtIt) {
    const auto check = [&] {
        ensurePortableRuntimeData();
        ASSERT_EQ(portableShareDir(), std::optional<fs::path>(share));
        EXPECT_EQ(env("XDG_DATA_DIRS").rfind(share.string() + ":", 0), 0u) << env("XDG_DATA_DIRS");
        EXPECT_EQ(env("GSETTINGS_SCHEMA_DIR"), (share / "glib-2.0" / "schemas").string());
        EXPECT_TRUE(logBodies().empty());
    };
    check();
    const auto times = treeTimes(share);
    EXPECT_EQ(times.size(), 16u);
    EXPECT_EQ(readAll(share / "icons/hicolor/index.theme"),
              resourceBytes("/meridkestalutility/icons/hicolor/index.theme"));
    EXPECT_EQ(readAll(share / "glib-2.0/schemas/gschemas.compiled"),
              resourceBytes("/meridkestalutility/gsettings/gschemas.compiled"));

    // The second start writes nothing and sets the same.
    ScopedEnv resetData("XDG_DATA_DIRS", std::string("/before"));
    ScopedEnv resetSchemas("GSETTINGS_SCHEMA_DIR", std::string("/before/schemas"));
    check();
    EXPECT_EQ(treeTimes(share), times);
}

TEST_F(RuntimeData, WithoutTheIconBundleOnlyTheSchemaDirectoryIsSet) {
    shelltest::withoutIconBundle([] { ensurePortableRuntimeData(); });

    EXPECT_EQ(env("XDG_DATA_DIRS"), "/before");
    EXPECT_EQ(env("GSETTINGS_SCHEMA_DIR"), (share / "glib-2.0" / "schemas").string());
    EXPECT_EQ(treeTimes(share).size(), 1u);
    const auto lines = logBodies();
    EXPECT_EQ(lines.size(), 15u);
    for (const auto& line : lines) {
        EXPECT_EQ(line.rfind("[WARNING] [GResource] extract failed: /meridkestalutility/icons/", 0), 0u)
            << line;
    }
}
