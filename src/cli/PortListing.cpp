#include "PortListing.h"

#include "DeviceText.h"
#include "Summary.h"

#include <algorithm>

std::vector<PortListing::Entry> PortListing::of(const std::vector<std::string>& names) {
    std::vector<Entry> entries;
    for (const auto& name : names) {
        entries.push_back({name, PortIdentity::of(name)});
    }
    return entries;
}

namespace {

std::string adapterColumns(const PortIdentity& identity) {
    std::string text =
        DeviceText::forTerminal(identity.vendorId) + ":" + DeviceText::forTerminal(identity.productId);
    for (const std::string* part : {&identity.serialNumber, &identity.product}) {
        text += "  " + (part->empty() ? std::string("-") : DeviceText::forTerminal(*part));
    }
    return text;
}

void addField(std::string& object, const char* key, const std::string& value) {
    if (!value.empty()) {
        object += std::string(",\"") + key + "\":" + Summary::jsonString(value);
    }
}

} // namespace

std::string PortListing::table(const std::vector<Entry>& entries) {
    std::size_t width = 0;
    for (const auto& entry : entries) {
        width = std::max(width, DeviceText::forTerminal(entry.name).size());
    }
    std::string text;
    for (const auto& entry : entries) {
        std::string line = DeviceText::forTerminal(entry.name);
        if (entry.identity) {
            line += std::string(width - line.size() + 2, ' ') + adapterColumns(*entry.identity);
        }
        text += line + '\n';
    }
    return text;
}

std::string PortListing::json(const std::vector<Entry>& entries) {
    std::string list;
    for (const auto& entry : entries) {
        std::string object = "{\"name\":" + Summary::jsonString(entry.name);
        if (entry.identity) {
            addField(object, "vendorId", entry.identity->vendorId);
            addField(object, "productId", entry.identity->productId);
            addField(object, "serialNumber", entry.identity->serialNumber);
            addField(object, "product", entry.identity->product);
        }
        list += (list.empty() ? "" : ",") + object + "}";
    }
    return "{\"ports\":[" + list + "]}";
}
