#include "PortableRuntimeData.h"
#include "EarlyLog.h"
#include "MeridResources.h"
#include "ShellTestSupport.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>

using shelltest::fileLines;
using shelltest::withoutTimestamp;
using testsupport::ScopedEnv;
using testsupport::TempDir;
namespace fs = std::filesystem;

namespace {

constexpr const char* kGlade = "/meridkestalutility/ui/UserInterface.glade";

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

class RuntimeData : public ::testing::Test {
protected:
    void SetUp() override {
        shelltest::registerBundles();
        ASSERT_TRUE(openEarlyLog(dir.path() + "/early.log"));
    }

    // Lines written to the early log after its header.
    std::vector<std::string> logBodies() {
        std::vector<std::string> result;
        const auto lines = fileLines(dir.path() + "/early.log");
        for (std::size_t index = 2; index < lines.size(); ++index) {
            result.push_back(withoutTimestamp(lines[index]));
        }
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

    TempDir dir;
    TempDir temp;
    testsupport::ScopedTempDirEnv tempEnv{temp.path()};
    ScopedEnv dataDirs{"XDG_DATA_DIRS", std::string("/before")};
    ScopedEnv schemas{"GSETTINGS_SCHEMA_DIR", std::string("/before/schemas")};
};

} // namespace

TEST(RuntimeTag, KeepsSafeBytesAndReplacesEveryOtherByte) {
    EXPECT_EQ(cleanRuntimeTag("MeridKestalUtility"), "MeridKestalUtility");
    EXPECT_EQ(cleanRuntimeTag("My Tool.v2-x_y"), "My_Tool.v2-x_y");
    EXPECT_EQ(cleanRuntimeTag("a/b\\c:d"), "a_b_c_d");
    // Two bytes of UTF-8 each: one "_" per byte.
    EXPECT_EQ(cleanRuntimeTag("Прошивка"), std::string(16, '_'));
    EXPECT_EQ(cleanRuntimeTag(""), "");
}

TEST_F(RuntimeData, WritesTheResourceBytesAndMakesTheDirectories) {
    const fs::path target = fs::path(dir.path()) / "a" / "b" / "UserInterface.glade";
    EXPECT_TRUE(writeResourceToFileIfMissing(kGlade, target));
    EXPECT_EQ(readAll(target), resourceBytes(kGlade));
    EXPECT_TRUE(logBodies().empty());
}

TEST_F(RuntimeData, AnExistingFileIsNeverRewritten) {
    const fs::path target = fs::path(dir.path()) / "kept.glade";
    std::ofstream(target) << "older content";
    EXPECT_TRUE(writeResourceToFileIfMissing(kGlade, target));
    EXPECT_EQ(readAll(target), "older content");
}

TEST_F(RuntimeData, FailuresAreWarningsInTheEarlyLog) {
    const fs::path base(dir.path());
    EXPECT_FALSE(writeResourceToFileIfMissing("/meridkestalutility/none.xpm", base / "none.xpm"));
    std::ofstream(base / "plain-file") << "x";
    EXPECT_FALSE(writeResourceToFileIfMissing(kGlade, base / "plain-file" / "sub" / "UserInterface.glade"));
    const fs::path tooLong = base / std::string(300, 'n');
    EXPECT_FALSE(writeResourceToFileIfMissing(kGlade, tooLong));

    const auto lines = logBodies();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].rfind("[WARNING] [GResource] extract failed: /meridkestalutility/none.xpm (", 0), 0u)
        << lines[0];
    EXPECT_EQ(lines[0].back(), ')');
    EXPECT_EQ(lines[1], "[WARNING] [FS] mkdir failed: " +
                            (base / "plain-file" / "sub" / "UserInterface.glade").string());
    EXPECT_EQ(lines[2], "[WARNING] [FS] open failed: " + tooLong.string());
}

TEST_F(RuntimeData, TreeIsMadeOnceAndTheVariablesPointAtIt) {
    ensurePortableRuntimeData();
    const fs::path share = fs::path(temp.path()) / "MeridKestalUtility-runtime-shell_tests" / "share";
    ASSERT_TRUE(portableShareDir().has_value());
    EXPECT_EQ(*portableShareDir(), share);
    EXPECT_EQ(readAll(share / "icons/hicolor/index.theme"),
              resourceBytes("/meridkestalutility/icons/hicolor/index.theme"));
    EXPECT_EQ(readAll(share / "glib-2.0/schemas/gschemas.compiled"),
              resourceBytes("/meridkestalutility/gsettings/gschemas.compiled"));
    const auto times = treeTimes(share);
    EXPECT_EQ(times.size(), 16u);
    EXPECT_EQ(std::string(std::getenv("XDG_DATA_DIRS")).rfind(share.string(), 0), 0u);
    EXPECT_EQ(std::string(std::getenv("GSETTINGS_SCHEMA_DIR")), (share / "glib-2.0" / "schemas").string());
    EXPECT_TRUE(logBodies().empty());

    // The second time: nothing written, nothing logged, the same settings.
    ScopedEnv resetData("XDG_DATA_DIRS", std::string("/before"));
    ScopedEnv resetSchemas("GSETTINGS_SCHEMA_DIR", std::string("/before/schemas"));
    ensurePortableRuntimeData();
    EXPECT_EQ(treeTimes(share), times);
    EXPECT_TRUE(logBodies().empty());
    EXPECT_EQ(std::string(std::getenv("XDG_DATA_DIRS")).rfind(share.string(), 0), 0u);
    EXPECT_EQ(std::string(std::getenv("GSETTINGS_SCHEMA_DIR")), (share / "glib-2.0" / "schemas").string());
}

TEST_F(RuntimeData, WithoutTheIconBundleOnlyTheSchemaDirectoryIsSet) {
    const int times = shelltest::unregisterCompletely(merid_icons_get_resource(),
                                                      "/meridkestalutility/icons/hicolor/index.theme");
    ensurePortableRuntimeData();
    shelltest::registerAgain(merid_icons_get_resource(), times);

    EXPECT_STREQ(std::getenv("XDG_DATA_DIRS"), "/before");
    const fs::path share = *portableShareDir();
    EXPECT_EQ(std::string(std::getenv("GSETTINGS_SCHEMA_DIR")), (share / "glib-2.0" / "schemas").string());
    EXPECT_EQ(treeTimes(share).size(), 1u);
    const auto lines = logBodies();
    EXPECT_EQ(lines.size(), 15u);
    for (const auto& line : lines) {
        EXPECT_EQ(line.rfind("[WARNING] [GResource] extract failed: /meridkestalutility/icons/", 0), 0u)
            << line;
    }
}
