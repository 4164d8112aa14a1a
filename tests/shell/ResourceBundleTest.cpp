// The four bundles as they are linked into the program: every path there,
// byte for byte the file the build took it from.
#include "MeridFirmwareImages.h"
#include "ShellTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <set>
#include <string>
#include <vector>

namespace {

const std::string kPrefix = "/meridkestalutility/";

// Resource path (after the prefix) and the file it is built from.
std::vector<std::pair<std::string, std::string>> bundleSources() {
    const std::string root = MERID_SOURCE_ROOT;
    const std::string resources = root + "/resources/";
    const std::string stage = std::string(MERID_RESOURCE_STAGE_DIR) + "/";
    std::vector<std::pair<std::string, std::string>> sources = {
        {"ui/UserInterface.glade", root + "/UI/UserInterface.glade"},
        {"firmware/merid_firmware.bin", MERID_ESP32_IMAGE_SOURCE},
        {"firmware/Tovik_2.13.319.f75a0c3_aes.bin", MERID_STM32_IMAGE_SOURCE},
        {"gsettings/gschemas.compiled", stage + "gsettings/gschemas.compiled"},
        {"icons/hicolor/256x256/apps/meridkestalutility.png",
         stage + "icons/hicolor/256x256/apps/meridkestalutility.png"},
    };
    for (const char* file :
         {"icons/hicolor/index.theme", "icons/hicolor/scalable/apps/meridkestalutility.svg",
          "icons/hicolor/16x16/actions/edit-find-symbolic.xpm", "icons/hicolor/16x16/actions/gtk-refresh.xpm",
          "icons/hicolor/16x16/devices/computer.xpm", "icons/hicolor/16x16/devices/drive-harddisk.xpm",
          "icons/hicolor/16x16/devices/drive-removable-media.xpm", "icons/hicolor/16x16/places/folder.xpm",
          "icons/hicolor/16x16/places/folder-documents.xpm", "icons/hicolor/16x16/places/folder-download.xpm",
          "icons/hicolor/16x16/places/user-home-symbolic-ltr.xpm",
          "icons/hicolor/16x16/places/user-home-symbolic.xpm", "icons/hicolor/16x16/places/user-desktop.xpm",
          "icons/hicolor/16x16/status/image-missing.xpm"}) {
        sources.emplace_back(file, resources + file);
    }
    return sources;
}

std::string readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// Standard output of a command, as bytes.
std::string commandOutput(const std::string& command) {
    std::string output;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return output;
    }
    char buffer[65536];
    for (std::size_t count; (count = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0;) {
        output.append(buffer, count);
    }
    ::pclose(pipe);
    return output;
}

} // namespace

TEST(ResourceBundles, ProgramCarriesExactlyTheNineteenPaths) {
    const std::string listing = commandOutput(std::string("gresource list '") + MERID_PROGRAM_PATH + "'");
    std::set<std::string> listed;
    std::size_t start = 0;
    for (std::size_t end; (end = listing.find('\n', start)) != std::string::npos; start = end + 1) {
        listed.insert(listing.substr(start, end - start));
    }
    std::set<std::string> expected;
    for (const auto& [path, source] : bundleSources()) {
        expected.insert(kPrefix + path);
    }
    EXPECT_EQ(expected.size(), 19u);
    EXPECT_EQ(listed, expected);
}

TEST(ResourceBundles, EveryExtractedResourceEqualsItsSourceFile) {
    for (const auto& [path, source] : bundleSources()) {
        const std::string original = readAll(source);
        ASSERT_FALSE(original.empty()) << source;
        const std::string extracted =
            commandOutput(std::string("gresource extract '") + MERID_PROGRAM_PATH + "' " + kPrefix + path);
        EXPECT_TRUE(extracted == original)
            << path << ": " << extracted.size() << " bytes, source " << original.size();
    }
}

TEST(ResourceBundles, LookupsAfterRegistrationMatchTheSourceSizes) {
    shelltest::registerBundles();
    for (const auto& [path, source] : bundleSources()) {
        gsize size = 0;
        guint32 flags = 1;
        GError* error = nullptr;
        ASSERT_TRUE(g_resources_get_info((kPrefix + path).c_str(), G_RESOURCE_LOOKUP_FLAGS_NONE, &size,
                                         &flags, &error))
            << path << ": " << (error != nullptr ? error->message : "");
        EXPECT_EQ(size, readAll(source).size()) << path;
        EXPECT_EQ(flags, 0u) << path << " is stored compressed";
    }
    GError* error = nullptr;
    EXPECT_EQ(
        g_resources_lookup_data("/otherprefix/ui/UserInterface.glade", G_RESOURCE_LOOKUP_FLAGS_NONE, &error),
        nullptr);
    ASSERT_NE(error, nullptr);
    EXPECT_TRUE(g_error_matches(error, G_RESOURCE_ERROR, G_RESOURCE_ERROR_NOT_FOUND));
    g_error_free(error);
}

TEST(ResourceBundles, ImagesHaveTheirSizesAndPlaceholdersSayWhatTheyAre) {
    const std::string esp32 = readAll(MERID_ESP32_IMAGE_SOURCE);
    const std::string stm32 = readAll(MERID_STM32_IMAGE_SOURCE);
    if (kEsp32ImageIsPlaceholder) {
        EXPECT_EQ(esp32.size(), 1803184u);
        EXPECT_EQ(esp32.rfind("MeridKestalUtility PLACEHOLDER ESP32 IMAGE - NOT FIRMWARE", 0), 0u);
    }
    if (kStm32ImageIsPlaceholder) {
        EXPECT_EQ(stm32.size(), 37312u);
        EXPECT_EQ(stm32.rfind("MeridKestalUtility PLACEHOLDER STM32 IMAGE - NOT FIRMWARE", 0), 0u);
    }
}
