#include "Platform.h"
#include "PlatformPaths.h"

#include <windows.h>

#include <shellapi.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <io.h>
#include <knownfolders.h>
#include <shlobj.h>
#include <system_error>
#include <vector>

namespace Platform {

std::string narrow(const wchar_t* text) {
    if (text == nullptr) {
        return {};
    }
    int size = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    if (size <= 1) {
        return {};
    }
    std::string result(static_cast<std::size_t>(size - 1), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text, -1, result.data(), size, nullptr, nullptr);
    return result;
}

namespace {

std::wstring widen(const std::string& text) {
    int size = MultiByteToWideChar(CP_UTF8, 0, text.c_str(), -1, nullptr, 0);
    if (size <= 1) {
        return {};
    }
    std::wstring result(static_cast<std::size_t>(size - 1), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.c_str(), -1, result.data(), size);
    return result;
}

std::atomic<FaultReporter> gFaultReporter{nullptr};

LONG WINAPI onUnhandledException(EXCEPTION_POINTERS* info) {
    unsigned long code = 0;
    if (info != nullptr && info->ExceptionRecord != nullptr) {
        code = info->ExceptionRecord->ExceptionCode;
    }
    void* frames[kMaxCrashFrames];
    USHORT count = RtlCaptureStackBackTrace(0, kMaxCrashFrames, frames, nullptr);
    FaultReporter reporter = gFaultReporter.load();
    if (reporter != nullptr) {
        reporter(code, frames, count);
    }
    return EXCEPTION_EXECUTE_HANDLER;
}

std::optional<std::string> knownFolder(REFKNOWNFOLDERID id) {
    PWSTR path = nullptr;
    std::optional<std::string> result;
    if (SUCCEEDED(SHGetKnownFolderPath(id, 0, nullptr, &path)) && path != nullptr) {
        result = narrow(path);
    }
    CoTaskMemFree(path);
    if (result && result->empty()) {
        result.reset();
    }
    return result;
}

} // namespace

std::optional<std::string> localTimeText(std::time_t seconds) {
    __time64_t value = seconds;
    const char* text = _ctime64(&value);
    if (text == nullptr) {
        return std::nullopt;
    }
    return std::string(text);
}

bool utcTime(std::time_t seconds, std::tm& out) {
    __time64_t value = seconds;
    return _gmtime64_s(&out, &value) == 0;
}

std::string tempDirectory() {
    wchar_t buffer[MAX_PATH + 1];
    DWORD length = GetTempPathW(MAX_PATH + 1, buffer);
    if (length == 0 || length > MAX_PATH) {
        return ".";
    }
    std::string result = narrow(buffer);
    while (result.size() > 3 && (result.back() == '\\' || result.back() == '/')) {
        result.pop_back();
    }
    return result;
}

std::optional<std::string> getEnv(const std::string& name) {
    std::wstring wideName = widen(name);
    DWORD size = GetEnvironmentVariableW(wideName.c_str(), nullptr, 0);
    if (size == 0) {
        if (GetLastError() == ERROR_ENVVAR_NOT_FOUND) {
            return std::nullopt;
        }
        return std::string();
    }
    std::vector<wchar_t> buffer(size);
    GetEnvironmentVariableW(wideName.c_str(), buffer.data(), size);
    return narrow(buffer.data());
}

bool setEnv(const std::string& name, const std::string& value) {
    std::wstring wideName = widen(name);
    std::wstring wideValue = widen(value);
    // The system's block serves child processes and Win32 readers, the CRT's
    // copy serves getenv; both must agree.
    bool ok = SetEnvironmentVariableW(wideName.c_str(), wideValue.c_str()) != 0;
    std::wstring assignment = wideName + L"=" + wideValue;
    ok = (_wputenv(assignment.c_str()) == 0) && ok;
    return ok;
}

void unsetEnv(const std::string& name) {
    std::wstring wideName = widen(name);
    SetEnvironmentVariableW(wideName.c_str(), nullptr);
    std::wstring assignment = wideName + L"=";
    _wputenv(assignment.c_str());
}

std::optional<std::string> localAppDataDirectory() {
    return knownFolder(FOLDERID_LocalAppData);
}

std::optional<std::string> desktopDirectory() {
    return knownFolder(FOLDERID_Desktop);
}

// The temporary folder is the user's own on Windows; what is left to refuse
// is a junction or a link in the folder's place.
bool ensurePrivateDirectory(const std::string& path) {
    const std::wstring wide = widen(path);
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(wide), ignored);
    const DWORD attributes = GetFileAttributesW(wide.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 &&
           (attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0;
}

std::string executablePath() {
    std::vector<wchar_t> buffer(MAX_PATH);
    for (;;) {
        DWORD length = GetModuleFileNameW(nullptr, buffer.data(), static_cast<DWORD>(buffer.size()));
        if (length == 0) {
            return {};
        }
        if (length < buffer.size()) {
            return narrow(buffer.data());
        }
        buffer.resize(buffer.size() * 2);
    }
}

std::string dataDirsWith(const std::string& dir) {
    // The toolkit's schemas and icon themes ship in the "share" folder beside
    // the executable; nothing else on Windows sets the variable.
    const std::string executable = executablePath();
    if (executable.empty()) {
        return dir;
    }
    const std::filesystem::path share = pathFromUtf8(executable).parent_path() / "share";
    if (!pathExists(share) || pathFromUtf8(dir) == share) {
        return dir;
    }
    return dir + ";" + pathToUtf8(share);
}

void installFaultReporter(FaultReporter reporter) {
    gFaultReporter = reporter;
    SetUnhandledExceptionFilter(&onUnhandledException);
}

void installSignalReporter(int signalNumber, SignalReporter reporter) {
    std::signal(signalNumber, reporter);
}

int abortSignalNumber() {
    return SIGABRT;
}

int segmentationFaultSignalNumber() {
    return SIGSEGV;
}

void exitImmediately(int code) {
    _exit(code);
}

namespace {

// One argument as the C runtime of the child splits its command line: in
// quotes, with the backslashes in front of a quote (or the closing one)
// doubled.
std::wstring quoted(const std::string& argument) {
    const std::wstring text = widen(argument);
    std::wstring result = L"\"";
    std::size_t backslashes = 0;
    for (wchar_t c : text) {
        if (c == L'\\') {
            ++backslashes;
            continue;
        }
        result.append(c == L'"' ? backslashes * 2 + 1 : backslashes, L'\\');
        backslashes = 0;
        result += c;
    }
    result.append(backslashes * 2, L'\\');
    return result + L"\"";
}

// The one job of every child: when this process ends, for whatever reason,
// its last handle closes and the children end with it.
HANDLE childJob() {
    static const HANDLE job = [] {
        HANDLE created = CreateJobObjectW(nullptr, nullptr);
        if (created != nullptr) {
            JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
            limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
            SetInformationJobObject(created, JobObjectExtendedLimitInformation, &limits, sizeof(limits));
        }
        return created;
    }();
    return job;
}

// The only handles a child inherits: the ones it gets as its standard
// handles, those of them that can be inherited at all.
class HandleList {
public:
    explicit HandleList(std::initializer_list<HANDLE> candidates) {
        for (HANDLE handle : candidates) {
            DWORD flags = 0;
            if (handle != nullptr && handle != INVALID_HANDLE_VALUE && GetHandleInformation(handle, &flags) &&
                (flags & HANDLE_FLAG_INHERIT) != 0 &&
                std::find(handles.begin(), handles.end(), handle) == handles.end()) {
                handles.push_back(handle);
            }
        }
        SIZE_T size = 0;
        InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
        storage.resize(size);
        auto* list = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(storage.data());
        if (!InitializeProcThreadAttributeList(list, 1, 0, &size)) {
            return;
        }
        attributeList = list;
        if (!UpdateProcThreadAttribute(list, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, handles.data(),
                                       handles.size() * sizeof(HANDLE), nullptr, nullptr)) {
            DeleteProcThreadAttributeList(attributeList);
            attributeList = nullptr;
        }
    }
    ~HandleList() {
        if (attributeList != nullptr) {
            DeleteProcThreadAttributeList(attributeList);
        }
    }
    HandleList(const HandleList&) = delete;
    HandleList& operator=(const HandleList&) = delete;

    // Null when the system refused the list.
    LPPROC_THREAD_ATTRIBUTE_LIST attributes() const { return attributeList; }

private:
    std::vector<HANDLE> handles;
    std::vector<char> storage;
    LPPROC_THREAD_ATTRIBUTE_LIST attributeList = nullptr;
};

} // namespace

bool startChild(const std::string& program, const std::vector<std::string>& arguments, ChildProcess& child) {
    SECURITY_ATTRIBUTES inherit{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    HANDLE readEnd = nullptr;
    HANDLE writeEnd = nullptr;
    if (!CreatePipe(&readEnd, &writeEnd, &inherit, 0)) {
        return false;
    }
    SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);
    std::wstring commandLine = quoted(program);
    for (const auto& argument : arguments) {
        commandLine += L" " + quoted(argument);
    }
    STARTUPINFOEXW startup{};
    startup.StartupInfo.cb = sizeof(startup);
    startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
    startup.StartupInfo.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    startup.StartupInfo.hStdOutput = writeEnd;
    startup.StartupInfo.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    HandleList handles({startup.StartupInfo.hStdInput, writeEnd, startup.StartupInfo.hStdError});
    startup.lpAttributeList = handles.attributes();
    PROCESS_INFORMATION info{};
    const std::wstring path = widen(program);
    // Suspended until it is in the job, so that nothing it starts escapes.
    const BOOL started = startup.lpAttributeList != nullptr &&
                         CreateProcessW(path.c_str(), commandLine.data(), nullptr, nullptr, TRUE,
                                        EXTENDED_STARTUPINFO_PRESENT | CREATE_SUSPENDED, nullptr, nullptr,
                                        &startup.StartupInfo, &info);
    CloseHandle(writeEnd);
    if (!started) {
        CloseHandle(readEnd);
        return false;
    }
    if (childJob() != nullptr) {
        AssignProcessToJobObject(childJob(), info.hProcess);
    }
    ResumeThread(info.hThread);
    CloseHandle(info.hThread);
    child.process = reinterpret_cast<std::intptr_t>(info.hProcess);
    child.output = reinterpret_cast<std::intptr_t>(readEnd);
    return true;
}

std::size_t readChildOutput(ChildProcess& child, char* buffer, std::size_t size) {
    DWORD got = 0;
    if (!ReadFile(reinterpret_cast<HANDLE>(child.output), buffer, static_cast<DWORD>(size), &got, nullptr)) {
        return 0;
    }
    return got;
}

int waitChild(ChildProcess& child) {
    if (child.output != -1) {
        CloseHandle(reinterpret_cast<HANDLE>(child.output));
        child.output = -1;
    }
    const HANDLE process = reinterpret_cast<HANDLE>(child.process);
    WaitForSingleObject(process, INFINITE);
    DWORD code = 0;
    const bool known = GetExitCodeProcess(process, &code) != 0;
    CloseHandle(process);
    child.process = -1;
    return known ? static_cast<int>(code) : -1;
}

void ignoreBrokenPipe() {}

namespace {

// The exit codes a POSIX shell gives an interrupt and a termination.
constexpr int kInterrupted = 130;
constexpr int kTerminated = 143;

std::atomic<int> stopCode{0};

BOOL WINAPI noteStopRequest(DWORD event) {
    stopCode = event == CTRL_C_EVENT ? kInterrupted : kTerminated;
    return TRUE;
}

} // namespace

void stopChild(ChildProcess& child) {
    if (child.process != -1) {
        TerminateProcess(reinterpret_cast<HANDLE>(child.process), kTerminated);
    }
}

void catchStopRequests() {
    SetConsoleCtrlHandler(noteStopRequest, TRUE);
}

int stopRequest() {
    return stopCode.load();
}

std::vector<std::string> commandLineArguments(int argc, char** argv) {
    int count = 0;
    LPWSTR* words = CommandLineToArgvW(GetCommandLineW(), &count);
    if (words == nullptr) {
        return std::vector<std::string>(argv, argv + argc);
    }
    std::vector<std::string> result;
    for (int i = 0; i < count; ++i) {
        result.push_back(narrow(words[i]));
    }
    LocalFree(words);
    return result;
}

namespace {

std::string lastErrorText() {
    return std::system_category().message(static_cast<int>(GetLastError()));
}

bool writeWhole(HANDLE file, const std::string& text) {
    for (std::size_t done = 0; done < text.size();) {
        DWORD written = 0;
        const auto chunk = static_cast<DWORD>(std::min<std::size_t>(text.size() - done, 1u << 30));
        if (!WriteFile(file, text.data() + done, chunk, &written, nullptr) || written == 0) {
            return false;
        }
        done += written;
    }
    return true;
}

// Under the lock, at the end: the header when nothing is there yet, then
// the text.
bool appendTo(HANDLE file, const std::string& header, const std::string& text) {
    LARGE_INTEGER end{};
    if (!SetFilePointerEx(file, LARGE_INTEGER{}, &end, FILE_END)) {
        return false;
    }
    return (end.QuadPart != 0 || writeWhole(file, header)) && writeWhole(file, text);
}

} // namespace

bool appendLocked(const std::string& path, const std::string& header, const std::string& text,
                  std::string& error) {
    // Write access, which a lock needs; the writes go to the end found under it.
    HANDLE file = CreateFileW(widen(path).c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                              OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        error = lastErrorText();
        return false;
    }
    OVERLAPPED whole{};
    bool ok = LockFileEx(file, LOCKFILE_EXCLUSIVE_LOCK, 0, MAXDWORD, MAXDWORD, &whole) != 0;
    if (ok) {
        ok = appendTo(file, header, text);
        if (!ok) {
            error = lastErrorText();
        }
        UnlockFileEx(file, 0, MAXDWORD, MAXDWORD, &whole);
    } else {
        error = lastErrorText();
    }
    CloseHandle(file);
    return ok;
}

std::string hostName() {
    DWORD size = 0;
    GetComputerNameExW(ComputerNameDnsHostname, nullptr, &size);
    std::wstring name(size, L'\0');
    if (size == 0 || !GetComputerNameExW(ComputerNameDnsHostname, name.data(), &size)) {
        return {};
    }
    name.resize(size);
    return narrow(name.c_str());
}

bool isTerminal(int stream) {
    if (_isatty(stream) == 0) {
        return false;
    }
    // The console draws the progress lines in place only with its escape
    // sequences turned on.
    const HANDLE console = GetStdHandle(stream == 2 ? STD_ERROR_HANDLE : STD_OUTPUT_HANDLE);
    DWORD mode = 0;
    if (GetConsoleMode(console, &mode)) {
        SetConsoleMode(console, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
    }
    return true;
}

} // namespace Platform
