#include "ShellTestSupport.h"

#include "MeridResources.h"

#include <fstream>

namespace shelltest {

std::vector<std::string> fileLines(const std::string& path) {
    std::vector<std::string> lines;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::vector<std::string> logBodies(const std::string& path) {
    std::vector<std::string> bodies;
    const auto lines = fileLines(path);
    for (std::size_t index = 2; index < lines.size(); ++index) {
        bodies.push_back(lines[index].size() > 21 ? lines[index].substr(21) : ""); // "2026-11-15T02:29:53Z "
    }
    return bodies;
}

void registerBundles() {
    g_resources_register(merid_ui_get_resource());
    g_resources_register(merid_icons_get_resource());
    g_resources_register(merid_firmware_get_resource());
    g_resources_register(merid_gsettings_get_resource());
}

void withoutIconBundle(const std::function<void()>& action) {
    GResource* icons = merid_icons_get_resource();
    int times = 0;
    // The first lookup also registers the bundles that wait for it.
    for (GBytes* bytes;
         times < 16 && (bytes = g_resources_lookup_data("/meridkestalutility/icons/hicolor/index.theme",
                                                        G_RESOURCE_LOOKUP_FLAGS_NONE, nullptr));
         ++times) {
        g_bytes_unref(bytes);
        g_resources_unregister(icons);
    }
    action();
    for (; times > 0; --times) {
        g_resources_register(icons);
    }
}

} // namespace shelltest
