#include "Platform.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <execinfo.h>
#include <fcntl.h>
#include <filesystem>
#include <pthread.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <system_error>
#include <time.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace Platform {
namespace {

constexpr int kSignalSlots = 65;
constexpr std::array<int, 4> kFaultSignals = {SIGSEGV, SIGBUS, SIGILL, SIGFPE};

// Read once, before main can change it.
const std::string gInheritedDataDirs = [] {
    const char* value = std::getenv("XDG_DATA_DIRS");
    return (value != nullptr && *value != '\0') ? std::string(value)
                                                : std::string("/usr/local/share:/usr/share");
}();

std::atomic<FaultReporter> gFaultReporter{nullptr};
std::array<std::atomic<SignalReporter>, kSignalSlots> gSignalReporters{};

bool isFaultSignal(int signalNumber) {
    for (int fault : kFaultSignals) {
        if (fault == signalNumber) {
            return true;
        }
    }
    return false;
}

// What a handler hands to the reporting thread. Small enough for one atomic
// pipe write.
struct CrashNote {
    int signalNumber;
    int isFault;
    int frameCount;
    void* frames[kMaxCrashFrames];
};
static_assert(sizeof(CrashNote) < PIPE_BUF, "a crash note must fit one atomic pipe write");

std::atomic<int> gCrashPipeWrite{-1};
CrashNote gHandlerNote;
std::atomic_flag gHandlerBusy = ATOMIC_FLAG_INIT;

void reportAndExit(const CrashNote& note) {
    if (note.isFault != 0) {
        if (FaultReporter reporter = gFaultReporter.load()) {
            reporter(static_cast<unsigned long>(note.signalNumber), note.frames, note.frameCount);
        }
    }
    SignalReporter reporter = nullptr;
    if (note.signalNumber > 0 && note.signalNumber < kSignalSlots) {
        reporter = gSignalReporters[static_cast<std::size_t>(note.signalNumber)].load();
    }
    if (reporter != nullptr) {
        reporter(note.signalNumber);
    }
    ::_exit(128 + note.signalNumber);
}

// The log needs the allocator and locks, which a signal may have caught
// half-way on the interrupted thread; so the report is written by a thread
// of its own that no signal interrupts.
void* crashReportingThread(void* arg) {
    const int readEnd = static_cast<int>(reinterpret_cast<std::intptr_t>(arg));
    CrashNote note{};
    for (;;) {
        ssize_t got = ::read(readEnd, &note, sizeof(note));
        if (got == static_cast<ssize_t>(sizeof(note))) {
            reportAndExit(note);
        }
        if (got == 0 || (got < 0 && errno != EINTR)) {
            return nullptr;
        }
    }
}

void startCrashReportingThread() {
    static std::atomic_flag started = ATOMIC_FLAG_INIT;
    if (started.test_and_set()) {
        return;
    }
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        return;
    }
    sigset_t all;
    sigset_t previous;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &previous); // inherited by the new thread
    pthread_t thread;
    const bool ok = ::pthread_create(&thread, nullptr, &crashReportingThread,
                                     reinterpret_cast<void*>(static_cast<std::intptr_t>(fds[0]))) == 0;
    ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    if (!ok) {
        ::close(fds[0]);
        ::close(fds[1]);
        return;
    }
    ::pthread_detach(thread);
    gCrashPipeWrite = fds[1];
}

void handleSignal(int signalNumber, bool isFault) {
    // One note at a time; a second signal while one is reported just waits.
    if (!gHandlerBusy.test_and_set()) {
        gHandlerNote.signalNumber = signalNumber;
        gHandlerNote.isFault = isFault ? 1 : 0;
        gHandlerNote.frameCount = 0;
        if (isFault) {
            int count = ::backtrace(gHandlerNote.frames, kMaxCrashFrames);
            gHandlerNote.frameCount = count < 0 ? 0 : count;
        }
        const int pipeWrite = gCrashPipeWrite.load();
        if (pipeWrite < 0 || ::write(pipeWrite, &gHandlerNote, sizeof(gHandlerNote)) !=
                                 static_cast<ssize_t>(sizeof(gHandlerNote))) {
            reportAndExit(gHandlerNote); // no reporting thread: do it here, as well as it goes
        }
    }
    // The reporting thread ends the process; should it hang on a lock this
    // thread holds, end it here after a while.
    struct timespec pauseTime {
        2, 0
    };
    while (::nanosleep(&pauseTime, &pauseTime) != 0 && errno == EINTR) {
    }
    ::_exit(128 + signalNumber);
}

