#pragma once

#include <filesystem>
#include <optional>
#include <string>

// The icon theme and the settings schemas are inside the program, but the
// toolkit reads them from a directory tree. At each start the embedded files
// that are not on disk yet are written to
// <temp>/MeridKestalUtility-runtime-<tag>/share, and the toolkit's variables
// are pointed there.

// Writes one resource to `path` unless something is there already, whatever
// its content. False when the resource is missing or the file can't be made.
bool writeResourceToFileIfMissing(const std::string& resource, const std::filesystem::path& path);

// The executable's stem with every byte outside A-Z, a-z, 0-9, '-', '.' and
// '_' turned into '_'.
std::string cleanRuntimeTag(const std::string& tag);

// The whole step: the tree, then XDG_DATA_DIRS and GSETTINGS_SCHEMA_DIR.
void ensurePortableRuntimeData();

// The share directory of the tree, once ensurePortableRuntimeData has run.
const std::optional<std::filesystem::path>& portableShareDir();
