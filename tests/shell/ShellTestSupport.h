#pragma once

#include <gio/gio.h>

#include <string>
#include <vector>

namespace shelltest {

// The lines of a text file, without their line feeds.
std::vector<std::string> fileLines(const std::string& path);

// The line without its "2026-11-15T02:29:53Z " time stamp.
std::string withoutTimestamp(const std::string& line);

// Registers the four embedded bundles, as the program does at start.
void registerBundles();

// Takes a bundle out of the process's resources however often it was
// registered, until `probePath` of it can no longer be looked up; returns
// how often, so that it can be put back.
int unregisterCompletely(GResource* resource, const char* probePath);
void registerAgain(GResource* resource, int times);

} // namespace shelltest
