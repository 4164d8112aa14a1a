#include "ProgramRun.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace programtest {

ProgramRun::ProgramRun(const std::string& executable, const Environment& overrides, const std::string& dir)
    : outputDir(dir) {
    // Everything the child needs is prepared before fork.
    std::map<std::string, std::string> merged;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const auto equals = text.find('=');
        merged[text.substr(0, equals)] = equals == std::string::npos ? "" : text.substr(equals + 1);
    }
    for (const auto& [name, value] : overrides) {
        value ? void(merged[name] = *value) : void(merged.erase(name));
    }
    std::vector<std::string> entries;
    std::vector<char*> envp;
    for (const auto& [name, value] : merged) {
        entries.push_back(name + "=" + value);
    }
    for (auto& entry : entries) {
        envp.push_back(entry.data());
    }
    envp.push_back(nullptr);
    char* argv[] = {const_cast<char*>(executable.c_str()), nullptr};
    const int out = ::open((dir + "/stdout.txt").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const int err = ::open((dir + "/stderr.txt").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);

    childPid = ::fork();
    if (childPid == 0) {
        ::dup2(out, STDOUT_FILENO);
        ::dup2(err, STDERR_FILENO);
        ::execve(executable.c_str(), argv, envp.data());
        ::_exit(127);
    }
    ::close(out);
    ::close(err);
}

ProgramRun::~ProgramRun() {
    if (childPid > 0 && !result) {
        ::kill(childPid, SIGKILL);
        ::waitpid(childPid, nullptr, 0);
    }
}

std::optional<ProgramExit> ProgramRun::wait(std::chrono::milliseconds timeout) {
    testsupport::waitUntil(
        [&] {
            int status = 0;
            if (!result && childPid > 0 && ::waitpid(childPid, &status, WNOHANG) == childPid) {
                result = WIFEXITED(status)
                             ? ProgramExit{true, WEXITSTATUS(status), 0}
                             : ProgramExit{false, -1, WIFSIGNALED(status) ? WTERMSIG(status) : 0};
            }
            return result.has_value() || childPid <= 0;
        },
        timeout);
    return result;
}

} // namespace programtest
