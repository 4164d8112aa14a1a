#include "PortNames.h"

#include <algorithm>
#include <stdexcept>
#include <string_view>

namespace PortNames {

namespace {

const std::string kDevicePrefix = "\\\\.\\";

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

bool upperEquals(char c, char upper) {
    return (static_cast<unsigned char>(c) & 0xDF) == upper;
}

struct SplitName {
    std::string_view stem;
    std::string_view digits; // trailing digits, without leading zeros
    bool numbered = false;
};

SplitName splitTrailingNumber(const std::string& name) {
    std::size_t end = name.size();
    std::size_t start = end;
    while (start > 0 && isDigit(name[start - 1])) {
        --start;
    }
    SplitName split;
    split.stem = std::string_view(name).substr(0, start);
    split.numbered = start < end;
    std::size_t first = start;
    while (first + 1 < end && name[first] == '0') {
        ++first;
    }
    split.digits = std::string_view(name).substr(first, end - first);
    return split;
}

// Compares decimal digit strings without converting them, so any length works.
int compareNumbers(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) {
        return a.size() < b.size() ? -1 : 1;
    }
    return a.compare(b);
}

} // namespace

bool hasComPrefix(const std::string& name) {
    return name.size() >= 4 && upperEquals(name[0], 'C') && upperEquals(name[1], 'O') &&
           upperEquals(name[2], 'M') && isDigit(name[3]);
}

int comIndex(const std::string& name) {
    if (!hasComPrefix(name)) {
        return 0;
    }
    try {
        return std::stoi(name.substr(3), nullptr, 10);
    } catch (const std::logic_error&) {
        return 0;
    }
}

std::string normalizePortName(const std::string& name) {
    if (name.compare(0, kDevicePrefix.size(), kDevicePrefix) == 0) {
        return name;
    }
    if (hasComPrefix(name)) {
        return kDevicePrefix + name;
    }
    return name;
}

bool comPortLess(const std::string& a, const std::string& b) {
    const int ia = comIndex(a);
    const int ib = comIndex(b);
    if (ia != 0 && ib != 0) {
        return ia < ib;
    }
    return a < b;
}

void sortComPorts(std::vector<std::string>& names) {
    std::sort(names.begin(), names.end(), comPortLess);
}

bool devicePortLess(const std::string& a, const std::string& b) {
    const SplitName sa = splitTrailingNumber(a);
    const SplitName sb = splitTrailingNumber(b);
    if (const int stem = sa.stem.compare(sb.stem); stem != 0) {
        return stem < 0;
    }
    if (sa.numbered != sb.numbered) {
        return !sa.numbered;
    }
    if (const int number = compareNumbers(sa.digits, sb.digits); number != 0) {
        return number < 0;
    }
    return a < b; // ttyS01 and ttyS1: any fixed order will do
}

void sortDevicePorts(std::vector<std::string>& names) {
    std::sort(names.begin(), names.end(), devicePortLess);
}

std::vector<std::string> splitPathList(const std::string& text, char separator) {
    std::vector<std::string> items;
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t end = text.find(separator, start);
        if (end == std::string::npos) {
            end = text.size();
        }
        if (end > start) {
            items.push_back(text.substr(start, end - start));
        }
        start = end + 1;
    }
    return items;
}

} // namespace PortNames
