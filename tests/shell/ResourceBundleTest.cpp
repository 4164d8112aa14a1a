// The four bundles as they are linked into the program: the nineteen paths
// and nothing else, each byte for byte the file the build took it from.
#include "MeridFirmwareImages.h"
#include "ShellTestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>

namespace {

std::string readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// Every resource under `dir` with its bytes, and whether any is compressed.
void collect(const std::string& dir, std::map<std::string, std::string>& found, bool& compressed) {
    gchar** children = g_resources_enumerate_children(dir.c_str(), G_RESOURCE_LOOKUP_FLAGS_NONE, nullptr);
    for (gchar** child = children; child != nullptr && *child != nullptr; ++child) {
        const std::string path = dir + *child;
        if (path.back() == '/') {
            collect(path, found, compressed);
            continue;
        }
        guint32 flags = 0;
        g_resources_get_info(path.c_str(), G_RESOURCE_LOOKUP_FLAGS_NONE, nullptr, &flags, nullptr);
        compressed = compressed || flags != 0;
        GBytes* bytes = g_resources_lookup_data(path.c_str(), G_RESOURCE_LOOKUP_FLAGS_NONE, nullptr);
        gsize size = 0;
        const auto* data = static_cast<const char*>(g_bytes_get_data(bytes, &size));
        found[path.substr(20)] = std::string(data, size); // less "/meridkestalutility/"
        g_bytes_unref(bytes);
    }
    g_strfreev(children);
}

} // namespace

TEST(ResourceBundles, TheNineteenPathsHoldTheirSourceFilesUncompressed) {
    shelltest::registerBundles();
    std::map<std::string, std::string> found;
    bool compressed = false;
    collect("/meridkestalutility/", found, compressed);
    EXPECT_FALSE(compressed);

    std::map<std::string, std::string> expected;
    for (const std::string path :
         {"ui/UserInterface.glade", "firmware/merid_firmware.bin", "firmware/Tovik_2.13.319.f75a0c3_aes.bin",
          "gsettings/gschemas.compiled", "icons/hicolor/index.theme",
          "icons/hicolor/256x256/apps/meridkestalutility.png",
          "icons/hicolor/scalable/apps/meridkestalutility.svg",
          "icons/hicolor/16x16/actions/edit-find-symbolic.xpm", "icons/hicolor/16x16/actions/gtk-refresh.xpm",
          "icons/hicolor/16x16/devices/computer.xpm", "icons/hicolor/16x16/devices/drive-harddisk.xpm",
          "icons/hicolor/16x16/devices/drive-removable-media.xpm", "icons/hicolor/16x16/places/folder.xpm",
          "icons/hicolor/16x16/places/folder-documents.xpm", "icons/hicolor/16x16/places/folder-download.xpm",
          "icons/hicolor/16x16/places/user-home-symbolic-ltr.xpm",
          "icons/hicolor/16x16/places/user-home-symbolic.xpm", "icons/hicolor/16x16/places/user-desktop.xpm",
          "icons/hicolor/16x16/status/image-missing.xpm"}) {
        // The interface and the icons come from the sources, the rest is made by the build.
        const std::string source = std::string(MERID_SOURCE_ROOT) + "/resources/" + path;
        expected[path] =
            readAll(path.rfind("ui/", 0) == 0 ? std::string(MERID_SOURCE_ROOT) + "/UI/UserInterface.glade"
                    : std::filesystem::exists(source) ? source
                                                      : std::string(MERID_RESOURCE_STAGE_DIR) + "/" + path);
        EXPECT_FALSE(expected[path].empty()) << path;
    }
    std::vector<std::string> differing;
    for (const auto& [path, bytes] : expected) {
        if (found.count(path) == 0 || found.at(path) != bytes) {
            differing.push_back(path);
        }
    }
    EXPECT_EQ(found.size(), 19u);
    EXPECT_TRUE(differing.empty()) << ::testing::PrintToString(differing);
    if (kEsp32ImageIsPlaceholder && kStm32ImageIsPlaceholder) {
        EXPECT_EQ(found["firmware/merid_firmware.bin"].size(), 1803184u);
        EXPECT_EQ(found["firmware/Tovik_2.13.319.f75a0c3_aes.bin"].size(), 37312u);
    }
    GError* error = nullptr;
    EXPECT_EQ(
        g_resources_lookup_data("/otherprefix/ui/UserInterface.glade", G_RESOURCE_LOOKUP_FLAGS_NONE, &error),
        nullptr);
    EXPECT_TRUE(g_error_matches(error, G_RESOURCE_ERROR, G_RESOURCE_ERROR_NOT_FOUND));
    g_clear_error(&error);
}
