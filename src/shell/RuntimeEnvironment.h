#pragma once

#include "PlatformPaths.h"

#include <filesystem>
#include <optional>
#include <string>

// Sets a variable for both the system's and the C runtime's view, replacing
// any value. An empty name does nothing.
void setEnvVarAlways(const std::string& name, const std::string& value);

// The user's temporary directory; "." when the system names none.
std::filesystem::path getTempDirW();

// The running executable, when the system can tell.
std::optional<std::filesystem::path> getExecutablePath();

// Points the toolkit at data beside the executable: XDG_DATA_DIRS at its
// "share" directory when that exists, GTK_DATA_PREFIX at its directory, and
// GSETTINGS_SCHEMA_DIR at share/glib-2.0/schemas, then at glib-2.0/schemas of
// the executable's directory, each when it exists (the later one wins).
void configureRuntimeEnvironment();

// The same for a given executable path; no executable, nothing to do.
void configureRuntimeEnvironmentFor(const std::optional<std::filesystem::path>& executable);
