#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

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

// Makes `path` (and the folders above it) when missing, takes away others'
// right to write to it when it is this user's own, and says whether it is
// now a directory that only this user can change: not a link, owned by this
// user, writable by nobody else. Nobody else can then plant a file or a link
// inside it, even in a shared temporary folder.
bool ensurePrivateDirectory(const std::string& path);

// Full path of the running executable; empty when unknown.
std::string executablePath();

// The value of XDG_DATA_DIRS that makes `dir` the toolkit's first data
// directory. On POSIX the data directories that the process inherited (or
// the XDG default when there were none) stay after it, since the toolkit's
// image loaders tell file types by the shared MIME database found there; on
// Windows the "share" folder beside the executable, when there is one, stays
// after it: the toolkit's schemas and icon themes ship there.
std::string dataDirsWith(const std::string& dir);

// Last-chance crash hooks. The reporters run inside a signal handler or an
// exception filter: they must not return control to the faulting code.

// Called for a fault the process cannot survive, with the fault's code and up
// to kMaxCrashFrames return addresses of the faulting thread. When the
// reporter returns, the process ends (exit code 128 plus the signal number on
// POSIX, the system's handling on Windows).
using FaultReporter = void (*)(unsigned long code, void* const* frames, int frameCount);
constexpr int kMaxCrashFrames = 64;
void installFaultReporter(FaultReporter reporter);

// Routes one signal to `reporter`. On POSIX a segmentation fault raised by the
// hardware reaches the fault reporter first, then this one; a signal sent by
// another process reaches this one alone.
using SignalReporter = void (*)(int signalNumber);
void installSignalReporter(int signalNumber, SignalReporter reporter);

// The platform's numbers of the abort and segmentation fault signals.
int abortSignalNumber();
int segmentationFaultSignalNumber();

// A program started with its standard output on a pipe to this process.
struct ChildProcess {
    std::intptr_t process = -1; // the process id, or its handle on Windows
    std::intptr_t output = -1;  // this process's end of the pipe
};

// Starts `program` with `arguments` (without the program itself), standard
// output on a pipe, standard input and error shared with this process, and
// nothing else of this process's open files. On Windows the child ends with
// this process. False when it could not be started.
bool startChild(const std::string& program, const std::vector<std::string>& arguments, ChildProcess& child);

// Reads what the child has written: up to `size` bytes, waiting for at least
// one. 0 at the end of its output.
std::size_t readChildOutput(ChildProcess& child, char* buffer, std::size_t size);

// Waits for the child's end and releases it: its exit code, 128 plus the
// signal number when a signal ended it.
int waitChild(ChildProcess& child);

// Asks the child to stop before its work is done: SIGTERM on POSIX, which it
// may catch; on Windows it ends at once. waitChild still releases it.
void stopChild(ChildProcess& child);

// The requests to stop (SIGINT and SIGTERM; on Windows Ctrl+C, Ctrl+Break
// and the console's closing) no longer end the process: stopRequest() tells
// of them instead.
void catchStopRequests();
// 0 while nothing asked the process to stop; else the exit code that tells
// of the request: 130 for an interrupt (Ctrl+C), 143 for a termination
// (Ctrl+Break on Windows).
int stopRequest();

// True when the standard output (1) or error (2) is a terminal, which then
// also takes the cursor movements of ANSI escape sequences.
bool isTerminal(int stream);

// Appends `header` (only when the file is empty) and `text` to the file at
// `path`, made when missing, in one write each under an exclusive lock on
// the whole file: processes that append so, on this machine or sharing the
// file over a network, never cut into each other's lines. With both empty
// it only opens and locks the file, which then exists. False with the
// system's words in `error` when the file cannot be opened, locked or
// written.
bool appendLocked(const std::string& path, const std::string& header, const std::string& text,
                  std::string& error);

// The name of this machine; empty when the system gives none.
std::string hostName();

// A write to a closed pipe or socket fails with an error instead of ending
// the process (POSIX); nothing to do on Windows.
void ignoreBrokenPipe();

// The program's arguments as UTF-8, `argv[0]` first: on Windows from the
// wide command line, whatever the code page; elsewhere `argv` as it is.
std::vector<std::string> commandLineArguments(int argc, char** argv);

// Ends the process at once: no static destructors, no atexit handlers.
[[noreturn]] void exitImmediately(int code);

#ifdef _WIN32
// UTF-8 from the system's wide text; empty for null.
std::string narrow(const wchar_t* text);
#endif

} // namespace Platform
