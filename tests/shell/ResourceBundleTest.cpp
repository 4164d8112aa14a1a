// The four bundles as they are linked into the program: every path there,
// byte for byte the file the build took it from, and nothing else.
#include "MeridFirmwareImages.h"
#include "ShellTestSupport.h"

#include <gtest/gtest.h>

#include <gio/gio.h>

#include <fstream>
#include <map>

namespace {

std::string readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// Every resource path under `dir` with its bytes.
void collect(const std::string& dir, std::map<std::string, std::string>& found) {
    gchar** children = g_resources_enumerate_children(dir.c_str(), G_RESOURCE_LOOKUP_FLAGS_NONE, nullptr);
    for (gchar** child = children; child != nullptr && *child != nullptr; ++child) {
        const std::string path = dir + *child;
        if (path.back() == '/') {
            collect(path, found);
            continue;
        }
        GBytes* bytes = g_resources_lookup_data(path.c_str(), G_RESOURCE_LOOKUP_FLAGS_NONE, nullptr);
        gsize size = 0;
        const auto* data = static_cast<const char*>(g_bytes_get_data(bytes, &size));
        found[path] = std::string(data, size);
        g_bytes_unref(bytes);
    }
    g_strfreev(children);
}

} // namespace

TEST(ResourceBundles, TheNineteenPathsHoldTheirSourceFilesUncompressed) {
    const std::string root = MERID_SOURCE_ROOT;
    const std::string stage = std::string(MERID_RESOURCE_STAGE_DIR) + "/";
    std::map<std::string, std::string> sources = {
        {"ui/UserInterface.glade", root + "/UI/UserInterface.glade"},
        {"firmware/merid_firmware.bin", stage + "firmware/merid_firmware.bin"},
        {"firmware/Tovik_2.13.319.f75a0c3_aes.bin", stage + "firmware/Tovik_2.13.319.f75a0c3_aes.bin"},
        {"gsettings/gschemas.compiled", stage + "gsettings/gschemas.compiled"},
        {"icons/hicolor/256x256/apps/meridkestalutility.png",
         stage + "icons/hicolor/256x256/apps/meridkestalutility.png"},
    };
    for (const char* icon :
         {"index.theme", "scalable/apps/meridkestalutility.svg", "16x16/actions/edit-find-symbolic.xpm",
          "16x16/actions/gtk-refresh.xpm", "16x16/devices/computer.xpm", "16x16/devices/drive-harddisk.xpm",
          "16x16/devices/drive-removable-media.xpm", "16x16/places/folder.xpm",
          "16x16/places/folder-documents.xpm", "16x16/places/folder-download.xpm",
          "16x16/places/user-home-symbolic-ltr.xpm", "16x16/places/user-home-symbolic.xpm",
          "16x16/places/user-desktop.xpm", "16x16/status/image-missing.xpm"}) {
        sources[std::string("icons/hicolor/") + icon] = root + "/resources/icons/hicolor/" + icon;
    }
    ASSERT_EQ(sources.size(), 19u);

    shelltest::registerBundles();
    std::map<std::string, std::string> found;
    collect("/meridkestalutility/", found);
    EXPECT_EQ(found.size(), 19u);
    for (const auto& [path, source] : sources) {
        const std::string full = "/meridkestalutility/" + path;
        const std::string original = readAll(source);
        ASSERT_FALSE(original.empty()) << source;
        EXPECT_TRUE(found.count(full) == 1 && found[full] == original) << full << " differs from " << source;
        gsize size = 0;
        guint32 flags = 1;
        ASSERT_TRUE(g_resources_get_info(full.c_str(), G_RESOURCE_LOOKUP_FLAGS_NONE, &size, &flags, nullptr));
        EXPECT_EQ(flags, 0u) << full << " is stored compressed";
    }
    if (kEsp32ImageIsPlaceholder) {
        EXPECT_EQ(found["/meridkestalutility/firmware/merid_firmware.bin"].size(), 1803184u);
    }
    if (kStm32ImageIsPlaceholder) {
        EXPECT_EQ(found["/meridkestalutility/firmware/Tovik_2.13.319.f75a0c3_aes.bin"].size(), 37312u);
    }

    GError* error = nullptr;
    EXPECT_EQ(
        g_resources_lookup_data("/otherprefix/ui/UserInterface.glade", G_RESOURCE_LOOKUP_FLAGS_NONE, &error),
        nullptr);
    EXPECT_TRUE(g_error_matches(error, G_RESOURCE_ERROR, G_RESOURCE_ERROR_NOT_FOUND));
    g_clear_error(&error);
}
