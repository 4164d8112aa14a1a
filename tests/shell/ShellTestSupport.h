#pragma once

#include "MeridResources.h"

#include <algorithm>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

namespace shelltest {

// The early log's lines after its two header lines, without their time
// stamps ("2026-11-15T02:29:53Z ").
inline std::vector<std::string> logBodies(const std::string& path) {
    std::vector<std::string> bodies;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        bodies.push_back(line.size() > 21 ? line.substr(21) : "");
    }
    bodies.erase(bodies.begin(), bodies.begin() + std::min<std::ptrdiff_t>(2, std::ssize(bodies)));
    return bodies;
}

// Registers the four embedded bundles, as the program does at start.
inline void registerBundles() {
    for (GResource* bundle : {merid_ui_get_resource(), merid_icons_get_resource(),
                              merid_firmware_get_resource(), merid_gsettings_get_resource()}) {
        g_resources_register(bundle);
    }
}

// Runs `action` with the icon bundle out of the process's resources, however
// often it was registered, and puts it back afterwards. The first lookup also
// registers the bundles that wait for it.
inline void withoutIconBundle(const std::function<void()>& action) {
    int times = 0;
    for (; times < 16 && g_resources_get_info("/meridkestalutility/icons/hicolor/index.theme",
                                              G_RESOURCE_LOOKUP_FLAGS_NONE, nullptr, nullptr, nullptr);
         ++times) {
        g_resources_unregister(merid_icons_get_resource());
    }
    action();
    for (; times > 0; --times) {
        g_resources_register(merid_icons_get_resource());
    }
}

} // namespace shelltest