void onFault(int signalNumber, siginfo_t*, void*) {
    handleSignal(signalNumber, true);
}

void onSignal(int signalNumber, siginfo_t* info, void*) {
    // A positive code means the kernel raised it for this thread's own fault;
    // kill() and raise() give zero or a negative code and carry no fault.
    handleSignal(signalNumber, isFaultSignal(signalNumber) && info != nullptr && info->si_code > 0);
}

// A stack overflow leaves no stack to run a handler on.
void ensureAlternateSignalStack() {
    stack_t current{};
    if (::sigaltstack(nullptr, &current) == 0 && (current.ss_flags & SS_DISABLE) == 0) {
        return;
    }
    static char stackMemory[64 * 1024];
    stack_t stack{};
    stack.ss_sp = stackMemory;
    stack.ss_size = sizeof(stackMemory);
    ::sigaltstack(&stack, nullptr);
}

void installAction(int signalNumber, void (*action)(int, siginfo_t*, void*)) {
    struct sigaction sa {};
    sa.sa_sigaction = action;
    sa.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&sa.sa_mask);
    ::sigaction(signalNumber, &sa, nullptr);
}

} // namespace

std::optional<std::string> localTimeText(std::time_t seconds) {
    char buffer[64];
    if (ctime_r(&seconds, buffer) == nullptr) {
        return std::nullopt;
    }
    return std::string(buffer);
}

bool utcTime(std::time_t seconds, std::tm& out) {
    return gmtime_r(&seconds, &out) != nullptr;
}

std::string tempDirectory() {
    const char* dir = std::getenv("TMPDIR");
    std::string result = (dir != nullptr && *dir != '\0') ? dir : "/tmp";
    while (result.size() > 1 && result.back() == '/') {
        result.pop_back();
    }
    return result;
}

std::optional<std::string> getEnv(const std::string& name) {
    const char* value = std::getenv(name.c_str());
    if (value == nullptr) {
        return std::nullopt;
    }
    return std::string(value);
}

bool setEnv(const std::string& name, const std::string& value) {
    return ::setenv(name.c_str(), value.c_str(), 1) == 0;
}

void unsetEnv(const std::string& name) {
    ::unsetenv(name.c_str());
}

std::optional<std::string> localAppDataDirectory() {
    // Logs are state, so they go where XDG puts state.
    auto state = getEnv("XDG_STATE_HOME");
    if (state && !state->empty() && state->front() == '/') {
        return *state;
    }
    auto home = getEnv("HOME");
    if (!home || home->empty()) {
        return std::nullopt;
    }
    return *home + "/.local/state";
}

std::optional<std::string> desktopDirectory() {
    auto home = getEnv("HOME");
    if (!home || home->empty()) {
        return std::nullopt;
    }
    return *home + "/Desktop";
}

bool ensurePrivateDirectory(const std::string& path) {
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
    mkdir(path.c_str(), 0700);
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) || status.st_uid != geteuid()) {
        return false;
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0 &&
        chmod(path.c_str(), status.st_mode & ~static_cast<mode_t>(S_IWGRP | S_IWOTH) & 07777) != 0) {
        return false;
    }
    return true;
}

std::string executablePath() {
    char buffer[PATH_MAX];
    ssize_t length = ::readlink("/proc/self/exe", buffer, sizeof(buffer) - 1);
    if (length <= 0) {
        return {};
    }
    return std::string(buffer, static_cast<std::size_t>(length));
}

std::string dataDirsWith(const std::string& dir) {
    return dir + ":" + gInheritedDataDirs;
}

void installFaultReporter(FaultReporter reporter) {
    // The first backtrace() loads the unwinder; do that now, not in a handler.
    void* warmUp[1];
    ::backtrace(warmUp, 1);
    ensureAlternateSignalStack();
    gFaultReporter = reporter;
    startCrashReportingThread();
    for (int signalNumber : kFaultSignals) {
        installAction(signalNumber, &onFault);
    }
}

