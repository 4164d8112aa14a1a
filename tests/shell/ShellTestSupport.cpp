#include "ShellTestSupport.h"

#include "MeridResources.h"

#include <fstream>

namespace shelltest {
namespace {

bool reachable(const char* path) {
    GBytes* bytes = g_resources_lookup_data(path, G_RESOURCE_LOOKUP_FLAGS_NONE, nullptr);
    if (bytes == nullptr) {
        return false;
    }
    g_bytes_unref(bytes);
    return true;
}

} // namespace

std::vector<std::string> fileLines(const std::string& path) {
    std::vector<std::string> lines;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::string withoutTimestamp(const std::string& line) {
    return line.size() > 21 ? line.substr(21) : "";
}

void registerBundles() {
    g_resources_register(merid_ui_get_resource());
    g_resources_register(merid_icons_get_resource());
    g_resources_register(merid_firmware_get_resource());
    g_resources_register(merid_gsettings_get_resource());
}

int unregisterCompletely(GResource* resource, const char* probePath) {
    int times = 0;
    // The first lookup also registers the bundles that wait for it.
    while (reachable(probePath) && times < 16) {
        g_resources_unregister(resource);
        ++times;
    }
    return times;
}

void registerAgain(GResource* resource, int times) {
    for (int count = 0; count < times; ++count) {
        g_resources_register(resource);
    }
}

} // namespace shelltest
