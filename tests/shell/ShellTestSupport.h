#pragma once

#include <functional>
#include <string>
#include <vector>

namespace shelltest {

// The lines of a text file, without their line feeds.
std::vector<std::string> fileLines(const std::string& path);

// The early log's lines after its two header lines, without their time stamps.
std::vector<std::string> logBodies(const std::string& path);

// Registers the four embedded bundles, as the program does at start.
void registerBundles();

// Runs `action` with the icon bundle out of the process's resources, however
// often it was registered, and puts it back afterwards.
void withoutIconBundle(const std::function<void()>& action);

} // namespace shelltest
