#include "EmbeddedResources.h"

#include "EarlyLog.h"
#include "GlibLogRouting.h"
#include "MeridFirmwareImages.h"
#include "MeridResources.h"

#include <string>

namespace {

constexpr const char* kCheckedResources[] = {
    "/meridkestalutility/ui/UserInterface.glade",
    "/meridkestalutility/icons/hicolor/index.theme",
    "/meridkestalutility/icons/hicolor/16x16/places/user-home-symbolic-ltr.xpm",
    "/meridkestalutility/icons/hicolor/16x16/places/user-home-symbolic.xpm",
    "/meridkestalutility/icons/hicolor/16x16/actions/edit-find-symbolic.xpm",
    "/meridkestalutility/icons/hicolor/16x16/status/image-missing.xpm",
    "/meridkestalutility/gsettings/gschemas.compiled",
};

void registerIfPresent(GResource* resource) {
    if (resource != nullptr) {
        g_resources_register(resource);
    }
}

void warnAboutPlaceholderImages() {
    if (!kEsp32ImageIsPlaceholder && !kStm32ImageIsPlaceholder) {
        return;
    }
    const bool both = kEsp32ImageIsPlaceholder && kStm32ImageIsPlaceholder;
    const std::string which = both                       ? "ESP32 and STM32 images are"
                              : kEsp32ImageIsPlaceholder ? "ESP32 image is"
                                                         : "STM32 image is";
    writeLogLine(kAppName, G_LOG_LEVEL_WARNING,
                 "PLACEHOLDER FIRMWARE: the built-in " + which +
                     " filler made by the build, not firmware. NEVER flash " + (both ? "them" : "it") +
                     " into a real device.");
}

} // namespace

void registerEmbeddedResources() {
    writeLogLine(kAppName, G_LOG_LEVEL_MESSAGE, "Registering embedded resources...");
    registerIfPresent(merid_ui_get_resource());
    registerIfPresent(merid_icons_get_resource());
    registerIfPresent(merid_firmware_get_resource());
    registerIfPresent(merid_gsettings_get_resource());
    writeLogLine(kAppName, G_LOG_LEVEL_MESSAGE, "Embedded resources registered.");
    writeLogLine("GSettings", G_LOG_LEVEL_MESSAGE, "Embedded GSettings schemas: yes");
    warnAboutPlaceholderImages();
}

void logStartupDiagnostics() {
    logEnvIfSet("XDG_DATA_DIRS");
    logEnvIfSet("GSETTINGS_SCHEMA_DIR");
    for (const char* path : kCheckedResources) {
        logResourcePresence(path);
    }
}