void installSignalReporter(int signalNumber, SignalReporter reporter) {
    if (signalNumber <= 0 || signalNumber >= kSignalSlots) {
        return;
    }
    gSignalReporters[static_cast<std::size_t>(signalNumber)] = reporter;
    startCrashReportingThread();
    installAction(signalNumber, &onSignal);
}

int abortSignalNumber() {
    return SIGABRT;
}

int segmentationFaultSignalNumber() {
    return SIGSEGV;
}

void exitImmediately(int code) {
    ::_exit(code);
}

bool startChild(const std::string& program, const std::vector<std::string>& arguments, ChildProcess& child) {
    int ends[2] = {-1, -1};
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        return false;
    }
    std::vector<std::string> words{program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    // Whatever this process left open without close-on-exec stays here.
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
    pid_t pid = -1;
    const int result = ::posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(ends[1]);
    if (result != 0) {
        ::close(ends[0]);
        return false;
    }
    child.process = pid;
    child.output = ends[0];
    return true;
}

std::size_t readChildOutput(ChildProcess& child, char* buffer, std::size_t size) {
    for (;;) {
        const ssize_t got = ::read(static_cast<int>(child.output), buffer, size);
        if (got >= 0) {
            return static_cast<std::size_t>(got);
        }
        if (errno != EINTR) {
            return 0;
        }
    }
}

int waitChild(ChildProcess& child) {
    if (child.output >= 0) {
        ::close(static_cast<int>(child.output));
        child.output = -1;
    }
    int status = 0;
    pid_t ended = -1;
    do {
        ended = ::waitpid(static_cast<pid_t>(child.process), &status, 0);
    } while (ended < 0 && errno == EINTR);
    child.process = -1;
    if (ended < 0) {
        return -1;
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

namespace {

bool writeWhole(int fd, const std::string& text) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

// Under the lock: the header when nothing is there yet, then the text.
bool appendTo(int fd, const std::string& header, const std::string& text) {
    struct stat status {};
    if (::fstat(fd, &status) != 0) {
        return false;
    }
    return (status.st_size != 0 || writeWhole(fd, header)) && writeWhole(fd, text);
}

} // namespace

bool appendLocked(const std::string& path, const std::string& header, const std::string& text,
                  std::string& error) {
    // Non-blocking, so that a FIFO's open never waits for a reader.
    const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0644);
    if (fd < 0) {
        error = std::system_category().message(errno);
        return false;
    }
    // A record lock, which network file systems honour too; it ends with the close.
    struct flock whole {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    int locked = -1;
    do {
        locked = ::fcntl(fd, F_SETLKW, &whole);
    } while (locked != 0 && errno == EINTR);
    const bool ok = locked == 0 && appendTo(fd, header, text);
    if (!ok) {
        error = std::system_category().message(errno);
    }
    ::close(fd);
    return ok;
}

std::string hostName() {
    std::vector<char> name(256);
    for (;;) {
        if (::gethostname(name.data(), name.size()) != 0) {
            if (errno != ENAMETOOLONG || name.size() > (1u << 16)) {
                return {};
            }
        } else if (std::find(name.begin(), name.end(), '\0') != name.end()) {
            return name.data();
        }
        name.resize(name.size() * 2);
    }
}

bool isTerminal(int stream) {
    return ::isatty(stream) == 1;
}

void ignoreBrokenPipe() {
    std::signal(SIGPIPE, SIG_IGN);
}

namespace {

// Lock-free, so that the handler may set it.
std::atomic<int> stopSignal{0};
static_assert(std::atomic<int>::is_always_lock_free);

extern "C" void noteStopRequest(int signalNumber) {
    stopSignal = signalNumber;
}

} // namespace

void stopChild(ChildProcess& child) {
    if (child.process > 0) {
        ::kill(static_cast<pid_t>(child.process), SIGTERM);
    }
}

void catchStopRequests() {
    struct sigaction action {};
    action.sa_handler = noteStopRequest;
    sigemptyset(&action.sa_mask);
    for (const int signalNumber : {SIGINT, SIGTERM}) {
        ::sigaction(signalNumber, &action, nullptr);
    }
}

int stopRequest() {
    const int signalNumber = stopSignal.load();
    return signalNumber == 0 ? 0 : 128 + signalNumber;
}

std::vector<std::string> commandLineArguments(int argc, char** argv) {
    return std::vector<std::string>(argv, argv + argc);
}

} // namespace Platform
