#pragma once

#include "MeridResources.h"

#include <fstream>
#include <functional>
#include <string>
#include <vector>

namespace shelltest {

// The lines of a text file; with `skip`, less that many first lines and
// less the early log's time stamp ("2026-11-15T02:29:53Z ") on each.
inline std::vector<std::string> fileLines(const std::string& path, std::size_t skip = 0) {
    std::vector<std::string> lines;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        if (skip > 0) {
            --skip;
        } else {
            lines.push_back(line);
        }
    }
    return lines;
}

inline std::vector<std::string> logBodies(const std::string& path) {
    auto lines = fileLines(path, 2);
    for (auto& line : lines) {
        line.erase(0, 21);
    }
    return lines;
}

// Registers the four embedded bundles, as the program does at start.
inline void registerBundles() {
    for (GResource* bundle : {merid_ui_get_resource(), merid_icons_get_resource(),
                              merid_firmware_get_resource(), merid_gsettings_get_resource()}) {
        g_resources_register(bundle);
    }
}

// Runs `action` with the icon bundle out of the process's resources, however
// often it was registered, and puts it back afterwards.
inline void withoutIconBundle(const std::function<void()>& action) {
    int times = 0;
    // The first lookup also registers the bundles that wait for it.
    for (GBytes* bytes;
         times < 16 && (bytes = g_resources_lookup_data("/meridkestalutility/icons/hicolor/index.theme",
                                                        G_RESOURCE_LOOKUP_FLAGS_NONE, nullptr));
         ++times) {
        g_bytes_unref(bytes);
        g_resources_unregister(merid_icons_get_resource());
    }
    action();
    for (; times > 0; --times) {
        g_resources_register(merid_icons_get_resource());
    }
}

} // namespace shelltest
