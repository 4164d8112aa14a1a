// The four bundles as they are linked into the program: after registration
// every one of the nineteen paths can be looked up, and nothing outside them.
#include "MeridFirmwareImages.h"
#include "ShellTestSupport.h"

#include <gtest/gtest.h>

TEST(ResourceBundles, TheNineteenPathsCanBeLookedUpAfterRegistration) {
    shelltest::registerBundles();
    const auto size = [](const std::string& path) -> std::optional<gsize> {
        gsize bytes = 0;
        if (!g_resources_get_info(path.c_str(), G_RESOURCE_LOOKUP_FLAGS_NONE, &bytes, nullptr, nullptr)) {
            return std::nullopt;
        }
        return bytes;
    };
    for (const char* path :
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
        EXPECT_GT(size(std::string("/meridkestalutility/") + path).value_or(0), 0u) << path;
    }
    // The images of a build without real ones have the sizes of the real ones.
    if (kEsp32ImageIsPlaceholder && kStm32ImageIsPlaceholder) {
        EXPECT_EQ(size("/meridkestalutility/firmware/merid_firmware.bin"), 1803184u);
        EXPECT_EQ(size("/meridkestalutility/firmware/Tovik_2.13.319.f75a0c3_aes.bin"), 37312u);
    }
    EXPECT_FALSE(size("/otherprefix/ui/UserInterface.glade").has_value());
}
