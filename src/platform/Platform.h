#pragma once

#include <ctime>
#include <optional>
#include <string>

// Everything the program asks of the operating system, outside the serial
// port, goes through these functions. PlatformPosix.cpp and
// PlatformWindows.cpp hold the two implementations.
namespace Platform {

// The fixed 24-character local-time text of the ctime family followed by a
// line feed ("Sun Nov 15 02:16:24 2026\n"). Empty when the time cannot be
// converted.
std::optional<std::string> localTimeText(std::time_t seconds);

// Broken-down UTC time; false when the time cannot be converted.
bool utcTime(std::time_t seconds, std::tm& out);

// The directory for temporary files, without a trailing separator; "." when
// the system names none.
std::string tempDirectory();

// The value of an environment variable; empty optional when it is not set.
std::optional<std::string> getEnv(const std::string& name);

// Sets an environment variable so that both the C runtime and the system see
// it. Returns false when the system refused.
bool setEnv(const std::string& name, const std::string& value);

// Removes an environment variable.
void unsetEnv(const std::string& name);

// The per-user directory for application state and logs.
std::optional<std::string> localAppDataDirectory();

// The user's desktop folder, when the system knows one.
std::optional<std::string> desktopDirectory();

// Full path of the running executable; empty when unknown.
std::string executablePath();

// Separator between directory entries of a path list variable.
char pathListSeparator();

} // namespace Platform
