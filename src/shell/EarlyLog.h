#pragma once

#include <glib.h>

#include <string>

// The early log: one small text file that exists from the first lines of
// main to the end of the process. It sees the start-up steps, the toolkit's
// own messages and the last words of a crash, and shares nothing with
// LoggerManager. A line is "<UTC time> [LEVEL] [domain] message".

// Now, as "%Y-%m-%dT%H:%M:%SZ" in UTC, whole seconds.
std::string formatTimestampUtc();

// The name of the first level bit that is set, in the order ERROR,
// CRITICAL, WARNING, MESSAGE, INFO, DEBUG; "LOG" when none is.
const char* logLevelName(GLogLevelFlags level);

// One line of the file, line feed included. A null domain counts as empty,
// and an empty domain leaves out its bracket; a null message is empty.
std::string formatLogLine(const std::string& timestamp, const char* domain, GLogLevelFlags level,
                          const char* message);

// Writes one line and flushes it; does nothing while the log is not open.
// Safe from any thread.
void writeLogLine(const char* domain, GLogLevelFlags level, const char* message);
void writeLogLine(const char* domain, GLogLevelFlags level, const std::string& message);

// The same for the crash paths, which must not wait for ever on a lock that
// the crashing thread itself may hold: after a short wait the line is lost.
void writeCrashLogLine(const char* domain, GLogLevelFlags level, const std::string& message);

// Where the early log goes: MERID_LOG_PATH when set and not empty, else
// "MeridKestalUtility/MeridKestalUtility.log" in the per-user application data
// directory (made here when missing), else "MeridKestalUtility.log" in the
// temporary directory. The result is UTF-8.
std::string chooseEarlyLogPath();

// Opens the early log for appending and writes its two header lines. A file
// that cannot be opened leaves the log off, silently. Returns whether it is on.
bool openEarlyLog(const std::string& path);

// The name of the program, the tag of its log lines and of its log directory.
inline constexpr const char* kAppName = "MeridKestalUtility";
