#include "PortableRuntimeData.h"

#include "EarlyLog.h"
#include "Platform.h"
#include "RuntimeEnvironment.h"

#include <gio/gio.h>

#include <fstream>

namespace {

std::optional<std::filesystem::path> gPortableShareDir;

struct RuntimeFile {
    const char* resource;
    const char* file; // under the share directory
};

// In the order of extraction.
constexpr RuntimeFile kRuntimeFiles[] = {
    {"/meridkestalutility/icons/hicolor/index.theme", "icons/hicolor/index.theme"},
    {"/meridkestalutility/icons/hicolor/16x16/actions/edit-find-symbolic.xpm",
     "icons/hicolor/16x16/actions/edit-find-symbolic.xpm"},
    {"/meridkestalutility/icons/hicolor/16x16/actions/gtk-refresh.xpm",
     "icons/hicolor/16x16/actions/gtk-refresh.xpm"},
    {"/meridkestalutility/icons/hicolor/16x16/devices/computer.xpm",
     "icons/hicolor/16x16/devices/computer.xpm"},
    {"/meridkestalutility/icons/hicolor/16x16/devices/drive-harddisk.xpm",
     "icons/hicolor/16x16/devices/drive-harddisk.xpm"},
    {"/meridkestalutility/icons/hicolor/16x16/devices/drive-removable-media.xpm",
     "icons/hicolor/16x16/devices/drive-removable-media.xpm"},
    {"/meridkestalutility/icons/hicolor/16x16/places/folder.xpm", "icons/hicolor/16x16/places/folder.xpm"},
    {"/meridkestalutility/icons/hicolor/16x16/places/folder-documents.xpm",
     "icons/hicolor/16x16/places/folder-documents.xpm"},
    {"/meridkestalutility/icons/hicolor/16x16/places/folder-download.xpm",
     "icons/hicolor/16x16/places/folder-download.xpm"},
    {"/meridkestalutility/icons/hicolor/16x16/places/user-home-symbolic-ltr.xpm",
     "icons/hicolor/16x16/places/user-home-symbolic-ltr.xpm"},
    {"/meridkestalutility/icons/hicolor/16x16/places/user-home-symbolic.xpm",
     "icons/hicolor/16x16/places/user-home-symbolic.xpm"},
    {"/meridkestalutility/icons/hicolor/16x16/places/user-desktop.xpm",
     "icons/hicolor/16x16/places/user-desktop.xpm"},
    {"/meridkestalutility/icons/hicolor/16x16/status/image-missing.xpm",
     "icons/hicolor/16x16/status/image-missing.xpm"},
    {"/meridkestalutility/icons/hicolor/256x256/apps/meridkestalutility.png",
     "icons/hicolor/256x256/apps/meridkestalutility.png"},
    {"/meridkestalutility/icons/hicolor/scalable/apps/meridkestalutility.svg",
     "icons/hicolor/scalable/apps/meridkestalutility.svg"},
    {"/meridkestalutility/gsettings/gschemas.compiled", "glib-2.0/schemas/gschemas.compiled"},
};
constexpr std::size_t kThemeIndexFile = 0;
constexpr std::size_t kSchemasFile = std::size(kRuntimeFiles) - 1;

bool isTagByte(unsigned char byte) {
    return (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') || (byte >= '0' && byte <= '9') ||
           byte == '-' || byte == '.' || byte == '_';
}

std::string runtimeTag() {
    std::string tag = "default";
    if (const auto executable = getExecutablePath()) {
        tag = Platform::pathToUtf8(executable->stem());
    }
    return cleanRuntimeTag(tag);
}

bool writeBytes(GBytes* bytes, const std::filesystem::path& path) {
    std::error_code error;
    std::filesystem::create_directories(path.parent_path(), error);
    if (error) {
        writeLogLine("FS", G_LOG_LEVEL_WARNING, "mkdir failed: " + Platform::pathToUtf8(path));
        return false;
    }
    std::ofstream out(path, std::ios::out | std::ios::binary);
    if (!out.is_open()) {
        writeLogLine("FS", G_LOG_LEVEL_WARNING, "open failed: " + Platform::pathToUtf8(path));
        return false;
    }
    gsize size = 0;
    const auto* data = static_cast<const char*>(g_bytes_get_data(bytes, &size));
    out.write(data, static_cast<std::streamsize>(size));
    out.flush();
    return true;
}

} // namespace

bool writeResourceToFileIfMissing(const std::string& resource, const std::filesystem::path& path) {
    if (Platform::pathExists(path)) {
        return true;
    }
    GError* error = nullptr;
    GBytes* bytes = g_resources_lookup_data(resource.c_str(), G_RESOURCE_LOOKUP_FLAGS_NONE, &error);
    if (bytes == nullptr) {
        const std::string reason = error != nullptr ? error->message : "unknown error";
        writeLogLine("GResource", G_LOG_LEVEL_WARNING, "extract failed: " + resource + " (" + reason + ")");
        if (error != nullptr) {
            g_error_free(error);
        }
        return false;
    }
    const bool written = writeBytes(bytes, path);
    g_bytes_unref(bytes);
    return written;
}

std::string cleanRuntimeTag(const std::string& tag) {
    std::string clean = tag;
    for (char& byte : clean) {
        if (!isTagByte(static_cast<unsigned char>(byte))) {
            byte = '_';
        }
    }
    return clean;
}

void ensurePortableRuntimeData() {
    const std::filesystem::path runtimeDir =
        getTempDirW() / Platform::pathFromUtf8(std::string(kAppName) + "-runtime-" + runtimeTag());
    const std::filesystem::path shareDir = runtimeDir / "share";
    gPortableShareDir = shareDir;

    bool themeIndexInPlace = false;
    bool schemasInPlace = false;
    for (std::size_t index = 0; index < std::size(kRuntimeFiles); ++index) {
        const bool inPlace =
            writeResourceToFileIfMissing(kRuntimeFiles[index].resource, shareDir / kRuntimeFiles[index].file);
        if (index == kThemeIndexFile) {
            themeIndexInPlace = inPlace;
        } else if (index == kSchemasFile) {
            schemasInPlace = inPlace;
        }
    }

    if (themeIndexInPlace) {
        setEnvVarAlways("XDG_DATA_DIRS", Platform::dataDirsWith(Platform::pathToUtf8(shareDir)));
    }
    const std::filesystem::path schemasDir = shareDir / "glib-2.0" / "schemas";
    if (schemasInPlace && Platform::pathExists(shareDir / kRuntimeFiles[kSchemasFile].file)) {
        setEnvVarAlways("GSETTINGS_SCHEMA_DIR", Platform::pathToUtf8(schemasDir));
    }
}

const std::optional<std::filesystem::path>& portableShareDir() {
    return gPortableShareDir;
}
